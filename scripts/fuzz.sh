#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ in the clang build of scripts/sanitize.sh (build/asan,
# AddressSanitizer and UndefinedBehaviorSanitizer) and runs them one after the other, one job each,
# then prints executions, coverage and findings per target.
#
# Usage: scripts/fuzz.sh [seconds]   run each target that long (default 600)
#        scripts/fuzz.sh --smoke     a few seconds each, from the committed corpus (for CI)
#        scripts/fuzz.sh --build-only
#
# Inputs found while fuzzing go to build/asan/corpus/<target>; the committed seeds in
# fuzz/corpus/<target> are read, never written. Crashing inputs land in build/asan/findings/.
# A finding makes the script fail; fix the fault, add a regression test and put the input into
# fuzz/corpus/<target>.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

seconds=600
smoke=false
build_only=false
if [ "${1:-}" = "--build-only" ]; then
  build_only=true
elif [ "${1:-}" = "--smoke" ]; then
  smoke=true
  seconds=5
elif [ -n "${1:-}" ]; then
  seconds=$1
fi

targets=(receive_path timestamp forward_grammar json_string)
build=build/asan
scripts/sanitize.sh --build-only asan
$build_only && exit 0

export ASAN_OPTIONS="detect_leaks=1:detect_stack_use_after_return=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

failed=0
summary=()
for target in "${targets[@]}"; do
  if $smoke; then
    work=$(mktemp -d)  # the smoke run keeps nothing
  else
    work=$root/$build/corpus/$target
    mkdir -p "$work"
  fi
  findings=$root/$build/findings/$target
  mkdir -p "$findings"
  log=$root/$build/$target.log
  extra=()
  [ -f "fuzz/$target.dict" ] && extra+=(-dict="$root/fuzz/$target.dict")
  # Every receive_path input ends with allocations still held by design (the log's per-thread
  # message slot, OpenSSL's per-thread state), so a leak check after each input would scan the
  # whole heap every time and cost four fifths of the speed. Leaks are still checked once, when
  # the process exits.
  [ "$target" = receive_path ] && extra+=(-detect_leaks=0)
  before=$(find "$findings" -type f | wc -l)
  echo "fuzz.sh: $target for $seconds s"
  status=0
  "$root/$build/fuzz/fuzz_$target" -max_total_time="$seconds" -jobs=1 -workers=1 -timeout=10 \
    -print_final_stats=1 -artifact_prefix="$findings/" "${extra[@]}" \
    "$work" "$root/fuzz/corpus/$target" </dev/null >"$log" 2>&1 || status=$?
  after=$(find "$findings" -type f | wc -l)
  # -jobs=1 sends libFuzzer's own output to fuzz-0.log in the working directory.
  [ -f fuzz-0.log ] && cat fuzz-0.log >>"$log" && rm -f fuzz-0.log
  execs=$(grep -o 'stat::number_of_executed_units: [0-9]*' "$log" | tail -1 | grep -o '[0-9]*$' || true)
  stats=$(grep -E '^#[0-9]+.*cov: ' "$log" | tail -1 | grep -oE 'cov: [0-9]+ ft: [0-9]+ corp: [0-9]+/[0-9a-zA-Z]+' || true)
  # The harness's own count; the -jobs parent prints one too, for the no inputs it ran.
  fatal=$(grep -E "^$target: [1-9]" "$log" | tail -1 | sed "s/^$target: //" || true)
  line="$target: ${execs:-?} executions, ${stats:-no stats}, findings $((after - before))${fatal:+; $fatal}"
  summary+=("$line")
  if ((status != 0 || after != before)); then
    failed=1
    summary+=("  see $log and $findings")
  fi
  $smoke && rm -rf "$work"
done

printf '%s\n' "${summary[@]}"
exit $failed
