#!/usr/bin/env bash
# A registrar answers an enrollee's Search for the searched band, and an
# enrollee run with nobody to answer ends by itself after the Search's
# lifetime, marking the band as searched.
source "$(dirname "$0")/lib.sh"
e2e_init

emu_add reg "$SEEDS/registrar.xml" 02:00:00:00:00:0a || fail "registrar device"
emu_add enr "$SEEDS/enrollee.xml" 02:00:00:00:00:0b || fail "enrollee device"

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
kill -0 "$EMU_BG_PID" || fail "registrar died"
run_enrollee enr "$E2E_DIR/enrollee24.log" 15 apclone_24G
[ "$(count_lines "$E2E_DIR/registrar.log" "msgApcloneProcesSearch")" -eq 2 ] ||
    fail "registrar did not answer the second Search"
echo "PASS"
