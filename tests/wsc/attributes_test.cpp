// WSC attributes on the wire: the encoder byte for byte with its room check,
// the parser reading every message back, one hostile-input table for the
// attribute walk and its parsers (each input in a buffer of exactly its size,
// so the sanitizer build sees any read past it), and the attribute names.
// Then the sealed settings role against role: the M2 a registrar seals for an
// enrollee with the registration's own functions, the enrollee opening it or
// refusing it; the plaintext on the wire and its reader.
// Randomly damaged messages are the fuzz targets' work.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>

#include <functional>
#include <tuple>

#include "protocol/19051_parse_wsc.h"
#include "tests/support/wsc_samples.h"
#include "wsc/encrypt/encrypt.h"

namespace {

using namespace kestr::test;
using Bytes = std::vector<uint8_t>;
using Config = wsc_configuration_t;
using Settings = wsc_encrypted_settings_t;

// The WSC TLV of `c` in a room of `room` attribute bytes, or "-1".
std::string encoded(Config c, int room) {
    Bytes buf(size_t(room + 3));
    int n = -1;
    capture_output(
        [&] { n = get_tlv_wsc(reinterpret_cast<ieee1905TLV_t*>(buf.data()), room, &c); });
    return n < 0 ? "-1" : to_hex(buf.data(), size_t(n));
}

Config parsed(const Bytes& attrs) {
    Bytes tlv = cat({{17, uint8_t(attrs.size() >> 8), uint8_t(attrs.size())}, attrs});
    Config c = zeroed_config();
    EXPECT_EQ(IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv.data()), &c), 0);
    return c;
}

// The attribute bytes of `c`, as a WSC TLV carries them.
Bytes attributes(const Config& c) {
    const Bytes tlv = hex(encoded(c, 1492));
    return Bytes(tlv.begin() + 3, tlv.end());
}

TEST(WscAttributes, EncodedByteForByteAndReadBack) {
    Config version = zeroed_config(), os = version, long_mac = version, rest = version;
    version.version = {1, 0x10}, long_mac.mac.valid = 1, long_mac.mac.valid_len = 7;
    set_bytes(os.os_version, {1, 2});
    set_bytes(rest.model_name, {0xA1}), set_bytes(rest.model_number, {0xA2});
    set_bytes(rest.primary_device_type, {0xA3}), set_bytes(rest.device_name, {0xA4});
    set_bytes(rest.vendor_extension, {0xA5}), set_bytes(rest.mac, {0xA6});
    // A record, the room for its attributes, and its WSC TLV.
    const std::tuple<const char*, Config, int, std::string> cases[] = {
        {"M1, whose UUID-R is never sent", sample_m1(), 122, to_hex(sample_m1_tlv())},
        {"M2, whose serial number flagged 2 is left out", sample_m2(), 157,
         to_hex(sample_m2_tlv())},
        {"the attributes the samples leave out, in their places", rest, 40,
         to_hex(hex("11001e 1020 0001 a6 1023 0001 a1 1024 0001 a2 1054 0001 a3 1011 0001 a4 "
                    "1049 0001 a5"))},
        {"version in a room of 5", version, 5, "11 00 05 10 4a 00 01 10"},
        {"version in a room of 4", version, 4, "-1"},
        {"an OS Version of 2 bytes is charged 8", os, 7, "-1"},
        {"and fits 8", os, 8, "11 00 06 10 2d 00 02 01 02"},
        {"a length beyond its record", long_mac, 99, "-1"},
    };
    for (const auto& [what, config, room, tlv] : cases) {
        EXPECT_EQ(encoded(config, room), tlv) << what;
        // Read back, it encodes to the same bytes: every attribute sent comes
        // back to its own field.
        const Bytes whole = hex(tlv);
        EXPECT_TRUE(whole.empty() ||
                    encoded(parsed(Bytes(whole.begin() + 3, whole.end())), 1492) == tlv)
            << what;
    }
}

Bytes attr(uint16_t type, size_t len, uint8_t fill) {
    return cat(
        {{uint8_t(type >> 8), uint8_t(type), uint8_t(len >> 8), uint8_t(len)}, Bytes(len, fill)});
}

