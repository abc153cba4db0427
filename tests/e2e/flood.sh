#!/usr/bin/env bash
# A third device floods the link with hostile frames while the enrollee
# clones again and again: random bytes, TLVs cut short, WSC attributes with
# lying lengths, forged Responses and forged M2s (some under the enrollee's
# own nonce). Every clone under the flood must save exactly one entry with
# the registrar's settings, the registrar must still answer afterwards, and
# neither daemon's memory may grow with the flood.
#
# The flood is paced below what a daemon reads on a busy two-core machine:
# every handled frame ends with a short sleep, and every answer the registrar
# sends costs it a packet socket opened and closed, whose close waits some
# 10 ms for the kernel; a faster flood would only test the kernel's queue.
# Size and pace come from FLOOD_FRAMES and FLOOD_RATE (CTest sets them per
# build).
source "$(dirname "$0")/lib.sh"
e2e_init

FRAMES=${FLOOD_FRAMES:-100000}
RATE=${FLOOD_RATE:-1500}
# What a daemon may gain over the whole flood: far below what a few bytes
# kept per frame would add up to.
REGISTRAR_GROWTH_KB=256
ENROLLEE_GROWTH_KB=512

emu_add reg "$SEEDS/registrar.xml" 02:00:00:00:00:0a || fail "registrar device"
emu_add enr "$SEEDS/enrollee.xml" 02:00:00:00:00:0b || fail "enrollee device"
# The flooding device's own settings differ from the registrar's, so an M2
# it forged that got saved would show in the entry.
emu_add evil "$SEEDS/enrollee.xml" 02:00:00:00:00:0e || fail "flooding device"
start_registrar reg "$E2E_DIR/registrar.log"
REGISTRAR=$EMU_BG_PID

declare -A SSID=([apclone_24G]="kestrel-home-24" [apclone_5G]="kestrel-home-5G")
declare -A KEY=([apclone_24G]="wind over the meadow 24" [apclone_5G]="hovering-high-5ghz-key")
declare -A BAND=([apclone_24G]=BAND_2P4G [apclone_5G]=BAND_5G)

# One enrollee run that must save exactly one entry, the registrar's, for
# its band; leaves the run's peak resident memory in PEAK_KB.
clone() {  # WORD LOG
    local word=$1 log=$2 band=${BAND[$1]}
    local before
    before=$(emu_db enr -g "/runtime/apcloning/$band/count")
    emu_bg enr "$E2E_DIR/$log" "$EMU_BIN/kestrd" "$word"
    local pid=$EMU_BG_PID t0=$SECONDS v
    PEAK_KB=0
    # The peak only grows, so its last reading before the exit is the run's.
    while v=$(mem_kb "$pid" VmHWM) && [ -n "$v" ]; do
        PEAK_KB=$v
        [ $((SECONDS - t0)) -le 20 ] || { kill "$pid"; fail "$word did not end within 20 s"; }
        sleep 0.1
    done
    wait "$pid" || fail "$word exited with $?"
    expect_line "$E2E_DIR/$log" "kestrd_apclone-requestTimeout|exit:processing_completed"
    local n=$((${before:-0} + 1)) base="/runtime/apcloning/$band/backup_setting:$((${before:-0} + 1))"
    expect_eq "$log count" "$(emu_db enr -g "/runtime/apcloning/$band/count")" "$n"
    expect_eq "$log ssid" "$(emu_db enr -g "$base/ssid")" "${SSID[$word]}"
    expect_eq "$log key" "$(emu_db enr -g "$base/key")" "${KEY[$word]}"
    expect_eq "$log authtype" "$(emu_db enr -g "$base/authtype")" "WPA+2PSK"
    expect_eq "$log encrtype" "$(emu_db enr -g "$base/encrtype")" "TKIP+AES"
}

# Unflooded runs first: the registrar has then made its first M2s (its
# resident size settles), and the enrollee's peak is known.
clone apclone_24G calm24.log
clone apclone_5G calm5.log
calm_peak=$PEAK_KB
registrar_before=$(mem_kb "$REGISTRAR" VmRSS)

emu_bg evil "$E2E_DIR/flood.log" "$TEST_BIN/kestr_test_flood" --frames "$FRAMES" \
    --rate "$RATE" --seed "${FLOOD_SEED:-$RANDOM}" \
    --target 02:00:00:00:00:0a --target 02:00:00:00:00:0b
FLOOD=$EMU_BG_PID
# From here on it overhears every Search.
wait_for_line "$E2E_DIR/flood.log" "flood: listening" 10 || fail "the flood did not start"
clones=0
max_peak=0
words=(apclone_24G apclone_5G)
while kill -0 "$FLOOD" 2>/dev/null; do
    clone "${words[$((clones % 2))]}" "flooded$clones.log"
    if memory_is_measurable && [ "$PEAK_KB" -gt $((calm_peak + ENROLLEE_GROWTH_KB)) ]; then
        fail "enrollee peak $PEAK_KB KiB under the flood, $calm_peak KiB without"
    fi
    [ "$PEAK_KB" -gt "$max_peak" ] && max_peak=$PEAK_KB
    clones=$((clones + 1))
done
wait "$FLOOD" || fail "the flood did not run to its end"
expect_line "$E2E_DIR/flood.log" "flood: sent $FRAMES frames"
[ "$clones" -ge 3 ] || fail "only $clones clones ran under the flood"
# The forgeries reached the handlers they were made for, and failed there.
grep -qE ' [1-9][0-9]* forged M2s to [1-9]' "$E2E_DIR/flood.log" || fail "no M2 was forged"
cat "$E2E_DIR"/flooded*.log >"$E2E_DIR/all-flooded.txt"
expect_line "$E2E_DIR/all-flooded.txt" "Err:IEEE19051_ParseTlvWscEncryptedSettings"
expect_line "$E2E_DIR/all-flooded.txt" "err:unsupport band"
rm "$E2E_DIR/all-flooded.txt"

# The registrar is up, answers, and has not grown.
kill -0 "$REGISTRAR" || fail "registrar died under the flood"
clone apclone_24G after.log
registrar_after=$(mem_kb "$REGISTRAR" VmRSS)
if memory_is_measurable && [ "$registrar_after" -gt $((registrar_before + REGISTRAR_GROWTH_KB)) ]; then
    fail "registrar grew from $registrar_before to $registrar_after KiB"
fi
sed -n 's/^flood: sent/flood: sent/p' "$E2E_DIR/flood.log"
echo "clones completed under the flood: $clones"
echo "registrar resident: $registrar_before KiB before, $registrar_after KiB after$(memory_note)"
echo "enrollee peak: $calm_peak KiB unflooded, at most $max_peak KiB flooded$(memory_note)"
echo "PASS"
