#!/usr/bin/env bash
# Every figure in one run: the Google Benchmarks, the control-quality comparison (table, CSV and
# one SVG chart per machine and trace) and the process overhead of the runtime.
#
#   scripts/bench.sh [--quick]     --quick skips the overhead measurement (about five minutes)
#
# Results land in build/release/bench-results/.
set -euo pipefail
cd "$(dirname "$0")/.."
quick=0
[[ "${1:-}" == "--quick" ]] && quick=1

export CCACHE_DIR="${CCACHE_DIR:-$HOME/.cache/ccache}"
export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}"
cmake --preset release >/dev/null
cmake --build --preset release --target kelvo_bench control_quality kelvo kelvo-chart-demo

results=build/release/bench-results
mkdir -p "$results"

echo "== Google Benchmarks (build/release/bench/kelvo_bench)"
build/release/bench/kelvo_bench --benchmark_out="$results/kelvo_bench.json" \
    --benchmark_out_format=json

echo
echo "== Control quality (build/release/bench/control_quality/control_quality)"
build/release/bench/control_quality/control_quality --csv "$results/control_quality.csv" \
    --fan-csv "$results/control_quality_fans.csv" --svg-dir "$results/control_quality_charts" \
    --coupling-csv "$results/control_quality_coupling.csv"
echo
echo "== What Kelvo learns of its fans over longer use"
build/release/bench/control_quality/control_quality --learn-minutes 30,60,120,240 \
    --coupling-csv "$results/control_quality_learning.csv"

if [[ $quick -eq 0 ]]; then
    echo
    echo "== Overhead (bench/overhead/overhead.sh)"
    bench/overhead/overhead.sh --build build/release
fi
echo
echo "Results in $results/"
