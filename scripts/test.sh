#!/usr/bin/env bash
# Builds drover with warnings as errors and runs every test suite, then the suites under the
# sanitizers and a short pass of each fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh --packages-only
mkdir -p build

# Three chains go at once, each in a process group of its own:
#   plain:  build, the suites beside the reliability scenarios, the package check;
#   asan:   the ASan+UBSan build (clang, with the fuzz targets), its suites, the fuzz smoke pass;
#   tsan:   the TSan build of what runs threads, its suites.
# Compiling is most of the run's CPU and the suites mostly wait, so the sanitizer builds compile
# in the idle scheduling class: they take only CPU that nobody else wants, and a test never waits
# for them. Every suite runs at normal priority.
setsid bash -c 'scripts/sanitize.sh --idle asan && scripts/fuzz.sh --smoke' \
  >build/sanitize-asan.log 2>&1 &
asan=$!
setsid scripts/sanitize.sh --idle tsan >build/sanitize-tsan.log 2>&1 &
tsan=$!
trap 'kill -- -"$asan" -"$tsan" 2>/dev/null || true' EXIT

build=build/test
# One unit per target and batch (CMAKE_UNITY_BUILD): the test files share their headers and
# templates, and the build took 197 instead of 429 CPU-seconds here. No debug information: the
# package strips it, a failing test's report does not need it, and it was a third of the
# compile time.
scripts/setup.sh "$build" -DDROVER_WERROR=ON -DCMAKE_UNITY_BUILD=ON \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2

# The scenarios mostly wait, each on its own processes and ports, so they all run at once, in a
# CTest of their own beside the other suites.
reliability_log=build/reliability.log
ctest --test-dir "$build" --output-on-failure -L reliability -j8 --timeout 600 \
  >"$reliability_log" 2>&1 &
reliability=$!
status=0
ctest --test-dir "$build" --output-on-failure -LE reliability -j"$(nproc)" --timeout 600 ||
  status=1
wait "$reliability" || status=1
cat "$reliability_log"
((status == 0)) && { scripts/check_package.sh "$build" || status=1; }

for chain in asan tsan; do
  wait "${!chain}" || status=1
  cat "build/sanitize-$chain.log"
done
trap - EXIT
exit "$status"