TEST(WscAttributes, WalkAndParsersOnHostileInput) {
    const Bytes v = hex("104A 0001 10"), t = hex("1022 0001 04"), w = hex("1004 0002 0027");
    // Attributes, and what a receiver reads from them, encoded again (so in
    // the order attributes are sent).
    const std::tuple<const char*, Bytes, Bytes> cases[] = {
        {"version and type", cat({t, v}), cat({v, t})},
        {"an over-long repeat keeps the good one",
         cat({attr(0x1032, 192, 7), attr(0x1032, 193, 8), attr(0x1020, 7, 7)}),
         attr(0x1032, 192, 7)},
        {"an unknown attribute between known ones", cat({v, attr(0x7777, 9, 1), w}), cat({v, w})},
        {"the second good nonce wins", cat({attr(0x101A, 16, 0xA1), attr(0x101A, 16, 0xB2)}),
         attr(0x101A, 16, 0xB2)},
        {"settings of 1024, not of 1025", cat({attr(0x1018, 1024, 3), attr(0x1018, 1025, 4)}),
         attr(0x1018, 1024, 3)},
        {"an empty TLV", {}, {}},
        {"a value past the end ends the walk", cat({v, hex("1022 0010 04")}), v},
        {"a length past the end hides the rest", cat({hex("1047 FFFF"), v}), {}},
        {"a cut header", cat({t, hex("104A 00")}), t},
        {"numbers shorter than their values are not read",
         cat({hex("104A 0000 1004 0001 27"), t, w}), cat({t, w})},
    };
    for (const auto& [what, attrs, read] : cases) {
        const std::string tlv = encoded(parsed(attrs), 1492);
        EXPECT_EQ(tlv.substr(std::min<size_t>(9, tlv.size())), to_hex(read)) << what;
    }
    EXPECT_EQ(to_hex(parsed(attr(0x1048, 16, 0xC3)).UUIDR.val, 16), to_hex(Bytes(16, 0xC3)));
    Bytes three = cat({v, t, hex("1047 0000 10")});
    EXPECT_EQ(get_wsc_tlv_total(three.data(), uint16_t(three.size())), 3);
    EXPECT_EQ(get_wsc_tlv_by_number(three.data(), 14, 2), three.data() + 10);
    EXPECT_FALSE(get_wsc_tlv_by_number(three.data(), 14, 3) ||
                 get_wsc_tlv_by_number(three.data(), 14, -1));
    EXPECT_EQ(IEEE19051_ParseTlvWsc(nullptr, nullptr), -1);
}

TEST(WscAttributes, Names) {
    EXPECT_EQ(std::string(get_desc_by_id(0x1020)) + "|" + get_desc_by_id(0x1065) + "|" +
                  get_desc_by_id(-1) + "|" + get_desc_by_id(0x1062),
              "MAC Address |||802.1X Enabled");
    // The 88 rows as peers' tools name them, "802.1X Enabled" twice and the
    // blanks that end some names included, then the end mark (id -1).
    std::string rows;
    char row[300];
    for (const auto& r : wsc_attr_desc)
        rows.append(row,
                    size_t(std::snprintf(row, sizeof row, "%04x|%s|%d\n", r.id, r.desc, r.len)));
    uint8_t digest[32];
    SHA256(reinterpret_cast<const uint8_t*>(rows.data()), rows.size(), digest);
    EXPECT_EQ(to_hex(digest, 32),
              to_hex(hex("4306b4df6eaa86085343dc6e7cf1c02a57fa8e3e9c0447404e9fe765243ea025")));
}

Settings band(const std::string& ssid, uint16_t encr, const std::string& key) {
    Settings s{};
    set_bytes(s.ssid, Bytes(ssid.begin(), ssid.end())), set_bytes(s.mac, Bytes(6, 1));
    set_bytes(s.network_key, Bytes(key.begin(), key.end()));
    s.authentication_type = {1, 0x0022}, s.encryption_type = {1, encr};
    return s;
}

// The M2 that seals `settings` for an enrollee with a new key pair, its MAC
// and nonce, answering the sample M1. `tamper` plays a faulty registrar.
struct Exchange {
    DH* enrollee = nullptr;
    // The attributes of the M1 and M2 as sent, and what was sealed.
    Bytes mac = hex("02000a1b2c3d"), m1 = attributes(sample_m1()), m2, plain;
    wps_keys_t keys{};

