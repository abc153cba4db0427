// The registration's cryptography against public known answers, and the key
// derivation against one written out from its definition with the crypto
// library's own DH, SHA-256 and HMAC (never with the code under test); the
// secrets it wipes, and the buffer object as far as the derivation uses it.
#define OPENSSL_SUPPRESS_DEPRECATED  // DH objects are built by hand here

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/dh.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>
#include <unistd.h>

#include <new>

#include "tests/support/bytes.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/encrypt/secret.h"
#include "wsc/encrypt/wps_openssl.h"

namespace {

using kestr::test::append;
using kestr::test::cat;
using kestr::test::hex;
using kestr::test::to_hex;
using Bytes = std::vector<uint8_t>;

Bytes text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

Bytes lib_hmac(const Bytes& key, const Bytes& data) {
    Bytes out(32);
    HMAC(EVP_sha256(), key.data(), int(key.size()), data.data(), data.size(), out.data(), nullptr);
    return out;
}

TEST(WscCrypto, HmacSha256KnownAnswer) {
    // RFC 4231, test case 6: a key longer than the block is hashed first.
    const Bytes key(131, 0xaa),
        data = text("Test Using Larger Than Block-Size Key - Hash Key First");
    Bytes out(32);
    unsigned int len = 0;
    hmac_sha256(key.data(), int(key.size()), data.data(), data.size(), out.data(), &len);
    EXPECT_EQ(
        to_hex(out) + " " + std::to_string(len),
        to_hex(hex("60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54")) + " 32");
}

TEST(WscCrypto, AesCbcKnownAnswerAndPadding) {
    // NIST SP 800-38A F.2.1, and the block of padding that follows.
    const Bytes key = hex("2b7e151628aed2a6abf7158809cf4f3c"),
                iv = hex("000102030405060708090a0b0c0d0e0f");
    const Bytes plain =
        hex("6bc1bee22e409f96e93d7e117393172a ae2d8a571e03ac9c9eb76fac45af8e51"
            "30c81c46a35ce411e5fbc1191a0a52ef f69f2445df4f9b17ad2b417be66c3710");
    u_int32_t rk[44];
    ASSERT_EQ(rijndaelKeySetupEnc(rk, key.data(), 128), 10);
    Bytes out(96);
    ASSERT_EQ(aes_cbc_encrypt_pad(rk, 16, iv.data(), 64, plain.data(), out.data(), 1), 80);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 64),
              hex("7649abac8119b246cee98e9b12e9197d 5086cb9b507219ee95db113a917678b2"
                  "73bed6b8e3c1743b7116e69e22229516 3ff1caa1681fac09120eca307586e1a7"));

    // Every length gains padding, a whole block when it is a multiple of 16.
    auto* k = const_cast<uint8_t*>(key.data());
    for (int len : {0, 15, 16, 100}) {
        Bytes p(size_t(len), 0x61), c(1024), fresh(16), back(1024);
        int clen = 0, plen = 0;
        reg_proto_encrypt_data(p.data(), len, k, nullptr, c.data(), &clen, fresh.data());
        EXPECT_EQ(clen, len - len % 16 + 16);
        reg_proto_decrypt_data(c.data(), clen, fresh.data(), k, nullptr, back.data(), &plen);
        EXPECT_EQ(Bytes(back.begin(), back.begin() + std::max(plen, 0)), p) << len;
    }
    // The count in the last byte is taken as it comes; one beyond the data
    // gives a negative length and no plaintext.
    const int counts[][2] = {{0x04, 28}, {0x00, 32}, {0x21, -1}};
    for (const auto& c : counts) {
        Bytes p = cat({Bytes(31, 0x61), {uint8_t(c[0])}}), cipher(48), back(1024, 0xEE);
        int n = 99;
        aes_cbc_encrypt_pad(rk, 16, iv.data(), 32, p.data(), cipher.data(), 1);
        reg_proto_decrypt_data(cipher.data(), 32, const_cast<uint8_t*>(iv.data()), k, nullptr,
                               back.data(), &n);
        EXPECT_EQ(std::max(n, -1), c[1]);
        EXPECT_EQ(back[0], n < 0 ? 0xEE : 0x61);
    }
}

