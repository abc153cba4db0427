#!/usr/bin/env bash
# Many enrollees at once: a peer sends the registrar a burst of well-formed
# M1s, each with its own key pair and nonce, with malformed WSC messages in
# between. Every M1 gets an M2 that opens with its own key pair and holds
# the registrar's settings for the M1's band; nothing answers the malformed
# ones; the registrar stays up, answers a real enrollee afterwards, and has
# not grown.
source "$(dirname "$0")/lib.sh"
e2e_init

M1S=${M1_FLOOD:-200}
GROWTH_KB=256

emu_add reg "$SEEDS/registrar.xml" 02:00:00:00:00:0a || fail "registrar device"
emu_add enr "$SEEDS/enrollee.xml" 02:00:00:00:00:0b || fail "enrollee device"
emu_add many "$SEEDS/enrollee.xml" 02:00:00:00:00:0c || fail "peer device"
start_registrar reg "$E2E_DIR/registrar.log"
REGISTRAR=$EMU_BG_PID

# A first exchange settles the registrar's resident size.
run_enrollee enr "$E2E_DIR/before.log" 20 apclone_5G
expect_line "$E2E_DIR/before.log" "exit:processing_completed"
before_kb=$(mem_kb "$REGISTRAR" VmRSS)
m1_lines=$(count_lines "$E2E_DIR/registrar.log" "msgApcloneProcesM1")

emu_exec many timeout 120 "$TEST_BIN/kestr_test_peer" --m1-flood "$M1S" --to 02:00:00:00:00:0a \
    --ssid24 kestrel-home-24 --ssid5 kestrel-home-5G >"$E2E_DIR/peer.log" 2>&1 ||
    fail "not every M1 got its M2 (rc $?)"
expect_line "$E2E_DIR/peer.log" "peer: m1-flood: $M1S M1s and $((M1S / 4)) malformed"
expect_line "$E2E_DIR/peer.log" "$M1S M2s opened with the band's settings, 0 with others, 0 refused, 0 for malformed messages, 0 unexpected"
# Every message of the burst reached the registrar's handler: none was
# dropped on the way in.
expect_eq "messages handled" $(($(count_lines "$E2E_DIR/registrar.log" "msgApcloneProcesM1") - m1_lines)) \
    $((M1S + M1S / 4))

kill -0 "$REGISTRAR" || fail "registrar died"
run_enrollee enr "$E2E_DIR/after.log" 20 apclone_24G
expect_line "$E2E_DIR/after.log" "exit:processing_completed"
expect_eq "saved after the flood" "$(emu_db enr -g /runtime/apcloning/BAND_2P4G/backup_setting:1/ssid)" \
    "kestrel-home-24"
after_kb=$(mem_kb "$REGISTRAR" VmRSS)
if memory_is_measurable && [ "$after_kb" -gt $((before_kb + GROWTH_KB)) ]; then
    fail "registrar grew from $before_kb to $after_kb KiB over $M1S M1s"
fi
sed -n 's/^peer: m1-flood: /m1 flood: /p' "$E2E_DIR/peer.log"
echo "registrar resident: $before_kb KiB before, $after_kb KiB after$(memory_note)"
echo "PASS"
