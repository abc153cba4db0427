#!/usr/bin/env bash
# Runs the fuzz targets of a fuzz build, each in fresh private network, IPC
# and mount namespaces (no frame can reach a real link, no database or
# message-identifier counter of this machine is touched), one after the
# other, each for a bounded time.
#
#   fuzz/run.sh BUILD_DIR SECONDS [TARGET...]   fuzz (all targets by default)
#   fuzz/run.sh BUILD_DIR repro TARGET INPUT... run a target on given inputs
#   fuzz/run.sh BUILD_DIR corpus [PCAP]         rewrite fuzz/corpus/ (seeds)
#
# New inputs go to BUILD_DIR/fuzz/corpus/<target>; fuzz/corpus/<target>
# holds the checked-in seeds and is only read. A crash leaves its input in
# BUILD_DIR/fuzz/artifacts/<target>/ and makes the run fail; the log of each
# target is BUILD_DIR/fuzz/<target>.log. Needs root (namespaces); as another
# user the run is skipped, like the tests that need root.
set -uo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath "${1:?usage: fuzz/run.sh BUILD_DIR SECONDS|repro|corpus ...}")
mode=${2:?usage: fuzz/run.sh BUILD_DIR SECONDS|repro|corpus ...}
shift 2
bin=$build/bin
out=$build/fuzz

if [ "$(id -u)" -ne 0 ]; then
    echo "fuzz: skipped: the targets run in private namespaces, which needs root"
    exit 0
fi

# Runs "$@" in fresh namespaces: loopback only, an IPC namespace of its own,
# an empty /var/run, and no system log socket to write into.
isolated() {
    unshare --net --ipc --mount --propagation private -- sh -c '
        mount -t tmpfs -o size=16m,mode=0755 tmpfs /var/run || exit 2
        if [ -e /dev/log ]; then mount --bind /dev/null /dev/log || exit 2; fi
        exec "$@"' isolated "$@"
}

# Largest input per target: a little more than the bytes the code under test
# can be handed at once.
max_len() {
    case "$1" in
        fuzz_frame) echo 1600 ;;  # cut to one CMDU by the socket read
        fuzz_tlv | fuzz_print | fuzz_registrar | fuzz_enrollee) echo 1514 ;;
        fuzz_wsc) echo 1600 ;;
        fuzz_wsc_plain | fuzz_wsc_open) echo 1100 ;;
        fuzz_xmldbd_request) echo 4200 ;;
        *) echo 4096 ;;
    esac
}

case "$mode" in
    repro)
        target=${1:?usage: fuzz/run.sh BUILD_DIR repro TARGET INPUT...}
        shift
        inputs=()
        for i in "$@"; do inputs+=("$(realpath "$i")"); done
        isolated "$bin/$target" "${inputs[@]}"
        exit $?
        ;;
    corpus)
        pcap=$(realpath "${1:-$top/fuzz/exchange.pcap}")
        isolated "$bin/kestr_fuzz_corpus" "$top/fuzz/corpus" "$pcap"
        exit $?
        ;;
esac

seconds=$mode
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for t in "$bin"/fuzz_*; do [ -x "$t" ] && targets+=("$(basename "$t")"); done
fi
[ ${#targets[@]} -gt 0 ] || { echo "fuzz: no fuzz targets in $bin" >&2; exit 1; }

mkdir -p "$out"
failed=()
summary=()
for t in "${targets[@]}"; do
    mkdir -p "$out/corpus/$t" "$out/artifacts/$t" "$top/fuzz/corpus/$t"
    log=$out/$t.log
    echo "fuzz: $t for ${seconds}s"
    # -close_fd_mask=3: the code under test prints a line per step; libFuzzer
    # keeps its own report (and the sanitizers') on the log.
    isolated "$bin/$t" -max_total_time="$seconds" -max_len="$(max_len "$t")" -timeout=10 \
        -rss_limit_mb=2048 -close_fd_mask=3 -print_final_stats=1 \
        -artifact_prefix="$out/artifacts/$t/" "$out/corpus/$t" "$top/fuzz/corpus/$t" \
        >"$log" 2>&1
    rc=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    cov=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1 | cut -d' ' -f2)
    units=$(find "$out/corpus/$t" -type f | wc -l)
    summary+=("$(printf '%-22s %10s runs %8s/s  cov %6s  corpus %5s  %s' "$t" "${runs:-?}" \
        "$(( ${runs:-0} / (seconds > 0 ? seconds : 1) ))" "${cov:-?}" "$units" \
        "$([ $rc -eq 0 ] && echo ok || echo FAILED)")")
    if [ $rc -ne 0 ]; then
        failed+=("$t")
        echo "fuzz: $t failed (exit $rc); the end of $log:" >&2
        tail -n 40 "$log" >&2
    fi
done

echo
echo "fuzz: ${seconds}s per target"
printf '  %s\n' "${summary[@]}"
if [ ${#failed[@]} -ne 0 ]; then
    echo "fuzz: FAILED: ${failed[*]} (inputs in $out/artifacts/)" >&2
    exit 1
fi
