// Key pairs and key derivation, checked against an independent derivation
// built from the crypto library's own DH, SHA-256 and HMAC.
#define OPENSSL_SUPPRESS_DEPRECATED  // the test builds DH objects by hand

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/dh.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/capture.h"
#include "tests/wsc/hex.h"
#include "wsc/encrypt/buffobj.h"
#include "wsc/encrypt/encrypt.h"

namespace {

using kestr::test::capture_output;
using kestr::test::error_line;
using kestr::test::hex;
using kestr::test::mask_line_numbers;
using Bytes = std::vector<uint8_t>;

const std::string kPersonalization = "Wi-Fi Easy and Secure Key Derivation";

Bytes lib_hmac(const Bytes& key, const Bytes& data) {
    Bytes out(32);
    unsigned int len = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), data.data(), data.size(),
         out.data(), &len);
    return out;
}

// The KDF written out from its definition: counter, string, length in bits.
Bytes independent_kdf(const Bytes& kdk, uint32_t bits) {
    Bytes out;
    for (uint32_t i = 1; out.size() < bits / 8; ++i) {
        Bytes input = {uint8_t(i >> 24), uint8_t(i >> 16), uint8_t(i >> 8), uint8_t(i)};
        input.insert(input.end(), kPersonalization.begin(), kPersonalization.end());
        input.insert(input.end(),
                     {uint8_t(bits >> 24), uint8_t(bits >> 16), uint8_t(bits >> 8), uint8_t(bits)});
        EXPECT_EQ(input.size(), 44u);
        const Bytes block = lib_hmac(kdk, input);
        out.insert(out.end(), block.begin(), block.end());
    }
    out.resize(bits / 8);
    return out;
}

Bytes independent_keys(const Bytes& secret192, const Bytes& n1, const Bytes& mac, const Bytes& n2) {
    Bytes dhkey(32);
    SHA256(secret192.data(), secret192.size(), dhkey.data());
    Bytes kdk_input = n1;
    kdk_input.insert(kdk_input.end(), mac.begin(), mac.end());
    kdk_input.insert(kdk_input.end(), n2.begin(), n2.end());
    return independent_kdf(lib_hmac(dhkey, kdk_input), 640);
}

Bytes flat(const wps_keys_t& k) {
    Bytes b(k.authKey, k.authKey + 32);
    b.insert(b.end(), k.keyWrapKey, k.keyWrapKey + 16);
    b.insert(b.end(), k.emsk, k.emsk + 32);
    return b;
}

Bytes public_of(DH* dh) {
    Bytes out(192);
    const BIGNUM* pub = nullptr;
    DH_get0_key(dh, &pub, nullptr);
    EXPECT_EQ(BN_bn2binpad(pub, out.data(), 192), 192);
    return out;
}

TEST(KeyDerivation, KdfMatchesItsDefinition) {
    Bytes kdk(32);
    for (size_t i = 0; i < kdk.size(); ++i)
        kdk[i] = static_cast<uint8_t>(0xA0 + i);
    // 640 bits is the registration's case: three HMAC blocks, the last 16
    // bytes of the third dropped. The others show the length is honoured.
    for (uint32_t bits : {640u, 256u, 100u, 8u}) {
        Bytes string(kPersonalization.begin(), kPersonalization.end());
        BufferObj* k = buffobj_new();
        BufferObj* s = buffobj_new();
        BufferObj* out = buffobj_new();
        Bytes kdk_copy = kdk;
        buffobj_dserial(k, kdk_copy.data(), 32);
        buffobj_dserial(s, string.data(), static_cast<uint32>(string.size()));
        reg_proto_derivekey(k, s, bits, out);
        EXPECT_EQ(Bytes(buffobj_GetBuf(out), buffobj_GetBuf(out) + buffobj_Length(out)),
                  independent_kdf(kdk, bits))
            << bits;
        buffobj_del(k);
        buffobj_del(s);
        buffobj_del(out);
    }
}

