# Sourced by the set-up scripts: install_missing PACKAGE... installs, non-interactively and
# without recommends, those of the packages that are not installed yet, and sets NEWLY to them.
NEWLY=()
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

install_missing() {
  NEWLY=()
  local pkg
  for pkg in "$@"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
      NEWLY+=("$pkg")
    fi
  done
  [ "${#NEWLY[@]}" -gt 0 ] || return 0
  echo "setup: installing ${NEWLY[*]}"
  $SUDO env DEBIAN_FRONTEND=noninteractive apt-get update -qq
  $SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${NEWLY[@]}"
}
