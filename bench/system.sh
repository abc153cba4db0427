#!/usr/bin/env bash
# The system benchmark (`make bench-system`): kestrd on emulated devices
# (tools/emu/emu.sh), measured from outside, each figure printed beside its
# target. Needs root.
#
#   bench/system.sh [--quick] TOOLS_DIR NAME=BIN_DIR...
#
# TOOLS_DIR holds xmldbd, xmldbc and kestr_bench_system: the devices and the
# measuring programs, the same for every column. Each NAME=BIN_DIR is one
# column, the kestrd in BIN_DIR. Every section runs column after column, so a
# change in the machine's load falls on all columns alike.
#
# Devices on one link: "reg" runs the registrar, "enr" the enrollee runs
# (kestrd apclone_24G), "peer" is the third device: the junk on the link, and
# many enrollees' M1s at once. Everything is removed at the end, also on
# failure or Ctrl-C.
set -uo pipefail

QUICK=0
if [ "${1:-}" = --quick ]; then
    QUICK=1
    shift
fi
if [ $# -lt 2 ]; then
    echo "usage: $0 [--quick] TOOLS_DIR NAME=BIN_DIR..." >&2
    exit 2
fi
TOOLS=$(realpath "$1")
shift
COLUMNS_=()
declare -A BIN=()
for c in "$@"; do
    name=${c%%=*} dir=$(realpath "${c#*=}" 2>/dev/null)
    [ -x "$dir/kestrd" ] || { echo "bench: no kestrd in ${c#*=}" >&2; exit 2; }
    COLUMNS_+=("$name")
    BIN[$name]=$dir
done
for t in xmldbd xmldbc kestr_bench_system; do
    [ -x "$TOOLS/$t" ] || { echo "bench: no $t in $TOOLS" >&2; exit 2; }
done

# Sizes: a full run takes some 5 minutes per column with today's daemon on
# two cores, a quick one about half that.
if [ $QUICK = 1 ]; then
    RUNS=5 LATENCY="1:3 10:1 30:1" JUNK_TRIALS=3 BURST_ROUNDS=1
else
    RUNS=20 LATENCY="1:10 10:3 30:2" JUNK_TRIALS=6 BURST_ROUNDS=3
fi
CLONES=5 BURST=4000
# Junk kinds: where the search starts, the highest rate tried, the target.
declare -A JUNK_START=([version]=50000 [ignored]=50000 [wsc]=20000)
declare -A JUNK_CAP=([version]=100000 [ignored]=100000 [wsc]=40000)
declare -A JUNK_TARGET=([version]="-" [ignored]=">= 50,000/s" [wsc]=">= 20,000/s")
declare -A JUNK_NAME=([version]="frames of message version 1" [ignored]="topology CMDUs (type dropped)"
    [wsc]="WSC messages, not an M1/M2")
REG_MAC=02:00:00:00:00:0a

W=$(mktemp -d /tmp/kestr-bench.XXXXXX)
export EMU_BIN=$TOOLS EMU_LOGDIR=$W
# The measuring program refuses to send from this namespace, the machine's.
BENCH_HOST_NETNS=$(readlink /proc/self/ns/net) || exit 1
export BENCH_HOST_NETNS
source "$(dirname "$0")/../tools/emu/emu.sh"
cleanup() {
    local rc=$?
    emu_down
    if [ -n "${BENCH_KEEP_LOGS:-}" ]; then echo "logs: $W"; else rm -rf "$W"; fi
    exit $rc
}
emu_init || exit 1
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
emu_add reg "$(dirname "$0")/../tools/seeds/registrar.xml" $REG_MAC || exit 1
emu_add enr "$(dirname "$0")/../tools/seeds/enrollee.xml" 02:00:00:00:00:0b || exit 1
emu_add peer "$(dirname "$0")/../tools/seeds/enrollee.xml" 02:00:00:00:00:0c || exit 1

declare -A R=()  # "column:figure" -> value
NOTES=()
say() {  # COLUMN TEXT...
    local c=$1
    shift
    printf '  [%s] %s\n' "$c" "$*"
}
wait_for_line() {  # FILE PATTERN: within 5 s
    local _
    for _ in $(seq 1 100); do
        grep -q "$2" "$1" 2>/dev/null && return 0
        sleep 0.05
    done
    return 1
}

# The "name value" lines of FILE, kept as figures PREFIX-name of COLUMN.
take() {  # COLUMN PREFIX FILE
    local key value
    while read -r key value; do R["$1:$2$key"]=$value; done <"$3"
}

memory() {  # PID: "Rss Private_Dirty" in KiB
    awk '$1 == "Rss:" { r = $2 } $1 == "Private_Dirty:" { d = $2 } END { if (r != "") print r, d }' \
        "/proc/$1/smaps_rollup" 2>/dev/null
}

# Processor time of a process so far, in clock ticks (user + system).
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat" 2>/dev/null || echo 0; }

REG=""
start_registrar() {  # COLUMN
    emu_bg reg "$W/registrar.log" "${BIN[$1]}/kestrd" apclone_deamon
    REG=$EMU_BG_PID
    wait_for_line "$W/registrar.log" 'name:msgProcess' && return 0
    echo "bench: the registrar of $1 did not start" >&2
    exit 1
}
# Ends the registrar; notes it when it had ended by itself.
stop_registrar() {  # COLUMN WHEN
    [ -n "$(memory "$REG")" ] || NOTES+=("$1: the registrar had died $2")
    kill "$REG" 2>/dev/null
    wait "$REG" 2>/dev/null
    rm -f "$W/registrar.log"
}

bench() {  # DEVICE ROLE ARGS...: the measuring program in a device; figures to $W/out
    local device=$1
    shift
    emu_exec "$device" "$TOOLS/kestr_bench_system" "$@" >"$W/out" 2>>"$W/details.log"
}
enrollee_runs() {  # COLUMN ARGS...
    local column=$1
    shift
    bench enr enrollee "$@" -- "${BIN[$column]}/kestrd" apclone_24G
}

# Run time, latency, the burst and memory, against one registrar.
serving() {  # COLUMN
    local c=$1 load n
    emu_db_stop enr && emu_db_start enr
    enrollee_runs "$c" --runs 1 --sample-at 1000
    take "$c" enr_idle_ "$W/out"
    start_registrar "$c"
    sleep 1
    R[$c:reg_idle]=$(memory "$REG")
    enrollee_runs "$c" --runs $RUNS
    take "$c" run_ "$W/out"
    say "$c" "$RUNS enrollee runs: ${R[$c:run_completed]} completed, median $(ms_text "${R[$c:run_run_median_ms]}")"
    for load in $LATENCY; do
        n=${load%:*}
        bench peer m1s --to $REG_MAC --count "$n" --rounds "${load#*:}"
        take "$c" "m1s${n}_" "$W/out"
    done
    R[$c:reg_served]=$(memory "$REG")
    bench peer burst --to $REG_MAC --count $BURST --rounds $BURST_ROUNDS --watch "$REG"
    take "$c" burst_ "$W/out"
    R[$c:reg_burst]=$(memory "$REG")
    say "$c" "bursts of $BURST M1s ($BURST_ROUNDS): busy $(ms_text "${R[$c:burst_busy_ms]}"), $(search_cell "$c")"
    stop_registrar "$c" "while serving"
}

# One rate: CLONES clones one after another (up to the first failure) while
# the peer sends junk. Sets PASS, SENT_RATE.
trial() {  # COLUMN KIND RATE
    local c=$1 kind=$2 rate=$3 junk ticks t0 reg_cpu done_ outcome
    start_registrar "$c"
    emu_bg peer "$W/junk.out" "$TOOLS/kestr_bench_system" junk --kind "$kind" --rate "$rate"
    junk=$EMU_BG_PID
    wait_for_line "$W/junk.out" '^junk: sending' || { echo "bench: the peer sends no junk" >&2; exit 1; }
    sleep 0.5
    ticks=$(cpu_ticks "$REG")
    t0=$SECONDS
    enrollee_runs "$c" --runs $CLONES --stop-on-failure
    reg_cpu=$(percent $(($(cpu_ticks "$REG") - ticks)) $(((SECONDS - t0) * $(getconf CLK_TCK))))
    kill -TERM "$junk"
    wait "$junk"
    take "$c" trial_ "$W/out"
    take "$c" gen_ "$W/junk.out"
    stop_registrar "$c" "under $kind junk at $rate/s"
    SENT_RATE=${R[$c:gen_rate]:-0}
    done_=${R[$c:trial_completed]:-0}
    PASS=$([ "$done_" = $CLONES ] && echo 1 || echo 0)
    outcome="$CLONES of $CLONES clones completed"
    [ "$PASS" = 1 ] || outcome="clone $((done_ + 1)): ${R[$c:trial_failure]}"
    [ "${R[$c:gen_backlog_drops]}" = 0 ] || outcome+=" (${R[$c:gen_backlog_drops]} frames lost in the kernel)"
    say "$c" "$kind junk at $(rate_text "$SENT_RATE")/s: $outcome; processor: registrar $reg_cpu %," \
        "enrollee $(percent "${R[$c:trial_cpu_median_ms]}" "${R[$c:trial_run_median_ms]}") %"
}
percent() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.0f", (b > 0 ? a / b * 100 : 0) }'; }

# The highest rate at which every clone completes: from the start rate up
# (doubling) or down (halving) until a pass and a failure bracket it, then
# narrowed geometrically, within JUNK_TRIALS trials. Rates are those the
# peer really sent.
junk_search() {  # COLUMN KIND
    local c=$1 kind=$2 rate=${JUNK_START[$2]} cap=${JUNK_CAP[$2]} best=0 worst=0 capped=0 n
    for n in $(seq 1 $JUNK_TRIALS); do
        trial "$c" "$kind" "$rate"
        if [ $PASS = 1 ]; then
            [ "$SENT_RATE" -gt $best ] && best=$SENT_RATE
            [ "$rate" -ge "$cap" ] && { capped=1; break; }
        elif [ $worst = 0 ] || [ "$SENT_RATE" -lt $worst ]; then
            worst=$SENT_RATE
        fi
        if [ $worst = 0 ]; then
            rate=$((rate * 2 > cap ? cap : rate * 2))
        elif [ $best = 0 ]; then
            rate=$((rate / 2))
        else
            # Bracketed within 20 %: close enough on a machine this noisy.
            [ $((worst * 10)) -le $((best * 12)) ] && break
            rate=$(mid $best $worst)
        fi
    done
    R[$c:junk_${kind}_best]=$best
    R[$c:junk_${kind}_worst]=$worst
    R[$c:junk_${kind}_capped]=$capped
}
mid() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%d", int(sqrt(a * b) / 100 + 0.5) * 100 }'; }

# ---- Formatting

rate_text() {  # 12345 -> 12,345
    awk -v v="$1" 'BEGIN { s = sprintf("%d", v); t = "";
        while (length(s) > 3) { t = "," substr(s, length(s) - 2) t; s = substr(s, 1, length(s) - 3) }
        print s t }'
}
ms_text() {
    awk -v v="$1" 'BEGIN { if (v == "" || v < 0) print "-"; else if (v >= 1000) printf "%.2f s\n", v / 1000;
        else if (v >= 100) printf "%.0f ms\n", v; else printf "%.1f ms\n", v }'
}
kib_text() {  # "RSS PRIVATE_DIRTY" in KiB
    [ -n "$1" ] || { echo "-"; return; }
    echo "$(rate_text "${1% *}") / $(rate_text "${1#* }") KiB"
}

row() {  # LABEL TARGET CELL-FUNCTION ARGS...: one line of the table
    local label=$1 target=$2 c
    shift 2
    printf '%-44s' "$label"
    for c in "${COLUMNS_[@]}"; do printf ' %22s' "$("$@" "$c")"; done
    printf '   %s\n' "$target"
}
ms() { ms_text "${R[$2:$1]:-}"; }
ms_pair() { echo "$(ms_text "${R[$3:$1]:-}") / $(ms_text "${R[$3:$2]:-}")"; }
count() { echo "${R[$3:$1]:--} of ${R[$3:$2]:--}"; }
kib() { kib_text "${R[$2:$1]:-}"; }
kib2() { [ -n "${R[$3:$1]:-}" ] && kib_text "${R[$3:$1]} ${R[$3:$2]}" || echo "-"; }
plain() { echo "${R[$2:$1]:--}"; }
junk_cell() {
    local best=${R[$2:junk_$1_best]:-0} worst=${R[$2:junk_$1_worst]:-0}
    if [ "$best" = 0 ]; then echo "< $(rate_text "$worst")/s"
    elif [ "${R[$2:junk_$1_capped]}" = 1 ] || [ "$worst" = 0 ]; then echo ">= $(rate_text "$best")/s"
    else echo "$(rate_text "$best")/s, not $(rate_text "$worst")"; fi
}
search_cell() {
    local c=$1 missed=${R[$1:burst_search_unanswered]:-} rounds=${R[$1:burst_rounds]:-}
    [ -n "$missed" ] || { echo "-"; return; }
    if [ "$missed" = 0 ]; then echo "$(ms_text "${R[$c:burst_search_max_ms]}") at most"
    else echo "$missed of $rounds unanswered"; fi
}

# ---- The run

started=$SECONDS
echo "kestrd system benchmark ($([ $QUICK = 1 ] && echo quick || echo full)), $(date '+%Y-%m-%d %H:%M')"
echo "machine: $(nproc) CPUs, kernel $(uname -r), load average at start $(cut -d' ' -f1-3 /proc/loadavg)"
for c in "${COLUMNS_[@]}"; do echo "column $c: ${BIN[$c]}/kestrd"; done
echo
for c in "${COLUMNS_[@]}"; do serving "$c"; done
for kind in version ignored wsc; do
    for c in "${COLUMNS_[@]}"; do junk_search "$c" "$kind"; done
done

echo
row "figure" "target" echo
row "enrollee run, median of $RUNS" "-" ms run_run_median_ms
row "enrollee run, p95" "-" ms run_run_p95_ms
row "outcome line -> exit, median" "<= 50 ms" ms run_tail_median_ms
row "outcome line -> exit, p95" "-" ms run_tail_p95_ms
row "runs that completed" "all" count run_completed run_runs
for load in $LATENCY; do
    n=${load%:*}
    row "M1 -> M2, $n at once: median / max" "-" ms_pair "m1s${n}_median_ms" "m1s${n}_max_ms"
done
for kind in version ignored wsc; do
    row "junk: ${JUNK_NAME[$kind]}" "${JUNK_TARGET[$kind]}" junk_cell "$kind"
done
row "registrar busy after $(rate_text $BURST) M1s (median)" "-" ms burst_busy_ms
row "  M2s it sent for them (median)" "-" plain burst_m2s
row "  its receive queue at most (KiB)" "-" plain burst_queue_peak_kb
row "Search 0.2 s after the burst answered in" "<= 0.5 s" search_cell
row "registrar Rss / Private_Dirty, idle" "-" kib reg_idle
row "registrar, after serving" "-" kib reg_served
row "registrar, after the bursts" "-" kib reg_burst
row "enrollee, idle (no registrar, at 1 s)" "-" kib2 enr_idle_rss_kb enr_idle_private_dirty_kb
row "enrollee, at its outcome line (median)" "-" kib2 run_rss_kb run_private_dirty_kb
echo
for note in "${NOTES[@]}"; do echo "note: $note"; done
echo "load average at the end $(cut -d' ' -f1-3 /proc/loadavg); wall time $(((SECONDS - started) / 60)) min $(((SECONDS - started) % 60)) s"
