// The sealed settings end to end: an enrollee's M1, the registrar's M2
// built from it with the registration's own functions, and the enrollee
// opening that M2; then every way an M2 must be refused.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "protocol/19051_parse_wsc.h"
#include "tests/support/capture.h"
#include "tests/wsc/hex.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/encrypt/wps_openssl.h"
#include "wsc/wsc.h"

namespace {

using kestr::test::capture_output;
using kestr::test::error_line;
using kestr::test::hex;
using kestr::test::mask_line_numbers;
using kestr::test::to_hex;
using Bytes = std::vector<uint8_t>;

template <typename Record>
void set(Record& r, const Bytes& v) {
    r.valid = 1;
    r.valid_len = static_cast<u_int16_t>(v.size());
    if (!v.empty())
        std::memcpy(r.val, v.data(), v.size());
}

template <typename Record>
Bytes value(const Record& r) {
    return Bytes(r.val, r.val + r.valid_len);
}

wsc_encrypted_settings_t band_settings(const std::string& ssid, uint16_t auth, uint16_t encr,
                                       const std::string& key) {
    wsc_encrypted_settings_t s;
    std::memset(&s, 0, sizeof s);
    set(s.ssid, Bytes(ssid.begin(), ssid.end()));
    s.authentication_type = {1, auth};
    s.encryption_type = {1, encr};
    set(s.network_key, Bytes(key.begin(), key.end()));
    set(s.mac, hex("02 00 0a 1b 2c 3d"));  // carried along, never sealed
    return s;
}

Bytes encode(wsc_configuration_t c) {
    Bytes buf(1492 + 3);
    const int n = get_tlv_wsc(reinterpret_cast<ieee1905TLV_t*>(buf.data()), 1492, &c);
    EXPECT_GT(n, 0);
    buf.resize(static_cast<size_t>(n < 0 ? 0 : n));
    return buf;
}

// One exchange: the enrollee's key pair and M1, the registrar's M2.
struct Exchange {
    DH* enrollee = nullptr;
    Bytes mac = hex("02 00 0a 1b 2c 3d");
    Bytes m1;           // the WSC TLV as sent
    Bytes m2;           // the WSC TLV as received
    wps_keys_t keys{};  // the registrar's
    Bytes plain;        // what the registrar sealed

    Exchange() = default;
    Exchange(const Exchange&) = delete;
    ~Exchange() { reg_proto_delete_dhkeypair(&enrollee); }

    Bytes m1_attrs() const { return Bytes(m1.begin() + 3, m1.end()); }
    Bytes m2_attrs() const { return Bytes(m2.begin() + 3, m2.end()); }
};

void make_m1(Exchange& x) {
    wsc_configuration_t m1;
    std::memset(&m1, 0, sizeof m1);
    m1.version = {1, 0x10};
    m1.message_type = {1, MessageType_M1};
    set(m1.UUIDE, Bytes(16, 0xE1));
    set(m1.mac, x.mac);
    Bytes nonce(16);
    linux_random(nonce.data(), 16);
    set(m1.enrollee_nonce, nonce);
    Bytes pub(192);
    ASSERT_EQ(generatePublicKey(pub.data(), 192, &x.enrollee), 0);
    set(m1.public_key, pub);
    m1.rf_bands = {1, RFBands_5G};
    m1.pwd_id = {1, DevicePasswordID_PushButton};
    x.m1 = encode(m1);
}

// How the registrar may be made to misbehave, for the refusal cases.
struct Faults {
    bool corrupt_kwa = false;
    std::function<void(Bytes&)> edit_plain;  // before sealing
};

// The registrar's side: parse M1, make its own pair and nonce, derive the
// keys, seal the settings, append the authenticator over M1 and M2.
void make_m2(Exchange& x, const wsc_encrypted_settings_t& settings, const Faults& faults = {}) {
    wsc_configuration_t m1;
    std::memset(&m1, 0, sizeof m1);
    Bytes received_m1 = x.m1;
    ASSERT_EQ(IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(received_m1.data()), &m1), 0);

