# Emulated devices on one machine, for the demo, the end-to-end tests and by
# hand. Source this file from bash; it defines emu_* functions.
#
# Each device is a network namespace with a bridge "br0" whose port "eth0"
# is a veth to a shared link (a bridge "link0" in a hub namespace), and a
# private mount namespace whose /var/run is a tmpfs holding the device's own
# configuration database (xmldbd on /var/run/xmldb_sock). Nothing of it is
# visible from the host's links.
#
#   emu_init                         pick a session name, arm teardown traps
#   emu_add NAME SEED.xml [MAC]      bring up one device (br0 gets MAC if given)
#   emu_exec NAME CMD...             run a command inside a device
#   emu_bg NAME LOGFILE CMD...       the same in the background; sets EMU_BG_PID
#   emu_db NAME ARGS...              xmldbc inside a device
#   emu_capture_start FILE           capture 1905.1 frames on the shared link
#   emu_down                         remove everything (also run on exit/Ctrl-C)
#
# Needs root, iproute2, util-linux (unshare, nsenter); tcpdump for captures.

EMU_BIN=${EMU_BIN:-$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/build/bin}
EMU_SESSION=${EMU_SESSION:-}
declare -gA EMU_PID=()      # device name -> pid of its xmldbd (holds the mount namespace)
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

    # The device's database daemon holds a private mount namespace with its own
    # /var/run; every later command of the device enters that namespace.
    local log="${EMU_LOGDIR:-/tmp}/$ns-xmldbd.log"
    ip netns exec "$ns" unshare --mount --propagation private \
        sh -c 'mount -t tmpfs -o size=8m tmpfs /var/run && exec "$0" -f "$1"' \
        "$EMU_BIN/xmldbd" "$(realpath "$seed")" >"$log" 2>&1 &
    EMU_PID[$name]=$!
    local i
    for i in $(seq 1 100); do
        emu_exec "$name" test -S /var/run/xmldb_sock 2>/dev/null && return 0
        kill -0 "${EMU_PID[$name]}" 2>/dev/null || break
        sleep 0.05
    done
    emu_log "xmldbd of $name did not come up (see $log)"
    return 1
}

emu_exec() {
    local name=$1
    shift
    nsenter --target "${EMU_PID[$name]}" --mount --net -- "$@"
}

emu_bg() {
    local name=$1 log=$2
    shift 2
    nsenter --target "${EMU_PID[$name]}" --mount --net -- "$@" >"$log" 2>&1 &
    EMU_BG_PID=$!
    EMU_BG_PIDS+=("$EMU_BG_PID")
}

emu_db() {
    local name=$1
    shift
    emu_exec "$name" "$EMU_BIN/xmldbc" "$@"
}

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
        # Everything still running inside the device, then its database.
        for pid in $(ip netns pids "$ns" 2>/dev/null); do kill "$pid" 2>/dev/null; done
        [ -n "${EMU_PID[$name]:-}" ] && kill "${EMU_PID[$name]}" 2>/dev/null
    done
    for pid in "${EMU_BG_PIDS[@]}" "${EMU_PID[@]}"; do wait "$pid" 2>/dev/null; done
    for name in "${EMU_DEVICES[@]}"; do ip netns del "$EMU_SESSION-$name" 2>/dev/null; done
    ip netns del "$EMU_SESSION-hub" 2>/dev/null
    EMU_DEVICES=()
    EMU_PID=()
    EMU_BG_PIDS=()
    EMU_SESSION=""
    trap - EXIT INT TERM
}
