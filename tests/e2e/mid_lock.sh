#!/usr/bin/env bash
# A process of the device dies while it holds the lock of the device's
# message-identifier counter, and a daemon is already waiting for it: the
# waiting daemon takes the lock over and the clone completes, on the
# enrollee's side (its Search waits) and on the registrar's (its M2 waits).
# The count runs on from where the dead process left it.
source "$(dirname "$0")/lib.sh"
e2e_init

emu_add reg "$SEEDS/registrar.xml" 02:00:00:00:00:0a || fail "registrar device"
emu_add enr "$SEEDS/enrollee.xml" 02:00:00:00:00:0b || fail "enrollee device"
PEER=$TEST_BIN/kestr_test_peer
start_registrar reg "$E2E_DIR/registrar.log"
REGISTRAR=$EMU_BG_PID

# Takes the lock on device DEV; HOLDER is its pid, HELD_MID the identifier
# it drew before.
hold_lock() {  # DEV LOG
    emu_bg "$1" "$E2E_DIR/$2" "$PEER" --hold-mid-lock
    HOLDER=$EMU_BG_PID
    wait_for_line "$E2E_DIR/$2" "peer: holding the identifier lock" 5 || fail "no lock held on $1"
    HELD_MID=$(sed -n 's/^peer: mid //p' "$E2E_DIR/$2")
}
next_mid() {  # DEV
    emu_exec "$1" "$PEER" --mid | sed -n 's/^peer: mid //p'
}
kill_holder() {
    kill -KILL "$HOLDER"
    wait "$HOLDER" 2>/dev/null
}

# The enrollee's Search waits for the lock.
hold_lock enr holder-enr.log
emu_bg enr "$E2E_DIR/enrollee1.log" "$EMU_BIN/kestrd" apclone_24G
ENROLLEE=$EMU_BG_PID
wait_for_line "$E2E_DIR/enrollee1.log" "sendSearch" 5 || fail "no Search started"
sleep 0.5
expect_no_line "$E2E_DIR/registrar.log" "msgApcloneProcesSearch"  # the Search has not gone out
kill_holder
wait_exit "$ENROLLEE" 15 "the enrollee run"
expect_line "$E2E_DIR/enrollee1.log" "exit:processing_completed"
# Search and M1 drew the two identifiers after the dead holder's.
expect_eq "next identifier on the enrollee" "$(next_mid enr)" "$((HELD_MID + 3))"

# The registrar's M2 waits for the lock.
hold_lock reg holder-reg.log
m1s=$(count_lines "$E2E_DIR/registrar.log" "msgApcloneProcesM1")
emu_bg enr "$E2E_DIR/enrollee2.log" "$EMU_BIN/kestrd" apclone_5G
ENROLLEE=$EMU_BG_PID
for _ in $(seq 1 100); do
    [ "$(count_lines "$E2E_DIR/registrar.log" "msgApcloneProcesM1")" -gt "$m1s" ] && break
    sleep 0.05
done
sleep 0.3
kill_holder
wait_exit "$ENROLLEE" 15 "the enrollee run"
expect_line "$E2E_DIR/enrollee2.log" "exit:processing_completed"
expect_eq "saved" "$(emu_db enr -g /runtime/apcloning/BAND_5G/backup_setting:1/ssid)" "kestrel-home-5G"
expect_eq "next identifier on the registrar" "$(next_mid reg)" "$((HELD_MID + 2))"
kill -0 "$REGISTRAR" || fail "registrar died"
echo "PASS"
