#!/usr/bin/env bash
# Runs the fuzz targets of a fuzz build (all, or those named) one after the
# other for SECONDS each, and prints the executions of each:
#   fuzz/run.sh BUILD_DIR SECONDS [TARGET...]
# Each target makes namespaces of its own, which needs root (as another user
# the run is skipped, like the tests that need root), and seeds its corpus
# BUILD_DIR/fuzz/corpus/<target> when that is empty. A crash leaves its input
# in BUILD_DIR/fuzz/artifacts/ and fails the run; BUILD_DIR/bin/<target>
# INPUT... replays it.
set -uo pipefail
bin=$1/bin out=$1/fuzz seconds=$2 failed=""
shift 2
[ "$(id -u)" -eq 0 ] || { echo "fuzz: skipped: the targets make namespaces, which needs root"; exit 0; }
# shellcheck disable=SC2068,SC2012  # target names are single words
for t in ${@:-$(cd "$bin" && ls fuzz_*)}; do
    mkdir -p "$out/corpus/$t" "$out/artifacts"
    # -close_fd_mask=3: the code under test prints a line per step; libFuzzer's
    # report and the sanitizers' still reach the log.
    "$bin/$t" -max_total_time="$seconds" -timeout=10 -close_fd_mask=3 -print_final_stats=1 \
        -artifact_prefix="$out/artifacts/" "$out/corpus/$t" >"$out/$t.log" 2>&1 ||
        { failed+=" $t"; tail -n 30 "$out/$t.log" >&2; }
    summary+=$(printf '\n  %-14s %9s runs  corpus %5s' "$t" "$(sed -n 's/^stat::number_of_executed_units: *//p' \
        "$out/$t.log")" "$(ls "$out/corpus/$t" | wc -l)")
done
echo "fuzz: ${seconds}s per target${summary:-}"
[ -z "$failed" ] || { echo "fuzz: FAILED:$failed (logs in $out, inputs in $out/artifacts)" >&2; exit 1; }
