#!/usr/bin/env bash
# Builds the agent and a server for it to report to, installs them below build/quickstart, runs them there
# and shows what they do on real processes and signals. Exits 0 only if everything announced was seen.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

cd "$root"
prefix=build/quickstart
agent=$prefix/bin/sentrel-agent
collector=$prefix/bin/sentrel-collector
collectorLog=$prefix/log/collector.log
collectorSocket=$prefix/conf/collector.sock
orders=$prefix/orders
watched=$prefix/watched
agentLog=$prefix/log/agent.log
report=$prefix/log/coredump.log
pidFile=$prefix/conf/sentrel-agent.pid
watchLimit=60
job=
server=
hidden=
children=
probes=

# Gives the processes that run this install's agent, whoever started them.
agent_pids() {
    local directory program
    while read -r directory program; do
        if [[ $program == "$root/$agent" || $program == "$root/$agent (deleted)" ]]; then
            echo "${directory#/proc/}"
        fi
    done < <("${asRoot[@]}" find /proc/[0-9]*/exe -maxdepth 0 -printf '%h %l\n' 2>/dev/null)
}

no_agent() { [[ -z $(agent_pids) ]]; }

# Nothing is left behind, however this ends: no agent ran from here before, so all there are were started here.
cleanup() {
    local pid limit=$((SECONDS + 3))
    [[ -z $server ]] || "${asRoot[@]}" kill "$server" 2>/dev/null || true
    [[ -n $job ]] || return 0
    for pid in $(agent_pids); do
        "${asRoot[@]}" kill -INT "$pid"
    done
    until no_agent || ((SECONDS > limit)); do
        sleep 0.1
    done
    for pid in $(agent_pids); do
        "${asRoot[@]}" kill -KILL "$pid"
    done
}

# expect WHAT COMMAND...: repeats a check until it succeeds; the script ends where that takes too long.
expect() {
    local what=$1
    shift
    until "$@"; do
        if ((SECONDS >= deadline)); then
            "${asRoot[@]}" grep -E ' (WARN|ERROR|FATAL) ' "$agentLog" >&2 || true
            fail "MISSING: $what"
        fi
        sleep 0.1
    done
    echo "    seen: $what"
}

# holds FILE PATTERN...: each pattern has a line.
holds() {
    local file=$1 pattern
    shift
    for pattern; do
        "${asRoot[@]}" grep -qE "$pattern" "$file" 2>/dev/null || return 1
    done
}

has_pid_file() {
    pid=$("${asRoot[@]}" cat "$pidFile" 2>/dev/null) && [[ -n $pid && $pid == "$(agent_pids)" ]]
}

# Runs a short-lived process; true once the end of any of them is in the log: the agent listens, and has
# caught up with what happened while it searched for its white list.
hears_processes() {
    /bin/true &
    probes+=${probes:+|}$!
    wait $!
    holds "$agentLog" "Process exited\.\[pid=($probes) "
}

