#!/usr/bin/env bash
# What an agent takes that has next to nothing to do: memory, processor time, wake-ups of each thread.
# Usage: agent_idle.sh ROOT [SECONDS]   ROOT is an installed agent, SECONDS the window (20).
set -eu
root=${1:?usage: agent_idle.sh ROOT [SECONDS]}
window=${2:-20}
[ -x "$root/bin/sentrel-agent" ] || { echo "$root/bin/sentrel-agent is missing: cmake --install it first" >&2; exit 2; }

"$root/bin/sentrel-agent" --root "$root" &
pid=$!
trap 'kill -INT $pid 2>/dev/null || :' EXIT
sleep 5 # its search of the process table at the start is over
kill -0 $pid 2>/dev/null || { echo "the agent has ended" >&2; exit 1; }

cpuNs() { cat /proc/$pid/task/*/schedstat | awk '{sum += $1} END {printf "%d\n", sum}'; }
ticks() { sed 's/.*) //' /proc/$pid/stat | awk '{print $12 + $13}'; }
waits() { awk '/^voluntary_ctxt_switches/ {print FILENAME, $2}' /proc/$pid/task/*/status; }
lines() { wc -l <"$root/log/agent.log"; }

ns=$(cpuNs) ticks=$(ticks) lines=$(lines) waits=$(waits)
sleep "$window"
nsAfter=$(cpuNs) ticksAfter=$(ticks) linesAfter=$(lines) waitsAfter=$(waits)

awk '/^VmRSS/ {printf "resident memory    %d KiB (aim: below 6144)\n", $2}' /proc/$pid/status
awk -v ns=$((nsAfter - ns)) -v ticks=$((ticksAfter - ticks)) -v hz="$(getconf CLK_TCK)" -v s="$window" 'BEGIN {
    printf "processor time     %.3f ms a second by schedstat, %.1f ms by utime and stime, over %d s\n", ns / 1e6 / s,
        ticks * 1000 / hz / s, s }'
echo "log records        $((linesAfter - lines)) in the window (0: nothing ran on the host but this script)"
join <(echo "$waits") <(echo "$waitsAfter") | while read -r status before after; do
    printf 'wake-ups a second  %s  %s\n' "$(awk -v n=$((after - before)) -v s="$window" 'BEGIN {printf "%.2f", n / s}')" \
        "$(cat "${status%status}comm")"
done

trap - EXIT
kill -INT $pid
wait $pid || : # it ends by SIGTERM
