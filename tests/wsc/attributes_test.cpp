// WSC attributes on the wire: hostile input in exact-size buffers (so any
// read past the received bytes fails the sanitizer build), the encoder's
// byte-exact output and room check, and encoder and parser in a round trip.
// Randomly damaged messages are the fuzz targets' work (fuzz/fuzz_wsc.cpp).
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "protocol/19051_parse_wsc.h"
#include "tests/support/wsc_samples.h"
#include "wsc/wsc.h"

namespace {

using kestr::test::cat;
using kestr::test::hex;
using kestr::test::to_hex;
using Bytes = std::vector<uint8_t>;
using Config = wsc_configuration_t;

using kestr::test::set_bytes;
using kestr::test::zeroed_config;

template <typename Record>
void num(Record& r, int value, int valid = 1) {
    r.valid = static_cast<decltype(r.valid)>(valid);
    r.val = static_cast<decltype(r.val)>(value);
}

Config parsed(const Bytes& attrs) {
    Bytes tlv = {17, uint8_t(attrs.size() >> 8), uint8_t(attrs.size())};
    tlv.insert(tlv.end(), attrs.begin(), attrs.end());
    Config c = zeroed_config();
    EXPECT_EQ(IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv.data()), &c), 0);
    return c;
}

// The encoded TLV, or "-1" and what was printed.
std::string encoded(Config c, int maxlen) {
    Bytes buf(static_cast<size_t>(maxlen + 3));
    int n = 0;
    auto out = kestr::test::capture_output(
        [&] { n = get_tlv_wsc(reinterpret_cast<ieee1905TLV_t*>(buf.data()), maxlen, &c); });
    return n < 0 ? "-1 " + kestr::test::mask_line_numbers(out.out) : to_hex(buf.data(), n);
}

// What of a message a test looks at: every field's flag, and the values of
// those that are present.
std::string shown(const Config& c) {
    std::string s;
    auto num = [&](const char* name, auto& r) {
        if (r.valid)
            s += std::string(name) + "=" + std::to_string(r.val) + " ";
    };
    auto bytes = [&](const char* name, auto& r) {
        if (r.valid)
            s += std::string(name) + "[" + std::to_string(r.valid_len) + "]" +
                 to_hex(r.val, r.valid_len > 4 ? 4 : r.valid_len) + " ";
    };
    num("version", c.version), num("type", c.message_type), bytes("uuid_e", c.UUIDE);
    bytes("enonce", c.enrollee_nonce), bytes("pubkey", c.public_key);
    num("auth_flags", c.authentication_type_flags), num("pwd_id", c.pwd_id);
    num("bands", c.rf_bands), bytes("encr", c.encrypted_settings);
    return s;
}