# Prints the new records about a process and its children; true once its end is among them.
print_events() {
    local child=$1 records ended=false
    holds "$agentLog" "Process exited\.\[pid=$child " && ended=true
    mapfile -t records < <("${asRoot[@]}" grep -E "\] Process [a-z]+\.\[pid=($child|[0-9]+ ppid=$child) " "$agentLog")
    for ((; printed < ${#records[@]}; ++printed)); do
        echo "    ${records[printed]}"
    done
    $ended
}

# demonstrate COMMAND...: runs it and shows what the agent logs meanwhile.
demonstrate() {
    local child status=0 printed=0
    show "$@"
    "$@" &
    child=$!
    lastChild=$child
    children+=${children:+|}$child
    expect "its end in the log (process $child)" print_events "$child"
    wait "$child" || status=$?
    expect "its start, and its exit code $status" holds "$agentLog" \
        "Process executed\.\[pid=$child ppid=$$ " "Process exited\.\[pid=$child ppid=$$ .* exitCode=$status "
}

# Its output is one line a message, its input orders for the agent; the agent finds it again by itself.
start_collector() {
    show "${asRoot[@]}" "$collector" --listen "unix:$collectorSocket" --control -
    : >"$collectorLog"
    "${asRoot[@]}" "$collector" --listen "unix:$collectorSocket" --control - <"$orders" >"$collectorLog" 2>&1 &
    server=$!
    exec {ordersTo}>"$orders"
    expect 'it listens' holds "$collectorLog" '^listening on unix:'
}

stop_collector() {
    run "${asRoot[@]}" kill "$server"
    wait "$server" || true
    server=
    exec {ordersTo}>&-
}

# collected PATTERN: a line of the collector's has it, and not only behind an item: the command lines of this script's
# own programs hold what it looks for.
collected() { holds "$collectorLog" "^[^=]*$1"; }

# Prints the lines of that kind.
print_collected() { grep -E "^[^=]*$1" "$collectorLog" | sed 's/^/    /'; }

show_reports() {
    step 'What the collector got from the agent meanwhile, about the same commands'
    expect 'the end of the last of them' collected " exited pid=$lastChild "
    print_collected " pid=($children) "

    step 'The collector goes away, a command runs, the collector comes back: nothing is lost'
    stop_collector
    demonstrate sh -c 'sleep 0.2; exit 7'
    start_collector
    expect 'the exit of that command, which the agent had kept' \
        collected " exited pid=$lastChild .*exitCode=7"
    print_collected " pid=$lastChild "
}

# order ANSWER COMMAND...: gives the collector a command for the agent and waits for the answer.
order() {
    local answer=$1
    shift
    echo "    > $*"
    echo "$*" >&"$ordersTo"
    expect 'the answer' collected "$answer"
    print_collected "$answer" | tail -n 1
}

show_orders() {
    step 'The server switches features on in the running agent'
    printf 'watch=%s;recursive\n' "$root/$watched/tree" >"$watched/files"
    printf 'guard=%s;events=open\n' "$root/$watched/guarded" >"$watched/guards"
    order ' policy file_integrity on: done; ' policy file_integrity on "$watched/files"
    order ' policy file_access on: done; ' policy file_access on "$watched/guards"
    echo 'watch=relative' >"$watched/wrong"
    order ' policy file_integrity on: refused: ' policy file_integrity on "$watched/wrong"
    echo '    (so the former one goes on to hold)'
}

# Prints how the agent is; true if it says that it is well.
show_status() {
    step 'How the agent is'
    run "${asRoot[@]}" "$agent" --root "$prefix" --status
}

# touch_file PATTERN COMMAND...: runs a command on a file and shows what the collector gets about it.
touch_file() {
    local pattern=$1
    shift
    show "$@"
    "$@" >/dev/null
    expect "it at the collector" collected "$pattern"
}

show_files() {
    local tree=$watched/tree
    step 'A watched tree: every change, with what has changed and the SHA-256'
    touch_file ' file action=create .*path=.*/tree/directory$' mkdir "$tree/directory"
    touch_file ' file action=create .*path=.*/tree/directory/file$' touch "$tree/directory/file"
    touch_file ' file action=write change="osize=0 size=6 " path=.*/file$' sh -c "echo hello >$tree/directory/file"
    expect 'its digest' \
        collected ' file action=digest sha256=5891b5b522d5df086d0ff0b110fbd9d21bb4fc7163af34d08286a2e846f6be03 .*/directory/file$'
    touch_file ' file action=attrib change="oaccess=33188 access=33152 " path=.*/file$' chmod 600 "$tree/directory/file"
    touch_file ' file action=rename .*oldPath=.*/directory/file path=.*/tree/renamed$' mv "$tree/directory/file" "$tree/renamed"
    touch_file ' file action=delete path=.*/tree/renamed$' rm "$tree/renamed"
    print_collected ' file action='

    step 'A guarded file: who touches it'
    show sh -c "exec <$watched/guarded; sleep 0.5"
    sh -c "exec <$watched/guarded; sleep 0.5"
    expect 'its opening, with the process' \
        collected ' access pid=[0-9]+ user=.* action=open path=.*/guarded cmdLine=sh -c exec'
    print_collected ' access pid='
}

show_events() {
    step 'Commands, and what the agent logs about them'
    expect 'process events come in' hears_processes
    demonstrate sleep 0.3
    demonstrate sh -c 'sleep 0.2; exit 3'
    demonstrate id
    echo "    (where the kernel takes no trace programs, the command line of one as short as that may be missing)"
}

watch_on() {
    local clock watcher
    step "All that happens on this host; Enter goes on (after $watchLimit s at the latest)"
    sleep "$watchLimit" &
    clock=$!
    "${asRoot[@]}" tail -n 0 -f --pid="$clock" "$agentLog" &
    watcher=$!
    read -r -t "$watchLimit" || true
    { kill "$clock" && wait "$clock" "$watcher"; } 2>/dev/null || true
    deadline=$((SECONDS + 20))
}

refuse_second() {
    local message status=0
    step 'A second agent is refused'
    show "${asRoot[@]}" "$agent" --root "$prefix"
    message=$("${asRoot[@]}" timeout 5 "$agent" --root "$prefix" 2>&1) || status=$?
    echo "$message"
    echo "    exit status $status"
    [[ $status == 1 && $message == *'Another program is running. exit.'* ]] || fail 'MISSING: the refusal'
}

write_report() {
    step 'SIGUSR1 writes a report and the agent runs on'
    run "${asRoot[@]}" kill -USR1 "$pid"
    expect 'the report in log/coredump.log' holds "$report" '^hips maps\.' 'bin/sentrel-agent$' \
        '^Exception Signal\.\[number=10\]' "^sig_deal signo\.\[signo=10, pid=$pid, "
    "${asRoot[@]}" grep -m 3 -nE '^(hips maps|get maps)' "$report"
    "${asRoot[@]}" grep -nE '^(Exception Signal|Call Stack|sig_deal)' "$report"
    expect 'the agent is still there' has_pid_file
}

stop_agent() {
    local status=0
    step 'SIGINT stops the agent'
    run "${asRoot[@]}" kill -INT "$pid"
    expect 'its process is gone' no_agent
    wait "$job" 2>/dev/null || status=$?
    echo "    exit status $status: ended by SIGTERM, as a stopped agent does"
    [[ $status == 143 ]] || fail 'MISSING: the end by SIGTERM'
    expect 'its pid file is gone' test ! -e "$pidFile"
    expect '"Agent stopped." in the log' holds "$agentLog" 'Agent stopped\.'
    "${asRoot[@]}" tail -n 1 "$agentLog"
}

need_packages g++ cmake ninja-build libevent-dev libssl-dev nlohmann-json3-dev pkg-config gzip procps libbpf-dev bpftool clang llvm
find_root || hidden='neither root nor sudo without a password: process events need CAP_NET_ADMIN'
no_agent || fail "An agent runs from $prefix: stop it first (process $(agent_pids | xargs))"

mkdir -p build
step 'Building and installing (some minutes the first time)' build/quickstart.log
run_logged cmake --preset release
run_logged cmake --build --preset release
rm -rf "$prefix"
run_logged cmake --install build/release --prefix "$root/$prefix"

mkdir -p "$watched/tree"
echo secret >"$watched/guarded"
mkfifo "$orders"
"${asRoot[@]}" sed -i "s|^#\(SOCKET_TYPE=1\)|\1|; s|^#\(SERVER_SOCKET_PATH=\)|\1|" "$prefix/conf/agent.conf"

deadline=$((SECONDS + 40))
step 'Starting the collector, to which the agent reports'
start_collector

step 'Starting the agent'
show "${asRoot[@]}" "$agent" --root "$prefix"
"${asRoot[@]}" "$agent" --root "$prefix" &
job=$!
expect '"Agent started." in the log' holds "$agentLog" 'Agent started\.'
expect "the agent's own process id in conf/sentrel-agent.pid" has_pid_file
run "${asRoot[@]}" cat "$pidFile" && echo
if holds "$agentLog" 'Process events are not watched\.'; then
    hidden=${hidden:-the agent says that it may not watch process events}
fi

if [[ -z $hidden ]]; then
    show_events
    show_reports
    show_orders
    show_files
    show_status
fi
if [[ -t 0 ]]; then
    watch_on
fi
refuse_second
write_report
stop_agent

step 'SIGTERM ends the collector'
stop_collector
tail -n 1 "$collectorLog"

stepName=
[[ -z $hidden ]] || fail "MISSING: process events could not be shown: $hidden"
say "Everything was seen. The install root is $root/$prefix"
