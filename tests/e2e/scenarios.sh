#!/usr/bin/env bash
# End-to-end scenarios: real kestrd, xmldbd and xmldbc processes on emulated
# devices (tools/emu/emu.sh) that share one link. CTest runs each row of the
# table below as a test of its own:  scenarios.sh ROW
#
# A row names the devices it needs, whether a registrar serves, what
# disturbs the run (a function run before the enrollee's runs), and the
# enrollee runs with the outcome each must end with. After every run that
# completes, the entry the enrollee saved must be exactly the registrar's
# settings for that band. A device marked + runs a cross build's kestrd,
# xmldbd and xmldbc (CROSS_BIN) through its emulator (CROSS_RUN): the cross
# rows run in a cross build's CTest, beside this machine's build (EMU_BIN).
source "$(dirname "$0")/lib.sh"

#    row                devices          registrar  disturbance  runs (WORD=OUTCOME)
ROWS=(
    "clone              reg,enr          yes        capture      24G=completed 5G=completed 24G:open=completed 5G:long=completed 5G:wep=completed"
    "no-registrar       enr              no         -            24G=no-response"
    "command-line       enr              no         words        -"
    "database-dies      reg,enr          yes        db_dies      -"
    "hostile-flood      reg,enr,junk     yes        flood        24G=completed 5G=completed 24G=completed 5G=completed"
    "lock-holder-killed reg,enr          yes        lock_holder  24G=completed"
    "cross-registrar    reg+,enr         yes        capture      24G=completed 5G=completed"
    "cross-enrollee     reg,enr+         yes        capture      24G=completed 5G=completed"
)

declare -A OUTCOME=(
    [completed]="kestrd_apclone-requestTimeout|exit:processing_completed"
    [no-response]="err:kestrd_apclone-requestTimeout|exit:send search, but no response"
)
declare -A MAC=([reg]=02:00:00:00:00:0a [enr]=02:00:00:00:00:0b [junk]=02:00:00:00:00:0c)
declare -A SEED=([reg]=registrar.xml [enr]=enrollee.xml [junk]=registrar.xml)

band_node() { [ "$1" = 5G ] && echo BAND_5G || echo BAND_2P4G; }
profile() { [ "$1" = 5G ] && echo /wifi/entry:2 || echo /wifi/entry:1; }

# What an enrollee must save for BAND from the registrar's profile: SSID and
# key cut to 32 and 64, every PSK profile as WPA+2PSK/TKIP+AES, others open.
expected_entry() {  # BAND
    local p auth
    p=$(profile "$1")
    auth=$(emu_db reg -g "$p/authtype")
    case "$auth" in
        WPA+2PSK | WPA2PSK | WPAPSK)
            echo "$(emu_db reg -g "$p/ssid" | cut -c1-32)|$(emu_db reg -g "$p/nwkey/psk/key" | cut -c1-64)|WPA+2PSK|TKIP+AES" ;;
        *) echo "$(emu_db reg -g "$p/ssid" | cut -c1-32)||OPEN|NONE" ;;
    esac
}
saved_entry() {  # BAND N
    local b=/runtime/apcloning/$(band_node "$1")/backup_setting:$2
    echo "$(emu_db enr -g "$b/ssid")|$(emu_db enr -g "$b/key")|$(emu_db enr -g "$b/authtype")|$(emu_db enr -g "$b/encrtype")"
}
count_of() { emu_db enr -g "/runtime/apcloning/$(band_node "$1")/count"; }

# A variant of the registrar's profile for one run.
set_profile() {  # BAND VARIANT
    local p
    p=$(profile "$1")
    case "$2" in
        open) emu_db reg -s "$p/ssid" open-house -s "$p/authtype" OPEN -s "$p/encrtype" NONE ;;
        long) emu_db reg -s "$p/ssid" "$(printf 'S%.0s' {1..30})0123456789" \
                  -s "$p/nwkey/psk/key" "$(printf 'k%.0s' {1..60})abcdefghij" ;;
        wep) emu_db reg -s "$p/authtype" SHARED -s "$p/encrtype" WEP -s "$p/nwkey/wep/key" 0123456789 ;;
    esac >/dev/null || fail "registrar database"
}

