#!/usr/bin/env bash
# Builds drover with warnings as errors and runs every test suite, then the suites under the
# sanitizers and a short pass of each fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/test
# One unit per target and batch (CMAKE_UNITY_BUILD): the test files share their headers and
# templates, and the build took 197 instead of 429 CPU-seconds here.
scripts/setup.sh "$build" -DDROVER_WERROR=ON -DCMAKE_UNITY_BUILD=ON

# The sanitizer builds (one of them holds the fuzz targets) are most of the run's CPU, and the
# suites below leave a core idle for much of their time: the reliability scenarios wait on
# timers and rate-limited writers. So those builds go on beside them in the idle scheduling
# class, which runs only on CPU nobody else wants: a test never waits for them. Their output is
# shown when they are done.
side_log=build/side-builds.log
mkdir -p build
setsid chrt --idle 0 scripts/sanitize.sh --build-only >"$side_log" 2>&1 &
side=$!
# The scenarios mostly wait, each on its own processes and ports, so they all run at once, in a
# CTest of their own beside the other suites.
reliability_log=build/reliability.log
ctest --test-dir "$build" --output-on-failure -L reliability -j8 --timeout 600 \
  >"$reliability_log" 2>&1 &
reliability=$!
trap 'kill -- -"$side" 2>/dev/null || true; kill "$reliability" 2>/dev/null || true' EXIT

status=0
ctest --test-dir "$build" --output-on-failure -LE reliability -j"$(nproc)" --timeout 600 ||
  status=1
wait "$reliability" || status=1
cat "$reliability_log"
((status == 0)) || exit 1
scripts/check_package.sh "$build"

side_status=0
wait "$side" || side_status=$?
trap - EXIT
tail -n 20 "$side_log"
if ((side_status != 0)); then
  echo "test.sh: a sanitizer build failed, see $side_log" >&2
  exit 1
fi
# The two sanitizer runs use builds of their own and mostly wait, so they go side by side; the
# fuzz smoke pass, a few seconds of one core, follows the ASan run whose build it shares.
scripts/sanitize.sh tsan >build/sanitize-tsan.log 2>&1 &
tsan=$!
status=0
{ scripts/sanitize.sh asan && scripts/fuzz.sh --smoke; } >build/sanitize-asan.log 2>&1 || status=1
wait "$tsan" || status=1
cat build/sanitize-asan.log build/sanitize-tsan.log
exit "$status"
