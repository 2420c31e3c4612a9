#!/usr/bin/env bash
# Installs the Debian package where a user would: a minimal Debian 12 root made with mmdebstrap
# from the mirror this machine's apt uses, holding only what the package's Depends bring (no
# build tools, no dev packages, no recommends). There it launches the installed kelvo on the
# simulated machine under an X server and checks that the dashboard opens and draws, runs the
# other installed programs and a shipped simulated machine, renders the manual pages and checks
# that every binary carries Debian's hardening.
# Usage: clean-root.sh SOURCE_DIR. Needs root (chroot, mounts) and the package mirror; exits 77
# (skipped) where it cannot run. Nothing outside its scratch directory changes.
set -euo pipefail
source "$(dirname "$0")/common.sh"

source_dir="$(cd "$1" && pwd)"
[ "$(id -u)" -eq 0 ] || skip "not root: chroot and mounts need root"
for tool in mmdebstrap Xvfb xwininfo xwd readelf unshare; do
  command -v "$tool" >/dev/null || skip "$tool is missing (scripts/setup-tests.sh installs it)"
done
unshare --mount true 2>/dev/null || skip "cannot create a mount namespace (unshare --mount)"

# The mirror apt uses here, for Debian 12; a third-party source would not be in a user's root.
mapfile -t sources < <(grep -lsE '^(deb |Suites:.*)bookworm' /etc/apt/sources.list \
  /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources || true)
