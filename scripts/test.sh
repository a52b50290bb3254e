#!/usr/bin/env bash
# Builds drover with warnings as errors and runs every test suite, then the suites under the
# sanitizers and a short pass of each fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/test
scripts/setup.sh "$build" -DDROVER_WERROR=ON

# The sanitizer and fuzz builds are a third of the run, and the main suite leaves a core idle
# for much of its time: its long scenarios wait on timers and rate-limited writers. So those
# builds go on beside it in the idle scheduling class, which runs only on CPU nobody else
# wants: a test never waits for them. Their output is shown when they are done.
side_log=build/side-builds.log
mkdir -p build
setsid chrt --idle 0 bash -c 'scripts/sanitize.sh --build-only && scripts/fuzz.sh --build-only' \
  >"$side_log" 2>&1 &
side=$!
trap 'kill -- -"$side" 2>/dev/null || true' EXIT

ctest --test-dir "$build" --output-on-failure -j"$(nproc)" --timeout 600
scripts/check_package.sh "$build"

side_status=0
wait "$side" || side_status=$?
trap - EXIT
tail -n 20 "$side_log"
if ((side_status != 0)); then
  echo "test.sh: the sanitizer or fuzz build failed, see $side_log" >&2
  exit 1
fi
scripts/sanitize.sh
scripts/fuzz.sh --smoke
