#!/usr/bin/env bash
# Decodes a capture of 1905.1 frames with Wireshark's dissectors (tshark) and
# checks that every frame reads cleanly as a message of a cloning run:
#
#   tools/wireshark-check.sh CAPTURE [MESSAGE...]
#
# MESSAGE is one of search, response, m1, m2: the frames the capture must
# hold, in this order and nothing else. Without any, every frame must still
# be one of the four. For each frame:
#   - the 1905.1 message type, and the TLVs in order: a Search has the AL MAC
#     address, searched role (registrar) and frequency band; a Response the
#     supported role (registrar) and supported band; a WSC message one WSC
#     TLV; all end with the end-of-message TLV;
#   - M1 and M2: every WSC attribute known to the dissector by name, in the
#     order our encoder writes them;
#   - nothing Malformed, no expert info of Error severity, and no Warning
#     except "Extraneous data after EOM TLV", which the zero padding of short
#     frames to the Ethernet minimum of 60 bytes causes.
#
# Exit status: 0 all good; 1 a check failed, one line per finding on
# standard output ("frame N (kind): what"); 2 bad usage, no tshark, or a file
# tshark cannot read.
set -uo pipefail

me=wireshark-check
usage() {
    echo "usage: $me CAPTURE [search|response|m1|m2]..." >&2
    exit 2
}
[ $# -ge 1 ] || usage
capture=$1
shift
expected=("$@")
for m in "${expected[@]}"; do
    case "$m" in
        search | response | m1 | m2) ;;
        *) echo "$me: unknown message '$m'" >&2; usage ;;
    esac
done
command -v tshark >/dev/null || { echo "$me: tshark is not installed" >&2; exit 2; }
[ -r "$capture" ] || { echo "$me: cannot read $capture" >&2; exit 2; }

# What each message must carry, as the dissector numbers it.
declare -A tlvs=(
    [search]="0x01 0x0d 0x0e 0x00"
    [response]="0x0f 0x10 0x00"
    [m1]="0x11 0x00"
    [m2]="0x11 0x00"
)
declare -A attributes=(
    [m1]="0x104a 0x1022 0x1047 0x1020 0x101a 0x1032 0x1004 0x1010 0x100d 0x1008 0x1044
          0x1021 0x1023 0x1024 0x1042 0x1054 0x1011 0x103c 0x1002 0x1012 0x1009 0x102d 0x1049"
    [m2]="0x104a 0x1022 0x101a 0x1039 0x1032 0x1004 0x1010 0x100d 0x1008 0x1021 0x1023
          0x1024 0x1042 0x1054 0x1011 0x103c 0x1002 0x1012 0x1009 0x102d 0x1049 0x1018 0x1005"
)
# Our names for the attributes, for the messages of a failed check.
declare -A attribute_name=(
    [0x104a]="Version" [0x1022]="Message Type" [0x1047]="UUID-E" [0x1020]="MAC Address"
    [0x101a]="Enrollee Nonce" [0x1039]="Registrar Nonce" [0x1032]="Public Key"
    [0x1004]="Authentication Type Flags" [0x1010]="Encryption Type Flags"
    [0x100d]="Connection Type Flags" [0x1008]="Configuration Methods"
    [0x1044]="Wi-Fi Simple Configuration State" [0x1021]="Manufacturer" [0x1023]="Model Name"
    [0x1024]="Model Number" [0x1042]="Serial Number" [0x1054]="Primary Device Type"
    [0x1011]="Device Name" [0x103c]="RF Bands" [0x1002]="Association State"
    [0x1012]="Device Password ID" [0x1009]="Configuration Error" [0x102d]="OS Version"
    [0x1049]="Vendor Extension" [0x1018]="Encrypted Settings" [0x1005]="Authenticator"
)
padding_warning="Extraneous data after EOM TLV"

pdml=$(mktemp)
trap 'rm -f "$pdml"' EXIT
# tshark names the running user on standard error; only its exit status and
# real complaints matter.
if ! tshark -n -r "$capture" -T pdml >"$pdml" 2>"$pdml.err"; then
    echo "$me: tshark cannot read $capture:" >&2
    grep -v '^Running as user' "$pdml.err" >&2
    rm -f "$pdml.err"
    exit 2
fi
rm -f "$pdml.err"

# One line per frame, fields separated by the ASCII unit separator (so that
# empty fields survive `read`):
#   number, message type, TLVs (type=name;...), searched role, supported role,
#   WSC message type, WSC attributes (type=name;...), expert infos
#   (Severity: message;...), malformed (its text, or empty)
frames=$(awk '
function attr(line, key,    m) {
    if (match(line, " " key "=\"[^\"]*\"")) {
        m = substr(line, RSTART + length(key) + 3, RLENGTH - length(key) - 4)
        gsub(/&quot;/, "\"", m); gsub(/&lt;/, "<", m); gsub(/&gt;/, ">", m); gsub(/&amp;/, "\\&", m)
        return m
    }
    return ""
}
# "TLV type: WSC (0x11)" -> "WSC"
function label(showname,    s) {
    s = showname
    sub(/^[^:]*: /, "", s)
    sub(/ \(0x[0-9a-fA-F]+\)$/, "", s)
    return s
}
function flush() {
    if (number != "")
        printf "%s\037%s\037%s\037%s\037%s\037%s\037%s\037%s\037%s\n", number, type, tlv,
               searched, supported,
               wsctype, wps, expert, malformed
}
/<packet>/ {
    flush()
    number = type = tlv = searched = supported = wsctype = wps = expert = malformed = ""
}
{
    name = attr($0, "name")
    if (name == "frame.number") number = attr($0, "show")
    else if (name == "ieee1905.message_type") type = attr($0, "show")
    else if (name == "ieee1905.tlv_type")
        tlv = tlv attr($0, "show") "=" label(attr($0, "showname")) ";"
    else if (name == "ieee1905.searched_role") searched = attr($0, "show")
    else if (name == "ieee1905.supported_role") supported = attr($0, "show")
    else if (name == "wps.message_type") wsctype = attr($0, "show")
    else if (name == "wps.type")
        wps = wps attr($0, "show") "=" label(attr($0, "showname")) ";"
    else if (name == "_ws.expert") {
        s = attr($0, "showname")           # Expert Info (Warning/Protocol): text
        sev = s; sub(/^Expert Info \(/, "", sev); sub(/\/.*/, "", sev)
        msg = s; sub(/^[^)]*\): /, "", msg)
        expert = expert sev ": " msg ";"
    } else if (name == "_ws.malformed")
        malformed = attr($0, "showname") != "" ? attr($0, "showname") : "Malformed"
}
END { flush() }
' "$pdml")

