#!/usr/bin/env bash
# Builds drover with warnings as errors and runs every test suite, then the suites under the
# sanitizers and a short pass of each fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
mkdir -p build
rm -f build/sanitize-*.log
scripts/setup.sh --packages build
# The package checks' tools are needed only after the suites.
scripts/setup.sh --packages checks >build/packages.log 2>&1 &
checks=$!

# Compiling is most of the run's CPU and the suites mostly wait, so the sanitizer builds go on
# beside the plain build and its suites in the idle scheduling class: they take only CPU that
# nobody else wants, and a test never waits for them. Every suite runs at normal priority. The
# ASan+UBSan build (clang, with the fuzz targets) comes first, since its suites and the fuzz pass
# are the longer tail; the TSan build of what runs threads compiles while they run.
sanitizers() {
  scripts/sanitize.sh --idle --build-only asan >build/sanitize-asan.log 2>&1 || return 1
  scripts/sanitize.sh --idle tsan >build/sanitize-tsan.log 2>&1 &
  local tsan=$! status=0
  { scripts/sanitize.sh asan && scripts/fuzz.sh --smoke; } >>build/sanitize-asan.log 2>&1 ||
    status=1
  wait "$tsan" || status=1
  return "$status"
}
# A process group of its own (job control) but no new session: a session is a scheduling
# group of its own to the kernel (autogroup), which would get half the CPU whatever its class.
set -m
sanitizers &
sanitizers=$!
set +m
trap 'kill -- -"$sanitizers" 2>/dev/null || true' EXIT

# One unit per target and batch (CMAKE_UNITY_BUILD): the test files share their headers and
# templates, and the build took 197 instead of 429 CPU-seconds here. No debug information: the
# package strips it, a failing test's report does not need it, and without it the build took
# 125 CPU-seconds.
build=build/test
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 \
  -DDROVER_WERROR=ON -DCMAKE_UNITY_BUILD=ON >/dev/null
cmake --build "$build" -j"$(nproc)"
wait "$checks" || { cat build/packages.log; exit 1; }

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

wait "$sanitizers" || status=1
trap - EXIT
# Their logs without the builds' progress lines.
cat build/sanitize-*.log | grep -vE '^\[ *[0-9]+%\] ' || true
exit "$status"