    explicit Exchange(const Settings& settings, const std::function<void(Bytes&)>& tamper = {}) {
        Config r = zeroed_config();
        Bytes e_pub(192), r_pub(192), sealed(16 + 1024);
        DH* dh = nullptr;
        generatePublicKey(e_pub.data(), 192, &enrollee), generatePublicKey(r_pub.data(), 192, &dh);
        r.version = {1, 0x10}, r.message_type = {1, MessageType_M2}, set_bytes(r.public_key, r_pub);
        set_bytes(r.enrollee_nonce, Bytes(16, 0xE1)), set_bytes(r.registrar_nonce, Bytes(16, 0xA2));
        get_keys(e_pub.data(), dh, r.enrollee_nonce.val, r.registrar_nonce.val, mac.data(), &keys);
        reg_proto_delete_dhkeypair(&dh);
        plain.resize(254);
        plain.resize(size_t(get_plain_by_settings(settings, plain.data(), 254, keys.authKey)));
        if (tamper)
            tamper(plain);
        int n = 0;
        reg_proto_encrypt_data(plain.data(), int(plain.size()), keys.keyWrapKey, keys.authKey,
                               sealed.data() + 16, &n, sealed.data());
        sealed.resize(size_t(16 + n));
        set_bytes(r.encrypted_settings, sealed);
        // The Authenticator covers M1's attributes and M2's.
        const Bytes covered = cat({m1, attributes(r)});
        uint8_t digest[32];
        HMAC(EVP_sha256(), keys.authKey, 32, covered.data(), covered.size(), digest, nullptr);
        set_bytes(r.authenticator, Bytes(digest, digest + 8));
        m2 = attributes(r);
    }
    ~Exchange() { reg_proto_delete_dhkeypair(&enrollee); }
};

// What the enrollee receives: the record it read, the attribute bytes of
// the M1 it sent and of the M2.
struct Received {
    Config m2;
    Bytes m1_attrs, m2_attrs;
};

// The fields of decrypted settings that are present, with their values.
std::string shown(const Settings& s) {
    std::string out;
    auto num = [&](const char* name, auto& r) {
        out += r.valid ? std::string(name) + "=" + std::to_string(r.val) + " " : "";
    };
    auto bytes = [&](const char* name, auto& r) {
        out += r.valid ? std::string(name) + "=" + to_hex(r.val, r.valid_len) + " " : "";
    };
    bytes("ssid", s.ssid), num("auth", s.authentication_type), num("encr", s.encryption_type);
    bytes("key", s.network_key), num("index", s.network_key_index), bytes("mac", s.mac);
    bytes("vendor", s.vendor_extension), bytes("password", s.new_password);
    num("pwd_id", s.device_password_id);
    return out;
}

