#!/bin/bash
# Runs the dashboard probe matrix from the bundle portable_probe.sh made, on a machine without Qt,
# Xvfb or Mesa, once per renderer that machine has: OpenGL and Vulkan on its GPU's own driver
# (found under /usr/local/nvidia or the library path) and Mesa's software rasterisers, so GPU and
# software rows come from the same machine in one run. Xvfb's own GLX needs Mesa's swrast and
# xkbcomp at the paths it was built with; where those are missing they are linked from the bundle
# (meant for a throwaway machine: it says what it linked).
#
#   run-matrix.sh [probe_matrix.sh options]      (e.g. --visible-seconds 10 --scales 1)
#   KELVO_PROBE_RENDERERS="nvidia-gl mesa-gl nvidia-vulkan lavapipe" chooses and orders them.
set -uo pipefail
b=$(cd "$(dirname "$0")" && pwd)
arch=/usr/lib/x86_64-linux-gnu

link_missing() {
    local from=$1 to=$2
    [[ -e $to ]] && return
    mkdir -p "$(dirname "$to")" && ln -s "$from" "$to" && echo "linked $to -> $from"
}
link_missing "$b/bin/xkbcomp" /usr/bin/xkbcomp
link_missing "$b/dri/swrast_dri.so" "$arch/dri/swrast_dri.so"

gpu_glx=$(find /usr/local/nvidia /usr/lib /usr/lib64 -name 'libGLX_nvidia.so.0' 2>/dev/null |
    head -n1)
gpu_libs=${gpu_glx:+$(dirname "$gpu_glx")}
export LD_LIBRARY_PATH=$b/lib${gpu_libs:+:$gpu_libs}
export PATH=$b/bin:$PATH
export QT_PLUGIN_PATH=$b/plugins QML_IMPORT_PATH=$b/qml QML2_IMPORT_PATH=$b/qml
export FONTCONFIG_FILE=$b/share/fonts.conf LIBGL_DRIVERS_PATH=$b/dri QT_QPA_PLATFORM=xcb
export XDG_RUNTIME_DIR=${XDG_RUNTIME_DIR:-$(mktemp -d)}
echo "GPU driver libraries: ${gpu_libs:-none found}"

# Called by probe_matrix.sh as: on-display WIDTHxHEIGHT PROGRAM ARGS...
cat >"$b/on-display" <<'EOF'
#!/bin/bash
size=$1; shift
for n in $(seq 90 190); do [[ -e /tmp/.X11-unix/X$n || -e /tmp/.X$n-lock ]] || break; done
Xvfb ":$n" -screen 0 "${size}x24" -nolisten tcp -xkbdir "$(dirname "$0")/share/xkb" \
    >/tmp/xvfb-$n.log 2>&1 &
xvfb=$!
for _ in $(seq 100); do [[ -e /tmp/.X11-unix/X$n ]] && break; sleep 0.1; done
DISPLAY=":$n" "$@"
rc=$?
kill "$xvfb"; wait "$xvfb" 2>/dev/null
exit $rc
EOF
chmod +x "$b/on-display"

nvidia_vk=$(find /usr/local/nvidia /usr/share/vulkan /etc/vulkan -name 'nvidia_icd*.json' \
    2>/dev/null | head -n1)
first=1
for renderer in ${KELVO_PROBE_RENDERERS:-nvidia-gl mesa-gl nvidia-vulkan lavapipe}; do
    case $renderer in
    nvidia-gl) env=(__GLX_VENDOR_LIBRARY_NAME=nvidia QSG_RHI_BACKEND=opengl) ;;
    mesa-gl) env=(__GLX_VENDOR_LIBRARY_NAME=mesa QSG_RHI_BACKEND=opengl) ;;
    nvidia-vulkan)
        [[ -n $nvidia_vk ]] || { echo "no NVIDIA Vulkan driver: $renderer skipped"; continue; }
        env=(QSG_RHI_BACKEND=vulkan "VK_DRIVER_FILES=$nvidia_vk" "VK_ICD_FILENAMES=$nvidia_vk") ;;
    lavapipe)
        [[ -f $b/share/vulkan/lvp_icd.json ]] || { echo "no lavapipe: $renderer skipped"; continue; }
        env=(QSG_RHI_BACKEND=vulkan "VK_DRIVER_FILES=$b/share/vulkan/lvp_icd.json"
            "VK_ICD_FILENAMES=$b/share/vulkan/lvp_icd.json") ;;
    *) echo "unknown renderer $renderer" >&2; exit 2 ;;
    esac
    # One short launch first: a renderer that cannot open a window, or that falls back to
    # another (GLX without the GPU's vendor library loads Mesa), is skipped, not mislabelled.
    check=$(env "${env[@]}" timeout 30 "$b/on-display" 1366x768 "$b/bin/kelvo_dashboard_probe" \
        --visible-seconds 0.1 --hidden-seconds 0.1 --settle-seconds 0 2>&1)
    name=$(sed -n 's/^renderer: //p' <<<"$check")
    expected=llvmpipe
    [[ $renderer == nvidia-* ]] && expected=NVIDIA
    if [[ $name != *"$expected"* ]]; then
        echo "$renderer skipped: the check drew with '${name:-nothing}':"
        tail -n 5 <<<"$check"
        continue
    fi
    echo "$renderer: $name"
    header=(--no-header)
    [[ $first == 1 ]] && header=()
    first=0
    env "${env[@]}" "$b/probe_matrix.sh" --display-command "$b/on-display" "${header[@]}" "$@" \
        "$b/bin/kelvo_dashboard_probe"
done