# One enrollee run and its checks.
run() {  # WORD=OUTCOME
    local word=${1%%=*} outcome=${1#*=} n log before
    local band=${word%%:*} variant=${word#*:}
    [ "$variant" = "$word" ] || set_profile "$band" "$variant"
    n=$((++RUNS))
    log=$E2E_DIR/run$n-$band.log
    before=$(count_of "$band")
    run_enrollee "apclone_$band" "$log"
    expect_line "$log" "${OUTCOME[$outcome]}"
    if [ "$outcome" = completed ] && [ "$variant" != wep ]; then
        expect_eq "entries of $band after run $n" "$(count_of "$band")" "$((before + 1))"
        expect_eq "entry of $band" "$(saved_entry "$band" $((before + 1)))" "$(expected_entry "$band")"
    else
        expect_eq "entries of $band after run $n" "$(count_of "$band")" "$before"
    fi
    [ "$variant" != wep ] || expect_line "$log" "Err: not save, not support WEP"
    expect_eq "done of $band" "$(emu_db enr -g "/runtime/apcloning/$(band_node "$band")/done")" 1
}

# ---- disturbances ----

capture() {  # the first run is captured and must decode cleanly in Wireshark
    command -v tshark >/dev/null || return 0
    emu_capture_start "$E2E_DIR/exchange.pcap" || return 0
    run "${RUN_LIST[0]}"
    emu_capture_stop
    bash "$E2E_SRC/tools/wireshark-check.sh" "$E2E_DIR/exchange.pcap" search response m1 m2 \
        >"$E2E_DIR/wireshark.log" 2>&1 || fail "the capture does not decode cleanly"
    RUN_LIST=("${RUN_LIST[@]:1}")
}

flood() {  # junk at a rate a busy link may carry, for as long as the runs take
    emu_bg junk "$E2E_DIR/junk.log" "$PEER" flood "${FLOOD_RATE:-2000}" 25
}

lock_holder() {  # a process dies while it holds the device's identifier lock
    emu_bg enr "$E2E_DIR/holder.log" "$PEER" hold-mid-lock
    local holder=$EMU_BG_PID
    wait_for_line "$E2E_DIR/holder.log" "peer: holding the identifier lock" 5 || fail "no lock held"
    emu_bg enr "$E2E_DIR/held.log" "$EMU_BIN/kestrd" apclone_24G
    local enrollee=$EMU_BG_PID
    wait_for_line "$E2E_DIR/held.log" "sendSearch" 5 || fail "no Search started"
    sleep 0.5
    [ "$(count_lines "$E2E_DIR/registrar.log" msgApcloneProcesSearch)" = 0 ] ||
        fail "a Search went out while the identifier was locked"
    kill -KILL "$holder"
    wait "$enrollee" || fail "the held run exited with $?"
    expect_line "$E2E_DIR/held.log" "${OUTCOME[completed]}"
}

db_dies() {
    # The enrollee's database stops while its M2 is being saved, then dies:
    # the run still ends, as one that handled an M2.
    emu_bg enr "$E2E_DIR/stalled.log" "$EMU_BIN/kestrd" apclone_24G
    local enrollee=$EMU_BG_PID
    wait_for_line "$E2E_DIR/stalled.log" sendM1 5 || fail "no M1"
    kill -STOP "${EMU_DB_PID[enr]}"
    sleep 1.5
    emu_db_stop enr KILL
    wait "$enrollee" || fail "the stalled run exited with $?"
    expect_line "$E2E_DIR/stalled.log" "${OUTCOME[completed]}"
    emu_db_start enr || fail "enrollee database did not come back"
    # The registrar's database dies under it: it seals empty settings (an open
    # network without a name), stays up, and is itself again once the
    # database is back.
    emu_db_stop reg KILL
    run_enrollee apclone_5G "$E2E_DIR/emptied.log"
    expect_line "$E2E_DIR/emptied.log" "${OUTCOME[completed]}"
    expect_eq "entry sealed without a database" "$(saved_entry 5G 1)" "||OPEN|NONE"
    emu_db_start reg || fail "registrar database did not come back"
    RUN_LIST=("5G=completed")
}

words() {  # the command line: usage, echo, role check; exit status 0 always
    local usage="Usage: kestrd {cmd} |    kestrd apclone_24G|    kestrd apclone_5G|    kestrd apclone_deamon|"
    local row word want got
    for row in "|$usage" "help|$usage" "help2|argv[1]:help2|$usage" "apclone_5|argv[1]:apclone_5|$usage" \
        "%s%n|argv[1]:%s%n|$usage" \
        "apclone_deamon|argv[1]:apclone_deamon|err:kestrd-param_parse|role is not RoleTypeRegistrar|"; do
        word=${row%%|*} want=${row#*|}
        got=$(emu_exec enr "$EMU_BIN/kestrd" ${word:+"$word"} 2>&1 | plain /dev/stdin | tr '\n' '|')
        expect_eq "kestrd '$word' (status ${PIPESTATUS[0]})" "$got" "$want"
    done
    got=$(emu_exec enr "$EMU_BIN/kestrd" $(printf 'x %.0s' {1..32}) | tr '\n' '|')
    expect_eq "kestrd with 32 words" "$got" "$usage"
}

# ---- the runner ----

row=""
for r in "${ROWS[@]}"; do [ "${r%% *}" = "${1:-}" ] && row=$r; done
[ -n "$row" ] || { echo "usage: scenarios.sh ROW (one of: ${ROWS[*]%% *})"; exit 2; }
read -r _ devices registrar disturbance runs <<<"$row"
e2e_init
for d in ${devices//,/ }; do
    bin=$EMU_BIN
    if [ "${d%+}" != "$d" ]; then
        d=${d%+} bin=$E2E_DIR/target
        [ -n "${CROSS_BIN:-}" ] && [ -n "${CROSS_RUN:-}" ] || fail "a cross row needs CROSS_BIN, CROSS_RUN"
        mkdir -p "$bin"
        for p in kestrd xmldbd xmldbc; do
            printf '#!/bin/sh\nexec %s %s "$@"\n' "$CROSS_RUN" "$CROSS_BIN/$p" >"$bin/$p"
            chmod +x "$bin/$p"
        done
    fi
    EMU_BIN=$bin emu_add "$d" "$SEEDS/${SEED[$d]}" "${MAC[$d]}" || fail "device $d"
done
[ "$registrar" = no ] || start_registrar reg "$E2E_DIR/registrar.log"
RUNS=0
read -r -a RUN_LIST <<<"${runs/#-/}"
[ "$disturbance" = - ] || "$disturbance"
for r in "${RUN_LIST[@]}"; do run "$r"; done
if [ "$registrar" = yes ]; then kill -0 "$REGISTRAR" || fail "the registrar died"; fi
echo "PASS"
