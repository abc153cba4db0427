// WSC attributes on the wire: the walk, the parsers (with hostile input in
// exact-size buffers, so any read past the received bytes is caught), the
// encoder's byte-exact output and its room check, and the name table.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "protocol/19051_parse_wsc.h"
#include "tests/support/capture.h"
#include "tests/wsc/hex.h"
#include "wsc/wsc.h"

namespace {

using kestr::test::capture_output;
using kestr::test::error_line;
using kestr::test::hex;
using kestr::test::mask_line_numbers;
using kestr::test::to_hex;
using Bytes = std::vector<uint8_t>;

// A WSC TLV around `attrs`, in a buffer of exactly its size.
Bytes wsc_tlv(const Bytes& attrs) {
    Bytes t = {17, uint8_t(attrs.size() >> 8), uint8_t(attrs.size())};
    t.insert(t.end(), attrs.begin(), attrs.end());
    return t;
}

Bytes attr(uint16_t type, const Bytes& value) {
    Bytes a = {uint8_t(type >> 8), uint8_t(type), uint8_t(value.size() >> 8),
               uint8_t(value.size())};
    a.insert(a.end(), value.begin(), value.end());
    return a;
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

wsc_configuration_t parsed(Bytes tlv) {
    wsc_configuration_t c;
    std::memset(&c, 0, sizeof c);
    EXPECT_EQ(IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv.data()), &c), 0);
    return c;
}

template <typename Record>
void set(Record& r, const Bytes& v) {
    r.valid = 1;
    r.valid_len = static_cast<u_int16_t>(v.size());
    if (!v.empty())
        std::memcpy(r.val, v.data(), v.size());
}

// Field by field: a record assigned from a brace list has padding bytes of
// no particular value, so whole records are not compared as memory.
bool same(const wsc_configuration_uint8_t& a, const wsc_configuration_uint8_t& b) {
    return a.valid == b.valid && a.val == b.val;
}
bool same(const wsc_configuration_uint16_t& a, const wsc_configuration_uint16_t& b) {
    return a.valid == b.valid && a.val == b.val;
}
template <typename Record>
bool same(const Record& a, const Record& b) {
    return a.valid == b.valid && a.valid_len == b.valid_len &&
           std::memcmp(a.val, b.val, sizeof a.val) == 0;
}

#define KESTR_WSC_FIELDS(X)                                                                      \
    X(version)                                                                                   \
    X(message_type) X(UUIDE) X(mac) X(enrollee_nonce) X(registrar_nonce)                         \
        X(authentication_type_flags) X(encryption_type_flags) X(configuration_methods) X(pwd_id) \
            X(configuration_error) X(connectioin_type_flags) X(wifi_simple_configuration_state)  \
                X(rf_bands) X(association_state) X(serial_number) X(public_key) X(manufacturer)  \
                    X(model_name) X(model_number) X(primary_device_type) X(device_name)          \
                        X(os_version) X(vendor_extension) X(UUIDR) X(encrypted_settings)         \
                            X(authenticator)

// The names of the fields in which two messages differ; "" when none.
std::string differences(const wsc_configuration_t& a, const wsc_configuration_t& b) {
    std::string d;
#define KESTR_COMPARE(f) \
    if (!same(a.f, b.f)) \
        d += " " #f;
    KESTR_WSC_FIELDS(KESTR_COMPARE)
#undef KESTR_COMPARE
    return d;
}

