// The registration's cryptography against public known answers, and the
// key derivation against an independent one built from the crypto
// library's own DH, SHA-256 and HMAC (never from the code under test).
#define OPENSSL_SUPPRESS_DEPRECATED  // DH objects are built by hand here

#include <dirent.h>
#include <gtest/gtest.h>
#include <openssl/dh.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "tests/support/bytes.h"
#include "tests/support/capture.h"
#include "tests/support/netns.h"
#include "wsc/encrypt/buffobj.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/encrypt/wps_openssl.h"

namespace {

using kestr::test::hex;
using Bytes = std::vector<uint8_t>;

Bytes text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}
Bytes cat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes our_hmac(const Bytes& key, const Bytes& data) {
    Bytes out(32);
    hmac_sha256(key.data(), static_cast<int>(key.size()), data.data(), data.size(), out.data(),
                nullptr);
    return out;
}

Bytes lib_hmac(const Bytes& key, const Bytes& data) {
    Bytes out(32);
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), data.data(), data.size(),
         out.data(), nullptr);
    return out;
}

// AES-128-CBC through EVP, with PKCS#7 padding or none.
Bytes lib_cbc(const Bytes& key, const Bytes& iv, const Bytes& in, bool pad) {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr, key.data(), iv.data());
    EVP_CIPHER_CTX_set_padding(ctx, pad ? 1 : 0);
    Bytes out(in.size() + 16);
    int n = 0, m = 0;
    EVP_EncryptUpdate(ctx, out.data(), &n, in.data(), static_cast<int>(in.size()));
    EVP_EncryptFinal_ex(ctx, out.data() + n, &m);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(static_cast<size_t>(n + m));
    return out;
}

const Bytes kKey = hex("2b7e151628aed2a6abf7158809cf4f3c");
const Bytes kIv = hex("000102030405060708090a0b0c0d0e0f");

