# Emulated devices on one machine, for the demo, the end-to-end tests and by
# hand. Source this file from bash; it defines emu_* functions.
#
# Each device is a network namespace with a bridge "br0" whose port "eth0"
# is a veth to a shared link (a bridge "link0" in a hub namespace), a private
# mount namespace whose /var/run is a tmpfs holding the device's own
# configuration database (xmldbd on /var/run/xmldb_sock), and a private IPC
# namespace, so the message-identifier counter in shared memory belongs to
# the device as it does on real hardware. A small holder process keeps the
# namespaces alive, so the database daemon can be stopped and started again
# like any other process of the device. Nothing of it is visible from the
# host's links or the host's shared memory.
#
#   emu_init                         pick a session name, arm teardown traps
#   emu_add NAME SEED.xml [MAC]      bring up one device (br0 gets MAC if given);
#                                    its xmldbd and xmldbc are those in EMU_BIN
#                                    at this moment (emu_bin NAME names it)
#   emu_exec NAME CMD...             run a command inside a device
#   emu_bg NAME LOGFILE CMD...       the same in the background; sets EMU_BG_PID
#   emu_db NAME ARGS...              xmldbc inside a device
#   emu_db_stop NAME [SIGNAL]        end the device's xmldbd (default SIGTERM)
#   emu_db_start NAME                start it again from the device's seed
#   emu_capture_start FILE           capture 1905.1 frames on the shared link
#   emu_down                         remove everything (also run on exit/Ctrl-C)
#
# Needs root, iproute2, util-linux (unshare, nsenter); tcpdump for captures.

EMU_BIN=${EMU_BIN:-$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/build/bin}
EMU_SESSION=${EMU_SESSION:-}
declare -gA EMU_PID=()      # device name -> pid of the holder of its namespaces
declare -gA EMU_DB_PID=()   # device name -> pid of its xmldbd
declare -gA EMU_SEED=()     # device name -> its seed file
declare -gA EMU_DEV_BIN=()  # device name -> directory of its xmldbd and xmldbc
declare -ga EMU_DEVICES=()
declare -ga EMU_BG_PIDS=()
EMU_CAPTURE_PID=""

emu_log() { printf 'emu: %s\n' "$*" >&2; }

emu_init() {
    [ "$(id -u)" -eq 0 ] || { emu_log "needs root (network and mount namespaces)"; return 1; }
    [ -x "$EMU_BIN/xmldbd" ] || { emu_log "no $EMU_BIN/xmldbd: build first"; return 1; }
    EMU_SESSION=${EMU_SESSION:-k$$}
    trap 'emu_down' EXIT
    trap 'emu_down; exit 130' INT
    trap 'emu_down; exit 143' TERM
    ip netns add "$EMU_SESSION-hub" || return 1
    ip -n "$EMU_SESSION-hub" link set lo up
    emu_quiet_ipv6 "$EMU_SESSION-hub"
    ip -n "$EMU_SESSION-hub" link add link0 type bridge || return 1
    ip -n "$EMU_SESSION-hub" link set link0 up
}

emu_quiet_ipv6() {
    ip netns exec "$1" sh -c 'echo 1 > /proc/sys/net/ipv6/conf/all/disable_ipv6;
                               echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6' 2>/dev/null || true
}

emu_add() {
    local name=$1 seed=$2 mac=${3:-}
    local ns="$EMU_SESSION-$name" hub="$EMU_SESSION-hub" port="p${#EMU_DEVICES[@]}"
    [ -r "$seed" ] || { emu_log "no seed file $seed"; return 1; }
    ip netns add "$ns" || return 1
    EMU_DEVICES+=("$name")
    emu_quiet_ipv6 "$ns"
    ip -n "$hub" link add "$port" type veth peer name eth0 netns "$ns" || return 1
    ip -n "$hub" link set "$port" master link0 up
    ip -n "$ns" link set lo up
    ip -n "$ns" link add br0 type bridge || return 1
    [ -n "$mac" ] && ip -n "$ns" link set br0 address "$mac"
    ip -n "$ns" link set eth0 master br0
    ip -n "$ns" link set eth0 up
    ip -n "$ns" link set br0 up

    # The holder mounts the device's own /var/run in a private mount
    # namespace, then turns into a sleep; every later command of the device
    # enters its namespaces. Once it is a sleep, the mount is in place.
    ip netns exec "$ns" unshare --mount --ipc --propagation private \
        sh -c 'mount -t tmpfs -o size=8m tmpfs /var/run && exec sleep infinity' &
    EMU_PID[$name]=$!
    EMU_SEED[$name]=$(realpath "$seed")
    EMU_DEV_BIN[$name]=$EMU_BIN
    local i
    for i in $(seq 1 100); do
        if [ "$(cat "/proc/${EMU_PID[$name]}/comm" 2>/dev/null)" = sleep ]; then
            emu_db_start "$name"
            return
        fi
        kill -0 "${EMU_PID[$name]}" 2>/dev/null || break
        sleep 0.02
    done
    emu_log "$name: no private /var/run"
    return 1
}

