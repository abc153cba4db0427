#!/usr/bin/env bash
# An enrollee accepts only an M2 that is bound to its own M1 and comes from
# the registrar it sent the M1 to. A peer answers with crafted M2s built by
# the registrar's own code.
source "$(dirname "$0")/lib.sh"
e2e_init

emu_add enr "$SEEDS/enrollee.xml" 02:00:00:00:00:0b || fail "enrollee device"
emu_add peer "$SEEDS/registrar.xml" 02:00:00:00:00:0c || fail "peer device"
PEER=$TEST_BIN/kestr_test_peer

with_peer() {  # LOG PEER-OPTIONS...: one 2.4 GHz run against the peer
    local log=$1
    shift
    emu_bg peer "$E2E_DIR/peer-$log" "$PEER" --responses 1 --for 8 "$@"
    sleep 0.3
    run_enrollee enr "$E2E_DIR/$log" 20 apclone_24G
    wait "$EMU_BG_PID"
    expect_line "$E2E_DIR/peer-$log" "peer: M2"
}
count() { emu_db enr -g /runtime/apcloning/BAND_2P4G/count; }

# A wrong Authenticator: refused, nothing saved; the run still ends as one
# that handled an M2.
with_peer bad-auth.log --m2 bad-auth
expect_line "$E2E_DIR/bad-auth.log" "err:kestrd_apclone-continueAfterM1|Err:IEEE19051_ParseTlvWscEncryptedSettings"
expect_line "$E2E_DIR/bad-auth.log" "exit:processing_completed"
expect_eq "count after a bad Authenticator" "$(count)" ""

# The right nonce from a third address: dropped, as if no M2 had come.
with_peer third.log --m2 good --from 02:00:00:00:00:0d
expect_line "$E2E_DIR/third.log" "err:kestrd_apclone-requestTimeout|exit:send m1 time out"
expect_no_line "$E2E_DIR/third.log" "Err:IEEE19051_ParseTlvWscEncryptedSettings"
expect_eq "count after an M2 from elsewhere" "$(count)" ""

# The same good M2 twice within the M1's lifetime: two entries.
with_peer replay.log --m2 replay
expect_line "$E2E_DIR/replay.log" "exit:processing_completed"
expect_eq "count after a replayed M2" "$(count)" "2"
for n in 1 2; do
    expect_eq "entry $n" "$(emu_db enr -g /runtime/apcloning/BAND_2P4G/backup_setting:$n/ssid)" \
        "kestrel-home-24"
done
echo "PASS"
