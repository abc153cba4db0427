// The registrar's registration: every M1 is answered with an M2 that carries
// this device's Wi-Fi settings for the band asked for, sealed with the keys
// of that one exchange. Nothing survives a message: key pair, keys and
// buffers live on the stack of the call and are wiped when it returns.
#define KESTR_REPORT_MODULE "kestrd_apclone"

#include <syslog.h>

#include <cstring>

#include "daemon/kestrd_apclone.h"
#include "daemon/kestrd_wsc_fill.h"
#include "port/19051_port.h"
#include "port/common/bytes.h"
#include "port/common/report.h"
#include "port/util.h"
#include "protocol/19051_frame.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_parse_wsc.h"
#include "protocol/debug.h"
#include "protocol/mid.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/encrypt/secret.h"
#include "wsc/encrypt/wps_openssl.h"
#include "wsc/wsc.h"

namespace {

constexpr int kSsidMax = 32;
constexpr int kNetworkKeyMax = 64;
constexpr int kPlainRoom = 254;
constexpr int kSealBufferLen = 2046;

char g_br0[] = "br0";

// The band's settings as they are sealed: SSID and key cut to what the
// attributes hold, the key present even when empty, the MAC named in M1.
wsc_encrypted_settings_t settings_to_seal(int freqBand, const wsc_configuration_t& M1config) {
    EncryptSetting_t local;
    std::memset(&local, 0, sizeof local);
    kestr::WipeOnExit wipe_local(&local, sizeof local);
    IEEE19051Port_GetEncryptSetting(freqBand == 0 ? 0 : 1, &local);

    wsc_encrypted_settings_t s;
    std::memset(&s, 0, sizeof s);
    kestr::fill::bytes(&s.ssid, local.ssid, strnlen(local.ssid, kSsidMax));
    kestr::fill::bytes(&s.network_key, local.pwd, strnlen(local.pwd, kNetworkKeyMax));
    kestr::fill::number(&s.authentication_type, static_cast<u_int16_t>(local.authtype));
    kestr::fill::number(&s.encryption_type, static_cast<u_int16_t>(local.encrtype));
    kestr::fill::bytes(&s.mac, M1config.mac.val, sizeof s.mac.val);
    return s;
}

}  // namespace

int getWscConfigurationM2(wsc_configuration_t* config, wsc_configuration_t M1config, int freqBand,
                          u_int8_t* m1wsc, int m1len) {
    if (config == nullptr)
        return -1;
    if (m1wsc == nullptr || m1len < 0 || m1len > kCmduContentLen)
        m1len = 0;

    kestr::fill::number(&config->version, 0x10);
    kestr::fill::number(&config->message_type, MessageType_M2);
    kestr::fill::bytes(&config->enrollee_nonce, M1config.enrollee_nonce.val, kWscNonceLen);
    u_int8_t nonce[kWscNonceLen];
    linux_random(nonce, sizeof nonce);
    kestr::fill::bytes(&config->registrar_nonce, nonce, sizeof nonce);
    IEEE19051Port_GetUUID(config->UUIDR.val, sizeof config->UUIDR.val);
    config->UUIDR.valid_len = sizeof config->UUIDR.val;
    config->UUIDR.valid = 1;

    kestr::fill::constants(config, freqBand);
    kestr::fill::identity(config);

    // A key pair of this exchange only. Should it or the derivation fail, the
    // M2 still goes out, with keys the enrollee cannot verify.
    DH* dh = nullptr;
    u_int8_t public_key[kDhPublicKeyLen] = {};
    generatePublicKey(public_key, sizeof public_key, &dh);
    kestr::fill::bytes(&config->public_key, public_key, sizeof public_key);

    wps_keys_t keys;
    std::memset(&keys, 0, sizeof keys);
    kestr::WipeOnExit wipe_keys(&keys, sizeof keys);
    get_keys(M1config.public_key.val, dh, M1config.enrollee_nonce.val, config->registrar_nonce.val,
             M1config.mac.val, &keys);

    wsc_encrypted_settings_t settings = settings_to_seal(freqBand, M1config);
    kestr::WipeOnExit wipe_settings(&settings, sizeof settings);
    kestr::SecretBytes<kSealBufferLen> plain;
    const int plain_len = get_plain_by_settings(settings, plain.data(), kPlainRoom, keys.authKey);

    kestr::SecretBytes<kSealBufferLen> cipher;
    u_int8_t iv[16] = {};
    int cipher_len = 0;
    reg_proto_encrypt_data(plain.data(), plain_len, keys.keyWrapKey, keys.authKey, cipher.data(),
                           &cipher_len, iv);
    if (cipher_len < 0 || cipher_len > static_cast<int>(sizeof config->encrypted_settings.val) - 16)
        cipher_len = 0;
    std::memcpy(config->encrypted_settings.val, iv, sizeof iv);
    std::memcpy(config->encrypted_settings.val + sizeof iv, cipher.data(),
                static_cast<size_t>(cipher_len));
    config->encrypted_settings.valid_len = static_cast<u_int16_t>(sizeof iv + cipher_len);
    config->encrypted_settings.valid = 1;

    reg_proto_delete_dhkeypair(&dh);

    // The Authenticator covers M1 as the enrollee sent it and M2 as it goes
    // out, without the Authenticator itself.
    u_int8_t m2tlv[kCmduContentLen] = {};
    if (IEEE19051_GetWscTlv(config, m2tlv, sizeof m2tlv) < 0)
        return -1;
    const size_t m2len = kestr::load_be16(m2tlv + 1);
    u_int8_t digest[32];
    kestr::hmac_sha256_two(keys.authKey, sizeof keys.authKey, m1wsc, static_cast<size_t>(m1len),
                           m2tlv + kTlvHeaderLen, m2len, digest);
    kestr::fill::bytes(&config->authenticator, digest, 8);
    return 0;
}

