#!/usr/bin/env bash
# Builds drover with warnings as errors and runs every test suite, then the suites under the
# sanitizers and a short pass of each fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/test
scripts/setup.sh "$build" -DDROVER_WERROR=ON
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" --timeout 600
scripts/check_package.sh "$build"
scripts/sanitize.sh
scripts/fuzz.sh --smoke
