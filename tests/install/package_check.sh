#!/usr/bin/env bash
# The Debian package of this build, installed into a fresh root: its file
# list; its systemd unit as systemd reads it; its init script run with
# BusyBox's shell and start-stop-daemon in an emulated device, where the
# cloning window it opens serves one clone with the installed programs and
# then closes by itself.
#
#   package_check.sh BUILD_DIR
build=${1:?usage: package_check.sh BUILD_DIR}
command -v busybox >/dev/null || { echo "skip: busybox is not installed"; exit 77; }
export EMU_BIN=$build/bin TEST_BIN=$build/tests
source "$(dirname "$0")/../e2e/lib.sh"
e2e_init

cpack --config "$build/CPackConfig.cmake" -G DEB -B "$E2E_DIR/pkg" >"$E2E_DIR/cpack.log" 2>&1 ||
    fail "cpack: $(tail -n3 "$E2E_DIR/cpack.log")"
root=$E2E_DIR/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status"
# The libraries come from the build machine; this root holds only the package.
dpkg --root="$root" --force-depends -i "$E2E_DIR"/pkg/kestrd_*.deb >"$E2E_DIR/dpkg.log" 2>&1 ||
    fail "dpkg -i: $(tail -n3 "$E2E_DIR/dpkg.log")"
expect_eq "files" "$(dpkg --root="$root" -L kestrd | while read -r f; do
    [ -d "$root$f" ] || echo "$f"; done | sort | tr '\n' ' ')" \
    "/etc/init.d/kestrd-registrar /usr/bin/xmldbc /usr/bin/xmldbd \
/usr/lib/systemd/system/kestrd-registrar.service /usr/sbin/kestrd \
/usr/share/man/man1/xmldbc.1 /usr/share/man/man8/kestrd.8 /usr/share/man/man8/xmldbd.8 "

for page in "$root"/usr/share/man/man*/*; do
    complaints=$(groff -ww -z -man "$page" 2>&1) && [ -z "$complaints" ] || fail "$page: $complaints"
done

# systemd takes the unit without a complaint (pointed at the installed kestrd).
unit=$root/usr/lib/systemd/system/kestrd-registrar.service
if command -v systemd-analyze >/dev/null; then
    sed "s|^ExecStart=/usr/sbin/|ExecStart=$root/usr/sbin/|" "$unit" >"$E2E_DIR/kestrd-registrar.service"
    complaints=$(systemd-analyze verify --man=no "$E2E_DIR/kestrd-registrar.service" 2>&1)
    [ -z "$complaints" ] || fail "systemd-analyze verify: $complaints"
fi
grep -qx 'ExecStart=/usr/sbin/kestrd apclone_deamon' "$unit" || fail "unit: ExecStart"
grep -qx 'RuntimeMaxSec=120' "$unit" || fail "unit: no 120 s window"

# The init script as a BusyBox firmware runs it.
init=$root/etc/init.d/kestrd-registrar
busybox sh -n "$init" || fail "init script: syntax"
mkdir "$E2E_DIR/busybox" "$E2E_DIR/bin"
for applet in sh start-stop-daemon sleep kill cat rm; do ln -s "$(command -v busybox)" "$E2E_DIR/busybox/$applet"; done
ln -s "$root/usr/sbin/kestrd" "$root/usr/bin/xmldbd" "$root/usr/bin/xmldbc" "$E2E_DIR/bin/"
EMU_BIN=$E2E_DIR/bin
emu_add reg "$SEEDS/registrar.xml" 02:00:00:00:00:0a || fail "registrar device"
emu_add enr "$SEEDS/enrollee.xml" 02:00:00:00:00:0b || fail "enrollee device"
service() {  # ACTION [WINDOW]: the init script in the registrar device
    emu_exec reg env PATH="$E2E_DIR/busybox" KESTRD="$root/usr/sbin/kestrd" \
        CLONE_WINDOW="${2:-120}" sh "$init" "$1"
}
# Processes that run in the registrar device besides its namespace holder
# and database (zombies left to init count as ended).
extra_processes() {
    local pid n=0
    for pid in $(ip netns pids "$EMU_SESSION-reg"); do grep -qs '^VmRSS' "/proc/$pid/status" && n=$((n + 1)); done
    echo $((n - 2))
}
window=6
service start $window || fail "init script: start"
run_enrollee apclone_24G "$E2E_DIR/enrollee.log"
expect_line "$E2E_DIR/enrollee.log" "exit:processing_completed"
expect_eq "entry" "$(emu_db enr -g /runtime/apcloning/BAND_2P4G/backup_setting:1/ssid)" "kestrel-home-24"
service status || fail "the window closed before its time"
# The window ends by itself: registrar, timer and pid files gone.
for i in $(seq 1 $((window * 10 + 30))); do service status || break; sleep 0.1; done
service status && fail "the window did not close after $window s"
sleep 0.2
expect_eq "processes after the window" "$(extra_processes)" 0
[ -z "$(emu_exec reg ls /var/run | grep kestrd)" ] || fail "left behind: $(emu_exec reg ls /var/run)"
# A stop closes a window at once, its timer with it.
service start && service status || fail "init script: second start"
expect_eq "processes of a window" "$(extra_processes)" 3
service stop || fail "init script: stop"
service status && fail "the registrar runs on after stop"
expect_eq "processes after stop" "$(extra_processes)" 0
echo "PASS"
