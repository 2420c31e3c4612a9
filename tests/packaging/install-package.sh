#!/usr/bin/env bash
# Builds the Debian package, checks it with lintian, installs it on this machine, runs the
# installed helper and kelvoctl against a fake sysfs tree, purges the package and checks that
# nothing of Kelvo is left. It changes this machine (dpkg's database, /etc/group, /etc/systemd)
# for its duration, so it needs root and a machine where kelvo is not installed; /run is a private
# tmpfs for the whole run, so nothing the helper creates there outlives it.
# Usage: install-package.sh SOURCE_DIR. Exits 77 (skipped) where it cannot run.
set -euo pipefail
source "$(dirname "$0")/common.sh"

source_dir="$(cd "$1" && pwd)"
[ "$(id -u)" -eq 0 ] || skip "not root: dpkg -i and dpkg --purge need root"
command -v dpkg >/dev/null || skip "dpkg is missing: not a Debian system"
status="$(dpkg-query -W -f='${db:Status-Status}' kelvo 2>/dev/null || true)"
if [ -n "$status" ] && [ "$status" != "not-installed" ]; then
  skip "the kelvo package is on this machine ($status) and the test would purge it"
fi
if getent group kelvo >/dev/null; then
  skip "a group kelvo exists already and the purge would delete it"
fi

# A private mount namespace with an empty /run: the helper's runtime directory lives there, and
# the maintainer scripts see no running systemd, whatever runs this machine.
if [ "${KELVO_PACKAGE_TEST_PRIVATE_RUN:-}" != 1 ]; then
  unshare --mount true 2>/dev/null || skip "cannot create a mount namespace (unshare --mount)"
  exec env KELVO_PACKAGE_TEST_PRIVATE_RUN=1 unshare --mount --propagation private -- \
    bash "$0" "$@"
fi
mount -t tmpfs -o mode=0755 kelvo-test-run /run

scratch="$(mktemp -d)"
helper_pid=""
kelvo_pid=""

installed() {
  local state
  state="$(dpkg-query -W -f='${db:Status-Status}' kelvo 2>/dev/null || true)"
  [ -n "$state" ] && [ "$state" != "not-installed" ]
}

cleanup() {
  local rc=$?
  stop_processes "$helper_pid" "$kelvo_pid"
  if installed; then
    echo "cleanup: purging kelvo"
    dpkg --purge kelvo || true
  fi
  rm -rf "$scratch"
  exit "$rc"
}
trap cleanup EXIT

# Files named like Kelvo's, outside the checkout: compared before installing and after purging.
kelvo_named() {
  find /etc /usr /var/lib/systemd /var/lib/dpkg/info /run -xdev -name '*kelvo*' 2>/dev/null | sort
}
kelvo_named >"$scratch/before.txt"

echo "== building the package"
"$source_dir/scripts/package.sh" | tee "$scratch/package.log"
deb="$(sed -n 's/^package: \(\/.*\.deb\)$/\1/p' "$scratch/package.log")"
[ -f "$deb" ] || { echo "FAIL: scripts/package.sh named no package"; exit 1; }

echo "== lintian $deb"
lintian_rc=0
lintian --fail-on error "$deb" >"$scratch/lintian.txt" 2>&1 || lintian_rc=$?
cat "$scratch/lintian.txt"
if [ "$lintian_rc" -ne 0 ] || grep -q '^E: ' "$scratch/lintian.txt"; then
  fail "lintian reports errors (exit $lintian_rc)"
fi

# A fake sysfs tree: one fan chip with a PWM fan, and a CPU package sensor.
tree="$scratch/tree"
chip="$tree/sys/devices/platform/it87.656/hwmon/hwmon0"
mkdir -p "$chip" "$tree/sys/class/hwmon"
ln -s ../../../it87.656 "$chip/device"
ln -s ../../devices/platform/it87.656/hwmon/hwmon0 "$tree/sys/class/hwmon/hwmon0"
echo it87 >"$chip/name"
echo 1200 >"$chip/fan1_input"
echo 4000 >"$chip/fan1_max"
echo 90 >"$chip/pwm1"
echo 2 >"$chip/pwm1_enable"
temp="$tree/sys/devices/platform/coretemp.0/hwmon/hwmon1"
mkdir -p "$temp"
ln -s ../../../coretemp.0 "$temp/device"
ln -s ../../devices/platform/coretemp.0/hwmon/hwmon1 "$tree/sys/class/hwmon/hwmon1"
echo coretemp >"$temp/name"
echo 52000 >"$temp/temp1_input"
echo "Package id 0" >"$temp/temp1_label"

