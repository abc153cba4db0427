// The enrollee's registration: M1 out to the registrar that answered the
// Search, the M2 that answers it opened and its settings saved as a new
// numbered entry of the band.
#define KESTR_REPORT_MODULE "kestrd_apclone"

#include <syslog.h>

#include <cstring>
#include <new>

#include "daemon/kestrd_apclone.h"
#include "daemon/kestrd_wsc_fill.h"
#include "port/19051_port.h"
#include "port/common/bytes.h"
#include "port/common/common.h"
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

namespace {

char g_br0[] = "br0";

// An M1 that cannot be sent or recorded gives its key pair back at once:
// no request will expire to do it.
int give_up_m1(DH** dh) {
    reg_proto_delete_dhkeypair(dh);
    return -1;
}

}  // namespace

int getWscConfigurationM1(wsc_configuration_t* config, int freqBand, DH** enrolle_DHSecret) {
    if (config == nullptr || enrolle_DHSecret == nullptr)
        return -1;
    kestr::fill::number(&config->version, 0x10);
    kestr::fill::number(&config->message_type, MessageType_M1);

    IEEE19051Port_GetUUID(config->UUIDE.val, sizeof config->UUIDE.val);
    config->UUIDE.valid_len = sizeof config->UUIDE.val;
    config->UUIDE.valid = 1;

    struct ether_addr own;
    std::memset(&own, 0, sizeof own);
    IEEE19051Port_GetMacByInterface(g_br0, &own);
    kestr::fill::bytes(&config->mac, own.ether_addr_octet, sizeof own.ether_addr_octet);

    linux_random(config->enrollee_nonce.val, kWscNonceLen);
    config->enrollee_nonce.valid_len = kWscNonceLen;
    config->enrollee_nonce.valid = 1;

    // Sent even when no key pair could be made: its public key is then all
    // zero and the registrar's M2 will not open.
    generatePublicKey(config->public_key.val, kDhPublicKeyLen, enrolle_DHSecret);
    config->public_key.valid_len = kDhPublicKeyLen;
    config->public_key.valid = 1;

    kestr::fill::constants(config, freqBand);
    kestr::fill::number(&config->wifi_simple_configuration_state, 0);
    kestr::fill::identity(config);
    return 0;
}

int createRequestInfoM1(IEEE19051_Info_t* info, int mid, int /*freqBand*/, char* destmac,
                        void* extraData) {
    if (info == nullptr)
        return -1;
    std::memset(info, 0, sizeof *info);
    info->mid = mid;
    info->msgType = IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC;
    info->isMulticast = 0;
    IEEE19051Port_GetMacByInterface(g_br0, &info->srcMac);
    mac_str_to_etheraddr(destmac, &info->destMac);
    info->sendAbsTime = getSysRunningTime();
    info->timeout = kRequestLifetimeSeconds;
    info->responseHandler = continueAfterM1;
    info->timeoutHandler = requestTimeout;
    info->extraData = extraData;
    info->extraDataType = RequestExtraDataType_M1;
    return 0;
}

int sendM1(char* destmac, int freqBand) {
    KESTR_INFO("sendM1\n");
    const int mid = IEEE19051_GenMid();

    wsc_configuration_t config;
    std::memset(&config, 0, sizeof config);
    DH* dh = nullptr;
    getWscConfigurationM1(&config, freqBand, &dh);

    // The M1 is built once and kept byte for byte: its bytes are needed again
    // to check the Authenticator of the M2 that answers it.
    u_int8_t wsctlv[kCmduContentLen] = {};
    if (IEEE19051_GetWscTlv(&config, wsctlv, sizeof wsctlv) < 0)
        return give_up_m1(&dh);
    if (IEEE19051_SendMsgApAutoconfigurationWsc2(destmac, g_br0, mid,
                                                 reinterpret_cast<ieee1905TLV_t*>(wsctlv)) < 0) {
        syslog(LOG_ERR, "%s", "IEEE19051_SendMsgApAutoconfigurationWsc error");
        return give_up_m1(&dh);
    }

    auto* extra = new (std::nothrow) RequestExtraDataM1_t;
    if (extra == nullptr) {
        KESTR_ERR("extraData == NULL\n");
        return give_up_m1(&dh);
    }
    std::memset(extra, 0, sizeof *extra);
    extra->dh = dh;
    std::memcpy(extra->wsctlv, wsctlv, sizeof extra->wsctlv);
    std::memcpy(extra->enrollee_nonce, config.enrollee_nonce.val, sizeof extra->enrollee_nonce);

    IEEE19051_Info_t info;
    createRequestInfoM1(&info, mid, freqBand, destmac, extra);
    IEEE19051_AddRequestRecord(info);
    IEEE19051_Info_t recorded;
    if (IEEE19051_GetRequestRecordInfoByMid(info.msgType, mid, &recorded) != 0) {
        delete extra;
        return give_up_m1(&dh);
    }
    kestr::note_m1_recorded();
    return 0;
}