TEST(WscParse, MessagesAsTheyArrive) {
    const Bytes nonce_a(16, 0xA1), nonce_b(16, 0xB2);
    struct Case {
        const char* what;
        Bytes attrs;
        std::function<void(wsc_configuration_t&)> expect;  // fills what must be present
    } cases[] = {
        {"version and message type", hex("10 4A 00 01 10 10 22 00 01 04"),
         [](wsc_configuration_t& e) {
             e.version = {1, 0x10};
             e.message_type = {1, 4};
         }},
        {"public key of 191 bytes", attr(0x1032, Bytes(191, 7)),
         [](wsc_configuration_t& e) { set(e.public_key, Bytes(191, 7)); }},
        {"public key of 193 bytes is left absent", attr(0x1032, Bytes(193, 7)),
         [](wsc_configuration_t&) {}},
        {"unknown attribute between two known ones",
         cat({attr(0x104A, {0x10}), attr(0x7777, Bytes(9, 1)), attr(0x103C, {2})}),
         [](wsc_configuration_t& e) {
             e.version = {1, 0x10};
             e.rf_bands = {1, 2};
         }},
        {"the last of two nonces counts", cat({attr(0x101A, nonce_a), attr(0x101A, nonce_b)}),
         [&](wsc_configuration_t& e) { set(e.enrollee_nonce, nonce_b); }},
        {"an over-long repeat keeps the good one",
         cat({attr(0x101A, nonce_a), attr(0x101A, Bytes(17, 0xB2))}),
         [&](wsc_configuration_t& e) { set(e.enrollee_nonce, nonce_a); }},
        {"16-bit values are big-endian",
         cat({attr(0x1004, {0x00, 0x27}), attr(0x1010, {0x00, 0x0C}), attr(0x1012, {0x00, 0x04}),
              attr(0x1002, {0x01, 0x02}), attr(0x1009, {0x80, 0x00}), attr(0x1008, {0x22, 0x88})}),
         [](wsc_configuration_t& e) {
             e.authentication_type_flags = {1, 0x0027};
             e.encryption_type_flags = {1, 0x000C};
             e.pwd_id = {1, 4};
             e.association_state = {1, 0x0102};
             e.configuration_error = {1, 0x8000};
             e.configuration_methods = {1, 0x2288};
         }},
        {"encrypted settings of 1024 bytes", attr(0x1018, Bytes(1024, 3)),
         [](wsc_configuration_t& e) { set(e.encrypted_settings, Bytes(1024, 3)); }},
        {"encrypted settings of 1025 bytes", attr(0x1018, Bytes(1025, 3)),
         [](wsc_configuration_t&) {}},
        {"an empty UUID-E is present", attr(0x1047, {}),
         [](wsc_configuration_t& e) { e.UUIDE.valid = 1; }},
        {"UUID-R is read", attr(0x1048, Bytes(16, 0x48)),
         [](wsc_configuration_t& e) { set(e.UUIDR, Bytes(16, 0x48)); }},
        // Input that claims more than it holds.
        {"empty TLV", {}, [](wsc_configuration_t&) {}},
        {"a value running past the TLV ends the walk",
         cat({attr(0x104A, {0x10}), hex("10 22 00 10 04")}),
         [](wsc_configuration_t& e) {
             e.version = {1, 0x10};
         }},
        {"a length running past the TLV hides what follows",
         cat({hex("10 47 FF FF"), attr(0x104A, {0x10})}), [](wsc_configuration_t&) {}},
        {"a header cut short is not an attribute", cat({attr(0x103C, {1}), hex("10 4A 00")}),
         [](wsc_configuration_t& e) {
             e.rf_bands = {1, 1};
         }},
        {"a version of length 0 is not read, the next attribute is",
         cat({attr(0x104A, {}), attr(0x1022, {5})}),
         [](wsc_configuration_t& e) {
             e.message_type = {1, 5};
         }},
        {"a 16-bit value of one byte is not read", attr(0x1004, {0x27}),
         [](wsc_configuration_t&) {}},
        {"longer fixed values give their first bytes",
         cat({attr(0x104A, {0x10, 0x20}), attr(0x1004, {0x00, 0x27, 0xFF})}),
         [](wsc_configuration_t& e) {
             e.version = {1, 0x10};
             e.authentication_type_flags = {1, 0x0027};
         }},
    };
    for (const Case& c : cases) {
        wsc_configuration_t expected;
        std::memset(&expected, 0, sizeof expected);
        c.expect(expected);
        const wsc_configuration_t got = parsed(wsc_tlv(c.attrs));
        EXPECT_EQ(differences(got, expected), "") << c.what;
    }
}

