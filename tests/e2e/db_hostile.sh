#!/usr/bin/env bash
# Both devices' databases serve hostile clients (noise, refused lengths,
# stalls, requests cut off, answers never read, unknown codes, odd files)
# while kestrd clones through them and an honest client reads along: every
# clone saves the registrar's settings, every honest read is right, and
# both database daemons are still up and themselves afterwards.
source "$(dirname "$0")/lib.sh"
e2e_init

SECONDS_OF_HOSTILITY=${DB_HOSTILE_SECONDS:-15}

emu_add reg "$SEEDS/registrar.xml" 02:00:00:00:00:0a || fail "registrar device"
emu_add enr "$SEEDS/enrollee.xml" 02:00:00:00:00:0b || fail "enrollee device"
start_registrar reg "$E2E_DIR/registrar.log"
REGISTRAR=$EMU_BG_PID
HOSTILE=$TEST_BIN/kestr_test_dbhostile

emu_bg reg "$E2E_DIR/hostile-reg.log" "$HOSTILE" --seconds "$SECONDS_OF_HOSTILITY" \
    --check /wifi/entry:1/ssid=kestrel-home-24
ON_REG=$EMU_BG_PID
emu_bg enr "$E2E_DIR/hostile-enr.log" "$HOSTILE" --seconds "$SECONDS_OF_HOSTILITY" \
    --check /device/apcloning/role=1
ON_ENR=$EMU_BG_PID

clones=0
declare -A BAND=([apclone_24G]=BAND_2P4G [apclone_5G]=BAND_5G)
declare -A SSID=([apclone_24G]=kestrel-home-24 [apclone_5G]=kestrel-home-5G)
while kill -0 "$ON_REG" 2>/dev/null; do
    word=$([ $((clones % 2)) -eq 0 ] && echo apclone_24G || echo apclone_5G)
    run_enrollee enr "$E2E_DIR/clone$clones.log" 20 "$word"
    expect_line "$E2E_DIR/clone$clones.log" "exit:processing_completed"
    n=$(emu_db enr -g "/runtime/apcloning/${BAND[$word]}/count")
    expect_eq "clone $clones ssid" \
        "$(emu_db enr -g "/runtime/apcloning/${BAND[$word]}/backup_setting:$n/ssid")" "${SSID[$word]}"
    clones=$((clones + 1))
done
wait "$ON_REG" || fail "honest reads on the registrar's database went wrong"
wait "$ON_ENR" || fail "honest reads on the enrollee's database went wrong"
[ "$clones" -ge 2 ] || fail "only $clones clones ran among hostile clients"

for dev in reg enr; do
    kill -0 "${EMU_DB_PID[$dev]}" || fail "xmldbd of $dev died"
    log=$(ls "$E2E_DIR"/*-"$dev"-xmldbd.log)
    for what in "oversized argument" "argument is not one NUL-terminated text" \
        "disconnected mid-request"; do
        expect_line "$log" "$what"
    done
done
expect_eq "registrar profile intact" "$(emu_db reg -g /wifi/entry:2/ssid)" "kestrel-home-5G"
kill -0 "$REGISTRAR" || fail "registrar died"
sed -n 's/^\(dbhostile\|honest\): /registrar db \1: /p' "$E2E_DIR/hostile-reg.log"
sed -n 's/^\(dbhostile\|honest\): /enrollee db \1: /p' "$E2E_DIR/hostile-enr.log"
echo "clones among hostile clients: $clones"
echo "PASS"
