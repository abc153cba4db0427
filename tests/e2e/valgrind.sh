#!/usr/bin/env bash
# Both roles under Valgrind's memcheck through real clones: no error, and
# nothing definitely or indirectly lost when the process ends. The enrollee
# runs are a lone run nobody answers, a clone of each band, and a clone that
# also gets an M2 with a wrong Authenticator; the registrar answers them all
# under memcheck and is then ended by SIGTERM, as on the device.
#
# The registrar installs no signal handler, by design; memcheck catches the
# fatal signal itself and checks for leaks before the process goes, counting
# what the still-running tasks hold as reachable. So both roles get a full
# leak check. Kept for the life of the process on purpose, and not counted:
# the identifier counter's shared memory (no heap) and the /dev/urandom
# descriptor. The enrollee must end with no other descriptor of its own.
source "$(dirname "$0")/lib.sh"
command -v valgrind >/dev/null || { echo "skip: valgrind is not installed"; exit 77; }
e2e_init

emu_add reg "$SEEDS/registrar.xml" 02:00:00:00:00:0a || fail "registrar device"
emu_add enr "$SEEDS/enrollee.xml" 02:00:00:00:00:0b || fail "enrollee device"
emu_add peer "$SEEDS/registrar.xml" 02:00:00:00:00:0c || fail "peer device"

# Memcheck's reports go to files of their own (the .txt files), never into
# the daemon's output.
memcheck() {  # NAME: the command prefix for a process whose report is NAME.txt
    echo valgrind --tool=memcheck --leak-check=full --show-leak-kinds=definite,indirect \
        --errors-for-leak-kinds=definite,indirect --track-fds=yes --num-callers=30 \
        --log-file="$E2E_DIR/$1.txt"
}

enrollee() {  # WORD NAME OUTCOME
    emu_exec enr timeout 120 $(memcheck "$2") "$EMU_BIN/kestrd" "$1" >"$E2E_DIR/$2.log" 2>&1 ||
        fail "$2 exited with $?"
    expect_line "$E2E_DIR/$2.log" "$3"
}

enrollee apclone_24G lone "exit:send search, but no response"

emu_bg reg "$E2E_DIR/registrar.log" $(memcheck registrar) "$EMU_BIN/kestrd" apclone_deamon
REGISTRAR=$EMU_BG_PID
wait_for_line "$E2E_DIR/registrar.log" "name:msgProcess" 30 || fail "registrar did not start"
enrollee apclone_24G clone24 "exit:processing_completed"
enrollee apclone_5G clone5 "exit:processing_completed"
emu_bg peer "$E2E_DIR/peer.log" "$TEST_BIN/kestr_test_peer" --responses 1 --m2 bad-auth --for 30
PEER=$EMU_BG_PID
sleep 0.3
enrollee apclone_24G spoiled "exit:processing_completed"
expect_line "$E2E_DIR/spoiled.log" "Err:IEEE19051_ParseTlvWscEncryptedSettings"
kill "$PEER"
expect_eq "entries" "$(emu_db enr -g /runtime/apcloning/BAND_2P4G/count)" "2"

kill -TERM "$REGISTRAR"
wait "$REGISTRAR"
[ $? -eq 143 ] || fail "registrar did not end by SIGTERM"

# Descriptors the process opened itself and still held at its end (memcheck
# marks the others as inherited), one per line.
own_descriptors() {
    awk '/^==[0-9]+== Open / { if (d != "") print d; d = $0; sub(/^==[0-9]+== /, "", d); next }
         /<inherited from parent>/ { d = "" }
         END { if (d != "") print d }' "$1"
}

for report in lone clone24 clone5 spoiled registrar; do
    f=$E2E_DIR/$report.txt
    [ -s "$f" ] || fail "no memcheck report $report"
    grep -q "ERROR SUMMARY: 0 errors" "$f" || fail "memcheck errors in $report (see $report.txt)"
    if ! grep -q "All heap blocks were freed" "$f"; then
        grep -q "definitely lost: 0 bytes in 0 blocks" "$f" || fail "definite leak in $report"
        grep -q "indirectly lost: 0 bytes in 0 blocks" "$f" || fail "indirect leak in $report"
    fi
    kept=$(own_descriptors "$f" | grep -v '^Open file descriptor [0-9]*: /dev/urandom$')
    if [ "$report" = registrar ]; then
        # Ended while serving: its receive (packet) socket is still open, and
        # rightly.
        kept=$(echo "$kept" | grep -v '^Open pf-17 socket [0-9]*:$')
    fi
    [ -z "$kept" ] || fail "$report kept descriptors: $kept"
    leaks="all heap blocks were freed"
    grep -q "All heap blocks were freed" "$f" ||
        leaks=$(sed -n 's/^==[0-9]*== *\(\(definitely\|indirectly\|possibly\) lost\|still reachable\): /\1 /p' \
            "$f" | paste -sd';' | sed 's/;/, /g')
    echo "memcheck $report: $(sed -n 's/^==[0-9]*== ERROR SUMMARY: \([0-9]* errors\).*/\1/p' "$f"); $leaks"
done
echo "PASS"
