#!/usr/bin/env bash
# The configuration database dies under a running kestrd. Nothing reports
# it: every read then yields an empty value and every write is lost, so the
# daemons carry on with the values an empty read stands for. Each run still
# ends by itself with status 0; the registrar stays up and is itself again
# once the database is back.
#
# A database request in flight when the daemon dies is the hard case (the
# client waits without a time-out, by design): the database is first
# stopped, so kestrd's request is accepted and left unanswered, then killed.
source "$(dirname "$0")/lib.sh"
e2e_init

emu_add enr "$SEEDS/enrollee.xml" 02:00:00:00:00:0b || fail "enrollee device"
emu_add peer "$SEEDS/registrar.xml" 02:00:00:00:00:0c || fail "peer device"
emu_add reg "$SEEDS/registrar.xml" 02:00:00:00:00:0a || fail "registrar device"
PEER=$TEST_BIN/kestr_test_peer

# Starts an enrollee run in the background; ENROLLEE is its pid.
start_enrollee() {  # WORD LOG
    emu_bg enr "$E2E_DIR/$2" "$EMU_BIN/kestrd" "$1"
    ENROLLEE=$EMU_BG_PID
    ENROLLEE_T0=$SECONDS
}
# Waits for that run; it must end by itself, with status 0, within LIMIT s.
end_enrollee() {  # LIMIT
    wait_exit "$ENROLLEE" "$1" "the enrollee run"
    E2E_SECONDS=$((SECONDS - ENROLLEE_T0))
}

# 1. The enrollee's database is killed while the enrollee writes the cloned
# settings: the registrar (the peer, holding its M2 back a moment) answers
# after the database has been stopped, the save blocks on it, and then the
# database dies. The M2 was handled, so the run completes.
emu_bg peer "$E2E_DIR/peer-late.log" "$PEER" --responses 1 --m2 good --m2-delay 1000 --for 8
PEER_PID=$EMU_BG_PID
sleep 0.3
start_enrollee apclone_24G late.log
wait_for_line "$E2E_DIR/late.log" "sendM1" 5 || fail "no M1"
kill -STOP "${EMU_DB_PID[enr]}"
wait_for_line "$E2E_DIR/peer-late.log" "peer: M2 (good)" 5 || fail "peer sent no M2"
sleep 0.5
emu_db_stop enr KILL
end_enrollee 10
expect_line "$E2E_DIR/late.log" "exit:processing_completed"
expect_no_line "$E2E_DIR/late.log" "Err:IEEE19051_ParseTlvWscEncryptedSettings"
wait "$PEER_PID"

# 2. No database at all from the start: the AL MAC reads empty (the Search
# still goes out), and the role read when the first answer arrives is empty,
# which stands for registrar, so the enrollee ignores that Response. The
# run ends when its Search expires.
emu_bg peer "$E2E_DIR/peer-none.log" "$PEER" --responses 1 --m2 good --for 6
PEER_PID=$EMU_BG_PID
sleep 0.3
start_enrollee apclone_5G none.log
end_enrollee 10
expect_line "$E2E_DIR/peer-none.log" "peer: Response to 2:0:0:0:0:b"
expect_line "$E2E_DIR/none.log" "exit:send search, but no response"
expect_no_line "$E2E_DIR/none.log" "sendM1"
[ "$E2E_SECONDS" -le 8 ] || fail "run without a database took $E2E_SECONDS s"
wait "$PEER_PID"
emu_db_start enr || fail "enrollee database did not come back"

# 3. The registrar's database dies while the registrar reads the settings it
# seals: the M2 carries what empty reads stand for, an open network without
# a name, and the enrollee saves exactly that.
start_registrar reg "$E2E_DIR/registrar.log"
REGISTRAR=$EMU_BG_PID
kill -STOP "${EMU_DB_PID[reg]}"
start_enrollee apclone_24G emptied.log
wait_for_line "$E2E_DIR/registrar.log" "msgApcloneProcesM1" 5 || fail "registrar got no M1"
sleep 0.3
expect_no_line "$E2E_DIR/registrar.log" "wifiname:"  # still waiting for its first read
emu_db_stop reg KILL
end_enrollee 10
expect_line "$E2E_DIR/emptied.log" "exit:processing_completed"
entry=/runtime/apcloning/BAND_2P4G/backup_setting:1
expect_eq "count" "$(emu_db enr -g /runtime/apcloning/BAND_2P4G/count)" "1"
expect_eq "ssid" "$(emu_db enr -g $entry/ssid)" ""
expect_eq "key" "$(emu_db enr -g $entry/key)" ""
expect_eq "authtype" "$(emu_db enr -g $entry/authtype)" "OPEN"
expect_eq "encrtype" "$(emu_db enr -g $entry/encrtype)" "NONE"
expect_line "$E2E_DIR/registrar.log" "wifipath:"
kill -0 "$REGISTRAR" || fail "registrar died with its database"

# 4. The database is back: the same registrar process seals the real
# settings again.
emu_db_start reg || fail "registrar database did not come back"
start_enrollee apclone_5G restored.log
end_enrollee 10
expect_line "$E2E_DIR/restored.log" "exit:processing_completed"
expect_eq "restored ssid" "$(emu_db enr -g /runtime/apcloning/BAND_5G/backup_setting:1/ssid)" \
    "kestrel-home-5G"
kill -0 "$REGISTRAR" || fail "registrar died"
echo "PASS"