TEST(WscParse, TlvLengthBoundsTheWalk) {
    // The TLV says 5 bytes; an attribute beyond them is never read.
    Bytes tlv = cat({hex("11 00 05"), attr(0x104A, {0x10}), attr(0x1022, {4})});
    const wsc_configuration_t c = parsed(tlv);
    EXPECT_EQ(c.version.valid, 1);
    EXPECT_EQ(c.message_type.valid, 0);

    int r = 0;
    auto out = capture_output([&] {
        wsc_configuration_t config;
        r = IEEE19051_ParseTlvWsc(nullptr, &config) +
            IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv.data()), nullptr);
    });
    EXPECT_EQ(r, -2);
    const std::string line = error_line("19051_parse", "IEEE19051_ParseTlvWsc", 0,
                                        "tlv == NULL || wsc_config == NULL\n");
    EXPECT_EQ(mask_line_numbers(out.out), mask_line_numbers(line + line));
}

TEST(WscWalk, CountsAndFindsOnlyWholeAttributes) {
    const Bytes three = cat({attr(0x104A, {0x10}), attr(0x1022, {4}), attr(0x1047, Bytes(16, 1))});
    struct Case {
        const char* what;
        Bytes buf;
        int total;
        std::vector<int> offsets;
    } cases[] = {
        {"three attributes", three, 3, {0, 5, 10}},
        {"empty", {}, 0, {}},
        {"zero-length values", hex("10 47 00 00 10 48 00 00"), 2, {0, 4}},
        {"a value past the end", cat({attr(0x104A, {1}), hex("10 22 00 02 04")}), 1, {0}},
        {"three stray bytes", cat({three, hex("10 4A 00")}), 3, {0, 5, 10}},
    };
    for (const Case& c : cases) {
        Bytes buf = c.buf;
        uint8_t* p = buf.empty() ? reinterpret_cast<uint8_t*>(&buf) : buf.data();
        const auto len = static_cast<u_int16_t>(buf.size());
        EXPECT_EQ(get_wsc_tlv_total(p, len), c.total) << c.what;
        for (int i = 0; i < c.total; ++i) {
            EXPECT_EQ(get_wsc_tlv_by_number(p, len, i), p + c.offsets[static_cast<size_t>(i)])
                << c.what << " #" << i;
        }
        EXPECT_EQ(get_wsc_tlv_by_number(p, len, c.total), nullptr) << c.what;
        EXPECT_EQ(get_wsc_tlv_by_number(p, len, -1), nullptr) << c.what;
    }
    EXPECT_EQ(get_wsc_tlv_total(nullptr, 10), -1);
    EXPECT_EQ(get_wsc_tlv_by_number(nullptr, 10, 0), nullptr);
}

