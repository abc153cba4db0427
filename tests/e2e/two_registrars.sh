#!/usr/bin/env bash
# Two registrars answer one Search: the enrollee sends an M1 to each, saves
# what each M2 carries, and its run ends when the first M1 expires.
source "$(dirname "$0")/lib.sh"
e2e_init

emu_add reg1 "$SEEDS/registrar.xml" 02:00:00:00:00:0a || fail "registrar 1"
emu_add reg2 "$SEEDS/registrar.xml" 02:00:00:00:00:0c || fail "registrar 2"
emu_add enr "$SEEDS/enrollee.xml" 02:00:00:00:00:0b || fail "enrollee device"
emu_db reg2 -s /wifi/entry:1/ssid "second-registrar" >/dev/null || fail "registrar 2 db"
start_registrar reg1 "$E2E_DIR/reg1.log"
start_registrar reg2 "$E2E_DIR/reg2.log"

run_enrollee enr "$E2E_DIR/enrollee.log" 20 apclone_24G
[ "$E2E_SECONDS" -le 8 ] || fail "run took $E2E_SECONDS s"
[ "$(count_lines "$E2E_DIR/enrollee.log" "kestrd_apclone-sendM1|sendM1")" -eq 2 ] || fail "two M1s"
expect_line "$E2E_DIR/enrollee.log" "exit:processing_completed"
expect_line "$E2E_DIR/reg1.log" "msgApcloneProcesM1"
expect_line "$E2E_DIR/reg2.log" "msgApcloneProcesM1"
expect_eq "count" "$(emu_db enr -g /runtime/apcloning/BAND_2P4G/count)" "2"
ssids=$(for n in 1 2; do emu_db enr -g /runtime/apcloning/BAND_2P4G/backup_setting:$n/ssid; done | sort | tr '\n' ' ')
expect_eq "saved SSIDs" "$ssids" "kestrel-home-24 second-registrar "
echo "PASS"
