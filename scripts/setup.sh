#!/usr/bin/env bash
# Installs the Debian packages Kelvo needs to build and run, and to build its tests and
# benchmarks: libraries, compilers of the build, Qt's QML modules, Mesa. None of them is a
# service that starts or listens. What only the tests run is in scripts/setup-tests.sh.
# Idempotent and non-interactive: packages already present are left alone.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/apt-packages.sh

PACKAGES=(
  build-essential cmake ninja-build pkg-config ccache clang-format git
  qt6-base-dev qt6-declarative-dev qt6-shadertools-dev qt6-declarative-dev-tools
  qml6-module-qtquick qml6-module-qtquick-controls qml6-module-qtquick-layouts
  qml6-module-qtquick-window qml6-module-qtquick-templates qml6-module-qtqml-workerscript
  qml6-module-qttest qt6-qpa-plugins libqt6test6 libqt6opengl6-dev qcoro-qt6-dev
  libsqlite3-dev libarchive-dev libsodium-dev libsensors-dev libvulkan-dev libshaderc-dev
  glslang-dev spirv-tools
  mesa-vulkan-drivers libgl1-mesa-dri libglx-mesa0 libgl-dev fonts-dejavu-core
  dbus libgtest-dev libgmock-dev libbenchmark-dev procps util-linux
  libfuse3-dev fuse3 nlohmann-json3-dev prometheus-cpp-dev libsystemd-dev
)

install_missing "${PACKAGES[@]}"
[ "${#NEWLY[@]}" -gt 0 ] || echo "setup: all ${#PACKAGES[@]} packages present"