// The keys written out from their definition: DHKey, KDK, then three rounds
// of the KDF over 44-byte inputs; AuthKey, KeyWrapKey and EMSK are its first
// 80 bytes.
Bytes independent_keys(const Bytes& secret192, const Bytes& n1, const Bytes& mac, const Bytes& n2) {
    Bytes dhkey(32), out;
    SHA256(secret192.data(), 192, dhkey.data());
    const Bytes kdk = lib_hmac(dhkey, cat({n1, mac, n2}));
    for (uint8_t i = 1; i <= 3; ++i) {
        append(out, lib_hmac(kdk, cat({{0, 0, 0, i},
                                       text("Wi-Fi Easy and Secure Key Derivation"),
                                       {0, 0, 2, 0x80}})));
    }
    out.resize(80);
    return out;
}

Bytes flat(const wps_keys_t& k) {  // AuthKey, KeyWrapKey, EMSK
    return Bytes(reinterpret_cast<const uint8_t*>(&k), reinterpret_cast<const uint8_t*>(&k + 1));
}

TEST(WscCrypto, KeysMatchAnIndependentDerivation) {
    BIGNUM* p = BN_get_rfc3526_prime_1536(nullptr);  // the group
    Bytes prime(192);
    BN_bn2binpad(p, prime.data(), 192), BN_free(p);
    EXPECT_EQ(cat({Bytes(DH_P_VALUE, DH_P_VALUE + 192), Bytes(DH_G_VALUE, DH_G_VALUE + 4)}),
              cat({prime, {0, 0, 0, 2}}));
    DH *e = nullptr, *r = nullptr;
    Bytes r_pub(192), secret(192), n1(16, 0x11), n2(16, 0x22), mac = hex("02000a1b2c3d");
    ASSERT_EQ(generatePublicKey(secret.data(), 192, &e) | generatePublicKey(r_pub.data(), 192, &r),
              0);
    wps_keys_t at_e;
    ASSERT_EQ(get_keys(r_pub.data(), e, n1.data(), n2.data(), mac.data(), &at_e), 0);
    BIGNUM* peer = BN_bin2bn(r_pub.data(), 192, nullptr);
    ASSERT_EQ(DH_compute_key_padded(secret.data(), peer, e), 192);
    EXPECT_EQ(flat(at_e), independent_keys(secret, n1, mac, n2));

    // A peer value the library refuses (a missing attribute reads as 0):
    // refused, and the keys are left as they were.
    EXPECT_EQ(get_keys(Bytes(192).data(), e, n1.data(), n2.data(), mac.data(), &at_e), -1);
    EXPECT_EQ(flat(at_e), independent_keys(secret, n1, mac, n2));
    BN_free(peer), reg_proto_delete_dhkeypair(&e), reg_proto_delete_dhkeypair(&r);

    // A public value is exported as 192 bytes, zeros first; zero or one that
    // needs more than 192 bytes is none.
    Bytes field(192, 0xEE);
    BIGNUM* small = BN_new();
    EXPECT_EQ((BN_set_word(small, 0x0102), reg_proto_BN_bn2bin(small, field.data())), 192);
    EXPECT_EQ(field, cat({Bytes(190, 0), {1, 2}}));
    EXPECT_EQ((BN_zero(small), reg_proto_BN_bn2bin(small, field.data())), 0);
    EXPECT_EQ((BN_set_bit(small, 1600), reg_proto_BN_bn2bin(small, field.data())), 0);
    BN_free(small);
}

// Key material is wiped when its holder goes, wrapped caller storage too;
// "/dev/urandom" is opened once and kept.
TEST(WscCrypto, SecretsAreWipedAndTheRandomSourceKept) {
    alignas(kestr::SecretBytes<32>) uint8_t raw[sizeof(kestr::SecretBytes<32>)];
    auto* secret = new (raw) kestr::SecretBytes<32>();
    std::memset(secret->data(), 0x5A, 32);
    secret->~SecretBytes();
    EXPECT_EQ(Bytes(raw, raw + 32), Bytes(32, 0));
    Bytes kdk(32, 0x5A);
    kestr::SecretBufferObj wiped(buffobj_new());
    buffobj_dserial(wiped.get(), kdk.data(), 32);  // wraps it, as the derivation does
    wiped.reset();
    EXPECT_EQ(kdk, Bytes(32, 0));

    uint8_t r[4];
    linux_random(r, 4), linux_random(r, 4);
    int urandom = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        char link[32] = {};
        const std::string path = "/proc/self/fd/" + std::to_string(fd);
        urandom += readlink(path.c_str(), link, sizeof link - 1) > 0 &&
                   link == std::string("/dev/urandom");
    }
    EXPECT_EQ(urandom, 1);
}

}  // namespace
