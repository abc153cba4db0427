// The key pair lives in the crypto library's classic `DH` object, which the
// registration's interfaces hand from the enrollee's M1 to its pending
// request; that interface is deprecated in the library, so this file (and
// only the few like it) silences the deprecation.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "wsc/encrypt/encrypt.h"

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/dh.h>
#include <openssl/sha.h>

#include <cstring>
#include <memory>

#include "port/common/bytes.h"
#include "port/common/report.h"
#include "wsc/encrypt/secret.h"
#include "wsc/encrypt/wps_openssl.h"

const u_int8_t DH_P_VALUE[kDhPublicKeyLen] = {
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xC9, 0x0F, 0xDA, 0xA2, 0x21, 0x68, 0xC2, 0x34,
    0xC4, 0xC6, 0x62, 0x8B, 0x80, 0xDC, 0x1C, 0xD1, 0x29, 0x02, 0x4E, 0x08, 0x8A, 0x67, 0xCC, 0x74,
    0x02, 0x0B, 0xBE, 0xA6, 0x3B, 0x13, 0x9B, 0x22, 0x51, 0x4A, 0x08, 0x79, 0x8E, 0x34, 0x04, 0xDD,
    0xEF, 0x95, 0x19, 0xB3, 0xCD, 0x3A, 0x43, 0x1B, 0x30, 0x2B, 0x0A, 0x6D, 0xF2, 0x5F, 0x14, 0x37,
    0x4F, 0xE1, 0x35, 0x6D, 0x6D, 0x51, 0xC2, 0x45, 0xE4, 0x85, 0xB5, 0x76, 0x62, 0x5E, 0x7E, 0xC6,
    0xF4, 0x4C, 0x42, 0xE9, 0xA6, 0x37, 0xED, 0x6B, 0x0B, 0xFF, 0x5C, 0xB6, 0xF4, 0x06, 0xB7, 0xED,
    0xEE, 0x38, 0x6B, 0xFB, 0x5A, 0x89, 0x9F, 0xA5, 0xAE, 0x9F, 0x24, 0x11, 0x7C, 0x4B, 0x1F, 0xE6,
    0x49, 0x28, 0x66, 0x51, 0xEC, 0xE4, 0x5B, 0x3D, 0xC2, 0x00, 0x7C, 0xB8, 0xA1, 0x63, 0xBF, 0x05,
    0x98, 0xDA, 0x48, 0x36, 0x1C, 0x55, 0xD3, 0x9A, 0x69, 0x16, 0x3F, 0xA8, 0xFD, 0x24, 0xCF, 0x5F,
    0x83, 0x65, 0x5D, 0x23, 0xDC, 0xA3, 0xAD, 0x96, 0x1C, 0x62, 0xF3, 0x56, 0x20, 0x85, 0x52, 0xBB,
    0x9E, 0xD5, 0x29, 0x07, 0x70, 0x96, 0x96, 0x6D, 0x67, 0x0C, 0x35, 0x4E, 0x4A, 0xBC, 0x98, 0x04,
    0xF1, 0x74, 0x6C, 0x08, 0xCA, 0x23, 0x73, 0x27, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
};
const u_int8_t DH_G_VALUE[4] = {0x00, 0x00, 0x00, 0x02};

namespace {

// The personalization string of the key derivation, without terminator.
constexpr char kPersonalization[] = "Wi-Fi Easy and Secure Key Derivation";
constexpr uint32 kPersonalizationLen = sizeof kPersonalization - 1;  // 36
static_assert(kPersonalizationLen == 36, "the KDF input is 44 bytes");

constexpr int kKeyWrapKeyLen = 16;
constexpr int kEmskLen = 32;
constexpr int kSha256Len = 32;
constexpr int kMacLen = 6;
constexpr int kCipherWorkLen = 1024;
constexpr int kAes128Words = 44;

struct BignumFree {
    void operator()(BIGNUM* b) const { BN_free(b); }
};
using Bignum = std::unique_ptr<BIGNUM, BignumFree>;

}  // namespace

int reg_proto_generate_dhkeypair(DH** DHKeyPair) {
    if (DHKeyPair == nullptr)
        return -1;
    *DHKeyPair = DH_new();
    if (*DHKeyPair == nullptr) {
        KESTR_ERR("Err: *DHKeyPair == NULL\n");
        return -1;
    }
    Bignum p(BN_new());
    if (!p) {
        KESTR_ERR("Err: *(*DHKeyPair)->p  == NULL\n");
        return -1;
    }
    Bignum g(BN_new());
    if (!g) {
        KESTR_ERR("Err: *(*DHKeyPair)->g  == NULL\n");
        return -1;
    }
    if (BN_bin2bn(DH_P_VALUE, kDhPublicKeyLen, p.get()) == nullptr ||
        BN_bin2bn(DH_G_VALUE, sizeof DH_G_VALUE, g.get()) == nullptr ||
        DH_set0_pqg(*DHKeyPair, p.get(), nullptr, g.get()) != 1) {
        KESTR_ERR("Err: BN_bin2bn fail\n");
        return -1;
    }
    // The object owns both numbers from here on.
    p.release();
    g.release();
    // No private-key length is set: the library chooses the one it
    // recommends for this group.
    if (DH_generate_key(*DHKeyPair) != 1) {
        KESTR_ERR("Err: WPS_DH_GENERATE_KEY fail\n");
        return -1;
    }
    return 0;
}

