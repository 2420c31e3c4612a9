#!/usr/bin/env bash
# Checks the helper's systemd unit as built: systemd accepts it, its sandbox rates "OK" or better
# in systemd's own exposure analysis, and the settings the fail-safe depends on are there.
# Usage: check-helper-unit.sh UNIT HELPERD_BINARY
set -euo pipefail
unit_in="$1"
binary="$2"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
unit="$scratch/kelvo-helperd.service"
# Point ExecStart at the binary just built: verify checks that it exists and is executable.
sed -E "s|^ExecStart=[^ ]+|ExecStart=$binary|" "$unit_in" > "$unit"

fail=0
# The manual page is only there once installed (the package's test checks it then).
if ! out="$(systemd-analyze verify --man=no "$unit" 2>&1)" || [ -n "$out" ]; then
  echo "FAIL: systemd-analyze verify: $out"
  fail=1
fi

exposure="$(systemd-analyze security --offline=yes "$unit" 2>/dev/null |
            sed -n -E 's/.*Overall exposure level for [^:]+: ([0-9.]+) .*/\1/p')"
echo "exposure level: ${exposure:-unknown}"
if [ -z "$exposure" ] || ! awk -v e="$exposure" 'BEGIN { exit !(e <= 2.0) }'; then
  echo "FAIL: exposure level ${exposure:-unknown} is above 2.0"
  fail=1
fi

require() {
  if ! grep -qxF "$1" "$unit"; then
    echo "FAIL: the unit lacks '$1'"
    fail=1
  fi
}
require "Restart=on-failure"
require "NoNewPrivileges=yes"
require "ProtectSystem=strict"
require "ProtectHome=yes"
require "ReadWritePaths=/sys/class/hwmon /sys/devices /run/kelvo"
require "RuntimeDirectoryPreserve=yes"
require "KillSignal=SIGTERM"
require "CapabilityBoundingSet="
grep -q -- "--allowed-group kelvo" "$unit" || { echo "FAIL: ExecStart does not name the kelvo group"; fail=1; }

[ "$fail" -eq 0 ] && echo "helper unit OK"
exit "$fail"