    wsc_configuration_t m2;
    std::memset(&m2, 0, sizeof m2);
    m2.version = {1, 0x10};
    m2.message_type = {1, MessageType_M2};
    set(m2.enrollee_nonce, value(m1.enrollee_nonce));
    Bytes rnonce(16);
    linux_random(rnonce.data(), 16);
    set(m2.registrar_nonce, rnonce);
    DH* registrar = nullptr;
    Bytes pub(192);
    ASSERT_EQ(generatePublicKey(pub.data(), 192, &registrar), 0);
    set(m2.public_key, pub);
    m2.rf_bands = {1, RFBands_5G};
    ASSERT_EQ(get_keys(m1.public_key.val, registrar, m1.enrollee_nonce.val, rnonce.data(),
                       m1.mac.val, &x.keys),
              0);
    reg_proto_delete_dhkeypair(&registrar);

    Bytes plain(254, 0);
    const int plain_len = get_plain_by_settings(settings, plain.data(), 254, x.keys.authKey);
    plain.resize(static_cast<size_t>(plain_len));
    if (faults.corrupt_kwa)
        plain.back() ^= 0x01;
    if (faults.edit_plain)
        faults.edit_plain(plain);
    x.plain = plain;

    Bytes cipher(1024), iv(16);
    int cipher_len = 0;
    reg_proto_encrypt_data(plain.data(), static_cast<int>(plain.size()), x.keys.keyWrapKey,
                           x.keys.authKey, cipher.data(), &cipher_len, iv.data());
    Bytes sealed = iv;
    sealed.insert(sealed.end(), cipher.begin(), cipher.begin() + cipher_len);
    set(m2.encrypted_settings, sealed);

    const Bytes unauthenticated = encode(m2);
    Bytes input = x.m1_attrs();
    input.insert(input.end(), unauthenticated.begin() + 3, unauthenticated.end());
    uint8_t digest[32];
    hmac_sha256(x.keys.authKey, 32, input.data(), input.size(), digest, nullptr);
    set(m2.authenticator, Bytes(digest, digest + 8));
    x.m2 = encode(m2);
}

// The enrollee's side: parse M2 and open it with the pair kept from M1.
int open_m2(Exchange& x, wsc_encrypted_settings_t* out, std::string* printed,
            const std::function<void(wsc_configuration_t&, Bytes& m1, Bytes& m2)>& edit = {}) {
    wsc_configuration_t m2;
    std::memset(&m2, 0, sizeof m2);
    Bytes tlv = x.m2;
    EXPECT_EQ(IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv.data()), &m2), 0);
    Bytes m1 = x.m1_attrs();
    Bytes m2_attrs = x.m2_attrs();
    if (edit)
        edit(m2, m1, m2_attrs);
    std::memset(out, 0, sizeof *out);
    int r = 99;
    auto c = capture_output([&] {
        r = IEEE19051_ParseTlvWscEncryptedSettings(&m2, x.enrollee, x.mac.data(), out, m1.data(),
                                                   static_cast<int>(m1.size()), m2_attrs.data(),
                                                   static_cast<int>(m2_attrs.size()));
    });
    *printed = mask_line_numbers(c.out);
    return r;
}

TEST(SealedSettings, RegistrarSealsAndEnrolleeOpens) {
    Exchange x;
    make_m1(x);
    const auto settings = band_settings("home", 0x0022, 0x000C, "password");
    make_m2(x, settings);

    // The plaintext on the wire: SSID, types, key, then the KWA over them.
    uint8_t kwa[32];
    unsigned int len = 0;
    HMAC(EVP_sha256(), x.keys.authKey, 32, x.plain.data(), 32, kwa, &len);
    EXPECT_EQ(to_hex(x.plain),
              "10 45 00 04 68 6f 6d 65 10 03 00 02 00 22 10 0f 00 02 00 0c "
              "10 27 00 08 70 61 73 73 77 6f 72 64 10 1e 00 08 " +
                  to_hex(kwa, 8));

    wsc_configuration_t m2;
    std::memset(&m2, 0, sizeof m2);
    Bytes tlv = x.m2;
    IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv.data()), &m2);
    EXPECT_EQ(m2.encrypted_settings.valid_len, 64);  // IV + 48 bytes of ciphertext
    EXPECT_EQ(to_hex(x.m2.data() + x.m2.size() - 12, 4), "10 05 00 08");  // Authenticator last

    wsc_encrypted_settings_t got;
    std::string printed;
    ASSERT_EQ(open_m2(x, &got, &printed), 0);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(value(got.ssid), value(settings.ssid));
    EXPECT_EQ(got.authentication_type.val, 0x0022);
    EXPECT_EQ(got.encryption_type.val, 0x000C);
    EXPECT_EQ(value(got.network_key), value(settings.network_key));
    EXPECT_EQ(got.mac.valid, 0);  // not sealed
    EXPECT_EQ(got.key_wrap_authenticator.valid_len, 8);
}

