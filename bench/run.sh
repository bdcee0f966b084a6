#!/usr/bin/env bash
# Builds and runs all benchmarks in order, for about eight minutes. Run it as root, on an idle machine.
set -eu
cd "$(dirname "$0")/.."
step() { printf '\n[%s/14] %s\n' "$1" "$2"; }

step 1 "build"
cmake --preset bench >/dev/null
cmake --build --preset bench
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
cmake --install build/bench --prefix "$root" >/dev/null
step 2 "log records: logger_bench, 25 s"
build/bench/bin/logger_bench
step 3 "scheduling: sched_bench, 20 s"
build/bench/bin/sched_bench
step 4 "bodies of messages: tlv_bench, 20 s"
build/bench/bin/tlv_bench
step 5 "the channel: comm_bench, 25 s"
build/bench/bin/comm_bench
step 6 "reports: report_bench, 35 s"
build/bench/bin/report_bench
step 7 "the collector: collector_load, 15 s"
build/bench/bin/collector_load
step 8 "rolling a file: roll_bench, 2 s"
build/bench/bin/roll_bench
step 9 "process events: process_burst, 50 s, and trace_bench, 3 minutes; connections: network_bench, 2 minutes"
build/bench/bin/process_burst || { [ $? -eq 77 ] && echo "continuing without it"; }
if [ -x build/bench/bin/trace_bench ]; then
    build/bench/bin/trace_bench || { [ $? -eq 77 ] && echo "continuing without it"; }
fi
if [ -x build/bench/bin/network_bench ]; then
    build/bench/bin/network_bench || { [ $? -eq 77 ] && echo "continuing without it"; }
fi
step 10 "file changes: watch_bench, 45 s"
TMPDIR=/dev/shm build/bench/bin/watch_bench
step 11 "fanotify events: fanotify_bench, 20 s"
build/bench/bin/fanotify_bench || { [ $? -eq 77 ] && echo "continuing without it"; }
step 12 "the idle agent: agent_idle.sh, 30 s"
export TMPDIR=/dev/shm # where fatrace sees nothing but the watched files
bench/agent_idle.sh "$root" || { [ $? -eq 77 ] && echo "continuing without it"; }
step 13 "the agent under load: agent_load.sh, 2 minutes"
bench/agent_load.sh "$root" build/bench/bin/agent_load || { [ $? -eq 77 ] && echo "continuing without it"; }
step 14 "done"
