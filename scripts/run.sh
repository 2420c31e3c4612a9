#!/usr/bin/env bash
# Installs what is missing, builds Kelvo and launches it. Without fan hardware (a VM, CI) it runs
# on the simulated machine; pass other kelvo flags after the script name to change that.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default --target kelvo kelvoctl
if [ "$#" -gt 0 ]; then
  exec ./build/default/app/kelvo "$@"
fi
exec ./build/default/app/kelvo --headless --harness-simulated-fans