TEST(SealedSettings, OpenNetworkAndFullLengthValues) {
    struct Case {
        const char* what;
        wsc_encrypted_settings_t settings;
        int plain_len;
    } cases[] = {
        {"open network, empty key", band_settings("guest", 0x0001, 0x0001, ""), 9 + 6 + 6 + 4 + 12},
        {"32-byte SSID and 64-byte key",
         band_settings(std::string(32, 'S'), 0x0022, 0x000C, std::string(64, 'K')), 128},
    };
    for (const Case& c : cases) {
        Exchange x;
        make_m1(x);
        make_m2(x, c.settings);
        EXPECT_EQ(static_cast<int>(x.plain.size()), c.plain_len) << c.what;
        wsc_encrypted_settings_t got;
        std::string printed;
        ASSERT_EQ(open_m2(x, &got, &printed), 0) << c.what;
        EXPECT_EQ(got.network_key.valid, 1) << c.what;
        EXPECT_EQ(value(got.network_key), value(c.settings.network_key)) << c.what;
        EXPECT_EQ(value(got.ssid), value(c.settings.ssid)) << c.what;
    }
}

TEST(SealedSettings, SealingTwiceDiffersOnlyInIvAndCiphertext) {
    const auto settings = band_settings("home", 0x0022, 0x000C, "password");
    uint8_t authkey[32];
    for (int i = 0; i < 32; ++i)
        authkey[i] = static_cast<uint8_t>(i);
    uint8_t key[16] = {7};
    Bytes p1(254), p2(254);
    const int n1 = get_plain_by_settings(settings, p1.data(), 254, authkey);
    const int n2 = get_plain_by_settings(settings, p2.data(), 254, authkey);
    ASSERT_EQ(n1, 44);
    EXPECT_EQ(p1, p2);  // the same KWA

    Bytes c1(1024), c2(1024), iv1(16), iv2(16);
    int l1 = 0, l2 = 0;
    reg_proto_encrypt_data(p1.data(), n1, key, authkey, c1.data(), &l1, iv1.data());
    reg_proto_encrypt_data(p2.data(), n2, key, authkey, c2.data(), &l2, iv2.data());
    EXPECT_EQ(l1, 48);
    EXPECT_NE(iv1, iv2);
    EXPECT_NE(c1, c2);

    // Too little room for the KWA: the plaintext goes without it.
    Bytes small(40);
    EXPECT_EQ(get_plain_by_settings(settings, small.data(), 40, authkey), 32);
    EXPECT_EQ(get_plain_by_settings(settings, nullptr, 40, authkey), 0);
}

