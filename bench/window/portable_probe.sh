#!/bin/bash
# Packs kelvo_dashboard_probe with everything it needs to run on a Linux machine that has no Qt 6,
# Xvfb or Mesa of its own (a GPU server, say): the probe, Qt's libraries, plugins and QML modules,
# Xvfb with xkbcomp and its keymaps, Mesa's GLX and software rasteriser, the GL and Vulkan
# loaders, and the fonts the dashboard draws with. Only glibc and the C++ runtime are left to the
# machine (its own are newer than Debian 12's, and an older copy would shadow them).
#
#   bench/window/portable_probe.sh OUT.tar.xz
#
# On the other machine: tar xf OUT.tar.xz -C DIR; DIR/probe/run-matrix.sh (see that script).
set -euo pipefail
out=$(realpath -m "${1:?usage: portable_probe.sh OUT.tar.xz}")
root=$(cd "$(dirname "$0")/../.." && pwd)
probe=$root/build/release/bench/kelvo_dashboard_probe
[[ -x $probe ]] || { echo "build the probe first: $probe" >&2; exit 2; }
arch=/usr/lib/x86_64-linux-gnu
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
b=$stage/probe
mkdir -p "$b"/{bin,lib,dri,plugins,qml,share/fonts,share/vulkan}

cp "$probe" "$b/bin/"
cp /usr/bin/Xvfb /usr/bin/xkbcomp "$b/bin/"
cp -r /usr/share/X11/xkb "$b/share/xkb"
for dir in platforms xcbglintegrations imageformats iconengines; do
    [[ -d $arch/qt6/plugins/$dir ]] && cp -r "$arch/qt6/plugins/$dir" "$b/plugins/"
done
for package in qml6-module-qtquick qml6-module-qtquick-window qml6-module-qtqml-workerscript \
    qml6-module-qtquick-controls qml6-module-qtquick-templates qml6-module-qtquick-layouts; do
    dpkg -L "$package" | grep "^$arch/qt6/qml/" | while read -r f; do
        [[ -f $f ]] || continue
        # The dashboard uses the Fusion style (on Basic); the other styles are 6 MB.
        [[ $f =~ /Controls/(Imagine|Material|Universal|designer)/ ]] && continue
        mkdir -p "$b/qml/$(dirname "${f#"$arch/qt6/qml/"}")"
        cp "$f" "$b/qml/${f#"$arch/qt6/qml/"}"
    done
done
# Mesa: the client side for the software rows, swrast for Xvfb's own GLX.
cp "$arch/dri/swrast_dri.so" "$b/dri/"
cp -L "$arch"/libGLX_mesa.so.0 "$arch"/libGL.so.1 "$arch"/libGLX.so.0 "$arch"/libGLdispatch.so.0 \
    "$arch"/libEGL.so.1 "$arch"/libOpenGL.so.0 "$arch"/libvulkan.so.1 "$b/lib/"
# Mesa's Vulkan rasteriser, so that Vulkan rows can be compared on the same machine too
# (KELVO_PROBE_LAVAPIPE=0 leaves it out: 2 MB packed).
if [[ ${KELVO_PROBE_LAVAPIPE:-1} == 1 && -f $arch/libvulkan_lvp.so ]]; then
    cp "$arch/libvulkan_lvp.so" "$b/lib/"
    sed 's#"library_path": *"[^"]*"#"library_path": "../../lib/libvulkan_lvp.so"#' \
        /usr/share/vulkan/icd.d/lvp_icd.x86_64.json >"$b/share/vulkan/lvp_icd.json"
fi
# The faces the dashboard draws with.
for face in "DejaVu Sans" "DejaVu Sans:bold" "DejaVu Sans Mono"; do
    cp "$(fc-match -f '%{file}' "$face")" "$b/share/fonts/"
done
cat >"$b/share/fonts.conf" <<'EOF'
<?xml version="1.0"?>
<!DOCTYPE fontconfig SYSTEM "fonts.dtd">
<fontconfig>
  <dir prefix="relative">fonts</dir>
  <cachedir>/tmp/kelvo-probe-fontconfig</cachedir>
  <alias><family>sans-serif</family><prefer><family>DejaVu Sans</family></prefer></alias>
  <alias><family>monospace</family><prefer><family>DejaVu Sans Mono</family></prefer></alias>
</fontconfig>
EOF

# Every shared library those need, but glibc's and the C++ runtime's.
skip='^(libc|libm|libdl|libpthread|librt|libresolv|libutil|ld-linux-x86-64|libstdc\+\+|libgcc_s)\.so'
while :; do
    added=0
    while read -r lib; do
        name=$(basename "$lib")
        [[ $name =~ $skip || -e $b/lib/$name ]] && continue
        cp -L "$lib" "$b/lib/$name"
        added=1
    done < <(find "$b" -type f \( -name '*.so*' -o -perm -u+x \) -print0 |
        xargs -0 -r ldd 2>/dev/null | awk '$2 == "=>" && $3 ~ /^\// { print $3 }' | sort -u)
    [[ $added == 1 ]] || break
done

cp "$root/bench/window/portable_run.sh" "$b/run-matrix.sh"
cp "$root/bench/window/probe_matrix.sh" "$b/probe_matrix.sh"
tar -C "$stage" -cf - probe | xz -9 -T0 >"$out"
echo "$out: $(du -h "$out" | cut -f1) ($(du -sh "$b" | cut -f1) unpacked)"
