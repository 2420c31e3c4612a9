#!/usr/bin/env bash
# Installs every Debian package Kelvo needs to build, run and test. Idempotent and
# non-interactive: packages already present are left alone.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config ccache clang-format git
  qt6-base-dev qt6-declarative-dev qt6-shadertools-dev qt6-declarative-dev-tools
  qml6-module-qtquick qml6-module-qtquick-controls qml6-module-qtquick-layouts
  qml6-module-qtquick-window qml6-module-qtquick-templates qml6-module-qtqml-workerscript
  qml6-module-qttest qt6-qpa-plugins libqt6test6 libqt6opengl6-dev qcoro-qt6-dev
  libsqlite3-dev libarchive-dev libsodium-dev libsensors-dev libvulkan-dev libshaderc-dev
  glslang-dev spirv-tools
  mesa-vulkan-drivers libgl1-mesa-dri libglx-mesa0 libgl-dev xvfb xauth fonts-dejavu-core
  dbus libgtest-dev libgmock-dev libbenchmark-dev procps
  clang libclang-rt-14-dev systemd util-linux
  libfuse3-dev fuse3 nlohmann-json3-dev fancontrol thinkfan lm-sensors
  prometheus-cpp-dev prometheus
  lintian dpkg-dev man-db libsystemd-dev
)

missing=()
for pkg in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "setup: all ${#PACKAGES[@]} packages present"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
