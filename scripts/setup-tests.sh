#!/usr/bin/env bash
# Installs, on top of scripts/setup.sh, what only the tests and benchmarks run: an X server, a
# window manager and a panel for the window tests, clang for the fuzzer, the package tests' tools (lintian, mmdebstrap, systemd's
# analyzer, man) and the programs Kelvo is measured against (fancontrol, thinkfan, the prometheus
# server). Those last come with services: they are installed with starting blocked and their
# units disabled, so nothing is started, nothing starts at boot and nothing listens.
# Idempotent and non-interactive.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
source scripts/apt-packages.sh

TOOLS=(
  xvfb xauth x11-utils x11-apps clang libclang-rt-14-dev systemd lintian dpkg-dev man-db
  mmdebstrap openbox tint2
)
PEERS=(fancontrol thinkfan lm-sensors prometheus)

install_missing "${TOOLS[@]}"

# Debian's maintainer scripts start a service through invoke-rc.d or deb-systemd-invoke, which
# both ask policy-rc.d first; 101 means "not now". One already there is the admin's: kept.
policy=/usr/sbin/policy-rc.d
blocked=0
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\n# kelvo setup-tests.sh: no service starts while test tools install\nexit 101\n' |
    $SUDO tee "$policy" >/dev/null
  $SUDO chmod 755 "$policy"
  blocked=1
fi
unblock() { if [ "$blocked" -eq 1 ]; then $SUDO rm -f "$policy"; fi; }
trap unblock EXIT

install_missing "${PEERS[@]}"
# The packages just installed enabled their units for the next boot: undone, as an admin would
# (systemctl disable works without a running systemd, and an upgrade keeps the choice). A peer
# that was here before keeps whatever its owner chose.
for pkg in "${NEWLY[@]}"; do
  for unit in $(dpkg -L "$pkg" | grep -E '^/(usr/)?lib/systemd/system/[^/@]+\.(service|timer)$' |
    xargs -r -n1 basename); do
    if command -v systemctl >/dev/null; then
      $SUDO systemctl disable --quiet "$unit" >/dev/null 2>&1 ||
        echo "setup: could not disable $unit" >&2
    fi
    echo "setup: $unit installed, not started, not enabled"
  done
done