[ "${#sources[@]}" -gt 0 ] || skip "apt here has no Debian 12 (bookworm) source"
# apt's own settings for reaching it (a proxy, a snapshot's validity), as apt here has them.
aptopts=()
for conf in /etc/apt/apt.conf.d/*; do
  grep -qs '^[[:space:]]*Acquire::' "$conf" && aptopts+=("--aptopt=$conf")
done

scratch="$(mktemp -d /var/tmp/kelvo-clean-root.XXXXXX)"
root="$scratch/root"
xvfb_pid=""
kelvo_pid=""

cleanup() {
  local rc=$?
  stop_processes "$kelvo_pid" "$xvfb_pid"
  # Every mount was made in a namespace of its own that ended with its process: nothing under
  # the root is mounted here, so removing it cannot reach the machine's /dev or /proc.
  if findmnt -rno TARGET | grep -q "^$scratch/"; then
    echo "cleanup: something is still mounted under $scratch; leaving it"
  else
    rm -rf "$scratch"
  fi
  exit "$rc"
}
trap cleanup EXIT

# Runs a command in the root, as a user's machine has it: /proc, /dev, an empty /run, and the X
# server's socket; the mounts end with the command. The command replaces the process that
# starts it, so a background one's $! is the command itself.
in_root_script='
  root=$1
  shift
  mount -t proc proc "$root/proc" && mount --rbind /dev "$root/dev" &&
    mount -t tmpfs -o mode=0755 tmpfs "$root/run" &&
    mount --bind /tmp/.X11-unix "$root/tmp/.X11-unix" || exit 125
  exec chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive "$@"'
in_root() {
  unshare --mount --propagation private -- bash -c "$in_root_script" bash "$root" "$@"
}

echo "== building the package"
"$source_dir/scripts/package.sh" | tee "$scratch/package.log"
deb="$(sed -n 's/^package: \(\/.*\.deb\)$/\1/p' "$scratch/package.log")"
[ -f "$deb" ] || { echo "FAIL: scripts/package.sh named no package"; exit 1; }
version="$(dpkg-deb -f "$deb" Version)"

echo "== a minimal Debian 12 root from ${sources[*]}"
start=$(now_ms)
make_root() {
  rm -rf "$root"
  mmdebstrap --variant=apt --mode=root --format=directory "${aptopts[@]}" bookworm "$root" \
    "${sources[@]}"
}
twice "$scratch/mmdebstrap.log" make_root || { echo "FAIL: could not make the root"; exit 1; }
echo "root made in $(($(now_ms) - start)) ms: $(du -sh "$root" | cut -f1)"
cp /etc/resolv.conf "$root/etc/resolv.conf"
mkdir -p "$root/tmp/.X11-unix"
cp "$deb" "$root/tmp/kelvo.deb"

echo "== apt-get install ./kelvo.deb (no recommends)"
start=$(now_ms)
install_package() {
  in_root apt-get update -qq && in_root apt-get install -y -q --no-install-recommends /tmp/kelvo.deb
}
twice "$scratch/apt.log" install_package || { echo "FAIL: the package did not install"; exit 1; }
echo "installed in $(($(now_ms) - start)) ms: $(du -sh "$root" | cut -f1)"
grep -E '^(Setting up|Adding)' "$scratch/apt.log" | grep -E 'kelvo|qml6|group' || true

# Only what the package brings: no compiler, no headers, no build system.
in_root dpkg-query -W -f='${Package}\n' >"$scratch/packages.txt"
echo "packages in the root: $(wc -l <"$scratch/packages.txt")"
extra="$(grep -E -- '-dev$|^(gcc|g\+\+|cpp|clang|cmake|ninja-build|make|binutils)(-[0-9.]+)?$' \
  "$scratch/packages.txt" || true)"
[ -z "$extra" ] || fail "the root holds build tools or dev packages: $(echo $extra)"

echo "== the installed programs answer"
for program in kelvo kelvoctl kelvo-simhw; do
  said="$(in_root "/usr/bin/$program" --version 2>&1)" || true
  grep -qxE "$program ${version//./\\.}( \(build [0-9]+\))?" <<<"$said" ||
    fail "$program --version says '$said', not version $version"
done
in_root /usr/sbin/kelvo-helperd --help | grep -q '^usage: kelvo-helperd' ||
  fail "kelvo-helperd --help names no usage"

echo "== manual pages"
for page in man1/kelvo.1 man1/kelvoctl.1 man1/kelvo-simhw.1 man8/kelvo-helperd.8; do
  file="$root/usr/share/man/$page.gz"
  if [ ! -f "$file" ]; then
    fail "no manual page /usr/share/man/$page.gz"
    continue
  fi
  warnings="$(MANWIDTH=80 man --warnings -l "$file" 2>&1 >"$scratch/page.txt")" || true
  [ -z "$warnings" ] || fail "$page: $warnings"
  grep -qx NAME "$scratch/page.txt" || fail "$page renders no NAME section"
done

echo "== hardening"
for bin in usr/bin/kelvo usr/bin/kelvoctl usr/bin/kelvo-simhw usr/sbin/kelvo-helperd; do
  elf="$root/$bin"
  header="$(readelf -h "$elf")"
  dynamic="$(readelf -d "$elf")"
  segments="$(readelf -lW "$elf")"
  symbols="$(readelf --dyn-syms -W "$elf")"
  grep -q 'Type:[[:space:]]*DYN' <<<"$header" || fail "$bin is not position independent"
  grep -q 'GNU_RELRO' <<<"$segments" || fail "$bin has no RELRO segment"
  grep -qE 'BIND_NOW|FLAGS_1.*NOW' <<<"$dynamic" || fail "$bin is not linked with BIND_NOW"
  grep -q '__stack_chk_fail' <<<"$symbols" || fail "$bin has no stack protector"
  grep -qE '__[a-z0-9_]+_chk(@|$| )' <<<"$(grep -v __stack_chk_fail <<<"$symbols")" ||
    fail "$bin calls no fortified libc function"
  echo "$bin: $(stat -c %s "$elf") bytes, PIE, RELRO, BIND_NOW, stack protector, fortify"
done

echo "== a shipped simulated machine, by its name"
if [ -c /dev/fuse ]; then
  mkdir -p "$root/tmp/sim"
  # One mount namespace for the mount and its reader.
  in_root sh -c '
    kelvo-simhw --machine thin-laptop --trace compile /tmp/sim & pid=$!
    tries=0
    until [ -e /tmp/sim/sys/class/hwmon/hwmon0/name ] || [ $tries -ge 300 ]; do
      sleep 0.1
      tries=$((tries + 1))
    done
    cat /tmp/sim/sys/class/hwmon/hwmon*/name
    kill -TERM $pid
    wait $pid' >"$scratch/simhw.log" 2>&1 || true
  chips="$(grep -vE '^(kelvo-simhw|cat):|^$' "$scratch/simhw.log" | tr '\n' ' ')"
  if [ -n "$chips" ]; then
    echo "chips: $chips"
  else
    fail "kelvo-simhw --machine thin-laptop served no hwmon chip within 30 s"
    cat "$scratch/simhw.log"
  fi
