#!/usr/bin/env bash
# A registrar answers an enrollee's Search for the searched band, and an
# enrollee run with nobody to answer ends by itself after the Search's
# lifetime, marking the band as searched.
source "$(dirname "$0")/lib.sh"
e2e_init

emu_add reg "$SEEDS/registrar.xml" 02:00:00:00:00:0a || fail "registrar device"
emu_add enr "$SEEDS/enrollee.xml" 02:00:00:00:00:0b || fail "enrollee device"
emu_add peer "$SEEDS/registrar.xml" 02:00:00:00:00:0c || fail "peer device"
PEER=$TEST_BIN/kestr_test_peer

# Nobody answers: the run ends after about 3 s (Search lifetime, whole-second
# watcher passes, the 500 ms wait and the shutdown of both tasks).
run_enrollee enr "$E2E_DIR/alone.log" 15 apclone_24G
expect_line "$E2E_DIR/alone.log" "argv[1]:apclone_24G"
expect_line "$E2E_DIR/alone.log" "kestrd_apclone-IEEE19051_CmdApcloneProcess_2P4G|IEEE19051_CmdApcloneProcess_2P4G"
expect_line "$E2E_DIR/alone.log" "kestrd_apclone-sendSearch|sendSearch"
expect_line "$E2E_DIR/alone.log" "err:kestrd_apclone-requestTimeout|exit:send search, but no response"
[ "$E2E_SECONDS" -ge 2 ] && [ "$E2E_SECONDS" -le 8 ] || fail "lone run took $E2E_SECONDS s"
expect_eq "2.4G done" "$(emu_db enr -g /runtime/apcloning/BAND_2P4G/done)" "1"
expect_eq "5G done untouched" "$(emu_db enr -g /runtime/apcloning/BAND_5G/done)" ""

# Responses the enrollee must refuse, from a peer that crafts them. Each run
# still ends by itself once the Search expires, with the band marked done.
refused() {  # LOG MESSAGE PEER-OPTIONS...
    local log=$1 msg=$2
    shift 2
    emu_bg peer "$E2E_DIR/peer-$log" "$PEER" --responses 1 --for 6 "$@"
    sleep 0.3
    emu_db enr -s /runtime/apcloning/BAND_5G/done 0 >/dev/null
    run_enrollee enr "$E2E_DIR/$log" 15 apclone_5G
    wait "$EMU_BG_PID"
    expect_line "$E2E_DIR/peer-$log" "peer: Response to 2:0:0:0:0:b"
    expect_line "$E2E_DIR/$log" "$msg"
    expect_no_line "$E2E_DIR/$log" "sendM1"
    expect_line "$E2E_DIR/$log" "err:kestrd_apclone-requestTimeout|exit:"
    expect_no_line "$E2E_DIR/$log" "exit:send search, but no response"
    expect_eq "5G done after $log" "$(emu_db enr -g /runtime/apcloning/BAND_5G/done)" "1"
}
refused wrong-band.log "err:kestrd_apclone-continueAfterSearch|err:unsupport band" --band 0
refused wrong-role.log "err:unsupport role" --role 1
refused no-role.log "err:response packet is incomplete" --omit role
refused no-band.log "err:response packet is incomplete" --omit band

# With a registrar: a 5 GHz Search is answered for band 1, the enrollee
# accepts the Response (same identifier, registrar role, band 1) and goes on
# to its M1.
start_registrar reg "$E2E_DIR/registrar.log"
run_enrollee enr "$E2E_DIR/enrollee5.log" 15 apclone_5G
expect_line "$E2E_DIR/registrar.log" "kestrd_apclone-msgApcloneProcesSearch|msgApcloneProcesSearch"
expect_line "$E2E_DIR/enrollee5.log" "sendM1"
expect_no_line "$E2E_DIR/enrollee5.log" "err:response packet is incomplete"
expect_no_line "$E2E_DIR/enrollee5.log" "err:unsupport"
expect_no_line "$E2E_DIR/enrollee5.log" "exit:send search, but no response"
expect_eq "5G done" "$(emu_db enr -g /runtime/apcloning/BAND_5G/done)" "1"

# The registrar is still up and answers again.
registrar=$EMU_BG_PID
kill -0 "$registrar" || fail "registrar died"
run_enrollee enr "$E2E_DIR/enrollee24.log" 15 apclone_24G
[ "$(count_lines "$E2E_DIR/registrar.log" "msgApcloneProcesSearch")" -eq 2 ] ||
    fail "registrar did not answer the second Search"

# Renew, other AP-autoconfiguration types and foreign types reach the
# registrar and change nothing: no line, no answer, still running.
before=$(wc -l <"$E2E_DIR/registrar.log")
for type in 10 8 11 0 3 13 200; do
    emu_exec peer "$PEER" --send "$type" --to 02:00:00:00:00:0a || fail "peer send $type"
done
sleep 1
expect_eq "registrar lines after ignored types" "$(wc -l <"$E2E_DIR/registrar.log")" "$before"
kill -0 "$registrar" || fail "registrar died"
echo "PASS"
