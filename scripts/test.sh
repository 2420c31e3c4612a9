#!/usr/bin/env bash
# Installs what is missing (scripts/setup-tests.sh), builds everything in Release and runs every
# test.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup-tests.sh
export CCACHE_DIR="${CCACHE_DIR:-$HOME/.cache/ccache}"
# Paths relative to the checkout, so clones and worktrees elsewhere share cache hits.
export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}"
cmake --preset release
cmake --build --preset release -j "$(nproc)"
# Tests never touch the real user's settings or data.
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
export XDG_CONFIG_HOME="$scratch/config" XDG_DATA_HOME="$scratch/data" XDG_RUNTIME_DIR="$scratch/run"
mkdir -p "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
# The helper's protocol decoder under libFuzzer first, so the test summary stays the last line.
./scripts/fuzz.sh 30
ctest --preset release -j "$(nproc)" --output-on-failure
