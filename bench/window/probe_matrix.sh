#!/bin/bash
# The dashboard probe on every trend window (1 min, 5 min), screen size (1366x768, 1920x1080)
# and scale (1x, 2x), under Xvfb with Mesa's software renderer. Given several probe binaries
# (a build before and after a change), runs them in turn on each case, so that both see the
# same machine at the same moment; prints one table row per case and binary. Each case also
# launches once with empty caches, as a user's first launch does (Mesa compiles its shaders then).
#
#   bench/window/probe_matrix.sh [--visible-seconds N] [PROBE...]
#   (default PROBE: build/release/bench/kelvo_dashboard_probe)
set -euo pipefail
visible=15
if [[ "${1:-}" == --visible-seconds ]]; then visible=$2; shift 2; fi
probes=("$@")
[[ ${#probes[@]} -gt 0 ]] || probes=(build/release/bench/kelvo_dashboard_probe)

echo "| window | screen | scale | probe | first frame (ms) | first frame, fresh caches (ms) | visible CPU (% of a core) | frames/s | largest chart step (device px) | hidden CPU (% of a core) |"
echo "| --- | --- | --- | --- | --- | --- | --- | --- | --- | --- |"
for window in fiveMinutes oneMinute; do
    for size in 1366x768 1920x1080; do
        for scale in 1 2; do
            for probe in "${probes[@]}"; do
                # Mesa keeps compiled shaders and Qt compiled QML under XDG_CACHE_HOME.
                caches=$(mktemp -d)
                fresh=$(XDG_CACHE_HOME=$caches QT_SCALE_FACTOR=$scale \
                    xvfb-run -a -s "-screen 0 ${size}x24" timeout 60 "$probe" \
                    --visible-seconds 0.1 --hidden-seconds 0.1 --settle-seconds 0 \
                    --trend-window "$window" 2>/dev/null || true)
                rm -rf "$caches"
                out=$(QT_SCALE_FACTOR=$scale xvfb-run -a -s "-screen 0 ${size}x24" \
                    timeout 180 "$probe" --visible-seconds "$visible" --hidden-seconds 5 \
                    --settle-seconds 5 --trend-window "$window" 2>/dev/null || true)
                python3 - "$window" "$size" "$scale" "$probe" "$out" "$fresh" <<'PY'
import re, sys
window, size, scale, probe, out, fresh = sys.argv[1:]
first = re.search(r"first dashboard frame: (\d+) ms", out)
cold = re.search(r"first dashboard frame: (\d+) ms", fresh)
shown = re.search(r"visible for [\d.]+ s: CPU ([\d.]+) ms per second, \d+ frames \(([\d.]+) a second\), \d+ chart frames, largest chart step ([\d.]+)", out)
hidden = re.search(r"hidden for [\d.]+ s: CPU ([\d.]+) ms per second", out)
if not (first and shown and hidden):
    print(f"| {window} | {size} | {scale}x | {probe} | the probe did not finish | | | | | |")
else:
    print(f"| {window} | {size} | {scale}x | {probe} | {first[1]} | {cold[1] if cold else '-'} "
          f"| {float(shown[1]) / 10:.1f} "
          f"| {shown[2]} | {shown[3]} | {float(hidden[1]) / 10:.2f} |")
PY
            done
        done
    done
done
