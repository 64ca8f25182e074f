#!/usr/bin/env bash
# Builds the benchmarks (preset bench: optimised, no tests), runs them and
# prints the tables of docs/PERFORMANCE.md: times, ratios to the baseline
# walk and growth from N to 10*N. Not part of the test run.
#
# BENCH_REPETITIONS (default 5) and BENCH_MIN_TIME (seconds per run,
# default 0.1) trade time for steadier figures; extra arguments go to
# vesk_bench (for instance --benchmark_filter=Factory/UDPv4).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh clang libclang-rt-14-dev valgrind libbenchmark-dev
cmake --preset bench >/dev/null
cmake --build --preset bench -j "$(nproc)"

results=build/bench/results.json
./build/bench/bench/vesk_bench --benchmark_repetitions="${BENCH_REPETITIONS:-5}" \
    --benchmark_min_time="${BENCH_MIN_TIME:-0.1}" --benchmark_report_aggregates_only=true \
    --benchmark_format=json --benchmark_out="$results" --benchmark_out_format=json "$@" >/dev/null

echo "Machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')"
python3 bench/report.py "$results"
echo
echo "Raw results: $results"
