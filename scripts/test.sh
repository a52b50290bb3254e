#!/usr/bin/env bash
# Builds drover with warnings as errors and runs every test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/test
scripts/setup.sh "$build" -DDROVER_WERROR=ON
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" --timeout 600
