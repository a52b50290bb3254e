#!/usr/bin/env bash
# Builds drover and shows what it does.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/demo
scripts/setup.sh "$build" -DDROVER_TESTS=OFF -DDROVER_BENCHMARKS=OFF
"$build/drover" help
