#!/bin/bash
# The dashboard probe on every trend window (1 min, 5 min), screen size (1366x768, 1920x1080)
# and scale (1x, 2x), under Xvfb. Given several probe binaries (a build before and after a
# change), runs them in turn on each case, so that both see the same machine at the same moment;
# prints one table row per case and binary, with the renderer that drew it. Each case also
# launches once with empty caches, as a user's first launch does (Mesa compiles its shaders then),
# and several times with warm caches for the time to the first frame, whose median it prints: one
# launch moves by a tenth or more with whatever else the machine does.
#
#   bench/window/probe_matrix.sh [--visible-seconds N] [--settle-seconds N] [--hidden-seconds N]
#       [--launches N] [--windows "fiveMinutes oneMinute"] [--sizes "1366x768 1920x1080"] [--scales "1 2"]
#       [--display-command CMD] [--no-header] [PROBE...]
#   (default PROBE: build/release/bench/kelvo_dashboard_probe; default CMD: xvfb-run, called as
#   CMD WIDTHxHEIGHT PROGRAM ARGS...)
set -euo pipefail
visible=15 settle=5 hidden=5 launches=5 header=1 display=
windows="fiveMinutes oneMinute" sizes="1366x768 1920x1080" scales="1 2"
while [[ "${1:-}" == --* ]]; do
    case $1 in
    --visible-seconds) visible=$2 ;;
    --settle-seconds) settle=$2 ;;
    --hidden-seconds) hidden=$2 ;;
    --launches) launches=$2 ;;
    --windows) windows=$2 ;;
    --sizes) sizes=$2 ;;
    --scales) scales=$2 ;;
    --display-command) display=$2 ;;
    --no-header) header=0; shift; continue ;;
    *) echo "unknown option $1" >&2; exit 2 ;;
    esac
    shift 2
done
probes=("$@")
[[ ${#probes[@]} -gt 0 ]] || probes=(build/release/bench/kelvo_dashboard_probe)

on_display() {
    local size=$1
    shift
    if [[ -n $display ]]; then "$display" "$size" "$@"; else
        xvfb-run -a -s "-screen 0 ${size}x24" "$@"; fi
}

if [[ $header == 1 ]]; then
    echo "| window | screen | scale | probe | renderer | first frame, median of $launches (ms) | first frame, fresh caches (ms) | visible CPU (% of a core) | frames/s | largest chart step (device px) | hidden CPU (% of a core) |"
    echo "| --- | --- | --- | --- | --- | --- | --- | --- | --- | --- | --- |"
fi
for window in $windows; do
    for size in $sizes; do
        for scale in $scales; do
            for probe in "${probes[@]}"; do
                # Mesa keeps compiled shaders and Qt compiled QML under XDG_CACHE_HOME.
                caches=$(mktemp -d)
                fresh=$(XDG_CACHE_HOME=$caches QT_SCALE_FACTOR=$scale on_display "$size" \
                    timeout 60 "$probe" --visible-seconds 0.1 --hidden-seconds 0.1 \
                    --settle-seconds 0 --trend-window "$window" 2>/dev/null || true)
                rm -rf "$caches"
                warm=""
                for ((launch = 0; launch < launches; ++launch)); do
                    warm+=$(QT_SCALE_FACTOR=$scale on_display "$size" timeout 60 "$probe" \
                        --visible-seconds 0.1 --hidden-seconds 0.1 --settle-seconds 0 \
                        --trend-window "$window" 2>/dev/null || true)
                    warm+=$'\n'
                done
                out=$(QT_SCALE_FACTOR=$scale on_display "$size" timeout 180 "$probe" \
                    --visible-seconds "$visible" --hidden-seconds "$hidden" \
                    --settle-seconds "$settle" --trend-window "$window" 2>/dev/null || true)
                python3 - "$window" "$size" "$scale" "$probe" "$out" "$fresh" "$warm" <<'PY'
import re, statistics, sys
window, size, scale, probe, out, fresh, warm = sys.argv[1:]
launches = [int(ms) for ms in re.findall(r"first dashboard frame: (\d+) ms", warm)]
first = re.search(r"first dashboard frame: (\d+) ms", out)
cold = re.search(r"first dashboard frame: (\d+) ms", fresh)
renderer = re.search(r"renderer: (.*)", out)
# A probe built before the chart's steps were measured prints neither the rate nor the step.
shown = re.search(r"visible for ([\d.]+) s: CPU ([\d.]+) ms per second, (\d+) frames"
                  r"(?: \(([\d.]+) a second\), \d+ chart frames, largest chart step ([\d.]+))?", out)
hidden = re.search(r"hidden for [\d.]+ s: CPU ([\d.]+) ms per second", out)
if not (first and shown and hidden):
    print(f"| {window} | {size} | {scale}x | {probe} | | the probe did not finish | | | | | |")
else:
    print(f"| {window} | {size} | {scale}x | {probe} | {renderer[1] if renderer else '-'} "
          f"| {round(statistics.median(launches)) if launches else first[1]} "
          f"| {cold[1] if cold else '-'} "
          f"| {float(shown[2]) / 10:.1f} "
          f"| {shown[4] or f'{int(shown[3]) / float(shown[1]):.1f}'} | {shown[5] or '-'} "
          f"| {float(hidden[1]) / 10:.2f} |")
PY
            done
        done
    done
done
