#!/usr/bin/env bash
# Builds and runs all benchmarks in order, for about two and a half minutes. Run it as root, on an idle machine.
set -eu
cd "$(dirname "$0")/.."
step() { printf '\n[%s/7] %s\n' "$1" "$2"; }

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
step 4 "rolling a file: roll_bench, 2 s"
build/bench/bin/roll_bench
step 5 "process events: process_burst, 50 s"
build/bench/bin/process_burst || { [ $? -eq 77 ] && echo "continuing without it"; }
step 6 "the idle agent: agent_idle.sh, 25 s"
bench/agent_idle.sh "$root"
step 7 "done"
