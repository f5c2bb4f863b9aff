#!/usr/bin/env bash
# Runs one libFuzzer target for a number of seconds over its seed corpus.
#
#   run_fuzz.sh TARGET SEED_DIR WORK_DIR SECONDS
#
# New inputs go to WORK_DIR/corpus (the seeds are never written), crashes to
# WORK_DIR/crash-*.  Prints one line "fuzz: <name> runs=<n> crashes=<n>
# seconds=<s>" and appends it to WORK_DIR/../fuzz-stats.txt.  Exits non-zero
# when the target found a crash, leak, time-out or failed check.
set -uo pipefail
target=$(realpath "$1") seeds=$(realpath "$2") work=$3 seconds=$4
name=$(basename "$target")
mkdir -p "$work/corpus" "$work/run"
work=$(realpath "$work")
log=$work/last-run.log
# The targets run in a scratch directory: no logger configuration there.
cd "$work/run" || exit 1
ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1} \
UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1} \
  "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=16384 \
    -print_final_stats=1 -artifact_prefix="$work/" "$work/corpus" "$seeds" >"$log" 2>&1
rc=$?
runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
crashes=0
[ $rc -ne 0 ] && crashes=1
echo "fuzz: $name runs=${runs:-0} crashes=$crashes seconds=$seconds" | tee -a "$work/../fuzz-stats.txt"
if [ $rc -ne 0 ]; then
  grep -E 'ERROR|SUMMARY|fuzz check failed|Test unit written' "$log" | head -20
  ls "$work"/crash-* "$work"/leak-* "$work"/timeout-* "$work"/oom-* 2>/dev/null
fi
exit $rc