echo "== dpkg -i"
install_start=$(now_ms)
dpkg -i "$deb"
install_end=$(now_ms)
version="$(dpkg-query -W -f='${Version}' kelvo)"

echo "== kelvoctl before the helper runs"
rc=0
/usr/bin/kelvoctl helper status --helper-socket /run/kelvo/helper.sock --sysfs-root "$tree" \
  >"$scratch/status.txt" 2>&1 || rc=$?
cat "$scratch/status.txt"
{ [ "$rc" -eq 1 ] && grep -qF 'sudo systemctl enable --now kelvo-helperd' "$scratch/status.txt"; } ||
  fail "kelvoctl helper status, helper installed but not running: exit $rc, no systemctl hint"

echo "== the installed helper on the fake sysfs tree"
# /run/kelvo as the unit has it: on the private /run, so the purge below must remove it.
/usr/sbin/kelvo-helperd --sysfs-root "$tree" --runtime-dir /run/kelvo --allowed-group kelvo \
  --allow-uid 0 >"$scratch/helper.log" 2>&1 &
helper_pid=$!
status_answered() {
  kill -0 "$helper_pid" 2>/dev/null || return 2
  /usr/bin/kelvoctl helper status --helper-socket /run/kelvo/helper.sock --sysfs-root "$tree" \
    >"$scratch/status.txt" 2>&1
}
if wait_for 60 status_answered; then
  running=$(now_ms)
  cat "$scratch/status.txt"
  echo "install-to-running: $((running - install_start)) ms" \
    "(dpkg -i $((install_end - install_start)) ms, then the helper's first status answer)"
  grep -q 'it87@/sys/devices/platform/it87.656#fan1' "$scratch/status.txt" ||
    fail "kelvoctl helper status does not name the fan"
  grep -q '1200 rpm' "$scratch/status.txt" || fail "kelvoctl helper status lacks the fan's speed"
else
  fail "the installed helper gave no status within 60 s"
  cat "$scratch/status.txt" 2>/dev/null || true
fi

echo "== installed files"
for bin in /usr/bin/kelvo /usr/bin/kelvoctl /usr/bin/kelvo-simhw /usr/sbin/kelvo-helperd; do
  [ -x "$bin" ] || fail "$bin is not installed"
done
[ "$(/usr/sbin/kelvo-helperd --version)" = "$version" ] ||
  fail "kelvo-helperd --version is not $version"
/usr/sbin/kelvo-helperd --help | grep -q '^usage: kelvo-helperd' || fail "kelvo-helperd --help"
rc=0
/usr/bin/kelvoctl >/dev/null 2>"$scratch/kelvoctl.txt" || rc=$?
{ [ "$rc" -eq 2 ] && grep -q '^usage: kelvoctl' "$scratch/kelvoctl.txt"; } ||
  fail "kelvoctl without arguments: exit $rc, no usage"
rc=0
/usr/bin/kelvo-simhw >/dev/null 2>"$scratch/simhw.txt" || rc=$?
{ [ "$rc" -eq 2 ] && grep -q '^usage: kelvo-simhw' "$scratch/simhw.txt"; } ||
  fail "kelvo-simhw without arguments: exit $rc, no usage"

# kelvo itself: it starts, runs its loop on the simulated machine, and stops on SIGTERM.
home="$scratch/home"
mkdir -p "$home/run" && chmod 700 "$home/run"
env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM HOME="$home" XDG_CONFIG_HOME="$home/config" \
  XDG_DATA_HOME="$home/data" XDG_RUNTIME_DIR="$home/run" \
  /usr/bin/kelvo --headless --harness-simulated-fans >"$scratch/kelvo.txt" 2>&1 &
kelvo_pid=$!
if wait_for 60 grep -q 'mode=.*fans=' "$scratch/kelvo.txt"; then
  kill -TERM "$kelvo_pid"
  rc=0
  wait "$kelvo_pid" || rc=$?
  { [ "$rc" -eq 0 ] && grep -q '^kelvo: stopped; fans released' "$scratch/kelvo.txt"; } ||
    fail "kelvo did not stop cleanly on SIGTERM (exit $rc)"
else
  fail "kelvo --headless printed no update within 60 s"
fi
kelvo_pid=""
head -3 "$scratch/kelvo.txt"