TEST(WscParse, GenericParsersRefuseWhatTheirRecordCannotHold) {
    struct Case {
        const char* what;
        size_t limit;
        std::function<int(wscTLV_t*)> parse;
    } cases[] = {
        {"6", 6,
         [](wscTLV_t* t) {
             wsc_configuration_6byte_t r{};
             return parse_wsc_tlv_6byte(t, &r);
         }},
        {"8", 8,
         [](wscTLV_t* t) {
             wsc_configuration_8byte_t r{};
             return parse_wsc_tlv_8byte(t, &r);
         }},
        {"32", 32,
         [](wscTLV_t* t) {
             wsc_configuration_32byte_t r{};
             return parse_wsc_tlv_32byte(t, &r);
         }},
        {"64", 64,
         [](wscTLV_t* t) {
             wsc_configuration_64byte_t r{};
             return parse_wsc_tlv_64byte(t, &r);
         }},
        {"1024", 1024,
         [](wscTLV_t* t) {
             wsc_configuration_1024byte_t r{};
             return parse_wsc_tlv_1024byte(t, &r);
         }},
    };
    for (const Case& c : cases) {
        Bytes fits = attr(0x1049, Bytes(c.limit, 0x61));
        Bytes over = attr(0x1049, Bytes(c.limit + 1, 0x61));
        int a = 0, b = 0;
        auto out = capture_output([&] {
            a = c.parse(reinterpret_cast<wscTLV_t*>(fits.data()));
            b = c.parse(reinterpret_cast<wscTLV_t*>(over.data()));
        });
        EXPECT_EQ(a, 0) << c.what;
        EXPECT_EQ(b, -1) << c.what;
        const std::string fn = std::string("parse_wsc_tlv_") + c.what + "byte";
        EXPECT_EQ(
            mask_line_numbers(out.out),
            mask_line_numbers(error_line("wsc", fn, 0, std::string("tlvlen > ") + c.what + "\n")))
            << c.what;
    }

    // A refused attribute leaves the record as it was; a good one fills it.
    wsc_configuration_6byte_t mac{};
    Bytes good = attr(0x1020, hex("00 0a 1b 2c 3d 4e"));
    Bytes seven = attr(0x1020, Bytes(7, 0xFF));
    ASSERT_EQ(parse_wsc_tlv_6byte(reinterpret_cast<wscTLV_t*>(good.data()), &mac), 0);
    capture_output([&] { parse_wsc_tlv_6byte(reinterpret_cast<wscTLV_t*>(seven.data()), &mac); });
    EXPECT_EQ(mac.valid, 1);
    EXPECT_EQ(to_hex(mac.val, mac.valid_len), "00 0a 1b 2c 3d 4e");

    wsc_configuration_uint16_t u16{};
    wsc_configuration_uint8_t u8{};
    Bytes v16 = attr(0x1003, {0x00, 0x27});
    Bytes v8 = attr(0x1028, {0x03});
    Bytes empty = attr(0x1028, {});
    EXPECT_EQ(parse_wsc_tlv_uint16(reinterpret_cast<wscTLV_t*>(v16.data()), &u16), 0);
    EXPECT_EQ(u16.val, 0x0027);
    EXPECT_EQ(parse_wsc_tlv_uint8(reinterpret_cast<wscTLV_t*>(v8.data()), &u8), 0);
    EXPECT_EQ(u8.val, 3);
    EXPECT_EQ(parse_wsc_tlv_uint8(reinterpret_cast<wscTLV_t*>(empty.data()), &u8), -1);
    EXPECT_EQ(parse_wsc_tlv_uint16(nullptr, &u16), -1);
    EXPECT_EQ(parse_wsc_tlv_uint8(reinterpret_cast<wscTLV_t*>(v8.data()), nullptr), -1);
    EXPECT_EQ(parse_wsc_mac(reinterpret_cast<wscTLV_t*>(good.data()), nullptr), -1);
}

// ------------------------------------------------------------------ encoding

Bytes encoded(wsc_configuration_t c, int maxlen, int* result, std::string* out = nullptr) {
    Bytes buf(static_cast<size_t>(maxlen < 0 ? 3 : maxlen + 3), 0xEE);
    auto captured = capture_output(
        [&] { *result = get_tlv_wsc(reinterpret_cast<ieee1905TLV_t*>(buf.data()), maxlen, &c); });
    if (out != nullptr)
        *out = mask_line_numbers(captured.out);
    if (*result >= 0)
        buf.resize(static_cast<size_t>(*result));
    return buf;
}

wsc_configuration_t zeroed() {
    wsc_configuration_t c;
    std::memset(&c, 0, sizeof c);
    return c;
}

