#!/usr/bin/env bash
# Runs the test suites under the sanitizers: AddressSanitizer with UndefinedBehaviorSanitizer over
# every suite, built with clang together with the fuzz targets of fuzz/ (build/asan, one build for
# both: scripts/fuzz.sh runs its targets from there), and ThreadSanitizer, with g++, over the
# suites that start threads (build/tsan). Any report fails its test, and with it this script.
# Usage: scripts/sanitize.sh [--build-only] [--idle] [asan] [tsan]   (default: both)
#   --build-only  configure and build, run nothing
#   --idle        compile in the idle scheduling class (the suites still run at normal priority):
#                 scripts/test.sh builds beside its other work this way
set -euo pipefail
cd "$(dirname "$0")/.."

build_only=false
idle=()
while [[ "${1:-}" == --* ]]; do
  case "$1" in
    --build-only) build_only=true ;;
    --idle) idle=(chrt --idle 0) ;;
    *) echo "unknown option: $1" >&2; exit 2 ;;
  esac
  shift
done
runs=("$@")
((${#runs[@]})) || runs=(asan tsan)
jobs=2
# Warnings are the normal build's matter (scripts/test.sh builds with -Werror): the sanitizers
# change inlining, and g++ 12 then warns falsely (maybe-uninitialized inside <regex>).
# -O1 -g1: what the sanitizers' authors advise, and a third less compile time than -O2 -g (a test
# file with its mocks took 30 s instead of 46 s); line tables are all a report's stack needs.
# One unit per target and batch, as in scripts/test.sh: a third less CPU for the clang build.
common=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DDROVER_WERROR=OFF -DCMAKE_UNITY_BUILD=ON
        -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1" -DDROVER_BENCHMARKS=OFF)

# Options, and why:
#  ASan: leaks are reports like any other; a process that dies through an assertion (death tests,
#    the fatal start-up paths) ends in abort(), which ASan leaves alone, so those tests still see
#    SIGABRT. detect_stack_use_after_return catches a pointer into a finished frame.
#  UBSan: -fno-sanitize-recover already stops at the first finding; print the stack with it.
#  TSan: second_deadlock_stack gives both stacks of a lock-order report. report_signal_unsafe=0:
#    the exit handlers log and exit from inside the signal handler by design (reason in
#    scripts/tsan.supp). The death tests are not part of the TSan run (see below), so forking
#    under threads doesn't arise.
#  All three: the tests run the agent and the sink as child processes whose standard error goes
#    to files that a passing test never shows, so every report also goes to a file of its own
#    under build/<run>/sanitizer-reports (log_path), and any such file fails the run.
reports() { echo "$PWD/build/$1/sanitizer-reports"; }
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
asan_options="detect_leaks=1:detect_stack_use_after_return=1:strict_init_order=1:check_initialization_order=1"
tsan_options="second_deadlock_stack=1:halt_on_error=1:report_signal_unsafe=0:suppressions=$PWD/scripts/tsan.supp"

# Fails if any process of the run left a report behind.
check_reports() {
  local dir=$1
  if compgen -G "$dir/*" >/dev/null; then
    echo "sanitize.sh: reports in $dir:" >&2
    head -n 40 "$dir"/* >&2
    return 1
  fi
}

for run in "${runs[@]}"; do
  start=$SECONDS
  case "$run" in
    asan)
      # fuzzer-no-link only adds the coverage hooks that the fuzz targets' own main reads.
      cmake -S . -B build/asan "${common[@]}" -DCMAKE_CXX_COMPILER=clang++ -DDROVER_FUZZ=ON \
        -DDROVER_SANITIZE=fuzzer-no-link,address,undefined \
        -DCMAKE_CXX_FLAGS="-Wno-unknown-warning-option" >/dev/null
      "${idle[@]}" cmake --build build/asan -j"$jobs"
      $build_only && continue
      dir=$(reports asan)
      rm -rf "$dir" && mkdir -p "$dir"
      # The tests leave out their memory bounds here (SANITIZED_BUILD): ASan's shadow memory
      # and quarantine alone are several times those bounds. The reliability scenarios measure
      # delays and memory of the plain program, and run in the normal suite.
      ASAN_OPTIONS="$asan_options:log_path=$dir/asan" UBSAN_OPTIONS="$UBSAN_OPTIONS:log_path=$dir/ubsan" \
        ctest --test-dir build/asan --output-on-failure -j"$jobs" --timeout 600 -LE reliability \
        || { check_reports "$dir"; exit 1; }
      check_reports "$dir"
      ;;
    tsan)
      # What runs threads: the log written from two threads, and the sink with its writer
      # thread. The agent's own thread, the name resolver, is out of TSan's reach: glibc's
      # getaddrinfo_a starts it from inside libc, past TSan's pthread_create interceptor, and TSan
      # then crashes in that thread's first malloc; the rest of the agent is one thread. The
      # death tests are left to the ASan run: they fork, which TSan doesn't support once threads
      # exist.
      cmake -S . -B build/tsan "${common[@]}" -DCMAKE_CXX_COMPILER=g++ -DDROVER_FUZZ=OFF \
        -DDROVER_SANITIZE=thread >/dev/null
      "${idle[@]}" cmake --build build/tsan -j"$jobs" --target support_tests sink_tests drover-sink
      $build_only && continue
      dir=$(reports tsan)
      rm -rf "$dir" && mkdir -p "$dir"
      TSAN_OPTIONS="$tsan_options:log_path=$dir/tsan" \
        ctest --test-dir build/tsan --output-on-failure -j"$jobs" --timeout 600 \
        -R '^(LogLine|SinkTest|SinkCommandLine|SinkStart)\.' || { check_reports "$dir"; exit 1; }
      check_reports "$dir"
      ;;
    *)
      echo "unknown run: $run (asan or tsan)" >&2
      exit 2
      ;;
  esac
  echo "sanitize.sh: $run passed in $((SECONDS - start)) s"
done
