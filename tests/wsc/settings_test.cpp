// The sealed settings end to end: an enrollee's M1, the registrar's M2
// built from it with the registration's own functions, the enrollee opening
// it; then every way an M2 must be refused, and exchanges in parallel.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "protocol/19051_parse_wsc.h"
#include "tests/support/wsc_samples.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/encrypt/wps_openssl.h"
#include "wsc/wsc.h"

namespace {

using kestr::test::hex;
using kestr::test::set_bytes;
using kestr::test::to_hex;
using Bytes = std::vector<uint8_t>;

Bytes encode(wsc_configuration_t c) {
    Bytes buf(1495);
    buf.resize(
        static_cast<size_t>(get_tlv_wsc(reinterpret_cast<ieee1905TLV_t*>(buf.data()), 1492, &c)));
    return buf;
}

wsc_configuration_t parse(Bytes tlv) {
    wsc_configuration_t c;
    std::memset(&c, 0, sizeof c);
    IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv.data()), &c);
    return c;
}

wsc_encrypted_settings_t band(const std::string& ssid, const std::string& key) {
    wsc_encrypted_settings_t s{};
    set_bytes(s.ssid, Bytes(ssid.begin(), ssid.end()));
    s.authentication_type = {1, 0x0022};
    s.encryption_type = {1, 0x000C};
    set_bytes(s.network_key, Bytes(key.begin(), key.end()));
    set_bytes(s.mac, Bytes(6, 1));  // carried along, never sealed
    return s;
}

// One exchange. `tamper_plain` lets a faulty registrar change what it seals.
struct Exchange {
    DH* enrollee = nullptr;
    Bytes mac = hex("02000a1b2c3d");
    Bytes m1, m2, plain;  // the WSC TLVs as sent, and the sealed plaintext
    wps_keys_t keys{};

    explicit Exchange(const wsc_encrypted_settings_t& settings,
                      const std::function<void(Bytes&)>& tamper_plain = {}) {
        wsc_configuration_t c{};
        c.version = {1, 0x10}, c.message_type = {1, MessageType_M1}, set_bytes(c.mac, mac);
        Bytes nonce(16), pub(192);
        linux_random(nonce.data(), 16);
        generatePublicKey(pub.data(), 192, &enrollee);
        set_bytes(c.enrollee_nonce, nonce), set_bytes(c.public_key, pub);
        m1 = encode(c);

        // The registrar's side, from the M1 as received.
        const wsc_configuration_t got = parse(m1);
        wsc_configuration_t r{};
        r.version = {1, 0x10}, r.message_type = {1, MessageType_M2}, r.rf_bands = {1, 2};
        set_bytes(r.enrollee_nonce, Bytes(got.enrollee_nonce.val, got.enrollee_nonce.val + 16));
        DH* dh = nullptr;
        linux_random(nonce.data(), 16);
        generatePublicKey(pub.data(), 192, &dh);
        set_bytes(r.registrar_nonce, nonce), set_bytes(r.public_key, pub);
        get_keys(const_cast<u_int8_t*>(got.public_key.val), dh,
                 const_cast<u_int8_t*>(got.enrollee_nonce.val), nonce.data(),
                 const_cast<u_int8_t*>(got.mac.val), &keys);
        reg_proto_delete_dhkeypair(&dh);

        plain.resize(254);
        plain.resize(
            static_cast<size_t>(get_plain_by_settings(settings, plain.data(), 254, keys.authKey)));
        if (tamper_plain)
            tamper_plain(plain);
        Bytes sealed(16 + 1024);
        int n = 0;
        reg_proto_encrypt_data(plain.data(), static_cast<int>(plain.size()), keys.keyWrapKey,
                               keys.authKey, sealed.data() + 16, &n, sealed.data());
        sealed.resize(static_cast<size_t>(16 + n));
        set_bytes(r.encrypted_settings, sealed);

        Bytes covered(m1.begin() + 3, m1.end());
        const Bytes body = encode(r);
        covered.insert(covered.end(), body.begin() + 3, body.end());
        uint8_t digest[32];
        hmac_sha256(keys.authKey, 32, covered.data(), covered.size(), digest, nullptr);
        set_bytes(r.authenticator, Bytes(digest, digest + 8));
        m2 = encode(r);
    }
    ~Exchange() { reg_proto_delete_dhkeypair(&enrollee); }