TEST(SealedSettings, EveryForgeryOrMismatchIsRefused) {
    const std::string mismatch =
        mask_line_numbers(error_line("19051_parse", "IEEE19051_ParseTlvWscEncryptedSettings", 0,
                                     "hmac value of Authenticator mismatched!\n"));
    const std::string invalid = mask_line_numbers(
        error_line("19051_parse", "IEEE19051_ParseTlvWscEncryptedSettings", 0, "pararm invalid\n"));
    using Edit = std::function<void(wsc_configuration_t&, Bytes&, Bytes&)>;
    struct Case {
        const char* what;
        Faults faults;
        Edit edit;
        std::optional<std::string> printed;  // nullopt: garbage may print refusals
    } cases[] = {
        {"M1 with one byte changed",
         {},
         [](auto&, Bytes& m1, Bytes&) { m1[20] ^= 0x01; },
         mismatch},
        {"M2 with one byte changed before its authenticator",
         {},
         [](auto&, Bytes&, Bytes& m2) { m2[7] ^= 0x01; },
         mismatch},
        {"authenticator changed",
         {},
         [](wsc_configuration_t& c, Bytes&, Bytes&) { c.authenticator.val[7] ^= 0x80; },
         mismatch},
        {"no authenticator",
         {},
         [](wsc_configuration_t& c, Bytes&, Bytes&) { c.authenticator.valid = 0; },
         mismatch},
        {"M2 shorter than an authenticator",
         {},
         [](auto&, Bytes&, Bytes& m2) { m2.resize(11); },
         mismatch},
        {"wrong KWA under a right authenticator", {true, {}}, {}, ""},
        {"no registrar nonce",
         {},
         [](wsc_configuration_t& c, Bytes&, Bytes&) { c.registrar_nonce.valid = 0; },
         invalid},
        {"no enrollee nonce",
         {},
         [](wsc_configuration_t& c, Bytes&, Bytes&) { c.enrollee_nonce.valid = 0; },
         invalid},
        {"no public key",
         {},
         [](wsc_configuration_t& c, Bytes&, Bytes&) { c.public_key.valid = 0; },
         invalid},
        {"no encrypted settings",
         {},
         [](wsc_configuration_t& c, Bytes&, Bytes&) { c.encrypted_settings.valid = 0; },
         invalid},
        {"ciphertext of 16 bytes",
         {},
         [](wsc_configuration_t& c, Bytes&, Bytes&) { c.encrypted_settings.valid_len = 32; },
         std::nullopt},
        {"IV and less than a block",
         {},
         [](wsc_configuration_t& c, Bytes&, Bytes&) { c.encrypted_settings.valid_len = 31; },
         ""},
        {"ciphertext not a whole number of blocks",
         {},
         [](wsc_configuration_t& c, Bytes&, Bytes&) { c.encrypted_settings.valid_len = 60; },
         std::nullopt},
        {"pad count larger than the data",
         // 16 bytes ending in 0xFF seal to two blocks; keeping only the
         // first makes the last decrypted byte a count of 255.
         {false, [](Bytes& p) { p.assign(16, 0xFF); }},
         [](wsc_configuration_t& c, Bytes&, Bytes&) { c.encrypted_settings.valid_len = 32; },
         ""},
        {"plaintext shorter than a KWA attribute", {false, [](Bytes& p) { p.resize(5); }}, {}, ""},
        {"registrar public key replaced",
         {},
         [](wsc_configuration_t& c, Bytes&, Bytes&) { c.public_key.val[100] ^= 0x04; },
         std::nullopt},
    };
    for (const Case& c : cases) {
        Exchange x;
        make_m1(x);
        make_m2(x, band_settings("home", 0x0022, 0x000C, "password"), c.faults);
        wsc_encrypted_settings_t got;
        std::string printed;
        EXPECT_EQ(open_m2(x, &got, &printed, c.edit), -1) << c.what;
        if (c.printed) {
            EXPECT_EQ(printed, *c.printed) << c.what;
        }
        wsc_encrypted_settings_t zero;
        std::memset(&zero, 0, sizeof zero);
        EXPECT_EQ(0, std::memcmp(&got, &zero, sizeof got)) << c.what << ": nothing usable left";
    }
}

TEST(SealedSettings, AnotherEnrolleeCannotOpenIt) {
    Exchange x;
    make_m1(x);
    make_m2(x, band_settings("home", 0x0022, 0x000C, "password"));

    wsc_encrypted_settings_t got;
    std::string printed;
    x.mac[5] ^= 1;  // the same pair, but another MAC address in the derivation
    EXPECT_EQ(open_m2(x, &got, &printed), -1);
    x.mac[5] ^= 1;

    DH* other = nullptr;
    Bytes pub(192);
    ASSERT_EQ(generatePublicKey(pub.data(), 192, &other), 0);
    std::swap(other, x.enrollee);
    EXPECT_EQ(open_m2(x, &got, &printed), -1);
    std::swap(other, x.enrollee);
    reg_proto_delete_dhkeypair(&other);

    EXPECT_EQ(open_m2(x, &got, &printed), 0);  // the right one still can
}