TEST(WscParse, ReadsOnlyWhatArrived) {
    const Bytes v = hex("104A 0001 10"), t = hex("1022 0001 04");
    auto attr = [](uint16_t type, size_t len, uint8_t fill) {
        Bytes a = {uint8_t(type >> 8), uint8_t(type), uint8_t(len >> 8), uint8_t(len)};
        a.insert(a.end(), len, fill);
        return a;
    };
    const struct {
        const char* what;
        Bytes attrs;
        const char* expect;
    } cases[] = {
        {"version and type", cat({v, t}), "version=16 type=4 "},
        {"public key of 191", attr(0x1032, 191, 7), "pubkey[191]07 07 07 07 "},
        {"public key of 193 is absent", attr(0x1032, 193, 7), ""},
        {"unknown between known", cat({v, attr(0x7777, 9, 1), hex("103C 0001 02")}),
         "version=16 bands=2 "},
        {"second nonce wins", cat({attr(0x101A, 16, 0xA1), attr(0x101A, 16, 0xB2)}),
         "enonce[16]b2 b2 b2 b2 "},
        {"over-long repeat keeps the good one",
         cat({attr(0x101A, 16, 0xA1), attr(0x101A, 17, 0xB2)}), "enonce[16]a1 a1 a1 a1 "},
        {"big-endian 16 bits", hex("1004 0002 0027 1012 0002 0004"), "auth_flags=39 pwd_id=4 "},
        {"settings of 1024", attr(0x1018, 1024, 3), "encr[1024]03 03 03 03 "},
        {"settings of 1025 absent", attr(0x1018, 1025, 3), ""},
        {"empty UUID-E is present", attr(0x1047, 0, 0), "uuid_e[0] "},
        // Input that claims more than it holds.
        {"empty TLV", {}, ""},
        {"value past the end ends the walk", cat({v, hex("1022 0010 04")}), "version=16 "},
        {"length past the end hides the rest", cat({hex("1047 FFFF"), v}), ""},
        {"cut header", cat({t, hex("104A 00")}), "type=4 "},
        {"version of length 0 is not read", cat({hex("104A 0000"), t}), "type=4 "},
        {"16-bit value of one byte", hex("1004 0001 27"), ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(shown(parsed(c.attrs)), c.expect) << c.what;

    Bytes three = cat({v, t, hex("1047 0000"), hex("10")});
    EXPECT_EQ(get_wsc_tlv_total(three.data(), static_cast<u_int16_t>(three.size())), 3);
    EXPECT_EQ(get_wsc_tlv_by_number(three.data(), 14, 2), three.data() + 10);
    EXPECT_EQ(get_wsc_tlv_by_number(three.data(), 14, 3), nullptr);
    EXPECT_EQ(get_wsc_tlv_by_number(three.data(), 14, -1), nullptr);
    EXPECT_EQ(get_wsc_tlv_total(nullptr, 4), -1);
}

TEST(WscEncode, ByteExactWithTheRoomCheck) {
    const std::string too_long = "-1 " + kestr::test::mask_line_numbers(kestr::test::error_line(
                                             "wsc", "get_tlv_wsc", 0, "Err:string too long!\n"));
    const auto version = [](Config& c) { num(c.version, 0x10); };
    const auto os_version = [](Config& c) { set_bytes(c.os_version, {1, 2}); };
    const struct {
        const char* what;
        std::function<void(Config&)> fill;
        int room;
        std::string expect;
    } cases[] = {
        {"version and type", [](Config& c) { num(c.version, 0x10), num(c.message_type, 4); }, 1492,
         "11 00 0a 10 4a 00 01 10 10 22 00 01 04"},
        {"room 5", version, 5, "11 00 05 10 4a 00 01 10"},
        {"room 4", version, 4, too_long},
        {"a flag of 2 is absent", [](Config& c) { num(c.version, 0x10, 2); }, 9, "11 00 00"},
        {"16 bits", [](Config& c) { num(c.authentication_type_flags, 0x27); }, 9,
         "11 00 06 10 04 00 02 00 27"},
        {"OS version counts 8", os_version, 7, too_long},
        {"OS version in 8", os_version, 8, "11 00 06 10 2d 00 02 01 02"},
        {"UUID-R never sent", [](Config& c) { set_bytes(c.UUIDR, Bytes(16, 1)); }, 9, "11 00 00"},
        {"length beyond the record", [](Config& c) { c.mac.valid = 1, c.mac.valid_len = 7; }, 99,
         too_long},
    };
    for (const auto& c : cases) {
        Config config = zeroed_config();
        c.fill(config);
        EXPECT_EQ(encoded(config, c.room), c.expect) << c.what;
    }

    // A single attribute short of room writes nothing at all.
    Bytes buf(5, 0xEE);
    EXPECT_EQ(getWscTlvAuthtype(reinterpret_cast<wscTLV_t*>(buf.data()), {1, 0x22}, 5), 0);
    EXPECT_EQ(buf, Bytes(5, 0xEE));
}

TEST(WscEncode, FixedOrderAndRoundTrip) {
    Config c = zeroed_config();
    Bytes fill(1024);
    for (size_t i = 0; i < fill.size(); ++i)
        fill[i] = static_cast<uint8_t>(i * 7);
    auto part = [&](size_t n) { return Bytes(fill.begin(), fill.begin() + n); };
    c.version = {1, 0x10}, c.message_type = {1, 5}, set_bytes(c.UUIDE, part(16)),
    set_bytes(c.mac, part(6));
    set_bytes(c.enrollee_nonce, part(16)), set_bytes(c.registrar_nonce, part(16)),
        set_bytes(c.public_key, part(192));
    c.authentication_type_flags = {1, 0x23}, c.encryption_type_flags = {1, 0x0D};
    c.connectioin_type_flags = {1, 1}, c.configuration_methods = {1, 0x80};
    c.wifi_simple_configuration_state = {1, 2}, set_bytes(c.manufacturer, part(64));
    set_bytes(c.model_name, part(10)), set_bytes(c.model_number, part(32)),
        set_bytes(c.serial_number, part(12));
    set_bytes(c.primary_device_type, part(8)), set_bytes(c.device_name, part(5)),
        c.rf_bands = {1, 2};
    c.association_state = {1, 0}, c.pwd_id = {1, 4}, c.configuration_error = {1, 0};
    set_bytes(c.os_version, part(4)), set_bytes(c.vendor_extension, part(30));
    set_bytes(c.encrypted_settings, part(64)), set_bytes(c.authenticator, part(8));

    const Bytes tlv = hex(encoded(c, 1492));
    const auto len = static_cast<u_int16_t>(tlv.size() - 3);
    Bytes attrs(tlv.begin() + 3, tlv.end());
    std::string order;
    for (int i = 0; i < get_wsc_tlv_total(attrs.data(), len); ++i) {
        order += to_hex(get_wsc_tlv_by_number(attrs.data(), len, i), 2) + ",";
    }
    EXPECT_EQ(order,
              "10 4a,10 22,10 47,10 20,10 1a,10 39,10 32,10 04,10 10,10 0d,10 08,10 44,10 21,"
              "10 23,10 24,10 42,10 54,10 11,10 3c,10 02,10 12,10 09,10 2d,10 49,10 18,10 05,");
    EXPECT_EQ(encoded(c, len - 1).substr(0, 2), "-1");

    const Config back = parsed(attrs);
    EXPECT_EQ(0, std::memcmp(&back.public_key, &c.public_key, sizeof c.public_key));
    EXPECT_EQ(hex(encoded(back, 1492)), tlv);  // every field survived
}

}  // namespace