TEST(KeyDerivation, BothSidesDeriveTheIndependentlyComputedKeys) {
    DH* enrollee = nullptr;
    DH* registrar = nullptr;
    Bytes e_pub(192), r_pub(192);
    ASSERT_EQ(generatePublicKey(e_pub.data(), 192, &enrollee), 0);
    ASSERT_EQ(generatePublicKey(r_pub.data(), 192, &registrar), 0);
    EXPECT_EQ(e_pub, public_of(enrollee));
    EXPECT_NE(e_pub, r_pub);

    Bytes n1 = hex("00112233445566778899aabbccddeeff");
    Bytes n2 = hex("f0e0d0c0b0a090807060504030201000");
    Bytes mac = hex("02 00 0a 1b 2c 3d");
    wps_keys_t at_enrollee, at_registrar;
    ASSERT_EQ(get_keys(r_pub.data(), enrollee, n1.data(), n2.data(), mac.data(), &at_enrollee), 0);
    ASSERT_EQ(get_keys(e_pub.data(), registrar, n1.data(), n2.data(), mac.data(), &at_registrar),
              0);
    EXPECT_EQ(flat(at_enrollee), flat(at_registrar));

    Bytes secret(192);
    BIGNUM* peer = BN_bin2bn(r_pub.data(), 192, nullptr);
    ASSERT_EQ(DH_compute_key_padded(secret.data(), peer, enrollee), 192);
    BN_free(peer);
    EXPECT_EQ(flat(at_enrollee), independent_keys(secret, n1, mac, n2));

    // Every input counts: another MAC address gives other keys.
    Bytes other_mac = hex("02 00 0a 1b 2c 3e");
    wps_keys_t other;
    ASSERT_EQ(get_keys(r_pub.data(), enrollee, n1.data(), n2.data(), other_mac.data(), &other), 0);
    EXPECT_NE(flat(other), flat(at_enrollee));

    reg_proto_delete_dhkeypair(&enrollee);
    reg_proto_delete_dhkeypair(&registrar);
    EXPECT_EQ(enrollee, nullptr);
    reg_proto_delete_dhkeypair(&enrollee);  // already null: nothing happens
    reg_proto_delete_dhkeypair(nullptr);
}

// A pair whose private value is 1, so the shared secret is the peer's
// public value itself, and one with leading zero bytes can be chosen.
DH* pair_with_private_one() {
    DH* dh = DH_new();
    DH_set0_pqg(dh, BN_bin2bn(DH_P_VALUE, 192, nullptr), nullptr,
                BN_bin2bn(DH_G_VALUE, 4, nullptr));
    BIGNUM* one = BN_new();
    BN_one(one);
    BIGNUM* two = BN_new();
    BN_set_word(two, 2);
    DH_set0_key(dh, two, one);
    return dh;
}

TEST(KeyDerivation, SharedSecretWithLeadingZerosIsHashedAs192Bytes) {
    DH* dh = pair_with_private_one();
    Bytes peer(192, 0);
    for (size_t i = 5; i < peer.size(); ++i)
        peer[i] = static_cast<uint8_t>(i * 13 + 1);
    Bytes n1(16, 1), n2(16, 2), mac(6, 3);
    wps_keys_t keys;
    ASSERT_EQ(get_keys(peer.data(), dh, n1.data(), n2.data(), mac.data(), &keys), 0);
    EXPECT_EQ(flat(keys), independent_keys(peer, n1, mac, n2));

    // Hashing the unpadded 187 bytes would give another key.
    Bytes unpadded(peer.begin() + 5, peer.end());
    EXPECT_NE(flat(keys), independent_keys(unpadded, n1, mac, n2));
    DH_free(dh);
}