TEST(SealedSettings, NullArgumentsAreRefusedSilently) {
    Exchange x;
    make_m1(x);
    make_m2(x, band_settings("home", 0x0022, 0x000C, "password"));
    wsc_configuration_t m2;
    std::memset(&m2, 0, sizeof m2);
    wsc_encrypted_settings_t s;
    Bytes a = x.m1_attrs(), b = x.m2_attrs();
    int r = 0;
    auto out = capture_output([&] {
        r += IEEE19051_ParseTlvWscEncryptedSettings(nullptr, x.enrollee, x.mac.data(), &s, a.data(),
                                                    static_cast<int>(a.size()), b.data(),
                                                    static_cast<int>(b.size()));
        r += IEEE19051_ParseTlvWscEncryptedSettings(&m2, nullptr, x.mac.data(), &s, a.data(),
                                                    static_cast<int>(a.size()), b.data(),
                                                    static_cast<int>(b.size()));
    });
    EXPECT_EQ(r, -2);
    EXPECT_EQ(out.out, "");
}

TEST(SealedSettings, PlaintextReaderTakesWhatItKnows) {
    Bytes p = hex("10 28 00 01 02 10 2a 00 03 61 62 63 ff ff 00 02 aa bb");
    Bytes long_ssid = {0x10, 0x45, 0x00, 0x21};
    long_ssid.insert(long_ssid.end(), 33, 'x');
    p.insert(p.end(), long_ssid.begin(), long_ssid.end());
    const Bytes tail = hex("10 12 00 02 00 04 10 20 00 06 02 00 0a 1b 2c 3d 10 45 00 02 68 69");
    p.insert(p.end(), tail.begin(), tail.end());

    wsc_encrypted_settings_t s;
    std::memset(&s, 0, sizeof s);
    int r = 0;
    auto out = capture_output(
        [&] { r = parse_wsc_encrypted_settings_plain(p.data(), static_cast<int>(p.size()), &s); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(mask_line_numbers(out.out),
              mask_line_numbers(error_line("wsc", "parse_wsc_tlv_32byte", 0, "tlvlen > 32\n")));
    EXPECT_EQ(s.network_key_index.valid, 1);
    EXPECT_EQ(s.network_key_index.val, 2);
    EXPECT_EQ(to_hex(value(s.new_password)), "61 62 63");
    EXPECT_EQ(s.device_password_id.val, 4);
    EXPECT_EQ(to_hex(value(s.mac)), "02 00 0a 1b 2c 3d");
    EXPECT_EQ(to_hex(value(s.ssid)), "68 69");  // the over-long one was skipped, this one read

    // Negative lengths hold nothing; null arguments are reported.
    wsc_encrypted_settings_t none;
    std::memset(&none, 0, sizeof none);
    EXPECT_EQ(parse_wsc_encrypted_settings_plain(p.data(), -1, &none), 0);
    EXPECT_EQ(none.ssid.valid, 0);
    out = capture_output([&] { r = parse_wsc_encrypted_settings_plain(nullptr, 5, &none); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(mask_line_numbers(out.out),
              mask_line_numbers(
                  error_line("wsc", "parse_wsc_encrypted_settings_plain", 0, "parameter error\n")));
}

// Registrations share nothing but the random source and the digest the
// library looks up once; several at a time must each still open.
TEST(SealedSettings, ExchangesRunInParallel) {
    std::atomic<int> opened{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&opened, t] {
            for (int i = 0; i < 10; ++i) {
                Exchange x;
                make_m1(x);
                make_m2(x, band_settings("net" + std::to_string(t), 0x0022, 0x000C, "secret-key"));
                wsc_encrypted_settings_t got;
                wsc_configuration_t m2;
                std::memset(&m2, 0, sizeof m2);
                IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(x.m2.data()), &m2);
                Bytes a = x.m1_attrs(), b = x.m2_attrs();
                std::memset(&got, 0, sizeof got);
                if (IEEE19051_ParseTlvWscEncryptedSettings(
                        &m2, x.enrollee, x.mac.data(), &got, a.data(), static_cast<int>(a.size()),
                        b.data(), static_cast<int>(b.size())) == 0 &&
                    value(got.ssid) == Bytes{'n', 'e', 't', static_cast<uint8_t>('0' + t)}) {
                    opened.fetch_add(1);
                }
            }
        });
    }
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(opened.load(), 40);
}

}  // namespace
