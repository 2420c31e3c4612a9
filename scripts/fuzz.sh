#!/usr/bin/env bash
# Builds the helper protocol's libFuzzer target with clang and runs it for a while (30 s by
# default). Starts from the committed corpus; new inputs go to a scratch copy.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-30}"
export CCACHE_DIR="${CCACHE_DIR:-$HOME/.cache/ccache}"
export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}"
CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKELVO_BUILD_FUZZERS=ON -DKELVO_BUILD_TESTS=OFF -DKELVO_BUILD_BENCH=OFF > /dev/null
cmake --build build/fuzz --target helper_protocol_fuzz
corpus="$(mktemp -d)"
trap 'rm -rf "$corpus"' EXIT
cp fuzz/corpus/helper_protocol/* "$corpus"/
log="build/fuzz/helper_protocol_fuzz.log"
if ! build/fuzz/helper/helper_protocol_fuzz -max_total_time="$seconds" -print_final_stats=1 \
    "$corpus" > "$log" 2>&1; then
  tail -n 60 "$log"
  echo "fuzz: helper_protocol_fuzz found a failure (crash input saved in the working directory)"
  exit 1
fi
runs="$(sed -n -E 's/^stat::number_of_executed_units: *([0-9]+)/\1/p' "$log")"
echo "fuzz: helper_protocol_fuzz ran ${runs:-?} inputs in ${seconds} s without a failure"