else
  echo "no /dev/fuse here: the mount is not tried"
fi
[ -f "$root/usr/share/kelvo/machines/thin-laptop.json" ] || fail "no shipped machine thin-laptop"
[ -f "$root/usr/share/kelvo/traces/compile.json" ] || fail "no shipped trace compile"

echo "== the dashboard on an X server"
# Xvfb writes the display it took to fd 3 once it accepts connections.
Xvfb -displayfd 3 -screen 0 1366x768x24 -nolisten tcp 3>"$scratch/display" >"$scratch/xvfb.log" 2>&1 &
xvfb_pid=$!
wait_for 30 grep -q '^[0-9]' "$scratch/display" ||
  { echo "FAIL: Xvfb gave no display"; cat "$scratch/xvfb.log"; exit 1; }
display="$(head -1 "$scratch/display")"
mkdir -p "$root/root/run" && chmod 700 "$root/root/run"
launch=$(now_ms)
unshare --mount --propagation private -- bash -c "$in_root_script" bash "$root" \
  env DISPLAY=":$display" XDG_RUNTIME_DIR=/root/run \
  /usr/bin/kelvo --simulated-fans --report-first-frame >"$scratch/kelvo.log" 2>&1 &
kelvo_pid=$!
first_frame() {
  kill -0 "$kelvo_pid" 2>/dev/null || return 0
  grep -qE 'first dashboard frame after|dashboard window cannot open' "$scratch/kelvo.log"
}
wait_for 120 first_frame || true
if grep -q 'first dashboard frame after' "$scratch/kelvo.log"; then
  echo "first frame: $(sed -n 's/.*first dashboard frame after \([0-9]*\) ms.*/\1/p' \
    "$scratch/kelvo.log") ms after kelvo started, $(($(now_ms) - launch)) ms after the launch"
  window="$(xwininfo -display ":$display" -root -tree | awk '/"Kelvo": \(/ {print $1; exit}')"
  if [ -z "$window" ]; then
    fail "no window named Kelvo on the display"
  else
    xwininfo -display ":$display" -id "$window" >"$scratch/window.txt"
    width="$(sed -n 's/^ *Width: //p' "$scratch/window.txt")"
    height="$(sed -n 's/^ *Height: //p' "$scratch/window.txt")"
    grep -q 'Map State: IsViewable' "$scratch/window.txt" || fail "the Kelvo window is not mapped"
    echo "window: ${width}x$height"
    # The dashboard's pixels: a window that opened but drew nothing is one colour.
    xwd -display ":$display" -id "$window" -silent >"$scratch/window.xwd"
    colours="$(tail -c $((width * height * 4)) "$scratch/window.xwd" | od -An -v -tx4 -w4 |
      sort -u | wc -l)"
    echo "distinct colours in the window: $colours"
    [ "$colours" -ge 16 ] || fail "the window shows $colours colours: the dashboard drew nothing"
  fi
else
  fail "no dashboard frame"
fi
if grep -E 'qrc:/|is not installed|module ".*" .*not' "$scratch/kelvo.log"; then
  fail "kelvo reports that part of its window could not load"
fi
if kill -0 "$kelvo_pid" 2>/dev/null; then
  kill -TERM "$kelvo_pid"
  rc=0
  wait "$kelvo_pid" || rc=$?
  kelvo_pid=""
  { [ "$rc" -eq 0 ] && grep -q '^kelvo: stopped; fans released' "$scratch/kelvo.log"; } ||
    fail "kelvo did not stop cleanly on SIGTERM (exit $rc)"
else
  rc=0
  wait "$kelvo_pid" || rc=$?
  kelvo_pid=""
  fail "kelvo exited on its own (exit $rc)"
fi
echo "-- kelvo's output"
cat "$scratch/kelvo.log"

if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "the package installs, opens its dashboard and runs in a clean Debian 12 root"
