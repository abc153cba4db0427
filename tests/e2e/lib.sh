# Shared by the end-to-end scenarios: emulated devices, checks, clean-up.
# Run by CTest with EMU_BIN (the daemon's binaries) and TEST_BIN (test
# programs) in the environment; exit 77 means skipped.
set -uo pipefail

E2E_SRC=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
source "$E2E_SRC/tools/emu/emu.sh"
[ "$(id -u)" -eq 0 ] || { echo "skip: the scenarios need root for namespaces"; exit 77; }

E2E_DIR=$(mktemp -d /tmp/kestr-e2e.XXXXXX)
export EMU_LOGDIR=$E2E_DIR
SEEDS=$E2E_SRC/tools/seeds
PEER=$TEST_BIN/kestr_test_peer

fail() {
    echo "FAIL: $*"
    local f
    for f in "$E2E_DIR"/*.log; do
        [ -f "$f" ] && { echo "---- $(basename "$f")"; plain "$f" | tail -n 40; }
    done
    exit 1
}

# Reporting lines without colours and line numbers:
# "err:kestrd_apclone-requestTimeout|exit:send m1 time out".
plain() { sed -e 's/\x1b\[[0-9;]*m//g' -e 's/-[0-9]*|/|/' "$1"; }
has_line() { plain "$1" | grep -F -- "$2" >/dev/null; }
expect_line() { has_line "$1" "$2" || fail "expected '$2' in $(basename "$1")"; }
count_lines() { plain "$1" | grep -cF -- "$2" || true; }
expect_eq() { [ "$2" == "$3" ] || fail "$1: got '$2', want '$3'"; }

wait_for_line() {  # FILE TEXT SECONDS
    local i
    for i in $(seq 1 $(($3 * 20))); do
        has_line "$1" "$2" 2>/dev/null && return 0
        sleep 0.05
    done
    return 1
}

start_registrar() {  # DEVICE LOG
    emu_bg "$1" "$2" "$(emu_bin "$1")/kestrd" apclone_deamon
    REGISTRAR=$EMU_BG_PID
    wait_for_line "$2" "name:msgProcess" 30 || fail "registrar in $1 did not start"
}

# One enrollee run in device enr that must end by itself within 20 s.
run_enrollee() {  # WORD LOG
    emu_exec enr timeout 20 "$(emu_bin enr)/kestrd" "$1" >"$2" 2>&1
    local rc=$?
    [ $rc -eq 0 ] || fail "kestrd $1 exited with $rc"
}

# A report of a sanitizer in any log: an enrollee ends on its first report,
# but a registrar runs until it is killed.
e2e_cleanup() {
    local rc=$? reports f
    emu_down
    reports=$(grep -lE 'WARNING: ThreadSanitizer|ERROR: [A-Za-z]+Sanitizer|runtime error:' \
        "$E2E_DIR"/*.log 2>/dev/null)
    for f in $reports; do
        echo "FAIL: sanitizer report in $(basename "$f")"
        grep -E -A30 'WARNING: ThreadSanitizer|ERROR: [A-Za-z]+Sanitizer|runtime error:' "$f" | head -n 60
        rc=1
    done
    [ $rc -eq 0 ] && rm -rf "$E2E_DIR"
    exit $rc
}

e2e_init() {
    emu_init || fail "cannot create emulated devices"
    trap 'e2e_cleanup' EXIT
}
