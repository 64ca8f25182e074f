#!/usr/bin/env bash
# Builds and runs every test: once plainly, once under AddressSanitizer and
# UndefinedBehaviorSanitizer. Warnings are errors in both builds.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)
for preset in default asan; do
    echo "=== $preset build ==="
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" -j "$jobs"
    echo "=== $preset tests ==="
    ctest --preset "$preset" -j "$jobs"
done