emu_db_start() {
    local name=$1
    local log="${EMU_LOGDIR:-/tmp}/$EMU_SESSION-$name-xmldbd.log"
    nsenter --target "${EMU_PID[$name]}" --mount --net --ipc -- \
        "$(emu_bin "$name")/xmldbd" -f "${EMU_SEED[$name]}" >>"$log" 2>&1 &
    EMU_DB_PID[$name]=$!
    # Up once it answers: a socket file may be left over from a daemon that
    # was killed, so its mere presence proves nothing.
    local i
    for i in $(seq 1 100); do
        emu_db "$name" -g /device/apcloning/role >/dev/null 2>&1 && return 0
        kill -0 "${EMU_DB_PID[$name]}" 2>/dev/null || break
        sleep 0.05
    done
    emu_log "xmldbd of $name did not come up (see $log)"
    return 1
}

emu_db_stop() {
    local name=$1 signal=${2:-TERM}
    local pid=${EMU_DB_PID[$name]:-}
    [ -n "$pid" ] || return 0
    kill -"$signal" "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
    EMU_DB_PID[$name]=""
    return 0
}

emu_exec() {
    local name=$1
    shift
    nsenter --target "${EMU_PID[$name]}" --mount --net --ipc -- "$@"
}

emu_bg() {
    local name=$1 log=$2
    shift 2
    nsenter --target "${EMU_PID[$name]}" --mount --net --ipc -- "$@" >"$log" 2>&1 &
    EMU_BG_PID=$!
    EMU_BG_PIDS+=("$EMU_BG_PID")
}

emu_db() {
    local name=$1
    shift
    emu_exec "$name" "$(emu_bin "$name")/xmldbc" "$@"
}

# The programs of a device: one device may run another processor's build
# (through an emulator) beside devices that run this machine's.
emu_bin() { echo "${EMU_DEV_BIN[$1]:-$EMU_BIN}"; }

emu_capture_start() {
    local file=$1
    command -v tcpdump >/dev/null || { emu_log "tcpdump is not installed: no capture"; return 1; }
    ip netns exec "$EMU_SESSION-hub" tcpdump -i link0 -U -w "$file" 'ether proto 0x893a' \
        >/dev/null 2>&1 &
    EMU_CAPTURE_PID=$!
    # Wait until the capture really runs, so the first frame is not missed.
    local i
    for i in $(seq 1 50); do
        [ -s "$file" ] && return 0
        sleep 0.05
    done
}

emu_capture_stop() {
    if [ -n "$EMU_CAPTURE_PID" ]; then
        sleep 0.2
        kill -INT "$EMU_CAPTURE_PID" 2>/dev/null
        wait "$EMU_CAPTURE_PID" 2>/dev/null
        EMU_CAPTURE_PID=""
    fi
}

emu_down() {
    [ -n "$EMU_SESSION" ] || return 0
    emu_capture_stop
    local pid name ns
    for pid in "${EMU_BG_PIDS[@]}"; do kill "$pid" 2>/dev/null; done
    for name in "${EMU_DEVICES[@]}"; do
        ns="$EMU_SESSION-$name"
        # Everything still running inside the device, then its holder.
        for pid in $(ip netns pids "$ns" 2>/dev/null); do kill "$pid" 2>/dev/null; done
        [ -n "${EMU_PID[$name]:-}" ] && kill "${EMU_PID[$name]}" 2>/dev/null
    done
    for pid in "${EMU_BG_PIDS[@]}" "${EMU_DB_PID[@]}" "${EMU_PID[@]}"; do
        [ -n "$pid" ] && wait "$pid" 2>/dev/null
    done
    for name in "${EMU_DEVICES[@]}"; do ip netns del "$EMU_SESSION-$name" 2>/dev/null; done
    ip netns del "$EMU_SESSION-hub" 2>/dev/null
    EMU_DEVICES=()
    EMU_PID=()
    EMU_DB_PID=()
    EMU_SEED=()
    EMU_DEV_BIN=()
    EMU_BG_PIDS=()
    EMU_SESSION=""
    trap - EXIT INT TERM
}