void kestr::DhFree::operator()(DH* dh) const {
    DH_free(dh);  // frees p and g, and wipes the private key
}

void reg_proto_delete_dhkeypair(DH** DHKeyPair) {
    if (DHKeyPair == nullptr)
        return;
    kestr::DhKeyPair doomed(*DHKeyPair);
    *DHKeyPair = nullptr;
}

int reg_proto_BN_bn2bin(const BIGNUM* a, unsigned char* to) {
    if (a == nullptr || to == nullptr || BN_is_zero(a))
        return 0;
    // Writes into the whole field or not at all.
    if (BN_bn2binpad(a, to, kDhPublicKeyLen) != kDhPublicKeyLen)
        return 0;
    return kDhPublicKeyLen;
}

int get_keys(u_int8_t* received_public_key, DH* our_DHSecret, u_int8_t* enrolleeNonce,
             u_int8_t* registrarNonce, u_int8_t* enrolle_mac, wps_keys_t* keys) {
    if (our_DHSecret == nullptr || received_public_key == nullptr) {
        KESTR_ERR("Err:our_DHSecret == NULL || received_public_key == NULL");
        return -1;
    }
    if (enrolleeNonce == nullptr || registrarNonce == nullptr || enrolle_mac == nullptr ||
        keys == nullptr) {
        return -1;
    }

    kestr::SecretBytes<kDhPublicKeyLen> secret;
    Bignum peer(BN_new());
    if (!peer) {
        KESTR_ERR("Create M2: Malloc failed for peer DH public key\n");
        return -1;
    }
    if (BN_bin2bn(received_public_key, kDhPublicKeyLen, peer.get()) == nullptr)
        return -1;
    // The library hides the object's method table; what this guards
    // against is a pair that cannot compute: one without group or private key.
    if (DH_get0_p(our_DHSecret) == nullptr || DH_get0_priv_key(our_DHSecret) == nullptr) {
        KESTR_ERR("our_DHSecret->meth == NULL\n");
        return -1;
    }
    // The library writes DH_size() bytes; a pair from another group would
    // not fit the secret buffer, and is a failed computation.
    const int n = DH_size(our_DHSecret) == kDhPublicKeyLen
                      ? DH_compute_key(secret.data(), peer.get(), our_DHSecret)
                      : -1;
    if (n <= 0) {
        KESTR_ERR("secretLen == -1");
        return -1;
    }
    // The library drops leading zero bytes; the peer hashes all 192.
    if (n < kDhPublicKeyLen) {
        const size_t shift = static_cast<size_t>(kDhPublicKeyLen - n);
        const kestr::MutableBytes all(secret.bytes);
        std::memmove(all.subspan(shift).data(), all.data(), static_cast<size_t>(n));
        std::memset(all.data(), 0, shift);
    }

    kestr::SecretBytes<kSha256Len> dh_key;
    if (SHA256(secret.data(), secret.size(), dh_key.data()) == nullptr)
        return -1;

    // Declared before the buffer objects that wrap them, so they outlive
    // the objects' wiping deleters.
    kestr::SecretBytes<kSha256Len> kdk;
    uint8_t personalization[kPersonalizationLen];
    std::memcpy(personalization, kPersonalization, kPersonalizationLen);

    kestr::SecretBufferObj kdk_obj(buffobj_new());
    kestr::BufferObjPtr string_obj(buffobj_new());
    kestr::SecretBufferObj key_obj(buffobj_new());
    if (!kdk_obj || !string_obj || !key_obj)
        return -1;

    uint8_t kdk_input[kWscNonceLen + kMacLen + kWscNonceLen];
    kestr::ByteWriter(kdk_input, sizeof kdk_input)
        .bytes(enrolleeNonce, kWscNonceLen)
        .bytes(enrolle_mac, kMacLen)
        .bytes(registrarNonce, kWscNonceLen);
    hmac_sha256(dh_key.data(), kSha256Len, kdk_input, sizeof kdk_input, kdk.data(), nullptr);

    buffobj_dserial(kdk_obj.get(), kdk.data(), kSha256Len);
    buffobj_dserial(string_obj.get(), personalization, kPersonalizationLen);
    reg_proto_derivekey(kdk_obj.get(), string_obj.get(), kWscKdfBits, key_obj.get());

    BufferObj* out = key_obj.get();
    if (buffobj_Length(out) != kWscKdfBits / 8 ||
        buffobj_RewindLength(out, buffobj_Length(out)) == nullptr) {
        return -1;
    }
    std::memcpy(keys->authKey, buffobj_Pos(out), kWscAuthKeyLen);
    buffobj_Advance(out, kWscAuthKeyLen);
    std::memcpy(keys->keyWrapKey, buffobj_Pos(out), kKeyWrapKeyLen);
    buffobj_Advance(out, kKeyWrapKeyLen);
    std::memcpy(keys->emsk, buffobj_Pos(out), kEmskLen);
    return 0;
}

