# Shared by the end-to-end tests: emulated devices, assertions, clean-up.
# Each test is a bash script run by CTest with EMU_BIN (the daemon's binaries)
# and TEST_BIN (test programs) in its environment; exit 77 means skipped.
set -uo pipefail

E2E_SRC=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
source "$E2E_SRC/tools/emu/emu.sh"

if [ "$(id -u)" -ne 0 ]; then
    echo "skip: end-to-end tests need root for network and mount namespaces"
    exit 77
fi

E2E_DIR=$(mktemp -d /tmp/kestr-e2e.XXXXXX)
export EMU_LOGDIR=$E2E_DIR
SEEDS=$E2E_SRC/tools/seeds

fail() {
    echo "FAIL: $*"
    e2e_show_logs
    exit 1
}

e2e_show_logs() {
    local f
    for f in "$E2E_DIR"/*.log; do
        [ -f "$f" ] || continue
        echo "---- $(basename "$f")"
        # Colours off, so the log reads in CTest's output.
        sed 's/\x1b\[[0-9;]*m//g' "$f" | tail -n 60
    done
}

# Every reporting line's body with colour codes and line numbers removed:
# "err:kestrd_apclone-requestTimeout|exit:send m1 time out".
plain() { sed -e 's/\x1b\[[0-9;]*m//g' -e 's/-[0-9]*|/|/' "$1"; }

# grep reads to the end on purpose: "grep -q" leaves at the first match, and
# with pipefail the writer's death by SIGPIPE on a long log turns a found
# line into a failed test.
has_line() { plain "$1" | grep -F -- "$2" >/dev/null; }
expect_line() {  # FILE TEXT: some line of FILE (plain) contains TEXT
    has_line "$1" "$2" || fail "expected '$2' in $(basename "$1")"
}
expect_no_line() {
    if has_line "$1" "$2"; then fail "did not expect '$2' in $(basename "$1")"; fi
}
count_lines() { plain "$1" | grep -cF -- "$2" || true; }

expect_eq() {  # WHAT GOT WANT
    [ "$2" == "$3" ] || fail "$1: got '$2', want '$3'"
}

# Runs an enrollee command in device NAME, waits for it to end (at most
# LIMIT seconds) and leaves its output in LOG; sets E2E_SECONDS.
run_enrollee() {
    local name=$1 log=$2 limit=$3
    shift 3
    local t0=$SECONDS
    emu_exec "$name" timeout "$limit" "$EMU_BIN/kestrd" "$@" >"$log" 2>&1
    local rc=$?
    E2E_SECONDS=$((SECONDS - t0))
    [ $rc -eq 124 ] && fail "kestrd $* did not end within $limit s"
    [ $rc -eq 0 ] || fail "kestrd $* exited with $rc"
}

# Starts the registrar daemon in device NAME and waits until its receive
# task runs.
start_registrar() {
    local name=$1 log=$2
    emu_bg "$name" "$log" "$EMU_BIN/kestrd" apclone_deamon
    local i
    for i in $(seq 1 100); do
        grep -q 'name:msgProcess' "$log" 2>/dev/null && return 0
        sleep 0.05
    done
    fail "registrar in $name did not start"
}

# Logs that hold a sanitizer's report. An enrollee built with a sanitizer
# ends with a non-zero status on its first report, but a registrar runs until
# the test kills it, so its report would otherwise sit unnoticed in its log.
e2e_sanitizer_reports() {
    grep -lE 'WARNING: ThreadSanitizer|ERROR: [A-Za-z]+Sanitizer|SUMMARY: [A-Za-z]+Sanitizer|runtime error:' \
        "$E2E_DIR"/*.log 2>/dev/null
}

e2e_cleanup() {
    local rc=$?
    emu_down
    # Only now has every process of the test ended and written its last line.
    local reports
    reports=$(e2e_sanitizer_reports)
    if [ -n "$reports" ]; then
        echo "FAIL: sanitizer reports in: $(echo $reports | xargs -n1 basename | tr '\n' ' ')"
        local f
        for f in $reports; do
            echo "---- $(basename "$f")"
            grep -E -A30 'WARNING: ThreadSanitizer|ERROR: [A-Za-z]+Sanitizer|runtime error:' "$f" | head -n 80
        done
        rc=1
    fi
    if [ $rc -eq 0 ]; then rm -rf "$E2E_DIR"; fi
    exit $rc
}

# The resident or peak memory of a process in KiB: FIELD is VmRSS or VmHWM.
mem_kb() {  # PID FIELD
    awk -v f="$2:" '$1 == f { print $2 }' "/proc/$1/status" 2>/dev/null
}

# Whether a process's resident size says anything about its own memory:
# AddressSanitizer keeps freed blocks in a quarantine of many megabytes, so
# there every allocation grows the process until the quarantine is full.
# Leaks are its own business there (LeakSanitizer at an enrollee's exit).
memory_is_measurable() {
    [[ "${KESTR_SANITIZE:-}" != *address* ]]
}
# How a memory figure is to be read in a test's summary.
memory_note() {
    memory_is_measurable || echo " (AddressSanitizer build: not a bound)"
}

# Waits for a background process of the test to end by itself within LIMIT
# seconds and with status 0; kills it and fails otherwise.
wait_exit() {  # PID LIMIT WHAT
    local i
    for i in $(seq 1 $(($2 * 10))); do
        # A zombie has ended; only its status is left to collect.
        [ -z "$(mem_kb "$1" VmRSS)" ] && break
        sleep 0.1
    done
    if [ -n "$(mem_kb "$1" VmRSS)" ]; then
        kill -KILL "$1"
        fail "$3 did not end within $2 s"
    fi
    wait "$1" || fail "$3 exited with $?"
}

# Waits until FILE holds a line with TEXT; 1 after LIMIT seconds.
wait_for_line() {  # FILE TEXT LIMIT
    local i
    for i in $(seq 1 $(($3 * 20))); do
        has_line "$1" "$2" 2>/dev/null && return 0
        sleep 0.05
    done
    return 1
}

e2e_init() {
    emu_init || fail "cannot create emulated devices"
    trap 'e2e_cleanup' EXIT
}
