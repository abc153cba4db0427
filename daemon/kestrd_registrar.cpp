#define KESTR_REPORT_MODULE "kestrd_apclone"

#include "daemon/kestrd_registrar.h"

#include <syslog.h>

#include <cstring>
#include <optional>

#include "daemon/kestrd_wsc_fill.h"
#include "port/19051_port.h"
#include "port/common/report.h"
#include "protocol/19051_msg.h"
#include "protocol/debug.h"
#include "protocol/mid.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/encrypt/secret.h"
#include "wsc/encrypt/wps_openssl.h"

using kestr::Band;
using kestr::ByteReader;
using kestr::ConstBytes;

namespace {

constexpr size_t kSsidMax = 32;
constexpr size_t kNetworkKeyMax = 64;
constexpr int kPlainRoom = 254;
constexpr int kSealBufferLen = 2046;

bool serves(Band band) {
    return (band == Band::g5() ? IEEE19051Port_IsSupport5G() : IEEE19051Port_IsSupport2P4G()) != 0;
}

// The band a Search is answered with: the one searched for when this device
// serves it, else the other one; a value that names no band gets 2.4 GHz
// without asking. None when the device serves neither band.
std::optional<Band> answer_band(uint8_t searched) {
    if (searched > kIeee1905FreqBand5G)
        return Band::g2p4();
    const Band wanted = Band::from_ieee1905(searched);
    const Band other = wanted == Band::g5() ? Band::g2p4() : Band::g5();
    if (serves(wanted))
        return wanted;
    if (serves(other))
        return other;
    return std::nullopt;
}

ConstBytes text_bytes(const char* text, size_t max) {
    return ConstBytes(reinterpret_cast<const uint8_t*>(text), strnlen(text, max));
}

// The band's settings as they are sealed: SSID and key cut to what the
// attributes hold, the key present even when empty, the MAC named in M1.
wsc_encrypted_settings_t settings_to_seal(Band band, const wsc_configuration_t& m1) {
    EncryptSetting_t local{};
    kestr::WipeOnExit wipe_local(&local, sizeof local);
    IEEE19051Port_GetEncryptSetting(band.is5G(), &local);

    wsc_encrypted_settings_t s{};
    kestr::wsc::set_bytes(&s.ssid, text_bytes(local.ssid, kSsidMax));
    kestr::wsc::set_bytes(&s.network_key, text_bytes(local.pwd, kNetworkKeyMax));
    kestr::wsc::set(&s.authentication_type, static_cast<u_int16_t>(local.authtype));
    kestr::wsc::set(&s.encryption_type, static_cast<u_int16_t>(local.encrtype));
    kestr::wsc::set_bytes(&s.mac, ConstBytes(m1.mac.val, sizeof m1.mac.val));
    return s;
}

// Encrypted Settings: IV || the plaintext of `settings` sealed under the keys.
void seal(wsc_configuration_1024byte_t* sealed, const wsc_encrypted_settings_t& settings,
          wps_keys_t& keys) {
    kestr::SecretBytes<kSealBufferLen> plain;
    const int plain_len = get_plain_by_settings(settings, plain.data(), kPlainRoom, keys.authKey);
    kestr::SecretBytes<kSealBufferLen> cipher;
    u_int8_t iv[kWscIvLen] = {};
    int cipher_len = 0;
    reg_proto_encrypt_data(plain.data(), plain_len, keys.keyWrapKey, keys.authKey, cipher.data(),
                           &cipher_len, iv);
    if (cipher_len < 0 || static_cast<size_t>(cipher_len) > cipher.size())
        cipher_len = 0;
    kestr::ByteWriter w(sealed->val, sizeof sealed->val);
    w.bytes(iv, sizeof iv).bytes(cipher.data(), static_cast<size_t>(cipher_len));
    kestr::wsc::set_length(sealed, w.ok() ? w.size() : sizeof iv);
}

}  // namespace

int msgApcloneProcesSearch(int /*type*/, u_int8_t* buf, int recvlen) {
    KESTR_INFO("msgApcloneProcesSearch\n");
    if (buf == nullptr)
        return 0;
    return kestr::msgApcloneProcesSearch(
        kestr::read_search(kestr::FrameView(buf, recvlen < 0 ? 0 : static_cast<size_t>(recvlen))));
}

int kestr::msgApcloneProcesSearch(const SearchMessage& search) {
    // Every Search is answered, whatever role it asks for and whoever it
    // names as its AL MAC; the answer goes to the frame's sender.
    const std::optional<Band> band = answer_band(search.searched_band);
    if (!band)
        return 0;
    ap_autoconfig_response_param_t response{};
    response.support_role = kIeee1905RoleRegistrar;
    response.support_freq_band = band->ieee1905();
    send_response(search.source, kBridge, search.mid, response);
    return 0;
}

