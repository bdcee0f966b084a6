#!/usr/bin/env bash
# The agent with all features on, and a collector, under 1,000 process events and 1,000 file changes a second: time,
# memory, and whether all was told. Then bare readers, and the programs that one would run instead, under that load.
# Usage: agent_load.sh ROOT MAKER [--seconds N]   ROOT is an installed agent, MAKER the program agent_load; N is 60.
set -eu
usage='usage: agent_load.sh ROOT MAKER [--seconds N]'
root=${1:?$usage} maker=${2:?$usage} seconds=60
[ $# -eq 2 ] || { [ $# -eq 4 ] && [ "$3" = --seconds ] && seconds=$4; } || { echo "$usage" >&2; exit 2; }
short=$((seconds < 20 ? seconds : 20)) # for the others
directory=$(mktemp -d)
# shellcheck source-path=SCRIPTDIR
. "$(dirname "$0")/agent_lib.sh"
bare='' load=''
declare -A made
trap 'kill $agent $collector "${tools[@]}" $bare $load 2>/dev/null || :; rm -rf "$directory"' EXIT

# measure SECONDS MEANWHILE PID...: the load, a look by MEANWHILE after each tenth of it, and a rest until the
# processes have caught up. Sets spent, the time of their threads, made, what was made, and events, all of it.
measure() {
    local length=$1 meanwhile=$2 before last=0 now i name count
    shift 2
    before=$(threads "$@")
    "$maker" make "$directory" "$length" >"$outputs/made" &
    load=$!
    for i in {1..10}; do
        sleep "$(awk -v s="$length" 'BEGIN {print s / 10}')"
        $meanwhile
    done
    wait "$load"
    for ((i = 0; i < 60; ++i)); do
        now=$(threads "$@" | sum)
        ((now - last > 10000000)) || break # 10 ms a second: it rests
        last=$now
        sleep 1
    done
    spent=$(spent "$before" "$(threads "$@")")
    while IFS='=' read -r name count; do
        made[$name]=$count
    done < <(tr ' ' '\n' <"$outputs/made")
    events=$((3 * made[spawned] + made[created] + made[written] + made[renamed] + made[deleted] + made[opened]))
}

sum() { awk '{ns += $2} END {printf "%.0f", ns}'; }
nothing() { :; }
look() { samples+="$(memory "$agent") $(memory "$collector")"$'\n'; }
# Of the agent's children that have ended: gzip, for the most part.
children_ns() { sed 's/.*) //' "/proc/$1/stat" | awk -v hz="$(getconf CLK_TCK)" '{printf "%.0f", ($14 + $15) * 1e9 / hz}'; }
# us NS COUNT, ratio OURS THEIRS
us() { awk -v ns="$1" -v n="$2" 'BEGIN {printf "%.2f", ns / 1e3 / n}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.2f", a / b}'; }
lines() { grep -ac "$1" "$2" || :; }

# What the collector was told of the load, in the order of the table below; writes down which files there are then.
count_reports() {
    awk -v parent="ppid=$1" -v tree="path=$tree/" -v guarded="path=$guarded/" -v told="$outputs/told" '
        $7 == parent {++n[$5]; unread += /cmdLine=[([]/}
        $5 == "access" && index($0, guarded) {++n[$5]}
        $5 == "dropped" {dropped += $6}
        $5 == "file" && index($NF, tree) {
            ++n[$6]
            path = substr($NF, 6)
            if ($6 == "action=create") there[path] = 1
            if ($6 == "action=delete") delete there[path]
            if ($6 == "action=rename") {delete there[substr($(NF - 1), 9)]; there[path] = 1}
        }
        END {
            for (path in there) print path >told
            print n["executed"] + 0, n["exited"] + 0, unread + 0, n["action=create"] + 0, n["action=write"] + 0,
                n["action=rename"] + 0, n["action=delete"] + 0, n["access"] + 0, n["action=digest"] + 0, dropped + 0
        }' "$outputs/collected"
}

# Compares the last recorded digest of each file with its own.
wrong_digests() {
    local file
    # shellcheck disable=SC2012
    ls -tr "$root"/log/agent.log* | while read -r file; do zcat -f "$file"; done | grep -a 'File digest' >"$outputs/digests"
    find "$tree" -type f -exec sha256sum {} + | awk '
        FNR == NR {
            match($0, /sha256=[0-9a-f]*/)
            digest[substr($NF, 6, length($NF) - 6)] = substr($0, RSTART + 7, 64)
            next
        }
        {++files; wrong += digest[$2] != $1}
        END {printf "%10d of %d", wrong, files}' "$outputs/digests" -
}

need_install
make_files
echo repeats=0 >>"$root/conf/policies/process_watch.policy" # each start and each end is told

start_agent
samples="$(memory "$agent") $(memory "$collector")"$'\n'
children=$(children_ns "$agent") collectorBefore=$(threads "$collector")
measure "$seconds" look "$agent"
children=$(($(children_ns "$agent") - children)) status=$(status_json)
collectorUs=$(us "$(spent "$collectorBefore" "$(threads "$collector")" | sum)" "$events")
agentUs=$(us $(($(sum <<<"$spent") + children)) "$events") agentKiB=$(memory "$agent" | cut -d ' ' -f 1)
collectorKiB=$(memory "$collector" | cut -d ' ' -f 1)
stop_agent

echo "$seconds s: $(cat "$outputs/made")"
read -r -a told < <(count_reports "$load")
of=("${made[spawned]}" "${made[spawned]}" $((2 * made[spawned])) "${made[created]}" "${made[written]}"
    "${made[renamed]}" "${made[deleted]}" "${made[opened]}" $((made[created] + made[written] + made[renamed])) 0)
what=('programs executed' 'processes ended' 'their command line unread' 'files created' 'files written'
    'files renamed' 'files deleted' 'guarded files opened' 'digests' 'reports dropped')
echo $'\ntold to the collector'
for i in "${!what[@]}"; do
    printf '%-28s %10d of %d\n' "${what[i]}" "${told[i]}" "${of[i]}"
done
printf '%-28s %10d of %d\n' 'files not there as told' \
    "$(comm -3 <(sort "$outputs/told") <(find "$tree" -type f | sort) | wc -l)" "$(find "$tree" -type f | wc -l)"
printf '%-28s %10s\n' 'last digests wrong' "$(wrong_digests)"
grep -oE '"(problems|queue|events|inotify)":[[{][^]}]*[]}]' <<<"$status"

echo $'\nKiB of agent and collector, resident, anonymous and proportional, at rest and after each tenth of the time'
awk 'NF {printf "%8d %8d %8d %10d %8d %8d\n", $1, $2, $3, $4, $5, $6}' <<<"$samples"

printf '\n%-28s %10s %10s\n' 'thread of the agent' 'us/event' 'ms/s'
while read -r name ns _; do
    printf '%-28s %10s %10s\n' "$name" "$(us "$ns" "$events")" "$(us "$ns" $((1000 * seconds)))"
done <<<"$spent"
printf '%-28s %10s %10s\n' 'its children: gzip' "$(us "$children" "$events")" "$(us "$children" $((1000 * seconds)))"

# The others, one after the other.
find "$tree" -type f -delete
"$maker" read "$directory" >"$outputs/bare" &
bare=$!
sleep 1
measure "$short" nothing "$bare"
bareUs=$(us "$(sum <<<"$spent")" "$events") bareKiB=$(memory "$bare" | cut -d ' ' -f 1) bareSpent=$spent
kill "$bare"
wait "$bare" || :
bare=''
printf '\nbare readers, %s s, made: %s\n' "$short" "$(cat "$outputs/made")"
cat "$outputs/bare"

find "$tree" -type f -delete
start_tools
measure "$short" nothing "${tools[@]}"
toolsUs=$(us "$(sum <<<"$spent")" "$events") toolsKiB=$(memory "${tools[@]}" | cut -d ' ' -f 1) toolsSpent=$spent
stop_tools
printf '\nforkstat, inotifywait and fatrace, %s s, made: %s\n' "$short" "$(cat "$outputs/made")"
echo "processes=$(lines ' \(exec\|exit\) \| fork .* parent ' "$outputs/forkstat")" \
    "changes=$(grep -avc MOVED_FROM "$outputs/inotifywait")" "opens=$(lines "$guarded/" "$outputs/fatrace")"

printf '\n%-28s %10s %10s %12s %10s\n' reader 'us/event' 'to bare' 'to programs' KiB
row() { printf '%-28s %10s %10s %12s %10s\n' "$1" "$2" "$(ratio "$2" "$bareUs")" "$(ratio "$2" "$toolsUs")" "$3"; }
row 'agent' "$agentUs" "$agentKiB"
row 'collector' "$collectorUs" "$collectorKiB"
row 'bare' "$bareUs" "$bareKiB"
row 'the three programs' "$toolsUs" "$toolsKiB"
while read -r name ns _; do
    row "  $name" "$(us "$ns" "$events")" ''
done <<<"$bareSpent"$'\n'"$toolsSpent"