int msgApcloneProcesM2(int /*type*/, u_int8_t* buf, int recvlen) {
    if (buf == nullptr)
        return -1;
    struct ether_addr registrar;
    IEEE19051_GetEtherSmac(buf, &registrar);

    wsc_configuration_t config;
    std::memset(&config, 0, sizeof config);
    const int total = IEEE19051_GetTlvTotalNumber(buf);
    for (int i = 0; i < total; ++i) {
        u_int8_t* tlv = IEEE19051_GetTlvByNumber(buf, i);
        if (tlv == nullptr)
            break;
        IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv), &config);
    }

    // Held from the look-up until the handler returns, so the M1 request's
    // key pair and kept M1 cannot be freed by its expiry meanwhile.
    kestr::RequestUseGuard use;
    if (IEEE19051_ListEmpty() == 1)
        return 0;
    IEEE19051_Info_t info;
    std::memset(&info, 0, sizeof info);
    if (IEEE19051_GetRequestRecordInfoByEnrolleeNonce(config.enrollee_nonce.val,
                                                      IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC,
                                                      registrar, &info) != 0) {
        return 0;
    }
    if (info.responseHandler != nullptr)
        info.responseHandler(buf, &recvlen, &info);
    M2_decrypt_success.store(1);
    return 0;
}

int continueAfterM1(void* response, void* /*responseLen*/, void* requestInfo) {
    if (response == nullptr || requestInfo == nullptr)
        return -1;
    auto* frame = static_cast<u_int8_t*>(response);
    const auto* request = static_cast<const IEEE19051_Info_t*>(requestInfo);

    wsc_configuration_t config;
    std::memset(&config, 0, sizeof config);
    const int total = IEEE19051_GetTlvTotalNumber(frame);
    for (int i = 0; i < total; ++i) {
        u_int8_t* tlv = IEEE19051_GetTlvByNumber(frame, i);
        if (tlv == nullptr)
            return 0;
        if (tlv[0] != IEEE1905_TLV_TYPE_WPS)
            continue;
        IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv), &config);
        if (config.message_type.valid != 1 || config.message_type.val != MessageType_M2)
            continue;

        struct ether_addr own;
        std::memset(&own, 0, sizeof own);
        IEEE19051Port_GetMacByInterface(g_br0, &own);
        if (request->extraData == nullptr)
            return -1;
        auto* m1 = static_cast<RequestExtraDataM1_t*>(request->extraData);

        wsc_encrypted_settings_t settings;
        std::memset(&settings, 0, sizeof settings);
        kestr::WipeOnExit wipe_settings(&settings, sizeof settings);
        const int m1len = kestr::load_be16(m1->wsctlv + 1);
        const int m2len = kestr::load_be16(tlv + 1);
        if (IEEE19051_ParseTlvWscEncryptedSettings(&config, m1->dh, own.ether_addr_octet, &settings,
                                                   m1->wsctlv + kTlvHeaderLen, m1len,
                                                   tlv + kTlvHeaderLen, m2len) < 0) {
            KESTR_ERR("Err:IEEE19051_ParseTlvWscEncryptedSettings\n");
            return -1;
        }
        if (config.authenticator.valid == 1) {
            print_packet(config.authenticator.val, config.authenticator.valid_len);
        }
        // The M2 decides the band its settings belong to.
        const RFBands_e band = config.rf_bands.val == RFBands_2P4G ? RFBands_2P4G : RFBands_5G;
        saveApcloneInfo(band, settings);
    }
    return 0;
}

void saveApcloneInfo(RFBands_e band, wsc_encrypted_settings_t settings) {
    kestr::WipeOnExit wipe_settings(&settings, sizeof settings);
    if (settings.encryption_type.val == 2) {
        KESTR_ERR("Err: not save, not support WEP\n");
        return;
    }
    const int is5G = band == RFBands_2P4G ? 0 : 1;
    const int count = IEEE19051Port_GetCount(is5G) + 1;
    // The entry first and the count last: whoever reads the count finds a
    // complete entry behind it.
    IEEE19051Port_SetSSID(is5G, count, settings.ssid.val, settings.ssid.valid_len);
    IEEE19051Port_SetNetworkKey(is5G, count, settings.network_key.val,
                                settings.network_key.valid_len);
    IEEE19051Port_SetAuthType(is5G, count, settings.authentication_type.val);
    IEEE19051Port_SetEncrType(is5G, count, settings.encryption_type.val);
    IEEE19051Port_SetCount(is5G, count);
}