TEST(WscSettings, EnrolleeOpensWhatTheRegistrarSealedAndNothingElse) {
    const std::string fn = "IEEE19051_ParseTlvWscEncryptedSettings";
    const std::string mismatch =
        "-1 " + masked_error("19051_parse", fn, "hmac value of Authenticator mismatched!\n");
    const std::string invalid = "-1 " + masked_error("19051_parse", fn, "pararm invalid\n");
    const Settings home = band("home", 0x000C, "password");
    using R = Received;
    // The settings sealed, a faulty registrar, the network or a forger, and
    // what the enrollee gets: the settings, or -1 and what it says.
    const std::tuple<const char*, Settings, std::function<void(Bytes&)>, std::function<void(R&)>,
                     std::string>
        cases[] = {
            {"a band", home, nullptr, nullptr,
             "ssid=68 6f 6d 65 auth=34 encr=12 key=70 61 73 73 77 6f 72 64 "},
            // WEP settings arrive like any others; the device refuses to save them.
            {"the longest, WEP", band(std::string(32, 'S'), 0x0002, std::string(64, 'K')), nullptr,
             nullptr,
             "ssid=" + to_hex(Bytes(32, 'S')) + " auth=34 encr=2 key=" + to_hex(Bytes(64, 'K')) +
                 " "},
            {"M1 with one byte changed", home, nullptr, [](R& r) { r.m1_attrs[20] ^= 1; },
             mismatch},
            {"M2 changed before its Authenticator", home, nullptr, [](R& r) { r.m2_attrs[7] ^= 1; },
             mismatch},
            {"a wrong KWA under the right Authenticator", home, [](Bytes& p) { p.back() ^= 1; },
             nullptr, "-1 "},
            {"no registrar nonce", home, nullptr, [](R& r) { r.m2.registrar_nonce.valid = 0; },
             invalid},
            {"an IV and less than a block", home, nullptr,
             [](R& r) { r.m2.encrypted_settings.valid_len = 31; }, "-1 "},
        };
    for (const auto& [what, settings, tamper, edit, result] : cases) {
        Exchange x(settings, tamper);
        R in{parsed(x.m2), x.m1, x.m2};
        if (edit)
            edit(in);
        Settings got{};
        int rc = 0;
        const auto lines = capture_output([&] {
            rc = IEEE19051_ParseTlvWscEncryptedSettings(
                &in.m2, x.enrollee, x.mac.data(), &got, in.m1_attrs.data(), int(in.m1_attrs.size()),
                in.m2_attrs.data(), int(in.m2_attrs.size()));
        });
        const std::string out = rc == 0 ? shown(got) : "-1 " + mask_line_numbers(lines.out);
        EXPECT_EQ(out, result) << what;
    }
}

TEST(WscSettings, PlaintextOnTheWireAndItsReader) {
    // 44 bytes ending in the KWA over the rest, sealed into 16 + 48 bytes,
    // the Authenticator last; in too small a room what does not fit is left
    // out, the KWA included.
    Exchange x(band("home", 0x000C, "password"));
    uint8_t kwa[32];
    HMAC(EVP_sha256(), x.keys.authKey, 32, x.plain.data(), 32, kwa, nullptr);
    EXPECT_EQ(to_hex(x.plain), to_hex(hex("1045 0004 686f6d65 1003 0002 0022 100f 0002 000c "
                                          "1027 0008 70617373776f7264 101e 0008")) +
                                   " " + to_hex(kwa, 8));
    EXPECT_EQ(parsed(x.m2).encrypted_settings.valid_len, 64);

    auto refused = [](const std::string& n) {
        return masked_error("wsc", "parse_wsc_tlv_" + n + "byte", "tlvlen > " + n + "\n");
    };
    // Every attribute the reader knows; lengths beyond a record refused with
    // their line; anything else skipped.
    const std::tuple<Bytes, std::string, std::string> cases[] = {
        {hex("1045 0002 6869 1003 0002 0020 100f 0002 0008 1027 0003 6b6579 1028 0001 02 "
             "1020 0006 0a0b0c0d0e0f 1049 0001 76 101e 0001 aa 102a 0002 7077 1012 0002 0004"),
         "ssid=68 69 auth=32 encr=8 key=6b 65 79 index=2 mac=0a 0b 0c 0d 0e 0f vendor=76 "
         "password=70 77 pwd_id=4 ",
         ""},
        {cat({attr(0x1045, 33, 1), attr(0x1020, 7, 1), attr(0x101E, 9, 1), attr(0x1027, 65, 1),
              attr(0x102A, 65, 1), attr(0x1049, 1025, 1), hex("1045 0001 41")}),
         "ssid=41 ",
         refused("32") + refused("6") + refused("8") + refused("64") + refused("64") +
             refused("1024")},
        {hex("ffff 0002 aabb 1003 0001 00 1028 0000 1012 0001 04 1111 0000 1028 0001 07"),
         "index=7 ", ""},
        {hex("1028 0001 03 1045 0009 6869"), "index=3 ", ""},  // a length past the end
    };
    for (const auto& [attrs, read, printed] : cases) {
        Bytes plain = attrs;  // exactly its size: no read past it goes unseen
        Settings s{};
        int rc = -2;
        const auto lines = capture_output(
            [&] { rc = parse_wsc_encrypted_settings_plain(plain.data(), int(plain.size()), &s); });
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(shown(s), read);
        EXPECT_EQ(mask_line_numbers(lines.out), printed);
    }
}

}  // namespace