    // The enrollee opens M2; `edit` plays the network or a forger.
    using Edit = std::function<void(wsc_configuration_t&, Bytes& m1_attrs, Bytes& m2_attrs)>;
    int open(wsc_encrypted_settings_t* out, std::string* printed = nullptr, const Edit& edit = {}) {
        wsc_configuration_t c = parse(m2);
        Bytes a(m1.begin() + 3, m1.end()), b(m2.begin() + 3, m2.end());
        if (edit)
            edit(c, a, b);
        std::memset(out, 0, sizeof *out);
        int r = 0;
        auto o = kestr::test::capture_output([&] {
            r = IEEE19051_ParseTlvWscEncryptedSettings(&c, enrollee, mac.data(), out, a.data(),
                                                       static_cast<int>(a.size()), b.data(),
                                                       static_cast<int>(b.size()));
        });
        if (printed != nullptr)
            *printed = kestr::test::mask_line_numbers(o.out);
        return r;
    }
};

TEST(SealedSettings, RegistrarSealsEnrolleeOpens) {
    for (const auto& settings : {band("home", "password"), band(std::string(32, 'S'), ""),
                                 band("x", std::string(64, 'K'))}) {
        Exchange x(settings);
        wsc_encrypted_settings_t got;
        std::string printed = "?";
        ASSERT_EQ(x.open(&got, &printed), 0);
        EXPECT_EQ(printed, "");
        EXPECT_EQ(to_hex(got.ssid.val, got.ssid.valid_len),
                  to_hex(settings.ssid.val, settings.ssid.valid_len));
        EXPECT_EQ(got.network_key.valid, 1);  // also when empty
        EXPECT_EQ(to_hex(got.network_key.val, got.network_key.valid_len),
                  to_hex(settings.network_key.val, settings.network_key.valid_len));
        EXPECT_EQ(got.authentication_type.val, 0x0022);
        EXPECT_EQ(got.encryption_type.val, 0x000C);
        EXPECT_EQ(got.mac.valid, 0);
    }

    // The wire form: 44 bytes of plaintext with its KWA, 64 bytes sealed,
    // and the Authenticator last.
    Exchange x(band("home", "password"));
    uint8_t kwa[32];
    HMAC(EVP_sha256(), x.keys.authKey, 32, x.plain.data(), 32, kwa, nullptr);
    EXPECT_EQ(to_hex(x.plain),
              "10 45 00 04 68 6f 6d 65 10 03 00 02 00 22 10 0f 00 02 00 0c "
              "10 27 00 08 70 61 73 73 77 6f 72 64 10 1e 00 08 " +
                  to_hex(kwa, 8));
    EXPECT_EQ(parse(x.m2).encrypted_settings.valid_len, 64);
    EXPECT_EQ(to_hex(x.m2.data() + x.m2.size() - 12, 4), "10 05 00 08");

    // Sealed again: a new IV and ciphertext, the same plaintext and KWA.
    Bytes c1(1024), c2(1024), iv1(16), iv2(16);
    int n1 = 0, n2 = 0;
    reg_proto_encrypt_data(x.plain.data(), 44, x.keys.keyWrapKey, nullptr, c1.data(), &n1,
                           iv1.data());
    reg_proto_encrypt_data(x.plain.data(), 44, x.keys.keyWrapKey, nullptr, c2.data(), &n2,
                           iv2.data());
    EXPECT_EQ(n1, 48);
    EXPECT_NE(iv1, iv2);
    EXPECT_NE(c1, c2);
}