int msgApcloneProcesM1(int /*type*/, u_int8_t* buf, int recvlen) {
    KESTR_INFO("msgApcloneProcesM1\n");
    if (buf == nullptr)
        return -1;
    kestr::WscMessage message;
    kestr::read_wsc(kestr::FrameView(buf, recvlen < 0 ? 0 : static_cast<size_t>(recvlen)),
                    &message);
    return kestr::msgApcloneProcesM1(message);
}

int kestr::msgApcloneProcesM1(const WscMessage& message) {
    // An M2, or any other WSC message sent to a registrar, ends here.
    if (!message.has_m1)
        return -1;
    const wsc_configuration_t& m1 = message.attributes;
    const int mid = IEEE19051_GenMid();
    wsc_configuration_t config{};
    WipeOnExit wipe_config(&config, sizeof config);
    getWscConfigurationM2(&config, m1, band_asked_by_m1(m1.rf_bands), message.m1);
    print_wsc_configuration(config);

    // The M2 goes to the MAC address M1 names, not to the frame's sender.
    Mac enrollee;
    std::memcpy(enrollee.octets.data(), m1.mac.val, enrollee.octets.size());
    if (send_wsc(enrollee, kBridge, mid, &config) < 0) {
        syslog(LOG_ERR, "%s", "IEEE19051_SendMsgApAutoconfigurationWsc error");
        return -1;
    }
    return 0;
}

int getWscConfigurationM2(wsc_configuration_t* config, wsc_configuration_t M1config, int freqBand,
                          u_int8_t* m1wsc, int m1len) {
    if (config == nullptr)
        return -1;
    if (m1wsc == nullptr || m1len < 0 || m1len > kCmduContentLen)
        m1len = 0;
    return kestr::getWscConfigurationM2(config, M1config, Band::from_ieee1905(freqBand),
                                        ByteReader(m1wsc, static_cast<size_t>(m1len)));
}

int kestr::getWscConfigurationM2(wsc_configuration_t* config, const wsc_configuration_t& m1,
                                 Band band, ByteReader m1_bytes) {
    wsc::set(&config->version, kWscVersion);
    wsc::set(&config->message_type, MessageType_M2);
    wsc::set_bytes(&config->enrollee_nonce, ConstBytes(m1.enrollee_nonce.val, kWscNonceLen));
    linux_random(config->registrar_nonce.val, kWscNonceLen);
    wsc::set_length(&config->registrar_nonce, kWscNonceLen);
    IEEE19051Port_GetUUID(config->UUIDR.val, sizeof config->UUIDR.val);
    wsc::set_length(&config->UUIDR, sizeof config->UUIDR.val);
    fill::constants(config, band);
    fill::identity(config);

    // A key pair of this exchange only. Should it or the derivation fail, the
    // M2 still goes out, with keys the enrollee cannot verify. M1's fields
    // count as zeros when absent.
    wps_keys_t keys{};
    WipeOnExit wipe_keys(&keys, sizeof keys);
    {
        DhKeyPair key_pair = new_key_pair(config->public_key.val);
        wsc::set_length(&config->public_key, kDhPublicKeyLen);
        get_keys(const_cast<u_int8_t*>(m1.public_key.val), key_pair.get(),
                 const_cast<u_int8_t*>(m1.enrollee_nonce.val), config->registrar_nonce.val,
                 const_cast<u_int8_t*>(m1.mac.val), &keys);
    }

    wsc_encrypted_settings_t settings = settings_to_seal(band, m1);
    WipeOnExit wipe_settings(&settings, sizeof settings);
    seal(&config->encrypted_settings, settings, keys);

    // The Authenticator covers M1 as the enrollee sent it and M2 as it goes
    // out, without the Authenticator itself.
    u_int8_t m2tlv[kCmduContentLen] = {};
    const int m2len = IEEE19051_GetWscTlv(config, m2tlv, sizeof m2tlv);
    if (m2len < 0)
        return -1;
    const ByteReader m2_bytes = tlv_value(ConstBytes(m2tlv, static_cast<size_t>(m2len)));
    u_int8_t digest[32];
    hmac_sha256_two(keys.authKey, sizeof keys.authKey, m1_bytes.data(), m1_bytes.remaining(),
                    m2_bytes.data(), m2_bytes.remaining(), digest);
    wsc::set_bytes(&config->authenticator, ConstBytes(digest, kWscAuthenticatorLen));
    return 0;
}