TEST(KeyDerivation, PublicValueIsExportedLeftPadded) {
    Bytes field(192, 0xEE);
    BIGNUM* small = BN_new();
    BN_set_word(small, 0x0102);
    EXPECT_EQ(reg_proto_BN_bn2bin(small, field.data()), 192);
    Bytes expected(192, 0);
    expected[190] = 0x01;
    expected[191] = 0x02;
    EXPECT_EQ(field, expected);

    // Zero, or a number wider than the field: 0, and the field untouched.
    field.assign(192, 0xEE);
    BN_zero(small);
    EXPECT_EQ(reg_proto_BN_bn2bin(small, field.data()), 0);
    Bytes wide(193, 0x80);
    BIGNUM* big = BN_bin2bn(wide.data(), 193, nullptr);
    EXPECT_EQ(reg_proto_BN_bn2bin(big, field.data()), 0);
    EXPECT_EQ(field, Bytes(192, 0xEE));
    EXPECT_EQ(reg_proto_BN_bn2bin(nullptr, field.data()), 0);
    BN_free(small);
    BN_free(big);
}

TEST(KeyDerivation, FailuresAreReportedAndLeaveTheKeysUnwritten) {
    DH* ours = nullptr;
    Bytes pub(192);
    ASSERT_EQ(generatePublicKey(pub.data(), 192, &ours), 0);
    Bytes n(16, 9), mac(6, 1);
    Bytes zero(192, 0);
    Bytes p_minus_1(DH_P_VALUE, DH_P_VALUE + 192);
    p_minus_1[191] -= 1;
    DH* no_private = DH_new();
    DH_set0_pqg(no_private, BN_bin2bn(DH_P_VALUE, 192, nullptr), nullptr,
                BN_bin2bn(DH_G_VALUE, 4, nullptr));

    struct Case {
        const char* what;
        uint8_t* peer;
        DH* dh;
        std::string line;
    } cases[] = {
        {"no key pair", pub.data(), nullptr,
         "Err:our_DHSecret == NULL || received_public_key == NULL"},
        {"no peer key", nullptr, ours, "Err:our_DHSecret == NULL || received_public_key == NULL"},
        {"a pair that never generated", pub.data(), no_private, "our_DHSecret->meth == NULL\n"},
        {"peer key zero (attribute missing)", zero.data(), ours, "secretLen == -1"},
        {"peer key p - 1", p_minus_1.data(), ours, "secretLen == -1"},
    };
    for (const Case& c : cases) {
        wps_keys_t keys;
        std::memset(&keys, 0x5A, sizeof keys);
        int r = 0;
        auto out = capture_output(
            [&] { r = get_keys(c.peer, c.dh, n.data(), n.data(), mac.data(), &keys); });
        EXPECT_EQ(r, -1) << c.what;
        EXPECT_EQ(mask_line_numbers(out.out),
                  mask_line_numbers(error_line("encrypt", "get_keys", 0, c.line)))
            << c.what;
        EXPECT_EQ(flat(keys), Bytes(80, 0x5A)) << c.what;
    }
    DH_free(no_private);
    reg_proto_delete_dhkeypair(&ours);
}

TEST(KeyPair, GeneratePublicKeyRefusesWhatItCannotFill) {
    int r = 0;
    auto out = capture_output([&] { r = generatePublicKey(nullptr, 192, nullptr); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(mask_line_numbers(out.out),
              mask_line_numbers(error_line("kestrd_apclone", "generatePublicKey", 0,
                                           "enrolle_DHSecret == NULL")));

    // Too small a field: nothing written, but the pair exists for the
    // caller to release.
    DH* dh = nullptr;
    Bytes small(100, 0xEE);
    out = capture_output([&] { r = generatePublicKey(small.data(), 100, &dh); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(mask_line_numbers(out.out),
              mask_line_numbers(error_line("kestrd_apclone", "generatePublicKey", 0,
                                           "reg_proto_BN_bn2bin error")));
    EXPECT_EQ(small, Bytes(100, 0xEE));
    ASSERT_NE(dh, nullptr);
    reg_proto_delete_dhkeypair(&dh);
}

}  // namespace
