// The key pairs are built from fixed private keys with the crypto library's
// classic DH object, the type the registration passes around; that interface
// is deprecated in the library.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "fuzz/fixture.h"

#include <openssl/bn.h>
#include <openssl/dh.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon/kestrd_apclone.h"
#include "daemon/kestrd_enrollee.h"
#include "daemon/kestrd_registrar.h"
#include "daemon/kestrd_run.h"
#include "daemon/kestrd_wsc_fill.h"
#include "port/19051_port.h"
#include "port/common/bytes.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse_wsc.h"
#include "wsc/encrypt/wps_openssl.h"

namespace kestr::fuzz {
namespace {

constexpr uint8_t kEnrolleeNonce[kWscNonceLen] = {0x4b, 0x65, 0x73, 0x74, 0x72, 0x64, 0x2d, 0x65,
                                                  0x6e, 0x72, 0x6f, 0x6c, 0x6c, 0x65, 0x65, 0x31};
constexpr uint8_t kRegistrarNonce[kWscNonceLen] = {0x4b, 0x65, 0x73, 0x74, 0x72, 0x64, 0x2d, 0x72,
                                                   0x65, 0x67, 0x69, 0x73, 0x74, 0x72, 0x61, 0x72};
constexpr uint8_t kSealIv[16] = {0x49, 0x56, 0x49, 0x56, 0x49, 0x56, 0x49, 0x56,
                                 0x49, 0x56, 0x49, 0x56, 0x49, 0x56, 0x49, 0x56};
constexpr int kKwaLen = 8;
constexpr int kSealedMax = 1024;  // IV and ciphertext: the record's room

[[noreturn]] void broken(const char* what) {
    std::fprintf(stderr, "fixed registration: %s\n", what);
    std::abort();
}

// A key pair of the registration's group from a 256-bit private key whose
// bytes are seed, seed + 1, ...
DH* fixed_pair(uint8_t seed) {
    uint8_t priv_bytes[32];
    for (size_t i = 0; i < sizeof priv_bytes; ++i)
        priv_bytes[i] = static_cast<uint8_t>(seed + i);
    BIGNUM* p = BN_bin2bn(DH_P_VALUE, kDhPublicKeyLen, nullptr);
    BIGNUM* g = BN_bin2bn(DH_G_VALUE, sizeof DH_G_VALUE, nullptr);
    BIGNUM* priv = BN_bin2bn(priv_bytes, sizeof priv_bytes, nullptr);
    BIGNUM* pub = BN_new();
    BN_CTX* ctx = BN_CTX_new();
    DH* dh = DH_new();
    if (p == nullptr || g == nullptr || priv == nullptr || pub == nullptr || ctx == nullptr ||
        dh == nullptr || BN_mod_exp(pub, g, priv, p, ctx) != 1 ||
        DH_set0_pqg(dh, p, nullptr, g) != 1 || DH_set0_key(dh, pub, priv) != 1) {
        broken("cannot build a fixed key pair");
    }
    BN_CTX_free(ctx);
    return dh;
}

void export_public(DH* dh, uint8_t out[kDhPublicKeyLen]) {
    const BIGNUM* pub = nullptr;
    DH_get0_key(dh, &pub, nullptr);
    if (reg_proto_BN_bn2bin(pub, out) != kDhPublicKeyLen)
        broken("cannot export a public key");
}

FixedExchange* make() {
    auto* x = new FixedExchange;
    x->enrollee = fixed_pair(0x11);
    x->registrar = fixed_pair(0x77);
    std::memcpy(x->registrar_nonce, kRegistrarNonce, sizeof x->registrar_nonce);

    // The enrollee's own M1, then pinned.
    DH* fresh = nullptr;
    getWscConfigurationM1(&x->m1, 0, &fresh);
    reg_proto_delete_dhkeypair(&fresh);
    std::memset(x->m1.UUIDE.val, 0, sizeof x->m1.UUIDE.val);
    std::memcpy(x->m1.mac.val, x->own_mac, sizeof x->m1.mac.val);
    kestr::wsc::set_bytes(&x->m1.enrollee_nonce,
                          kestr::ConstBytes(kEnrolleeNonce, sizeof kEnrolleeNonce));
    uint8_t pub[kDhPublicKeyLen];
    export_public(x->enrollee, pub);
    kestr::wsc::set_bytes(&x->m1.public_key, kestr::ConstBytes(pub, sizeof pub));
    x->m1_tlv.assign(kCmduContentLen, 0);
    if (IEEE19051_GetWscTlv(&x->m1, x->m1_tlv.data(), kCmduContentLen) <= 0)
        broken("cannot encode the M1");

    // The keys as the registrar derives them from the M1.
    if (get_keys(x->m1.public_key.val, x->registrar, x->m1.enrollee_nonce.val, x->registrar_nonce,
                 x->m1.mac.val, &x->keys) != 0) {
        broken("cannot derive the keys");
    }
    return x;
}

// The registrar's M2 record around sealed settings of `sealed_len` bytes.
wsc_configuration_t m2_record(const FixedExchange& x, const uint8_t* sealed, size_t sealed_len) {
    wsc_configuration_t c{};
    kestr::wsc::set(&c.version, 0x10);
    kestr::wsc::set(&c.message_type, MessageType_M2);
    kestr::wsc::set_bytes(&c.enrollee_nonce,
                          kestr::ConstBytes(x.m1.enrollee_nonce.val, kWscNonceLen));
    kestr::wsc::set_bytes(&c.registrar_nonce, kestr::ConstBytes(x.registrar_nonce, kWscNonceLen));
    uint8_t pub[kDhPublicKeyLen];
    export_public(x.registrar, pub);
    kestr::wsc::set_bytes(&c.public_key, kestr::ConstBytes(pub, sizeof pub));
    kestr::fill::constants(&c, kestr::Band::g2p4());
    kestr::fill::identity(&c);
    kestr::wsc::set_bytes(&c.encrypted_settings, kestr::ConstBytes(sealed, sealed_len));
    return c;
}

}  // namespace

const FixedExchange& fixed_exchange() {
    static const FixedExchange* x = make();
    return *x;
}

const uint8_t* m1_attributes() {
    return fixed_exchange().m1_tlv.data() + kTlvHeaderLen;
}

int m1_attributes_length() {
    return kestr::load_be16(fixed_exchange().m1_tlv.data() + 1);
}

std::vector<uint8_t> registrar_m2(int band) {
    const FixedExchange& x = fixed_exchange();
    wsc_configuration_t m1{};
    IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(const_cast<uint8_t*>(x.m1_tlv.data())),
                          &m1);
    wsc_configuration_t m2{};
    std::vector<uint8_t> attrs(m1_attributes(), m1_attributes() + m1_attributes_length());
    std::vector<uint8_t> tlv(kCmduContentLen, 0);
    if (getWscConfigurationM2(&m2, m1, band, attrs.data(), static_cast<int>(attrs.size())) != 0 ||
        IEEE19051_GetWscTlv(&m2, tlv.data(), kCmduContentLen) <= 0) {
        broken("the registrar cannot answer the fixed M1");
    }
    tlv.resize(kTlvHeaderLen + kestr::load_be16(tlv.data() + 1));
    return tlv;
}