TEST(SealedSettings, EveryForgeryOrMismatchIsRefused) {
    auto line = [](const char* body) {
        return kestr::test::mask_line_numbers(kestr::test::error_line(
            "19051_parse", "IEEE19051_ParseTlvWscEncryptedSettings", 0, body));
    };
    const std::string mismatch = line("hmac value of Authenticator mismatched!\n");
    const std::string invalid = line("pararm invalid\n");
    const std::string any = "any";  // decrypted garbage may draw parser refusals
    using C = wsc_configuration_t;
    const struct {
        const char* what;
        std::function<void(Bytes&)> tamper;
        Exchange::Edit edit;
        std::string printed;
    } cases[] = {
        {"M1 with one byte changed", {}, [](C&, Bytes& a, Bytes&) { a[20] ^= 1; }, mismatch},
        {"M2 changed before its authenticator",
         {},
         [](C&, Bytes&, Bytes& b) { b[7] ^= 1; },
         mismatch},
        {"no authenticator", {}, [](C& c, Bytes&, Bytes&) { c.authenticator.valid = 0; }, mismatch},
        {"M2 shorter than an authenticator",
         {},
         [](C&, Bytes&, Bytes& b) { b.resize(11); },
         mismatch},
        {"wrong KWA, right authenticator", [](Bytes& p) { p.back() ^= 1; }, {}, ""},
        {"no registrar nonce",
         {},
         [](C& c, Bytes&, Bytes&) { c.registrar_nonce.valid = 0; },
         invalid},
        {"no encrypted settings",
         {},
         [](C& c, Bytes&, Bytes&) { c.encrypted_settings.valid = 0; },
         invalid},
        {"IV and less than a block",
         {},
         [](C& c, Bytes&, Bytes&) { c.encrypted_settings.valid_len = 31; },
         ""},
        {"ciphertext of 16 bytes",
         {},
         [](C& c, Bytes&, Bytes&) { c.encrypted_settings.valid_len = 32; },
         any},
        // 16 bytes of FF seal to two blocks; only the first is kept, so the
        // last decrypted byte counts 255 bytes of padding.
        {"pad count larger than the data", [](Bytes& p) { p.assign(16, 0xFF); },
         [](C& c, Bytes&, Bytes&) { c.encrypted_settings.valid_len = 32; }, ""},
        {"plaintext shorter than a KWA", [](Bytes& p) { p.resize(5); }, {}, ""},
        {"registrar public key replaced",
         {},
         [](C& c, Bytes&, Bytes&) { c.public_key.val[100] ^= 4; },
         any},
    };
    for (const auto& c : cases) {
        Exchange x(band("home", "password"), c.tamper);
        wsc_encrypted_settings_t got;
        std::string printed;
        EXPECT_EQ(x.open(&got, &printed, c.edit), -1) << c.what;
        if (c.printed != any) {
            EXPECT_EQ(printed, c.printed) << c.what;
        }
        const wsc_encrypted_settings_t zero{};
        EXPECT_EQ(0, std::memcmp(&got, &zero, sizeof got)) << c.what << ": nothing usable left";
    }
}

TEST(SealedSettings, PlaintextReaderTakesWhatItKnows) {
    Bytes p = hex("1028 0001 02  102a 0003 616263  ffff 0002 aabb  1045 0021");
    p.insert(p.end(), 33, 'x');  // an SSID too long for its record
    const Bytes tail = hex("1012 0002 0004  1045 0002 6869");
    p.insert(p.end(), tail.begin(), tail.end());
    wsc_encrypted_settings_t s{};
    auto out = kestr::test::capture_output([&] {
        EXPECT_EQ(parse_wsc_encrypted_settings_plain(p.data(), static_cast<int>(p.size()), &s), 0);
    });
    EXPECT_EQ(kestr::test::mask_line_numbers(out.out),
              kestr::test::mask_line_numbers(
                  kestr::test::error_line("wsc", "parse_wsc_tlv_32byte", 0, "tlvlen > 32\n")));
    EXPECT_EQ(s.network_key_index.val, 2);
    EXPECT_EQ(to_hex(s.new_password.val, s.new_password.valid_len), "61 62 63");
    EXPECT_EQ(s.device_password_id.val, 4);
    EXPECT_EQ(to_hex(s.ssid.val, s.ssid.valid_len), "68 69");
}

// Registrations share only the random source and the digest looked up once.
TEST(SealedSettings, ExchangesRunInParallel) {
    std::atomic<int> opened{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&opened] {
            for (int i = 0; i < 10; ++i) {
                Exchange x(band("home", "password"));
                wsc_encrypted_settings_t got;
                if (x.open(&got) == 0 && got.ssid.valid_len == 4)
                    opened++;
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(opened.load(), 40);
}

}  // namespace
