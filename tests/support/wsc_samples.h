// An M1 and an M2 with a few attributes each, and the attribute bytes a peer
// must receive for them, written out by hand from the attribute table: the
// fixed attribute order, big-endian numbers, UUID-R never sent.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/bytes.h"
#include "wsc/wsc.h"

namespace kestr::test {

// `n` bytes counting up from `first`, as hex text.
inline std::string run(int first, int n) {
    static const char* const digits = "0123456789abcdef";
    std::string out;
    for (int i = 0; i < n; ++i) {
        const int b = (first + i) & 0xFF;
        out += digits[b >> 4];
        out += digits[b & 0xF];
        out += ' ';
    }
    return out;
}

template <typename Record>
void set_bytes(Record& r, const std::vector<uint8_t>& v) {
    r.valid = 1;
    r.valid_len = static_cast<u_int16_t>(v.size());
    if (!v.empty())
        std::memcpy(r.val, v.data(), std::min(v.size(), sizeof r.val));
}

inline wsc_configuration_t zeroed_config() {
    wsc_configuration_t c;
    std::memset(&c, 0, sizeof c);
    return c;
}

// Fields are set out of wire order on purpose.
inline wsc_configuration_t sample_m1() {
    wsc_configuration_t c = zeroed_config();
    set_bytes(c.os_version, hex("80 00 00 01"));
    c.pwd_id = {1, DevicePasswordID_PushButton};
    set_bytes(c.UUIDR, hex(run(0x70, 16)));  // never sent
    c.rf_bands = {1, RFBands_2P4G};
    set_bytes(c.serial_number, hex("53 4e 31"));
    c.wifi_simple_configuration_state = {1, 1};
    c.configuration_methods = {1, 0x0680};
    c.connectioin_type_flags = {1, 1};
    c.encryption_type_flags = {1, 0x000D};
    c.authentication_type_flags = {1, 0x0027};
    set_bytes(c.public_key, hex("de ad be ef"));
    set_bytes(c.enrollee_nonce, hex(run(0xA0, 16)));
    set_bytes(c.mac, hex("02 00 00 00 0e 01"));
    set_bytes(c.UUIDE, hex(run(0x00, 16)));
    c.message_type = {1, MessageType_M1};
    c.version = {1, 0x10};
    return c;
}

// The WSC TLV of sample_m1(): 122 bytes of attributes.
inline std::vector<uint8_t> sample_m1_tlv() {
    return hex(
        "11 00 7a"
        "10 4a 00 01 10  10 22 00 01 04  10 47 00 10 " +
        run(0x00, 16) + "10 20 00 06 02 00 00 00 0e 01  10 1a 00 10 " + run(0xA0, 16) +
        "10 32 00 04 de ad be ef  10 04 00 02 00 27  10 10 00 02 00 0d"
        "10 0d 00 01 01  10 08 00 02 06 80  10 44 00 01 01  10 42 00 03 53 4e 31"
        "10 3c 00 01 01  10 12 00 02 00 04  10 2d 00 04 80 00 00 01");
}

inline wsc_configuration_t sample_m2() {
    wsc_configuration_t c = zeroed_config();
    set_bytes(c.authenticator, hex(run(0xE0, 8)));
    set_bytes(c.encrypted_settings, hex(run(0xC0, 20)));
    set_bytes(c.os_version, hex("80 00 00 01"));
    c.configuration_error = {1, 0};
    c.pwd_id = {1, DevicePasswordID_PushButton};
    c.association_state = {1, 0};
    c.rf_bands = {1, RFBands_5G};
    set_bytes(c.manufacturer, hex("6b 65 73 74 72"));
    c.configuration_methods = {1, 0x0680};
    c.connectioin_type_flags = {1, 1};
    c.encryption_type_flags = {1, 0x0008};
    c.authentication_type_flags = {1, 0x0022};
    set_bytes(c.public_key, hex("01 02 03 04"));
    set_bytes(c.registrar_nonce, hex(run(0xB0, 16)));
    set_bytes(c.enrollee_nonce, hex(run(0xA0, 16)));
    c.message_type = {1, MessageType_M2};
    c.version = {1, 0x10};
    c.serial_number.valid = 2;  // not 1, so not present
    return c;
}

// The WSC TLV of sample_m2(): 157 bytes of attributes, Authenticator last.
inline std::vector<uint8_t> sample_m2_tlv() {
    return hex(
        "11 00 9d"
        "10 4a 00 01 10  10 22 00 01 05  10 1a 00 10 " +
        run(0xA0, 16) + "10 39 00 10 " + run(0xB0, 16) +
        "10 32 00 04 01 02 03 04  10 04 00 02 00 22  10 10 00 02 00 08"
        "10 0d 00 01 01  10 08 00 02 06 80  10 21 00 05 6b 65 73 74 72"
        "10 3c 00 01 02  10 02 00 02 00 00  10 12 00 02 00 04  10 09 00 02 00 00"
        "10 2d 00 04 80 00 00 01  10 18 00 14 " +
        run(0xC0, 20) + "10 05 00 08 " + run(0xE0, 8));
}

// A message whose attributes take exactly `attr_len` bytes (1032 or more):
// a full Vendor Extension and an Encrypted Settings making up the rest.
inline wsc_configuration_t config_of_size(int attr_len) {
    wsc_configuration_t c = zeroed_config();
    set_bytes(c.vendor_extension, std::vector<uint8_t>(1024, 0x5E));
    set_bytes(c.encrypted_settings,
              std::vector<uint8_t>(static_cast<size_t>(attr_len - 1028 - 4), 0xE5));
    return c;
}

}  // namespace kestr::test
