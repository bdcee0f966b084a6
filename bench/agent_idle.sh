#!/usr/bin/env bash
# What the agent takes, with all features on, while next to nothing happens: memory, processor time, wake-ups; beside
# it the programs that one would run instead.
# Usage: agent_idle.sh ROOT [SECONDS]   ROOT is an installed agent, SECONDS the window (20).
set -eu
root=${1:?usage: agent_idle.sh ROOT [SECONDS]}
window=${2:-20}
directory=$(mktemp -d)
# shellcheck source-path=SCRIPTDIR
. "$(dirname "$0")/agent_lib.sh"
trap 'kill $agent $collector "${tools[@]}" 2>/dev/null || :; rm -rf "$directory"' EXIT

need_install
make_files
for i in {0..999}; do
    echo "$i" >"$tree/d$((i % 100))/f$i"
done
start_agent
start_tools

records() { wc -l <"$root/log/agent.log"; }
records=$(records)
sleep 1 # for its own events to be over
toolsBefore=$(threads "${tools[@]}") before=$(threads "$agent")
sleep "$window"
after=$(threads "$agent") toolsAfter=$(threads "${tools[@]}") recordsAfter=$(records)
own=$(spent "$before" "$after") others=$(spent "$toolsBefore" "$toolsAfter")

sums() { awk -v s="$window" '{ns += $2; waits += $3} END {print ns / 1e6 / s, waits / s}'; }
printf '%-26s %10s %10s %10s\n' "idle, $window s" agent 'the three' ratio
paste -d ' ' <(memory "$agent" | tr ' ' '\n'; sums <<<"$own" | tr ' ' '\n') \
    <(memory "${tools[@]}" | tr ' ' '\n'; sums <<<"$others" | tr ' ' '\n') |
    awk 'BEGIN {split("resident KiB;anonymous KiB;proportional KiB;processor ms a second;wake-ups a second", name, ";")}
        {printf "%-26s %10.2f %10.2f %10.2f\n", name[NR], $1, $2, $1 / ($2 > 0 ? $2 : 1)}'
echo "aims: resident below 12288 KiB, processor below 0.4 ms a second"
awk -v s="$window" '{printf "wake-ups a second %6.2f  %s, %.3f ms\n", $3 / s, $1, $2 / 1e6 / s}' <<<"$own"
echo "log records in the window: $((recordsAfter - records)) (ten or so are this script's)"
stop_tools
stop_agent