problems=0
problem() {
    echo "$me: $*"
    problems=$((problems + 1))
}

# "0x01=AL MAC;0x0d=SearchedRole;" -> "0x01 0x0d" (part 1) or
# "AL MAC, SearchedRole" (part 2)
tlv_list() {
    local list=$1 part=$2 out="" item
    while [ -n "$list" ]; do
        item=${list%%;*}
        list=${list#*;}
        if [ "$part" -eq 1 ]; then out+="${item%%=*} "; else out+="${item#*=}, "; fi
    done
    out=${out%, }
    echo "${out% }"
}

named() { echo "${attribute_name[$1]:-attribute} ($1)"; }

# Compares the attribute list of a WSC frame with the order we send.
check_attributes() {
    local where=$1 kind=$2 got=$3
    local -a want=(${attributes[$kind]})
    local i=0 item id name
    while [ -n "$got" ]; do
        item=${got%%;*}
        got=${got#*;}
        id=${item%%=*}
        name=${item#*=}
        if [ $i -ge ${#want[@]} ]; then
            problem "$where: WSC attributes: one more than expected at $((i + 1)): $name ($id)"
            return
        fi
        if [ "$id" != "${want[$i]}" ]; then
            problem "$where: WSC attributes: at $((i + 1)) $name ($id), expected $(named "${want[$i]}")"
            return
        fi
        case "$name" in
            "" | Unknown*) problem "$where: WSC attribute $id has no name in the dissector" ;;
        esac
        i=$((i + 1))
    done
    [ $i -eq ${#want[@]} ] ||
        problem "$where: WSC attributes: $i of ${#want[@]}, missing $(named "${want[$i]}") onwards"
}

count=0
seen=()
while IFS=$'\x1f' read -r number type tlv searched supported wsctype wps expert malformed; do
    [ -n "$number" ] || continue
    count=$((count + 1))
    case "$type" in
        0x0007) kind=search ;;
        0x0008) kind=response ;;
        0x0009)
            case "$wsctype" in
                0x04) kind=m1 ;;
                0x05) kind=m2 ;;
                *) kind="wsc with message type '${wsctype:-none}'" ;;
            esac
            ;;
        *) kind="" ;;
    esac
    where="frame $number ($kind)"
    if [ -z "$kind" ]; then
        problem "frame $number: message type $((type)), not part of a cloning run"
        where="frame $number"
    elif [ -z "${tlvs["$kind"]:-}" ]; then
        problem "frame $number: $kind, neither M1 nor M2"
    fi
    seen+=("${kind:-type $((type))}")

    if [ -n "$malformed" ]; then
        problem "$where: Malformed: $malformed"
    fi
    rest=$expert
    while [ -n "$rest" ]; do
        item=${rest%%;*}
        rest=${rest#*;}
        case "$item" in
            "Warning: $padding_warning") ;;
            Error:* | Warning:*) problem "$where: expert info $item" ;;
        esac
    done

    if [ -n "$kind" ] && [ -n "${tlvs[$kind]:-}" ]; then
        got=$(tlv_list "$tlv" 1)
        [ "$got" == "${tlvs[$kind]}" ] ||
            problem "$where: TLVs ${got:-none} ($(tlv_list "$tlv" 2)), expected ${tlvs[$kind]}"
    fi
    case "$kind" in
        search) [ "$searched" == "0x00" ] || problem "$where: searched role '$searched', not registrar" ;;
        response) [ "$supported" == "0x00" ] || problem "$where: supported role '$supported', not registrar" ;;
        m1 | m2) check_attributes "$where" "$kind" "$wps" ;;
    esac
done <<<"$frames"

if [ ${#expected[@]} -gt 0 ]; then
    [ $count -eq ${#expected[@]} ] || problem "$count frames, expected ${#expected[@]}: ${expected[*]}"
    for i in "${!expected[@]}"; do
        [ $i -lt ${#seen[@]} ] || break
        [ "${seen[$i]}" == "${expected[$i]}" ] ||
            problem "frame $((i + 1)): a ${seen[$i]}, expected a ${expected[$i]}"
    done
fi

if [ $problems -gt 0 ]; then
    echo "$me: FAIL: $problems finding(s) in $count frame(s) of $capture"
    exit 1
fi
echo "$me: ok: $count frames decode cleanly: ${seen[*]}"
exit 0