TEST(WscEncode, ByteExactAttributesAndTheRoomCheck) {
    const std::string too_long =
        mask_line_numbers(error_line("wsc", "get_tlv_wsc", 0, "Err:string too long!\n"));
    struct Case {
        const char* what;
        std::function<void(wsc_configuration_t&)> fill;
        int maxlen;
        int result;
        std::string bytes;  // when result >= 0
    } cases[] = {
        {"version and message type",
         [](auto& c) {
             c.version = {1, 0x10};
             c.message_type = {1, 4};
         },
         1492, 13, "11 00 0a 10 4a 00 01 10 10 22 00 01 04"},
        {"version alone, room 5",
         [](auto& c) {
             c.version = {1, 0x10};
         },
         5, 8, "11 00 05 10 4a 00 01 10"},
        {"version alone, room 4",
         [](auto& c) {
             c.version = {1, 0x10};
         },
         4, -1, ""},
        {"a flag of 2 is absent",
         [](auto& c) {
             c.version = {2, 0x10};
         },
         100, 3, "11 00 00"},
        {"16-bit value",
         [](auto& c) {
             c.authentication_type_flags = {1, 0x0027};
         },
         100, 9, "11 00 06 10 04 00 02 00 27"},
        {"OS version of 4 bytes in room 8", [](auto& c) { set(c.os_version, hex("80 00 00 01")); },
         8, 11, "11 00 08 10 2d 00 04 80 00 00 01"},
        {"OS version of 2 bytes needs room 8 too",
         [](auto& c) {
             set(c.os_version, {1, 2});
         },
         7, -1, ""},
        {"OS version of 2 bytes in room 8",
         [](auto& c) {
             set(c.os_version, {1, 2});
         },
         8, 9, "11 00 06 10 2d 00 02 01 02"},
        {"UUID-R is never sent", [](auto& c) { set(c.UUIDR, Bytes(16, 1)); }, 100, 3, "11 00 00"},
        {"empty byte string", [](auto& c) { c.device_name.valid = 1; }, 100, 7,
         "11 00 04 10 11 00 00"},
        {"a length beyond its record",
         [](auto& c) {
             c.mac.valid = 1;
             c.mac.valid_len = 7;
         },
         100, -1, ""},
        {"negative room",
         [](auto& c) {
             c.rf_bands = {1, 1};
         },
         -1, -1, ""},
    };
    for (const Case& c : cases) {
        wsc_configuration_t config = zeroed();
        c.fill(config);
        int r = 0;
        std::string out;
        const Bytes b = encoded(config, c.maxlen, &r, &out);
        EXPECT_EQ(r, c.result) << c.what;
        if (c.result >= 0) {
            EXPECT_EQ(to_hex(b), c.bytes) << c.what;
            EXPECT_EQ(out, "") << c.what;
        } else {
            EXPECT_EQ(out, too_long) << c.what;
        }
    }
    int r = 0;
    auto out = capture_output([&] {
        wsc_configuration_t c = zeroed();
        Bytes buf(10);
        r = get_tlv_wsc(nullptr, 10, &c) +
            get_tlv_wsc(reinterpret_cast<ieee1905TLV_t*>(buf.data()), 10, nullptr);
    });
    EXPECT_EQ(r, -2);
    EXPECT_EQ(out.out, "");
}

// Every field set to something of its own, as a registrar's M2 with all
// optional attributes would be.
wsc_configuration_t full_message() {
    wsc_configuration_t c = zeroed();
    auto bytes = [](size_t n, uint8_t seed) {
        Bytes b(n);
        for (size_t i = 0; i < n; ++i)
            b[i] = static_cast<uint8_t>(seed + i * 3);
        return b;
    };
    c.version = {1, 0x10};
    c.message_type = {1, 5};
    set(c.UUIDE, bytes(16, 1));
    set(c.mac, bytes(6, 2));
    set(c.enrollee_nonce, bytes(16, 3));
    set(c.registrar_nonce, bytes(16, 4));
    set(c.public_key, bytes(192, 5));
    c.authentication_type_flags = {1, 0x0023};
    c.encryption_type_flags = {1, 0x000D};
    c.connectioin_type_flags = {1, 1};
    c.configuration_methods = {1, 0x0080};
    c.wifi_simple_configuration_state = {1, 2};
    set(c.manufacturer, bytes(64, 6));
    set(c.model_name, bytes(10, 7));
    set(c.model_number, bytes(32, 8));
    set(c.serial_number, bytes(12, 9));
    set(c.primary_device_type, bytes(8, 10));
    set(c.device_name, bytes(5, 11));
    c.rf_bands = {1, 2};
    c.association_state = {1, 0};
    c.pwd_id = {1, 4};
    c.configuration_error = {1, 0};
    set(c.os_version, bytes(4, 12));
    set(c.vendor_extension, bytes(30, 13));
    set(c.encrypted_settings, bytes(64, 14));
    set(c.authenticator, bytes(8, 15));
    return c;
}