TEST(Crypto, HmacSha256KnownAnswers) {
    const Bytes long_key(131, 0xaa);
    const struct {
        Bytes key, data;
        const char* mac;
    } rfc4231[] = {
        {Bytes(20, 0x0b), text("Hi There"),
         "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
        {text("Jefe"), text("what do ya want for nothing?"),
         "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
        {long_key, text("Test Using Larger Than Block-Size Key - Hash Key First"),
         "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
        {long_key,
         text("This is a test using a larger than block-size key and a larger than block-size "
              "data. The key needs to be hashed before being used by the HMAC algorithm."),
         "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2"},
    };
    for (const auto& c : rfc4231)
        EXPECT_EQ(our_hmac(c.key, c.data), hex(c.mac)) << c.mac;

    // Around the 64-byte block: only a longer key is replaced by its digest.
    for (size_t len : {0u, 63u, 64u, 65u}) {
        const Bytes key(len, 0x5c), data = text("Wi-Fi settings");
        EXPECT_EQ(our_hmac(key, data), lib_hmac(key, data)) << len;
    }
}

TEST(Crypto, AesCbcKnownAnswerPaddingAndUncheckedPadCount) {
    // NIST SP 800-38A F.2.1, then the padding block every length gains.
    const Bytes plain =
        hex("6bc1bee22e409f96e93d7e117393172a ae2d8a571e03ac9c9eb76fac45af8e51"
            "30c81c46a35ce411e5fbc1191a0a52ef f69f2445df4f9b17ad2b417be66c3710");
    u_int32_t rk[44];
    ASSERT_EQ(rijndaelKeySetupEnc(rk, kKey.data(), 128), 10);
    Bytes out(80);
    ASSERT_EQ(aes_cbc_encrypt_pad(rk, 16, kIv.data(), 64, plain.data(), out.data(), 1), 80);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 64),
              hex("7649abac8119b246cee98e9b12e9197d 5086cb9b507219ee95db113a917678b2"
                  "73bed6b8e3c1743b7116e69e22229516 3ff1caa1681fac09120eca307586e1a7"));
    EXPECT_EQ(out, lib_cbc(kKey, kIv, plain, true));

    auto* key = const_cast<uint8_t*>(kKey.data());
    for (int len : {0, 15, 16, 100, 1023}) {
        Bytes p(static_cast<size_t>(len), 0x61), c(1024), iv(16), back(1024);
        int clen = 0, plen = 0;
        reg_proto_encrypt_data(p.data(), len, key, nullptr, c.data(), &clen, iv.data());
        EXPECT_EQ(clen, len - len % 16 + 16);
        c.resize(static_cast<size_t>(clen));
        EXPECT_EQ(c, lib_cbc(kKey, iv, p, true)) << len;
        reg_proto_decrypt_data(c.data(), clen, iv.data(), key, nullptr, back.data(), &plen);
        EXPECT_EQ(Bytes(back.begin(), back.begin() + plen), p) << len;
    }

    // The count in the last byte is taken as sent; one beyond the data is
    // a negative length and nothing is copied. A ciphertext cut inside a
    // block yields its whole blocks as they are; none at all is a failure.
    Bytes cut = lib_cbc(kKey, kIv, Bytes(20, 0x61), true);
    cut.resize(24);
    const struct {
        Bytes cipher;
        int result;
    } cases[] = {
        {lib_cbc(kKey, kIv, cat(Bytes(31, 0x61), {0x04}), false), 28},
        {lib_cbc(kKey, kIv, cat(Bytes(31, 0x61), {0x00}), false), 32},
        {lib_cbc(kKey, kIv, cat(Bytes(31, 0x61), {0x21}), false), -1},
        {cut, 16},
        {Bytes(), -1},
    };
    for (const auto& c : cases) {
        Bytes cipher = c.cipher, back(1024, 0xEE);  // exact size: no read past it
        int n = 99;
        reg_proto_decrypt_data(cipher.empty() ? back.data() : cipher.data(),
                               static_cast<int>(cipher.size()), const_cast<uint8_t*>(kIv.data()),
                               key, nullptr, back.data(), &n);
        EXPECT_EQ(n, c.result) << cipher.size();
        if (n < 0) {
            EXPECT_EQ(back, Bytes(1024, 0xEE));
        }
    }
}

TEST(Crypto, GroupIsRfc3526Modp1536) {
    BIGNUM* p = BN_get_rfc3526_prime_1536(nullptr);
    Bytes expected(192);
    BN_bn2binpad(p, expected.data(), 192);
    BN_free(p);
    EXPECT_EQ(Bytes(DH_P_VALUE, DH_P_VALUE + 192), expected);
    EXPECT_EQ(Bytes(DH_G_VALUE, DH_G_VALUE + 4), hex("00000002"));
}

// The derivation written out from its definition.
Bytes independent_keys(const Bytes& secret192, const Bytes& n1, const Bytes& mac, const Bytes& n2) {
    Bytes dhkey(32);
    SHA256(secret192.data(), 192, dhkey.data());
    const Bytes kdk = lib_hmac(dhkey, cat(cat(n1, mac), n2));
    Bytes out;
    for (uint8_t i = 1; i <= 3; ++i) {
        const Bytes input = cat(cat({0, 0, 0, i}, text("Wi-Fi Easy and Secure Key Derivation")),
                                hex("00 00 02 80"));
        EXPECT_EQ(input.size(), 44u);
        out = cat(out, lib_hmac(kdk, input));
    }
    out.resize(80);  // AuthKey, KeyWrapKey, EMSK; the last 16 bytes are dropped
    return out;
}

Bytes flat(const wps_keys_t& k) {
    return cat(cat(Bytes(k.authKey, k.authKey + 32), Bytes(k.keyWrapKey, k.keyWrapKey + 16)),
               Bytes(k.emsk, k.emsk + 32));
}

TEST(Crypto, BothSidesDeriveTheIndependentlyComputedKeys) {
    DH *e = nullptr, *r = nullptr;
    Bytes e_pub(192), r_pub(192), secret(192);
    ASSERT_EQ(generatePublicKey(e_pub.data(), 192, &e), 0);
    ASSERT_EQ(generatePublicKey(r_pub.data(), 192, &r), 0);
    Bytes n1(16, 0x11), n2(16, 0x22), mac = hex("02000a1b2c3d");
    wps_keys_t at_e, at_r;
    ASSERT_EQ(get_keys(r_pub.data(), e, n1.data(), n2.data(), mac.data(), &at_e), 0);
    ASSERT_EQ(get_keys(e_pub.data(), r, n1.data(), n2.data(), mac.data(), &at_r), 0);
    EXPECT_EQ(flat(at_e), flat(at_r));
    BIGNUM* peer = BN_bin2bn(r_pub.data(), 192, nullptr);
    ASSERT_EQ(DH_compute_key_padded(secret.data(), peer, e), 192);
    BN_free(peer);
    EXPECT_EQ(flat(at_e), independent_keys(secret, n1, mac, n2));
    reg_proto_delete_dhkeypair(&e);
    reg_proto_delete_dhkeypair(&e);  // already null: nothing happens
    reg_proto_delete_dhkeypair(&r);
    EXPECT_EQ(e, nullptr);
}

TEST(Crypto, LeadingZerosArePaddedTo192Bytes) {
    // Private value 1: the shared secret is the peer's public value itself,
    // here one with five leading zero bytes.
    DH* dh = DH_new();
    DH_set0_pqg(dh, BN_bin2bn(DH_P_VALUE, 192, nullptr), nullptr,
                BN_bin2bn(DH_G_VALUE, 4, nullptr));
    DH_set0_key(dh, BN_bin2bn(DH_G_VALUE, 4, nullptr), BN_dup(BN_value_one()));
    Bytes peer(192, 0), n1(16, 1), n2(16, 2), mac(6, 3);
    for (size_t i = 5; i < 192; ++i)
        peer[i] = static_cast<uint8_t>(i * 13 + 1);
    wps_keys_t keys;
    ASSERT_EQ(get_keys(peer.data(), dh, n1.data(), n2.data(), mac.data(), &keys), 0);
    EXPECT_EQ(flat(keys), independent_keys(peer, n1, mac, n2));
    DH_free(dh);

    Bytes field(192, 0xEE);
    BIGNUM* small = BN_new();
    BN_set_word(small, 0x0102);
    EXPECT_EQ(reg_proto_BN_bn2bin(small, field.data()), 192);
    EXPECT_EQ(field, cat(Bytes(190, 0), {1, 2}));
    BN_zero(small);
    EXPECT_EQ(reg_proto_BN_bn2bin(small, field.data()), 0);  // zero is no public value
    BN_free(small);

    // A peer value the library refuses (0, i.e. a missing attribute):
    // reported, and the keys are left as they were.
    memset(&keys, 0x5A, sizeof keys);
    DH* ours = nullptr;
    ASSERT_EQ(generatePublicKey(field.data(), 192, &ours), 0);
    auto out = kestr::test::capture_output([&] {
        EXPECT_EQ(get_keys(Bytes(192).data(), ours, n1.data(), n2.data(), mac.data(), &keys), -1);
    });
    EXPECT_EQ(kestr::test::mask_line_numbers(out.out),
              kestr::test::mask_line_numbers(
                  kestr::test::error_line("encrypt", "get_keys", 0, "secretLen == -1")));
    EXPECT_EQ(flat(keys), Bytes(80, 0x5A));
    reg_proto_delete_dhkeypair(&ours);
}

int urandom_descriptors() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (dirent* e = readdir(d)) {
        char link[64] = {};
        readlink((std::string("/proc/self/fd/") + e->d_name).c_str(), link, sizeof link - 1);
        n += std::string(link) == "/dev/urandom";
    }
    closedir(d);
    return n;
}

TEST(Crypto, RandomSourceOpenedOnceUnderARace) {
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    std::vector<Bytes> drawn(8, Bytes(16));
    for (auto& d : drawn) {
        threads.emplace_back([&ready, &d] {
            for (ready++; ready < 8;) {
            }
            linux_random(d.data(), 16);
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(urandom_descriptors(), 1);
    EXPECT_NE(drawn[0], drawn[1]);
}

TEST(Crypto, RandomSourceFallsBackWithoutTheDevice) {
    kestr::test::NamespaceOptions options;
    options.bridge = false;
    KESTR_ENTER_NAMESPACES(options);
    ASSERT_EQ(mount("tmpfs", "/dev", "tmpfs", 0, "size=1m"), 0);  // an empty, private /dev
    Bytes a(64, 0xAA), b(64, 0xAA);
    linux_random(a.data(), 64);
    linux_random(b.data(), 64);
    EXPECT_EQ(urandom_descriptors(), 0);
    EXPECT_NE(a, Bytes(64, 0xAA));
    EXPECT_NE(a, b);
}

}  // namespace