std::vector<uint8_t> sealed_m2(const uint8_t* plain, size_t plain_len) {
    const FixedExchange& x = fixed_exchange();
    // IV, then the plaintext padded up to the next whole block.
    const size_t cipher_len = plain_len - plain_len % 16 + 16;
    if (sizeof kSealIv + cipher_len > kSealedMax)
        return {};
    uint8_t sealed[kSealedMax] = {};
    std::memcpy(sealed, kSealIv, sizeof kSealIv);
    const uint8_t nothing = 0;
    if (plain_len == 0)
        plain = &nothing;  // an empty plaintext still seals to one block
    u_int32_t rk[44];
    if (rijndaelKeySetupEnc(rk, x.keys.keyWrapKey, 128) < 0 ||
        aes_cbc_encrypt_pad(rk, 16, kSealIv, plain_len, plain, sealed + sizeof kSealIv, 1) !=
            static_cast<int>(cipher_len)) {
        broken("cannot seal");
    }

    wsc_configuration_t m2 = m2_record(x, sealed, sizeof kSealIv + cipher_len);
    std::vector<uint8_t> tlv(kCmduContentLen, 0);
    if (IEEE19051_GetWscTlv(&m2, tlv.data(), kCmduContentLen) <= 0)
        return {};
    // The Authenticator covers the M1 as sent and this M2 without it.
    uint8_t digest[32];
    kestr::hmac_sha256_two(x.keys.authKey, sizeof x.keys.authKey, m1_attributes(),
                           static_cast<size_t>(m1_attributes_length()), tlv.data() + kTlvHeaderLen,
                           kestr::load_be16(tlv.data() + 1), digest);
    kestr::wsc::set_bytes(&m2.authenticator, kestr::ConstBytes(digest, 8));
    std::fill(tlv.begin(), tlv.end(), 0);
    if (IEEE19051_GetWscTlv(&m2, tlv.data(), kCmduContentLen) <= 0)
        return {};
    tlv.resize(kTlvHeaderLen + kestr::load_be16(tlv.data() + 1));
    return tlv;
}

std::vector<uint8_t> with_kwa(const uint8_t* plain, size_t plain_len) {
    const FixedExchange& x = fixed_exchange();
    uint8_t digest[32];
    hmac_sha256(x.keys.authKey, sizeof x.keys.authKey, plain, plain_len, digest, nullptr);
    std::vector<uint8_t> out(plain, plain + plain_len);
    const uint8_t header[4] = {WSC_ID_KEY_WRAP_AUTH >> 8, WSC_ID_KEY_WRAP_AUTH & 0xFF, 0, kKwaLen};
    out.insert(out.end(), header, header + sizeof header);
    out.insert(out.end(), digest, digest + kKwaLen);
    return out;
}

std::vector<uint8_t> wsc_frame(const std::vector<uint8_t>& tlv, int mid) {
    if (tlv.empty())
        return {};
    ieee1905Message_t packet;
    std::memset(&packet, 0, sizeof packet);
    param_t param{};
    std::memcpy(param.da.ether_addr_octet, kEnrolleeMac, 6);
    std::memcpy(param.sa.ether_addr_octet, kRegistrarMac, 6);
    param.mid = mid;
    const int n = IEEE19051_GetPacketApAutoconfigurationWsc2(
        &packet, param, reinterpret_cast<ieee1905TLV_t*>(const_cast<uint8_t*>(tlv.data())));
    if (n <= 0 || n > kCmduMaxFrameLen)
        return {};
    const auto* raw = reinterpret_cast<const uint8_t*>(&packet);
    return std::vector<uint8_t>(raw, raw + n);
}

}  // namespace kestr::fuzz