TEST(WscEncode, FixedOrderAndRoundTrip) {
    wsc_configuration_t c = full_message();
    int r = 0;
    Bytes tlv = encoded(c, 1492, &r);
    ASSERT_GT(r, 0);
    const int attrs_len = (tlv[1] << 8) | tlv[2];
    EXPECT_EQ(attrs_len + 3, r);

    std::vector<uint16_t> order;
    for (int i = 0; i < get_wsc_tlv_total(tlv.data() + 3, static_cast<u_int16_t>(attrs_len)); ++i) {
        const uint8_t* a =
            get_wsc_tlv_by_number(tlv.data() + 3, static_cast<u_int16_t>(attrs_len), i);
        order.push_back(static_cast<uint16_t>(a[0] << 8 | a[1]));
    }
    const std::vector<uint16_t> expected = {0x104A, 0x1022, 0x1047, 0x1020, 0x101A, 0x1039, 0x1032,
                                            0x1004, 0x1010, 0x100D, 0x1008, 0x1044, 0x1021, 0x1023,
                                            0x1024, 0x1042, 0x1054, 0x1011, 0x103C, 0x1002, 0x1012,
                                            0x1009, 0x102D, 0x1049, 0x1018, 0x1005};
    EXPECT_EQ(order, expected);

    // Exactly enough room succeeds, one byte less fails.
    int exact = 0, short_by_one = 0;
    encoded(c, attrs_len, &exact);
    encoded(c, attrs_len - 1, &short_by_one);
    EXPECT_EQ(exact, r);
    EXPECT_EQ(short_by_one, -1);

    // Parsed back, the record is what was encoded (UUID-R is not sent).
    set(c.UUIDR, Bytes(16, 0x99));
    int again = 0;
    EXPECT_EQ(encoded(c, 1492, &again), tlv);
    c.UUIDR = {};
    const wsc_configuration_t back = parsed(tlv);
    EXPECT_EQ(differences(back, c), "");
}