int msgApcloneProcesM1(int /*type*/, u_int8_t* buf, int /*recvlen*/) {
    KESTR_INFO("msgApcloneProcesM1\n");
    if (buf == nullptr)
        return -1;

    wsc_configuration_t M1config;
    std::memset(&M1config, 0, sizeof M1config);
    u_int8_t m1wsc[kCmduContentLen];
    int m1wsclen = 0;
    bool have_m1 = false;
    const int total = IEEE19051_GetTlvTotalNumber(buf);
    for (int i = 0; i < total; ++i) {
        u_int8_t* tlv = IEEE19051_GetTlvByNumber(buf, i);
        if (tlv == nullptr)
            break;
        if (tlv[0] != IEEE1905_TLV_TYPE_WPS)
            continue;
        IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv), &M1config);
        if (M1config.message_type.valid == 1 && M1config.message_type.val == MessageType_M1) {
            // The walk only hands out TLVs that lie inside the content area.
            const int len = kestr::load_be16(tlv + 1);
            m1wsclen = len > kCmduContentLen ? kCmduContentLen : len;
            std::memcpy(m1wsc, tlv + kTlvHeaderLen, static_cast<size_t>(m1wsclen));
            have_m1 = true;
        }
    }
    if (!have_m1)
        return -1;

    const int mid = IEEE19051_GenMid();
    wsc_configuration_t config;
    std::memset(&config, 0, sizeof config);
    const int band = M1config.rf_bands.val == RFBands_5G ? 1 : 0;
    getWscConfigurationM2(&config, M1config, band, m1wsc, m1wsclen);
    print_wsc_configuration(config);

    // The M2 goes to the MAC address M1 names, not to the frame's sender.
    struct ether_addr enrollee;
    std::memcpy(enrollee.ether_addr_octet, M1config.mac.val, sizeof enrollee.ether_addr_octet);
    char dest[50] = {};
    mac_etheraddr_to_str(&enrollee, dest, sizeof dest);
    const int rc = IEEE19051_SendMsgApAutoconfigurationWsc(dest, g_br0, mid, &config);
    std::memset(&config, 0, sizeof config);
    if (rc < 0) {
        syslog(LOG_ERR, "%s", "IEEE19051_SendMsgApAutoconfigurationWsc error");
        return -1;
    }
    return 0;
}
