#!/usr/bin/env bash
# Renders the dashboard as a new user first sees it (fresh settings, the simulated machine running
# for a minute) on the screens people have: every surface, light and dark, at 1x and 2x scale, on
# 1280x720, 1366x768 and 1920x1080 Xvfb screens. Pictures and geometry.txt go to docs/screenshots/.
#
#   ./scripts/screenshots.sh [WARMUP_SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
warmup="${1:-60}"
export CCACHE_DIR="${CCACHE_DIR:-$HOME/.cache/ccache}"
export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}"
cmake --preset release >/dev/null
cmake --build --preset release --target kelvo_dashboard_screenshots -j "$(nproc)"

out="$PWD/docs/screenshots"
mkdir -p "$out"
rm -f "$out"/*.png "$out/geometry.txt"
export QT_QPA_PLATFORM=xcb LIBGL_ALWAYS_SOFTWARE=1
runtime="$(mktemp -d)"
trap 'rm -rf "$runtime"' EXIT
chmod 700 "$runtime"

shoot() {
    local size="$1" scale="$2"
    XDG_RUNTIME_DIR="$runtime" QT_SCALE_FACTOR="$scale" \
        xvfb-run -a -s "-screen 0 ${size}x24 -nolisten tcp" \
        build/release/tools/screenshots/kelvo_dashboard_screenshots --out "$out" \
        --tag "${size}@${scale}x" --warmup-seconds "$warmup" >/dev/null
}

# Two at a time: one per core.
failed=0
pids=()
for size in 1280x720 1366x768 1920x1080; do
    for scale in 1 2; do
        shoot "$size" "$scale" &
        pids+=($!)
        if [ "${#pids[@]}" -ge 2 ]; then
            wait "${pids[0]}" || failed=1
            pids=("${pids[@]:1}")
        fi
    done
done
for pid in "${pids[@]}"; do wait "$pid" || failed=1; done
sort -o "$out/geometry.txt" "$out/geometry.txt"
echo "screenshots: $(ls "$out"/*.png | wc -l) pictures in $out (geometry in geometry.txt)"
exit "$failed"