TEST(WscEncode, SingleAttributeWriters) {
    wsc_configuration_32byte_t ssid{};
    set(ssid, Bytes{'h', 'o', 'm', 'e'});
    wsc_configuration_64byte_t key{};
    key.valid = 1;  // an open network's empty key is still sent
    wsc_configuration_uint16_t auth{1, 0x0022};
    wsc_configuration_uint16_t encr{1, 0x000C};
    uint8_t kwa[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    struct Case {
        const char* what;
        std::function<int(wscTLV_t*, int)> write;
        int room;
        std::string bytes;  // "" when nothing is written
    } cases[] = {
        {"SSID", [&](wscTLV_t* t, int m) { return getWscTlvSSID(t, ssid, m); }, 8,
         "10 45 00 04 68 6f 6d 65"},
        {"SSID without room", [&](wscTLV_t* t, int m) { return getWscTlvSSID(t, ssid, m); }, 7, ""},
        {"empty network key", [&](wscTLV_t* t, int m) { return getWscTlvNetworkKey(t, key, m); }, 4,
         "10 27 00 00"},
        {"authentication type", [&](wscTLV_t* t, int m) { return getWscTlvAuthtype(t, auth, m); },
         6, "10 03 00 02 00 22"},
        {"authentication type without room",
         [&](wscTLV_t* t, int m) { return getWscTlvAuthtype(t, auth, m); }, 5, ""},
        {"encryption type", [&](wscTLV_t* t, int m) { return getWscTlvEncrtype(t, encr, m); }, 6,
         "10 0f 00 02 00 0c"},
        {"absent encryption type",
         [&](wscTLV_t* t, int m) {
             return getWscTlvEncrtype(t, wsc_configuration_uint16_t{0, 1}, m);
         },
         6, ""},
        {"key wrap authenticator", [&](wscTLV_t* t, int m) { return getWscTlvKWA(t, kwa, 8, m); },
         12, "10 1e 00 08 01 02 03 04 05 06 07 08"},
        {"no key wrap authenticator",
         [&](wscTLV_t* t, int m) { return getWscTlvKWA(t, nullptr, 8, m); }, 12, ""},
        {"null output", [&](wscTLV_t*, int m) { return getWscTlvSSID(nullptr, ssid, m); }, 100, ""},
    };
    for (const Case& c : cases) {
        Bytes buf(static_cast<size_t>(c.room), 0xEE);
        const int n = c.write(reinterpret_cast<wscTLV_t*>(buf.data()), c.room);
        if (c.bytes.empty()) {
            EXPECT_EQ(n, 0) << c.what;
            EXPECT_EQ(buf, Bytes(static_cast<size_t>(c.room), 0xEE)) << c.what;
        } else {
            ASSERT_EQ(n, static_cast<int>(hex(c.bytes).size())) << c.what;
            EXPECT_EQ(to_hex(buf.data(), static_cast<size_t>(n)), c.bytes) << c.what;
        }
    }
}

TEST(WscNames, TableAndLookup) {
    EXPECT_EQ(wsc_attr_desc[kWscAttrDescRows - 1].id, -1);
    EXPECT_STREQ(wsc_attr_desc[kWscAttrDescRows - 1].desc, "");
    EXPECT_EQ(wsc_attr_desc[0].id, 0x1062);
    EXPECT_EQ(wsc_attr_desc[1].id, 0x1062);
    for (int i = 0; i < kWscAttrDescRows - 1; ++i)
        EXPECT_NE(wsc_attr_desc[i].id, -1) << i;

    struct Case {
        int id;
        const char* name;
    } cases[] = {
        {0x1062, "802.1X Enabled"},
        {0x1020, "MAC Address "},
        {0x101A, "Enrollee Nonce "},
        {0x101E, "Key Wrap Authenticator "},
        {0x1028, "Network Key Index (re served)"},
        {0x1044, "Wi-Fi Simple Configuration State"},
        {0x104B, "X.509 Certificate Request"},
        {0x1065, ""},
        {-1, ""},
        {0, ""},
    };
    for (const Case& c : cases)
        EXPECT_STREQ(get_desc_by_id(c.id), c.name) << std::hex << c.id;

    // Every attribute the daemon reads or writes has a name.
    for (int id : {0x1002, 0x1003, 0x1004, 0x1005, 0x1008, 0x1009, 0x100D, 0x100F, 0x1010,
                   0x1011, 0x1012, 0x1018, 0x101A, 0x101E, 0x1020, 0x1021, 0x1022, 0x1023,
                   0x1024, 0x1027, 0x1028, 0x102A, 0x102D, 0x1032, 0x1039, 0x103C, 0x1042,
                   0x1044, 0x1045, 0x1047, 0x1048, 0x1049, 0x104A, 0x1054}) {
        EXPECT_STRNE(get_desc_by_id(id), "") << std::hex << id;
    }
}

// Random damage to a valid message must never make a parser read or write
// outside the received bytes or a record (the sanitizer build checks the
// memory; the test checks the records).
TEST(WscParse, SurvivesDamagedMessages) {
    int r = 0;
    const Bytes good = encoded(full_message(), 1492, &r);
    ASSERT_GT(r, 0);
    std::mt19937 rng(1905);
    for (int round = 0; round < 3000; ++round) {
        Bytes m = good;
        const int flips = 1 + static_cast<int>(rng() % 8);
        for (int i = 0; i < flips; ++i)
            m[3 + rng() % (m.size() - 3)] = static_cast<uint8_t>(rng());
        // Sometimes cut the message; the TLV length always matches what
        // "arrived", as the TLV layer guarantees.
        if (rng() % 4 == 0)
            m.resize(3 + rng() % (m.size() - 3));
        m[1] = static_cast<uint8_t>((m.size() - 3) >> 8);
        m[2] = static_cast<uint8_t>(m.size() - 3);
        Bytes exact(m.begin(), m.end());

        wsc_configuration_t c = parsed(exact);
        EXPECT_LE(c.public_key.valid_len, 192);
        EXPECT_LE(c.vendor_extension.valid_len, 1024);
        EXPECT_LE(c.os_version.valid_len, 4);

        wsc_encrypted_settings_t s;
        std::memset(&s, 0, sizeof s);
        Bytes plain(exact.begin() + 3, exact.end());
        capture_output([&] {
            parse_wsc_encrypted_settings_plain(plain.empty() ? exact.data() : plain.data(),
                                               static_cast<int>(plain.size()), &s);
        });
        EXPECT_LE(s.ssid.valid_len, 32);
        EXPECT_LE(s.network_key.valid_len, 64);
    }
}

}  // namespace
