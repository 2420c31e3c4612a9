#!/usr/bin/env bash
# Installs what is missing, builds Kelvo and launches it: on the real fans when this machine has
# controllable ones (PWM channels under /sys/class/hwmon), otherwise on the simulated machine.
# It opens the dashboard window when there is a display (X11 or Wayland) and runs headless
# otherwise. Flags given to the script are passed to kelvo instead.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default --target kelvo kelvoctl
if [ "$#" -gt 0 ]; then
  exec ./build/default/desktop/kelvo "$@"
fi
window=()
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  echo "run: no display found; running without a window (--headless)"
  window=(--headless)
fi
if compgen -G "/sys/class/hwmon/hwmon*/pwm[0-9]_enable" >/dev/null; then
  exec ./build/default/desktop/kelvo "${window[@]}"
fi
echo "run: no controllable fans found; using the simulated machine"
exec ./build/default/desktop/kelvo "${window[@]}" --simulated-fans
