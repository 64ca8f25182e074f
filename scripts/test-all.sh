#!/usr/bin/env bash
# Builds and runs every test: once plainly, once under AddressSanitizer and
# UndefinedBehaviorSanitizer (warnings are errors in both builds); then the
# threaded tests under ThreadSanitizer, valgrind memcheck over the plain
# build's test executables, and every fuzz target for a short fixed time.
#
# FUZZ_SECONDS (default 15) sets the time per fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh clang libclang-rt-14-dev valgrind libbenchmark-dev
jobs=$(nproc)
fuzz_seconds=${FUZZ_SECONDS:-15}

passed=0
failed=0
stage=""
report() {
    # A failing stage stops the run; it is counted here on the way out.
    if [ -n "$stage" ]; then
        failed=$((failed + 1))
        echo "=== FAILED: $stage ==="
    fi
    echo "stages: $passed passed, $failed failed"
}
trap report EXIT
begin() {
    stage="$1"
    stage_start=$SECONDS
    echo "=== $stage ==="
}
end() {
    passed=$((passed + 1))
    echo "=== done in $((SECONDS - stage_start)) s: $stage ==="
    stage=""
}

for preset in default asan; do
    begin "$preset build"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" -j "$jobs"
    end
    begin "$preset tests"
    ctest --preset "$preset" -j "$jobs"
    end
done

# clang: gcc refuses the fences of the statistics seqlock under
# -fsanitize=thread. Only the threaded tests are built (see the preset).
begin "tsan build"
cmake --preset tsan >/dev/null
cmake --build --preset tsan -j "$jobs"
end
begin "tsan tests"
ctest --preset tsan -j "$jobs"
end

begin "valgrind memcheck over the default build's tests"
for test in build/default/tests/test_* build/default/tests/c_header_test; do
    [ -f "$test" ] && [ -x "$test" ] || continue
    echo "--- $(basename "$test")"
    valgrind --error-exitcode=1 --leak-check=full --errors-for-leak-kinds=definite,indirect \
        --quiet "$test" >"$test.valgrind.log" 2>&1 || { cat "$test.valgrind.log"; exit 1; }
done
end

begin "fuzz build"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$jobs"
end
begin "fuzz targets, ${fuzz_seconds}s each"
artifacts=build/fuzz/artifacts
mkdir -p "$artifacts"
for corpus in fuzz/corpus/*/; do
    target=$(basename "$corpus")
    # New inputs go to a scratch directory; the seeds stay as they are.
    scratch=build/fuzz/corpus-$target
    mkdir -p "$scratch"
    echo "--- fuzz_$target"
    "build/fuzz/fuzz/fuzz_$target" -max_total_time="$fuzz_seconds" -timeout=10 -rss_limit_mb=2048 \
        -dict=fuzz/properties.dict -artifact_prefix="$artifacts/$target-" -print_final_stats=1 \
        "$scratch" "$corpus" >"build/fuzz/fuzz_$target.log" 2>&1 ||
        { tail -n 60 "build/fuzz/fuzz_$target.log"; echo "crash input: $artifacts/$target-*"; exit 1; }
    grep -E '^(Done|stat::number_of_executed_units)' "build/fuzz/fuzz_$target.log" || true
done
end
