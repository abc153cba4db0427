#include "protocol/debug.h"

#include <algorithm>
#include <cstdarg>
#include <string>

#include "port/common/bytes.h"
#include "port/common/report.h"
#include "port/util.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_view.h"

namespace {

constexpr const char* kSeparator =
    "==============================================================\n";

void appendf(std::string& out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void appendf(std::string& out, const char* format, ...) {
    char line[256];
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    if (n > 0)
        out.append(line, std::min<size_t>(static_cast<size_t>(n), sizeof line - 1));
}

// `len` bytes at `p` as a view; none for a null pointer or a length below 1.
kestr::ConstBytes bytes_at(const void* p, int len) {
    return len > 0 ? kestr::ConstBytes(static_cast<const uint8_t*>(p), static_cast<size_t>(len))
                   : kestr::ConstBytes();
}

// " %02x" per byte and a line feed: the line print_packet prints.
std::string hex_line(kestr::ConstBytes bytes) {
    std::string out;
    for (const uint8_t b : bytes)
        appendf(out, " %02x", b);
    out += '\n';
    return out;
}

std::string ether_addr_line(const struct ether_addr& addr) {
    // Prepared with the all-zero text, so a failed conversion still prints
    // an address.
    char text[kMacTextSize] = "00:00:00:00:00:00";
    mac_etheraddr_to_str(&addr, text, sizeof text);
    return std::string("mac:") + text + "\n";
}

// `title`, then the bytes 16 to a line, each line led by its offset.
std::string hexdump_text(const char* title, kestr::ConstBytes bytes) {
    std::string out = title != nullptr ? title : "";
    size_t n = 0;
    for (const uint8_t b : bytes) {
        if (n % 16 == 0)
            appendf(out, "\n%04zx", n);
        appendf(out, " %02x", b);
        ++n;
    }
    out += '\n';
    return out;
}

// One WSC attribute with its type, length and value set apart. Only the
// bytes of the view are read, also when that cuts the header short.
std::string wsc_attribute_line(kestr::ConstBytes attr) {
    std::string out;
    size_t i = 0;
    for (const uint8_t b : attr) {
        appendf(out, " %02x", b);
        if (i == 1 || i == kWscAttrHeaderLen - 1)
            out += " |";
        ++i;
    }
    out += '\n';
    return out;
}

// The hex line of a present byte-string attribute, "" for an absent one. A
// `valid_len` beyond the record's array prints the array and stops there.
template <typename Record>
std::string present_line(const Record& r) {
    if (r.valid != 1)
        return "";
    return hex_line(kestr::ConstBytes(r.val, std::min<size_t>(r.valid_len, sizeof r.val)));
}

template <typename Record>
std::string present_hexdump(const char* title, const Record& r) {
    if (r.valid != 1)
        return "";
    return hexdump_text(title,
                        kestr::ConstBytes(r.val, std::min<size_t>(r.valid_len, sizeof r.val)));
}

// Everything is written with one call, so that output of another thread
// falls between whole printouts rather than inside a line.
void emit(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
}

}  // namespace

void print_packet(u_int8_t* buf, int len) {
    emit(hex_line(bytes_at(buf, len)));
}

void print_packet(kestr::ConstBytes bytes) {
    emit(hex_line(bytes));
}

void hexdump(FILE* f, const char* title, const unsigned char* s, int l) {
    if (f == nullptr)
        return;
    const std::string out = hexdump_text(title, bytes_at(s, l));
    std::fwrite(out.data(), 1, out.size(), f);
}

void print_ether_addr(struct ether_addr addr) {
    emit(ether_addr_line(addr));
}

void print_packet_tlv(u_int8_t* buf) {
    const int type = IEEE19051_GetType(buf);
    if (type < 0)
        return;

    std::string out;
    struct ether_addr source;
    if (IEEE19051_GetEtherSmac(buf, &source) == 0)
        out += "source mac:" + ether_addr_line(source);
    appendf(out, "ieee1905Header.type: %d|%s\n", type, IEEE19051_MessageTypeDesc(type));
    appendf(out, "ieee1905Header.mid: %d\n", IEEE19051_GetMid(buf));
    appendf(out, "ieee1905Header.flags: %x\n", IEEE19051_GetFlags(buf));
    const int count = IEEE19051_GetTlvTotalNumber(buf);
    appendf(out, "ieee1905tvl_number: %d\n", count);
    // The walk hands out only TLVs that lie wholly inside the frame.
    kestr::TlvReader tlvs = kestr::FrameView(buf, kCmduMaxFrameLen).tlvs();
    kestr::Tlv tlv;
    while (tlvs.next(&tlv)) {
        appendf(out, "tlv_type:%d,%s, tlv_len:%d\n", tlv.type, IEEE19051_TlvTypeDesc(tlv.type),
                static_cast<int>(tlv.value.remaining()));
        out += kSeparator;
        out += "tlv:" + hex_line(tlv.whole.bytes_view());
        out += kSeparator;
    }
    emit(out);
}

void print_tlv_vendor_specific(u_int8_t* /*oui*/, u_int8_t* val, int val_len) {
    std::string out;
    for (const uint8_t b : bytes_at(val, val_len))
        appendf(out, "%02x ", b);
    out += '\n';
    emit(out);
}

void print_tlv_device_information(struct ether_addr almac, device_information_t device_info) {
    std::string out = ether_addr_line(almac);
    const int num = std::min<int>(device_info.num, INTERFACE_TOTAL_MAX);
    for (int i = 0; i < num; ++i) {
        const interface_information_t& itf = device_info.interface[i];
        out += ether_addr_line(itf.mac);
        out += hex_line(kestr::ConstBytes(itf.val, std::min<size_t>(itf.length, sizeof itf.val)));
    }
    emit(out);
}

void print_tlv_device_bridging_capability(ieee1905BridgingCapability_t capability) {
    std::string out;
    const int m = std::min<int>(capability.m, BRIDGING_TUPLE_MAX);
    for (int t = 0; t < m; ++t) {
        const ieee1905BridgingTuple_t& tuple = capability.tuple[t];
        const int k = std::min<int>(tuple.k, BRIDGING_TUPLE_MAC_MAX);
        for (int a = 0; a < k; ++a)
            out += ether_addr_line(tuple.mac[a]);
    }
    emit(out);
}

void print_tlv_legacy_neighbor(neighborDeviceList list) {
    std::string out;
    const int num = std::min<int>(list.num, NEIGHBOR_DEVICE_LIST_MAX);
    for (int i = 0; i < num; ++i) {
        out += ether_addr_line(list.neighbor[i].local_mac);
        out += ether_addr_line(list.neighbor[i].neighbor_mac);
    }
    emit(out);
}

void print_tlv_wsc_packet(ieee1905TLV_t* tlv) {
    if (tlv == nullptr)
        return;
    // The walk hands out only attributes that lie wholly inside the TLV's
    // value; one that claims more than is left ends the printout.
    kestr::wsc::AttributeWalk walk(
        kestr::tlv_value(kestr::ByteReader::self_delimited(tlv, 1, kTlvHeaderLen).bytes_view()));
    kestr::wsc::AttributeBytes a;
    std::string out;
    while (walk.next(&a)) {
        appendf(out, "tlv_type:%04x, %s, tlv_len:%d\n", a.type, get_desc_by_id(a.type),
                static_cast<int>(a.value.remaining()));
        out += kSeparator;
        out += "tlv:" + wsc_attribute_line(a.whole.bytes_view());
        out += kSeparator;
    }
    emit(out);
}

void print_tlv_wsc_packet_single(u_int8_t* buf, int len) {
    emit(wsc_attribute_line(bytes_at(buf, len)));
}

void print_wsc_configuration(wsc_configuration_t config) {
    std::string out = present_line(config.UUIDE) + present_line(config.UUIDR);
    // A MAC address is six bytes whatever length it arrived with.
    if (config.mac.valid == 1)
        out += hex_line(config.mac.val);
    out += present_line(config.enrollee_nonce) + present_line(config.registrar_nonce) +
           present_line(config.public_key);
    if (config.serial_number.valid != 1) {
        // The error line is written by the reporting module; what comes
        // before it has to be out first.
        emit(out);
        out.clear();
        KESTR_ERR("serial_number not found\n");
    }
    out += present_line(config.primary_device_type) + present_line(config.os_version) +
           present_line(config.vendor_extension) + present_line(config.encrypted_settings) +
           present_line(config.authenticator);
    emit(out);
}

void print_wsc_encrypted_settings(wsc_encrypted_settings_t settings) {
    emit(present_hexdump("mac", settings.mac) +
         present_hexdump("vendor_extension", settings.vendor_extension) +
         present_hexdump("key_wrap_authenticator", settings.key_wrap_authenticator));
}