void reg_proto_derivekey(BufferObj* KDK, BufferObj* prsnlString, uint32 keyBits, BufferObj* key) {
    if (KDK == nullptr || prsnlString == nullptr || key == nullptr)
        return;
    if (buffobj_GetBuf(KDK) == nullptr || buffobj_Length(KDK) < kSha256Len)
        return;

    kestr::BufferObjPtr input(buffobj_new());
    kestr::SecretBufferObj output(buffobj_new());
    if (!input || !output)
        return;

    // be32(counter) || personalization string || be32(keyBits)
    uint8_t counter[4] = {};
    uint8_t bits[4];
    kestr::store_be32(bits, keyBits);
    if (buffobj_Append(input.get(), sizeof counter, counter) == nullptr)
        return;
    if (buffobj_Length(prsnlString) != 0 &&
        buffobj_Append(input.get(), buffobj_Length(prsnlString), buffobj_GetBuf(prsnlString)) ==
            nullptr) {
        return;
    }
    if (buffobj_Append(input.get(), sizeof bits, bits) == nullptr)
        return;

    const uint32 iterations = ((keyBits / 8) + 31) / 32;
    kestr::SecretBytes<kSha256Len> block;
    for (uint32 i = 1; i <= iterations; ++i) {
        kestr::store_be32(buffobj_GetBuf(input.get()), i);
        hmac_sha256(buffobj_GetBuf(KDK), kSha256Len, buffobj_GetBuf(input.get()),
                    buffobj_Length(input.get()), block.data(), nullptr);
        if (buffobj_Append(output.get(), kSha256Len, block.data()) == nullptr)
            return;
    }
    if (buffobj_Length(output.get()) >= keyBits / 8) {
        buffobj_Append(key, keyBits / 8, buffobj_GetBuf(output.get()));
    }
}

void reg_proto_encrypt_data(u_int8_t* plainText, int plainText_len, u_int8_t* encrKey,
                            u_int8_t* /*authKey*/, u_int8_t* cipherText, int* cipherText_len,
                            u_int8_t* iv) {
    uint8_t fresh_iv[16];
    linux_random(fresh_iv, sizeof fresh_iv);
    if (iv != nullptr)
        std::memcpy(iv, fresh_iv, sizeof fresh_iv);

    // The padded result must fit the 1024-byte work buffer.
    if (encrKey == nullptr || cipherText == nullptr || cipherText_len == nullptr ||
        plainText_len < 0 || plainText_len >= kCipherWorkLen ||
        (plainText == nullptr && plainText_len != 0)) {
        return;
    }
    u_int32_t rk[kAes128Words];
    kestr::WipeOnExit wipe_rk(rk, sizeof rk);
    if (rijndaelKeySetupEnc(rk, encrKey, 128) < 0)
        return;

    kestr::SecretBytes<kCipherWorkLen> work;
    const u_int8_t* in = plainText != nullptr ? plainText : work.data();
    const int n = aes_cbc_encrypt_pad(rk, 16, fresh_iv, static_cast<size_t>(plainText_len), in,
                                      work.data(), 1);
    if (n < 0)
        return;
    *cipherText_len = n;
    std::memcpy(cipherText, work.data(), static_cast<size_t>(n));
}

void reg_proto_decrypt_data(u_int8_t* cipherText, int cipherText_len, u_int8_t* iv,
                            u_int8_t* encrKey, u_int8_t* /*authKey*/, u_int8_t* plainText,
                            int* plainText_len) {
    if (plainText_len == nullptr)
        return;
    *plainText_len = -1;
    if (cipherText == nullptr || iv == nullptr || encrKey == nullptr || plainText == nullptr ||
        cipherText_len < 0 || cipherText_len > kCipherWorkLen) {
        return;
    }
    u_int32_t rk[kAes128Words];
    kestr::WipeOnExit wipe_rk(rk, sizeof rk);
    if (rijndaelKeySetupDec(rk, encrKey, 128) < 0)
        return;

    kestr::SecretBytes<kCipherWorkLen> work;
    const int n = aes_cbc_decrypt_pad(rk, 16, iv, static_cast<size_t>(cipherText_len), cipherText,
                                      work.data(), 1);
    *plainText_len = n;
    if (n > 0)
        std::memcpy(plainText, work.data(), static_cast<size_t>(n));
}
