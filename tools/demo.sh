#!/usr/bin/env bash
# Two emulated devices clone Wi-Fi settings over IEEE 1905.1: a registrar
# with different 2.4 GHz and 5 GHz profiles, and an enrollee that runs one
# cloning attempt per band. Needs root; leaves nothing running.
#   tools/demo.sh [BUILD_DIR]
set -uo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath "${1:-$top/build}")
out=$build/demo
mkdir -p "$out"
rm -f "$out"/*.log "$out/exchange.pcap"
export EMU_BIN=$build/bin EMU_LOGDIR=$out EMU_SESSION=kdemo$$
source "$top/tools/emu/emu.sh"

plain() { sed 's/\x1b\[[0-9;]*m//g' "$@"; }
die() { echo "demo: $*" >&2; exit 1; }

emu_init || die "cannot create the emulated devices (root needed)"
emu_add registrar "$top/tools/seeds/registrar.xml" 02:00:00:00:00:0a || die "registrar device"
emu_add enrollee "$top/tools/seeds/enrollee.xml" 02:00:00:00:00:0b || die "enrollee device"
emu_capture_start "$out/exchange.pcap" || echo "demo: no packet capture (tcpdump missing)"

db() { emu_db "$1" -g "$2"; }
profile() {  # DEVICE ENTRY
    local e=/wifi/entry:$2
    printf 'ssid "%s", %s/%s, key "%s"' "$(db "$1" $e/ssid)" "$(db "$1" $e/authtype)" \
        "$(db "$1" $e/encrtype)" "$(db "$1" $e/nwkey/psk/key)"
}

echo
echo "Two emulated devices on one link (network namespaces, each with its own database):"
echo "  registrar  br0 02:00:00:00:00:0a  seeded from tools/seeds/registrar.xml"
echo "  enrollee   br0 02:00:00:00:00:0b  seeded from tools/seeds/enrollee.xml"
echo
echo "Registrar's Wi-Fi settings:"
echo "  2.4 GHz  $(profile registrar 1)"
echo "  5 GHz    $(profile registrar 2)"
echo

emu_bg registrar "$out/registrar.log" "$EMU_BIN/kestrd" apclone_deamon
for _ in $(seq 1 100); do
    grep -q 'name:msgProcess' "$out/registrar.log" 2>/dev/null && break
    sleep 0.05
done
echo "Registrar: kestrd apclone_deamon is running."

for word in apclone_24G apclone_5G; do
    t0=$(date +%s%N)
    emu_exec enrollee timeout 30 "$EMU_BIN/kestrd" "$word" >"$out/enrollee-$word.log" 2>&1
    tenths=$((($(date +%s%N) - t0) / 100000000))
    outcome=$(plain "$out/enrollee-$word.log" | grep -o 'exit:[^[:cntrl:]]*' | tail -n 1)
    printf 'Enrollee:  kestrd %-11s -> %s (%d.%d s)\n' "$word" "${outcome:-no outcome line}" \
        $((tenths / 10)) $((tenths % 10))
done

echo
echo "Enrollee's database afterwards:"
for band in BAND_2P4G BAND_5G; do
    base=/runtime/apcloning/$band
    count=$(db enrollee $base/count)
    echo "  $base: count ${count:-none}, done $(db enrollee $base/done)"
    for n in $(seq 1 "${count:-0}"); do
        b=$base/backup_setting:$n
        printf '    backup_setting:%s  ssid "%s", %s/%s, key "%s"\n' "$n" "$(db enrollee $b/ssid)" \
            "$(db enrollee $b/authtype)" "$(db enrollee $b/encrtype)" "$(db enrollee $b/key)"
    done
done

emu_down
echo
echo "Logs:    $out/registrar.log, $out/enrollee-apclone_24G.log, $out/enrollee-apclone_5G.log"
[ -s "$out/exchange.pcap" ] &&
    echo "Capture: $out/exchange.pcap (wireshark $out/exchange.pcap; display filter ieee1905)"
