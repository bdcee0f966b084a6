# What the scripts that measure the agent share; sourced with $root, an installed agent, and $directory, where the
# watched files are.
# shellcheck shell=bash disable=SC2154
tree=$directory/tree
guarded=$directory/guarded
agent='' collector='' tools=()
outputs=$root/outputs # not in $directory: fatrace would see the writing

need_install() {
    local program
    for program in sentrel-agent sentrel-collector; do
        [ -x "$root/bin/$program" ] || { echo "$root/bin/$program is missing: cmake --install it first" >&2; exit 2; }
    done
    [ "$(id -u)" -eq 0 ] || { echo "skipped: process events need root" >&2; exit 77; }
}

make_files() {
    mkdir -p "$tree" "$guarded" "$outputs"
    mkdir "$tree"/d{0..99}
    touch "$guarded"/g{0..9}
}

# The features on, everything else as shipped.
start_agent() {
    sed -i 's|^#\(SOCKET_TYPE=1\)|\1|; s|^#\(SERVER_SOCKET_PATH=\)|\1|' "$root/conf/agent.conf"
    printf 'enable=on\nwatch=%s;recursive\n' "$tree" >"$root/conf/policies/file_integrity.policy"
    printf 'enable=on\nguard=%s;events=open\n' "$guarded" >"$root/conf/policies/file_access.policy"
    "$root/bin/sentrel-collector" --listen "unix:$root/conf/collector.sock" >"$outputs/collected" 2>/dev/null &
    collector=$!
    "$root/bin/sentrel-agent" --root "$root" >"$outputs/agent" 2>&1 &
    agent=$!
    sleep 5 # its search of the process table at the start is over
    if [ "$(status_json | grep -oE '"channel":"up"|"status":"started"' | wc -l)" -ne 4 ]; then
        echo "the agent does not run as it should: $(status_json)" >&2
        exit 1
    fi
}

stop_agent() {
    kill -INT "$agent"
    wait "$agent" || : # it ends by SIGTERM
    kill "$collector"
    wait "$collector" || :
    agent='' collector=''
}

start_tools() {
    forkstat -e fork,exec,exit >"$outputs/forkstat" &
    tools=($!)
    inotifywait -m -r -q -e create,delete,move,close_write,attrib "$tree" >"$outputs/inotifywait" &
    tools+=($!)
    (cd "$directory" && exec fatrace -c -f O) >"$outputs/fatrace" & # this file system's alone
    tools+=($!)
    sleep 2
}

stop_tools() {
    kill "${tools[@]}" # SIGINT is ignored by what a script has in the background
    wait "${tools[@]}" || :
    tools=()
}

status_json() { "$root/bin/sentrel-agent" --root "$root" --status --json || :; }

# threads PID...: a line for each thread: its name, nanoseconds of processor time, how often it gave up the processor.
# Without a program: each would be an event.
threads() {
    local pid task name ns key value waits=0
    for pid; do
        for task in "/proc/$pid/task"/*; do
            read -r name <"$task/comm"
            read -r ns _ <"$task/schedstat"
            while read -r key value; do
                if [ "$key" = voluntary_ctxt_switches: ]; then waits=$value; fi
            done <"$task/status"
            if [[ $name == T-* ]]; then name=T-Thread; fi # of the pool: called as its last job
            echo "${name// /-} $ns $waits"
        done
    done
}

# memory PID...: KiB: resident, anonymous of them, proportional.
memory() {
    local pid
    for pid; do
        awk '/^Rss:/ {rss = $2} /^Pss:/ {pss = $2} /^Anonymous:/ {anonymous = $2}
            END {print rss, anonymous, pss}' "/proc/$pid/smaps_rollup"
    done | awk '{for (i = 1; i <= 3; ++i) sum[i] += $i} END {print sum[1], sum[2], sum[3]}'
}

# spent BEFORE AFTER: what threads of two looks have done between them, one line a name.
spent() {
    awk 'FNR == NR {ns[$1] -= $2; waits[$1] -= $3; next} {ns[$1] += $2; waits[$1] += $3}
        END {for (name in ns) printf "%s %.0f %d\n", name, ns[name], waits[name]}' <(echo "$1") <(echo "$2") | sort
}
