#!/usr/bin/env bash
# Builds the Debian package kelvo_<version>_<arch>.deb with CPack's DEB generator from a Release
# build of its own (build/package: prefix /usr, no tests, no benchmarks) and prints its path and
# size. Usage: scripts/package.sh
set -euo pipefail
cd "$(dirname "$0")/.."
export CCACHE_DIR="${CCACHE_DIR:-$HOME/.cache/ccache}"
# Paths relative to the checkout, so clones and worktrees elsewhere share cache hits.
export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}"
build=build/package

# Debian's hardening flags on every binary, since kelvo-helperd runs as root: stack protector,
# fortified libc calls, full RELRO with BIND_NOW (Debian's compiler builds PIE by default).
# Debug info is left out: the package is stripped.
flags() { DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get "$1" | sed 's/\(^\| \)-g\( \|$\)/\1/'; }
link="$(flags LDFLAGS)"

# The package manager updates a packaged Kelvo: the build gets no update feed and no signing key,
# so the in-app updater never rewrites files that dpkg owns.
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
      -DCMAKE_C_FLAGS="$(flags CPPFLAGS) $(flags CFLAGS)" -DCMAKE_CXX_FLAGS="$(flags CPPFLAGS) $(flags CXXFLAGS)" \
      -DCMAKE_EXE_LINKER_FLAGS="$link" -DCMAKE_SHARED_LINKER_FLAGS="$link" \
      -DKELVO_BUILD_TESTS=OFF -DKELVO_BUILD_BENCH=OFF \
      -DKELVO_UPDATE_FEED_URL= -DKELVO_UPDATE_PUBLIC_KEY=
cmake --build "$build" -j "$(nproc)"

version="$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")"
logged="$(sed -n '1s/^kelvo (\([^)]*\)).*/\1/p' packaging/debian/changelog)"
if [ "$version" != "$logged" ]; then
  echo "package: version $version has no entry in packaging/debian/changelog (newest: $logged)" >&2
  exit 1
fi

deb="$PWD/$build/kelvo_${version}_$(dpkg --print-architecture).deb"
rm -f "$deb"
(cd "$build" && cpack -G DEB)
[ -f "$deb" ] || { echo "package: cpack did not write $deb" >&2; exit 1; }
bytes="$(stat -c %s "$deb")"
echo "package: $deb"
echo "package: size $bytes bytes ($(numfmt --to=iec-i --suffix=B "$bytes"))"
