// The plaintext of the Encrypted Settings attribute: what the registrar
// seals for one band, and how the enrollee reads it back after decryption.
#define KESTR_REPORT_MODULE "wsc"

#include <openssl/crypto.h>

#include "port/common/report.h"
#include "wsc/encrypt/secret.h"
#include "wsc/encrypt/wps_openssl.h"
#include "wsc/wsc.h"

namespace {

constexpr int kAuthKeyLen = 32;
constexpr int kKwaLen = 8;

}  // namespace

int get_plain_by_settings(wsc_encrypted_settings_t settings, u_int8_t* buf, u_int8_t buflen,
                          u_int8_t* authkey) {
    if (buf == nullptr || authkey == nullptr) {
        OPENSSL_cleanse(&settings, sizeof settings);
        return 0;
    }
    const int room = buflen;
    int used = 0;
    auto next = [&]() { return reinterpret_cast<wscTLV_t*>(buf + used); };

    used += getWscTlvSSID(next(), settings.ssid, room - used);
    used += getWscTlvAuthtype(next(), settings.authentication_type, room - used);
    used += getWscTlvEncrtype(next(), settings.encryption_type, room - used);
    used += getWscTlvNetworkKey(next(), settings.network_key, room - used);

    // The Key Wrap Authenticator binds everything before it to AuthKey.
    kestr::SecretBytes<32> kwa;
    hmac_sha256(authkey, kAuthKeyLen, buf, static_cast<size_t>(used), kwa.data(), nullptr);
    used += getWscTlvKWA(next(), kwa.data(), kKwaLen, room - used);

    // Our copy of the settings holds the network key.
    OPENSSL_cleanse(&settings, sizeof settings);
    return used;
}

int parse_wsc_encrypted_settings_plain(u_int8_t* plain, int plain_len,
                                       wsc_encrypted_settings_t* settings) {
    if (plain == nullptr || settings == nullptr) {
        KESTR_ERR("parameter error\n");
        return -1;
    }
    // Lengths are 16-bit on the wire; a negative length holds nothing.
    const size_t len = plain_len < 0 ? 0 : static_cast<u_int16_t>(plain_len);
    kestr::wsc::AttributeWalk walk(plain, len);
    kestr::wsc::Attribute a;
    while (walk.next(&a)) {
        auto* tlv = reinterpret_cast<wscTLV_t*>(const_cast<u_int8_t*>(a.start));
        // Each parser refuses what does not fit its field; the rest of the
        // plaintext is still read.
        switch (a.type) {
            case WSC_ID_SSID:
                parse_wsc_tlv_32byte(tlv, &settings->ssid);
                break;
            case WSC_ID_AUTH_TYPE:
                parse_wsc_tlv_uint16(tlv, &settings->authentication_type);
                break;
            case WSC_ID_ENCR_TYPE:
                parse_wsc_tlv_uint16(tlv, &settings->encryption_type);
                break;
            case WSC_ID_NETWORK_KEY:
                parse_wsc_tlv_64byte(tlv, &settings->network_key);
                break;
            case WSC_ID_NETWORK_KEY_INDEX:
                parse_wsc_tlv_uint8(tlv, &settings->network_key_index);
                break;
            case WSC_ID_MAC_ADDR:
                parse_wsc_tlv_6byte(tlv, &settings->mac);
                break;
            case WSC_ID_VENDOR_EXT:
                parse_wsc_tlv_1024byte(tlv, &settings->vendor_extension);
                break;
            case WSC_ID_KEY_WRAP_AUTH:
                parse_wsc_tlv_8byte(tlv, &settings->key_wrap_authenticator);
                break;
            case WSC_ID_NEW_PASSWORD:
                parse_wsc_tlv_64byte(tlv, &settings->new_password);
                break;
            case WSC_ID_DEVICE_PASSWORD_ID:
                parse_wsc_tlv_uint16(tlv, &settings->device_password_id);
                break;
            default:
                break;
        }
    }
    return 0;
}
