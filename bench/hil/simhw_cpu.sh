#!/usr/bin/env bash
# What kelvo-simhw itself costs while it serves one Kelvo (quiet, 1 Hz): its utime + stime from
# /proc/PID/stat once a minute, as CPU seconds per minute and as a share of one core.
#
#   bench/hil/simhw_cpu.sh [--seconds N] [--machine NAME] [--trace NAME]
#
# Builds nothing: binaries come from build/release or $KELVO_BUILD_DIR. Needs root and /dev/fuse.
set -euo pipefail

source_dir="$(cd "$(dirname "$0")/../.." && pwd)"
build="${KELVO_BUILD_DIR:-$source_dir/build/release}"
seconds=300
machine=thin-laptop
trace=compile
while [[ $# -gt 0 ]]; do
    [[ $# -ge 2 ]] || { sed -n '5p' "$0" | sed 's/^# *//' >&2; exit 2; }
    case "$1" in
        --seconds) seconds="$2" ;;
        --machine) machine="$2" ;;
        --trace) trace="$2" ;;
        *) sed -n '5p' "$0" | sed 's/^# *//' >&2; exit 2 ;;
    esac
    shift 2
done
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || ((seconds < 60)); then
    echo "--seconds must be 60 or more" >&2
    exit 2
fi

scratch="$(mktemp -d)"
simhw_pid=""
kelvo_pid=""
cleanup() {
    [[ -n "$kelvo_pid" ]] && kill -TERM "$kelvo_pid" 2>/dev/null && sleep 1
    [[ -n "$simhw_pid" ]] && kill -TERM "$simhw_pid" 2>/dev/null && sleep 1
    if awk -v m="$scratch/mnt" '$5 == m { f = 1 } END { exit !f }' /proc/self/mountinfo; then
        fusermount3 -u "$scratch/mnt" || true
    fi
    rm -rf "$scratch"
}
trap cleanup EXIT
mkdir -p "$scratch/mnt" "$scratch/config/Kelvo" "$scratch/data" "$scratch/runtime"
chmod 700 "$scratch/runtime"
printf '[General]\nkelvo.control.mode=quiet\n' >"$scratch/config/Kelvo/Kelvo.conf"

ticks_per_second="$(getconf CLK_TCK)"
# utime + stime of the whole process (every thread), in clock ticks.
cpu_ticks() {
    local stat fields
    stat="$(cat "/proc/$1/stat")"
    stat="${stat##*) }" # the command name may hold spaces
    read -r -a fields <<<"$stat"
    echo $((fields[11] + fields[12]))
}

"$build/simhw/kelvo-simhw" --machine "$source_dir/bench/machines/$machine.json" \
    --trace "$source_dir/bench/traces/$trace.json" "$scratch/mnt" 2>"$scratch/simhw.err" &
simhw_pid=$!
for _ in $(seq 100); do
    grep -q "kelvo-simhw: serving" "$scratch/simhw.err" && break
    sleep 0.1
done
grep -q "kelvo-simhw: serving" "$scratch/simhw.err" || { cat "$scratch/simhw.err" >&2; exit 1; }
env XDG_CONFIG_HOME="$scratch/config" XDG_DATA_HOME="$scratch/data" \
    XDG_RUNTIME_DIR="$scratch/runtime" \
    "$build/desktop/kelvo" --headless --local-only-fans --sysfs-root "$scratch/mnt" \
    >"$scratch/kelvo.out" 2>"$scratch/kelvo.err" </dev/null &
kelvo_pid=$!

echo "kelvo-simhw serving $machine / $trace to one Kelvo (quiet) for $seconds s"
printf '%8s %12s %14s\n' "minute" "cpu s" "% of a core"
start_ticks="$(cpu_ticks "$simhw_pid")"
start="$(date +%s.%N)"
last_ticks="$start_ticks"
for ((minute = 1; minute <= seconds / 60; minute++)); do
    sleep 60
    kill -0 "$kelvo_pid" 2>/dev/null || { echo "kelvo stopped:" >&2; tail -5 "$scratch/kelvo.err" >&2; exit 1; }
    ticks="$(cpu_ticks "$simhw_pid")"
    awk -v m="$minute" -v t="$((ticks - last_ticks))" -v hz="$ticks_per_second" \
        'BEGIN { printf "%8d %12.2f %13.2f%%\n", m, t / hz, 100 * t / hz / 60 }'
    last_ticks="$ticks"
done
end="$(date +%s.%N)"
awk -v t="$((last_ticks - start_ticks))" -v hz="$ticks_per_second" -v a="$start" -v b="$end" \
    'BEGIN { w = b - a; printf "whole: %.2f cpu s over %.1f s wall: %.2f cpu s per minute, %.2f%% of one core\n",
             t / hz, w, 60 * t / hz / w, 100 * t / hz / w }'