for page in man1/kelvo.1 man1/kelvoctl.1 man1/kelvo-simhw.1 man8/kelvo-helperd.8; do
  file="/usr/share/man/$page.gz"
  name="$(basename "$page" | sed 's/\.[0-9]$//')"
  if [ ! -f "$file" ]; then
    fail "no manual page $file"
    continue
  fi
  [ "$(man -w "${page##*.}" "$name" 2>/dev/null)" = "$file" ] || fail "man -w does not find $file"
  warnings="$(MANWIDTH=80 man --warnings -l "$file" 2>&1 >"$scratch/page.txt")" || true
  [ -z "$warnings" ] || fail "$file: $warnings"
  for section in NAME SYNOPSIS DESCRIPTION OPTIONS FILES "SEE ALSO"; do
    grep -qx "$section" "$scratch/page.txt" || fail "$file renders no $section section"
  done
done

unit="$(dpkg -L kelvo | grep '/systemd/system/kelvo-helperd.service$' || true)"
if [ -z "$unit" ] || [ ! -f "$unit" ]; then
  fail "the helper's unit is not installed"
else
  grep -qxF "ExecStart=/usr/sbin/kelvo-helperd --runtime-dir /run/kelvo --allowed-group kelvo" \
    "$unit" || fail "$unit does not start the installed helper"
  # Installed, the unit's manual page is there for verify to find.
  rc=0
  out="$(systemd-analyze verify "$unit" 2>&1)" || rc=$?
  { [ "$rc" -eq 0 ] && [ -z "$out" ]; } || fail "systemd-analyze verify $unit (exit $rc): $out"
  bash "$source_dir/tests/packaging/check-helper-unit.sh" "$unit" /usr/sbin/kelvo-helperd ||
    fail "the installed unit fails check-helper-unit.sh"
  link=/etc/systemd/system/multi-user.target.wants/kelvo-helperd.service
  { [ -L "$link" ] && [ "$(readlink -f "$link")" = "$(readlink -f "$unit")" ]; } ||
    fail "postinst did not enable the helper ($link)"
fi
grep -qx 'g kelvo -' /usr/lib/sysusers.d/kelvo.conf || fail "no sysusers entry for kelvo"
group="$(getent group kelvo || true)"
if [ -z "$group" ]; then
  fail "postinst did not create the group kelvo"
else
  echo "group: $group"
  gid="$(echo "$group" | cut -d: -f3)"
  [ "$gid" -lt 1000 ] || fail "kelvo is not a system group (gid $gid)"
fi
grep -qx 'Exec=kelvo' /usr/share/applications/kelvo.desktop || fail "no desktop entry"
for icon in scalable/apps/kelvo.svg 48x48/apps/kelvo.png 256x256/apps/kelvo.png; do
  [ -f "/usr/share/icons/hicolor/$icon" ] || fail "no icon $icon"
done
head -1 /usr/share/doc/kelvo/copyright |
  grep -qxF 'Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/' ||
  fail "the copyright file is not machine-readable"
zcat /usr/share/doc/kelvo/changelog.gz | head -1 | grep -q "^kelvo ($version) " ||
  fail "changelog.gz does not start with $version"

echo "== stopping the helper"
kill -TERM "$helper_pid" 2>/dev/null || true
rc=0
wait "$helper_pid" || rc=$?
helper_pid=""
cat "$scratch/helper.log"
{ [ "$rc" -eq 0 ] && grep -q 'stopped by SIGTERM' "$scratch/helper.log"; } ||
  fail "the helper did not stop cleanly on SIGTERM (exit $rc)"
[ "$(cat "$chip/pwm1_enable")" = 2 ] || fail "pwm1_enable is not back to 2"
[ -d /run/kelvo ] || fail "the helper made no /run/kelvo"

echo "== dpkg --purge"
mapfile -t listed < <(dpkg -L kelvo)
purge_start=$(now_ms)
dpkg --purge kelvo
echo "purge: $(($(now_ms) - purge_start)) ms"
for path in "${listed[@]}"; do
  [ "$path" = "/." ] && continue
  [ -e "$path" ] || [ -L "$path" ] || continue
  # A directory that holds other files or belongs to another package is shared.
  if [ -d "$path" ] && { [ -n "$(ls -A "$path")" ] || dpkg-query -S "$path" >/dev/null 2>&1; }; then
    continue
  fi
  fail "left after purge: $path"
done
! getent group kelvo >/dev/null || fail "the group kelvo is left after purge"
[ ! -e /run/kelvo ] || fail "/run/kelvo is left after purge"
kelvo_named >"$scratch/after.txt"
left="$(comm -13 "$scratch/before.txt" "$scratch/after.txt")"
[ -z "$left" ] || fail "left after purge: $left"

if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "package install, run and purge OK"
