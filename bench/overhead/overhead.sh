#!/usr/bin/env bash
# What Kelvo costs the machine it cools: CPU time per second of wall time and resident memory of
# each measured process, read from /proc over a steady window after a warm-up.
#
#   bench/overhead/overhead.sh [--seconds N] [--warmup N] [--build DIR]
#
# Targets measured: `kelvo --headless` on the simulated back-end; the dashboard window visible
# and hidden under Xvfb; the trend chart demo as an extra.
set -euo pipefail

seconds=120
warmup=10
build="$(cd "$(dirname "$0")/../.." && pwd)/build/release"
while [[ $# -gt 0 ]]; do
    case "$1" in
        --seconds) seconds="$2"; shift 2 ;;
        --warmup) warmup="$2"; shift 2 ;;
        --build) build="$2"; shift 2 ;;
        *) echo "usage: $0 [--seconds N] [--warmup N] [--build DIR]" >&2; exit 2 ;;
    esac
done

ticks_per_second="$(getconf CLK_TCK)"
page_kb=$(( $(getconf PAGESIZE) / 1024 ))

# Never touch the real user's settings, data or runtime folder.
scratch="$(mktemp -d)"
cleanup() {
    [[ -n "${pid:-}" ]] && kill "$pid" 2>/dev/null || true
    [[ -n "${xvfb_pid:-}" ]] && kill "$xvfb_pid" 2>/dev/null || true
    rm -rf "$scratch"
}
trap cleanup EXIT
export XDG_CONFIG_HOME="$scratch/config" XDG_DATA_HOME="$scratch/data"
export XDG_RUNTIME_DIR="$scratch/run"
mkdir -p "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"

# utime + stime of the whole process (every thread), in clock ticks.
cpu_ticks() {
    local stat
    stat="$(cat "/proc/$1/stat")"
    stat="${stat##*) }"  # the command name may hold spaces
    read -r -a fields <<<"$stat"
    echo $(( fields[11] + fields[12] ))
}

status_kb() { awk -v key="$2:" '$1 == key { print $2 }' "/proc/$1/status"; }

# measure LABEL COMMAND...: runs the command, waits out the warm-up, measures for $seconds.
measure() {
    local label="$1"
    shift
    "$@" >"$scratch/out.log" 2>&1 &
    pid=$!
    sleep "$warmup"
    if ! kill -0 "$pid" 2>/dev/null; then
        printf '%-34s did not stay up; its output:\n' "$label"
        tail -5 "$scratch/out.log"
        pid=""
        return 1
    fi
    local t0 c0 t1 c1
    t0="$(date +%s.%N)"
    c0="$(cpu_ticks "$pid")"
    sleep "$seconds"
    c1="$(cpu_ticks "$pid")"
    t1="$(date +%s.%N)"
    local rss hwm
    rss="$(status_kb "$pid" VmRSS)"
    hwm="$(status_kb "$pid" VmHWM)"
    kill -TERM "$pid"
    wait "$pid" 2>/dev/null || true
    pid=""
    awk -v label="$label" -v c="$((c1 - c0))" -v hz="$ticks_per_second" -v t0="$t0" -v t1="$t1" \
        -v rss="$rss" -v hwm="$hwm" 'BEGIN {
            wall = t1 - t0
            printf "%-34s %8.3f %% of one core %8.1f MB resident (peak %.1f MB) over %.0f s\n",
                   label, 100 * c / hz / wall, rss / 1024, hwm / 1024, wall
        }'
}

# A private X server for the GUI processes; Xvfb picks a free display number itself.
start_xvfb() {
    exec 3>"$scratch/display"
    Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp >"$scratch/xvfb.log" 2>&1 &
    xvfb_pid=$!
    exec 3>&-
    for _ in $(seq 50); do
        [[ -s "$scratch/display" ]] && break
        sleep 0.1
    done
    display=":$(cat "$scratch/display")"
}

printf 'Warm-up %s s, then %s s measured; CPU time is user + system of every thread.\n' \
    "$warmup" "$seconds"

kelvo="$build/desktop/kelvo"
if [[ -x "$kelvo" ]]; then
    measure "kelvo --headless (simulated fans)" "$kelvo" --headless --harness-simulated-fans
else
    echo "kelvo --headless: not built ($kelvo)"
fi

# The dashboard window, visible and then hidden to the tray: the probe measures both spans itself
# (CPU of the whole process, frames drawn, view updates, resident memory).
probe="$build/bench/kelvo_dashboard_probe"
if [[ -x "$probe" ]] && command -v Xvfb >/dev/null; then
    start_xvfb
    echo "kelvo dashboard under Xvfb:"
    DISPLAY="$display" "$probe" --settle-seconds "$warmup" --visible-seconds "$seconds" \
        --hidden-seconds "$seconds" | sed 's/^/    /'
else
    echo "kelvo dashboard: not built ($probe) or no Xvfb"
fi

demo="$build/tools/chart_demo/kelvo-chart-demo"
if [[ -x "$demo" ]] && command -v Xvfb >/dev/null; then
    [[ -n "${display:-}" ]] || start_xvfb
    measure "chart demo under Xvfb (extra)" env DISPLAY="$display" "$demo"
else
    echo "chart demo: not built ($demo)"
fi
