// The WSC TLV of the 1905.1 parse module: reading M1 and M2, and opening
// the registrar's sealed settings on the enrollee.
#define KESTR_REPORT_MODULE "19051_parse"

#include "protocol/19051_parse_wsc.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cstring>

#include "port/common/bytes.h"
#include "port/common/report.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/encrypt/secret.h"
#include "wsc/encrypt/wps_openssl.h"
#include "wsc/wsc_attributes.h"

namespace {

constexpr int kAuthAttrLen = kWscAttrHeaderLen + kWscAuthenticatorLen;  // 12
constexpr int kPlainWorkLen = 1024;
constexpr size_t kAuthInputMax = 10240;  // M1 and M2 together, far above two CMDUs

bool present(const wsc_configuration_8byte_t& r) {
    return r.valid == 1 && r.valid_len == kWscAuthenticatorLen;
}

// Compares the first 8 bytes of a digest with a received authenticator in
// time that does not depend on where they differ.
bool same_authenticator(const u_int8_t* digest, const u_int8_t* received) {
    return CRYPTO_memcmp(digest, received, kWscAuthenticatorLen) == 0;
}

}  // namespace

int IEEE19051_ParseTlvWsc(ieee1905TLV_t* tlv, wsc_configuration_t* wsc_config) {
    if (tlv == nullptr || wsc_config == nullptr) {
        KESTR_ERR("tlv == NULL || wsc_config == NULL\n");
        return -1;
    }
    kestr::ByteReader whole = kestr::ByteReader::self_delimited(tlv, 1, kTlvHeaderLen);
    kestr::ByteReader attributes;
    whole.skip(1);
    whole.u16_length_prefixed(&attributes);
    kestr::wsc::read_message(attributes, wsc_config);
    return 0;
}

int IEEE19051_ParseTlvWscEncryptedSettings(wsc_configuration_t* wsc_config, DH* DHSecret,
                                           u_int8_t* enrolle_mac,
                                           wsc_encrypted_settings_t* settings, u_int8_t* m1,
                                           int m1len, u_int8_t* m2, int m2len) {
    if (wsc_config == nullptr || DHSecret == nullptr || settings == nullptr)
        return -1;
    kestr::Mac enrollee;
    if (enrolle_mac != nullptr)
        kestr::ByteReader(enrolle_mac, enrollee.octets.size())
            .bytes(enrollee.octets.data(), enrollee.octets.size());
    // Lengths beyond what the Authenticator could cover are refused whole.
    const auto view = [](const u_int8_t* p, int len) {
        return p != nullptr && len >= 0 && static_cast<size_t>(len) <= kAuthInputMax
                   ? kestr::ByteReader(p, static_cast<size_t>(len))
                   : kestr::ByteReader();
    };
    return kestr::IEEE19051_ParseTlvWscEncryptedSettings(*wsc_config, DHSecret, enrollee, settings,
                                                         view(m1, m1len), view(m2, m2len));
}

int kestr::IEEE19051_ParseTlvWscEncryptedSettings(const wsc_configuration_t& c, DH* DHSecret,
                                                  const Mac& enrollee,
                                                  wsc_encrypted_settings_t* settings,
                                                  ByteReader m1_bytes, ByteReader m2_bytes) {
    if (DHSecret == nullptr || settings == nullptr)
        return -1;
    if (c.registrar_nonce.valid != 1 || c.enrollee_nonce.valid != 1 || c.public_key.valid != 1 ||
        c.encrypted_settings.valid != 1) {
        KESTR_ERR("pararm invalid\n");
        return -1;
    }

    wps_keys_t keys;
    WipeOnExit wipe_keys(&keys, sizeof keys);
    u_int8_t enrollee_mac[ETH_ALEN];
    std::memcpy(enrollee_mac, enrollee.octets.data(), sizeof enrollee_mac);
    if (get_keys(const_cast<u_int8_t*>(c.public_key.val), DHSecret,
                 const_cast<u_int8_t*>(c.enrollee_nonce.val),
                 const_cast<u_int8_t*>(c.registrar_nonce.val), enrollee_mac, &keys) != 0) {
        KESTR_ERR("get_keys error\n");
        return -1;
    }

    // IV and at least one block of ciphertext.
    ByteReader sealed(c.encrypted_settings.val, std::min<size_t>(c.encrypted_settings.valid_len,
                                                                 sizeof c.encrypted_settings.val));
    u_int8_t iv[kWscIvLen];
    if (sealed.remaining() < sizeof iv + 16 || !sealed.bytes(iv, sizeof iv))
        return -1;
    SecretBytes<kPlainWorkLen> plain;
    int plain_len = -1;
    reg_proto_decrypt_data(const_cast<u_int8_t*>(sealed.data()),
                           static_cast<int>(sealed.remaining()), iv, keys.keyWrapKey, keys.authKey,
                           plain.data(), &plain_len);
    if (plain_len < 0)
        return -1;

    parse_wsc_encrypted_settings_plain(plain.data(), plain_len, settings);

    // From here on `settings` holds what was decrypted; a failed check
    // wipes it, so nothing unauthenticated can be saved by mistake.
    auto reject = [settings]() {
        OPENSSL_cleanse(settings, sizeof *settings);
        return -1;
    };

    SecretBytes<32> digest;
    if (plain_len < kAuthAttrLen)
        return reject();
    hmac_sha256(keys.authKey, sizeof keys.authKey, plain.data(),
                static_cast<size_t>(plain_len - kAuthAttrLen), digest.data(), nullptr);
    if (!present(settings->key_wrap_authenticator) ||
        !same_authenticator(digest.data(), settings->key_wrap_authenticator.val)) {
        return reject();
    }

    // The Authenticator covers M1 as sent and M2 up to its own attribute.
    const bool lengths_ok = m2_bytes.remaining() >= static_cast<size_t>(kAuthAttrLen) &&
                            m1_bytes.remaining() + m2_bytes.remaining() <= kAuthInputMax;
    if (!lengths_ok || !present(c.authenticator) ||
        !hmac_sha256_two(keys.authKey, sizeof keys.authKey, m1_bytes.data(), m1_bytes.remaining(),
                         m2_bytes.data(), m2_bytes.remaining() - kAuthAttrLen, digest.data()) ||
        !same_authenticator(digest.data(), c.authenticator.val)) {
        KESTR_ERR("hmac value of Authenticator mismatched!\n");
        return reject();
    }
    return 0;
}
