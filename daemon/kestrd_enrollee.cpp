#define KESTR_REPORT_MODULE "kestrd_apclone"

#include "daemon/kestrd_enrollee.h"

#include <syslog.h>

#include <cstring>
#include <new>

#include "daemon/kestrd_run.h"
#include "daemon/kestrd_wsc_fill.h"
#include "port/19051_port.h"
#include "port/common/common.h"
#include "port/common/report.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse_wsc.h"
#include "protocol/debug.h"
#include "protocol/mid.h"
#include "wsc/encrypt/secret.h"
#include "wsc/encrypt/wps_openssl.h"

using kestr::Band;

namespace {

// A request sent now from br0, living 3 s, ended by requestTimeout.
IEEE19051_Info_t request_sent_now(int mid, int type, RESPONSE_HANDLER on_answer) {
    IEEE19051_Info_t info{};
    info.mid = mid;
    info.msgType = type;
    info.srcMac = kestr::interface_mac(kestr::kBridge).ether();
    info.sendAbsTime = getSysRunningTime();
    info.timeout = kRequestLifetimeSeconds;
    info.responseHandler = on_answer;
    info.timeoutHandler = requestTimeout;
    return info;
}

IEEE19051_Info_t search_request(int mid, Band band) {
    IEEE19051_Info_t info =
        request_sent_now(mid, IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH, continueAfterSearch);
    info.isMulticast = 1;
    info.freqBand = band.ieee1905();
    return info;
}

IEEE19051_Info_t m1_request(int mid, const kestr::Mac& registrar) {
    IEEE19051_Info_t info =
        request_sent_now(mid, IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC, continueAfterM1);
    info.destMac = registrar.ether();
    info.extraDataType = RequestExtraDataType_M1;
    return info;
}

std::unique_ptr<RequestExtraDataM1_t> new_registration() {
    try {
        return std::make_unique<RequestExtraDataM1_t>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// The run of one band. Nothing is pending when its Search could not go out
// or be recorded, and no expiry would end it: it ends here.
int start_run(Band band, const char* command) {
    if (kestr::sendSearch(band) != 0) {
        KESTR_ERR_IN(command, "exit:search for %s not sent\n", band.name());
        setProcessState(1);
    }
    return 0;
}

kestr::Mac mac_of_text(const char* text) {
    struct ether_addr a {};
    mac_str_to_etheraddr(text, &a);
    return kestr::Mac::of(a);
}

}  // namespace

// ---- Discovery ----

int IEEE19051_CmdApcloneProcess_2P4G() {
    KESTR_INFO("IEEE19051_CmdApcloneProcess_2P4G\n");
    return start_run(Band::g2p4(), __func__);
}

int IEEE19051_CmdApcloneProcess_5G() {
    KESTR_INFO("IEEE19051_CmdApcloneProcess_5G\n");
    return start_run(Band::g5(), __func__);
}

int sendSearch(int freqBand) {
    return kestr::sendSearch(Band::from_ieee1905(freqBand));
}

int kestr::sendSearch(Band band) {
    KESTR_INFO("sendSearch\n");
    const int mid = IEEE19051_GenMid();
    // A registrar may answer before the Search is recorded; the receive task
    // waits for this lock before it looks for the request, so the Response is
    // never dropped for arriving too early.
    RequestUseGuard use;

    ap_autoconfig_search_param_t search{};
    search.role = kIeee1905RoleRegistrar;
    search.freq_band = band.ieee1905();
    if (IEEE19051Port_GetAlMac(&search.almac) < 0) {
        syslog(LOG_ERR, "%s", "Err:IEEE19051Port_GetAlMac");
        return -1;
    }
    if (IEEE19051_SendMsgApAutoconfigurationSearch(kBridge, mid, search) < 0) {
        syslog(LOG_ERR, "%s", "IEEE19051_SendMsgApAutoconfigurationSearch error");
        return -1;
    }
    if (!add_request(search_request(mid, band), nullptr)) {
        // The Search went out but nothing will expire: its band counts as
        // searched, and the caller ends the run.
        IEEE19051Port_SetDone(band.is5G(), 1);
        return -1;
    }
    return 0;
}

int createRequestInfoSearch(IEEE19051_Info_t* info, int mid, int freqBand) {
    if (info == nullptr)
        return -1;
    *info = search_request(mid, Band::from_ieee1905(freqBand));
    return 0;
}

int continueAfterSearch(void* response, void* responseLen, void* requestInfo) {
    // Every Response that reached the Search counts, whatever it says.
    kestr::run_state.receive_response.store(1);
    if (response == nullptr || requestInfo == nullptr)
        return -1;
    return kestr::continueAfterSearch(kestr::read_response(response_frame(response, responseLen)),
                                      *static_cast<const IEEE19051_Info_t*>(requestInfo));
}

int kestr::continueAfterSearch(const ResponseMessage& response, const IEEE19051_Info_t& search) {
    if (!response.has_role || !response.has_band) {
        KESTR_ERR("err:response packet is incomplete\n");
        return -1;
    }
    if (IEEE19051Port_GetRole() == RoleTypeEnrollee &&
        response.supported_role != kIeee1905RoleRegistrar) {
        KESTR_ERR("err:unsupport role\n");
        return -1;
    }
    // The registrar must serve exactly the band searched for.
    if (response.supported_band != search.freqBand) {
        KESTR_ERR("err:unsupport band\n");
        return -1;
    }
    sendM1(response.source, Band::from_ieee1905(search.freqBand));
    return 0;
}

// ---- Registration ----

int sendM1(char* destmac, int freqBand) {
    return kestr::sendM1(mac_of_text(destmac), Band::from_ieee1905(freqBand));
}

int kestr::sendM1(const Mac& registrar, Band band) {
    KESTR_INFO("sendM1\n");
    const int mid = IEEE19051_GenMid();

    wsc_configuration_t config{};
    DhKeyPair key_pair = getWscConfigurationM1(&config, band);

    // The M1 is built once and kept byte for byte: its bytes are needed again
    // to check the Authenticator of the M2 that answers it.
    u_int8_t wsctlv[kCmduContentLen] = {};
    const int tlv_len = IEEE19051_GetWscTlv(&config, wsctlv, sizeof wsctlv);
    if (tlv_len < 0)
        return -1;
    if (send_wsc_tlv(registrar, kBridge, mid, ConstBytes(wsctlv, static_cast<size_t>(tlv_len))) <
        0) {
        syslog(LOG_ERR, "%s", "IEEE19051_SendMsgApAutoconfigurationWsc error");
        return -1;
    }

    std::unique_ptr<RequestExtraDataM1_t> registration = new_registration();
    if (registration == nullptr) {
        KESTR_ERR("extraData == NULL\n");
        return -1;
    }
    registration->dh = std::move(key_pair);
    std::memcpy(registration->wsctlv, wsctlv, sizeof wsctlv);
    std::memcpy(registration->enrollee_nonce, config.enrollee_nonce.val,
                sizeof registration->enrollee_nonce);
    if (!add_request(m1_request(mid, registrar), std::move(registration)))
        return -1;
    run_state.m1_recorded.fetch_add(1);
    return 0;
}

int getWscConfigurationM1(wsc_configuration_t* config, int freqBand, DH** enrolle_DHSecret) {
    if (config == nullptr || enrolle_DHSecret == nullptr)
        return -1;
    *enrolle_DHSecret =
        kestr::getWscConfigurationM1(config, Band::from_ieee1905(freqBand)).release();
    return 0;
}

kestr::DhKeyPair kestr::getWscConfigurationM1(wsc_configuration_t* config, Band band) {
    wsc::set(&config->version, kWscVersion);
    wsc::set(&config->message_type, MessageType_M1);
    IEEE19051Port_GetUUID(config->UUIDE.val, sizeof config->UUIDE.val);
    wsc::set_length(&config->UUIDE, sizeof config->UUIDE.val);
    const Mac own = interface_mac(kBridge);
    wsc::set_bytes(&config->mac, ConstBytes(own.octets.data(), own.octets.size()));
    linux_random(config->enrollee_nonce.val, kWscNonceLen);
    wsc::set_length(&config->enrollee_nonce, kWscNonceLen);
    // Sent even when no key pair could be made: its public key is then all
    // zero and the registrar's M2 will not open.
    DhKeyPair key_pair = new_key_pair(config->public_key.val);
    wsc::set_length(&config->public_key, kDhPublicKeyLen);
    fill::constants(config, band);
    wsc::set(&config->wifi_simple_configuration_state, 0);
    fill::identity(config);
    return key_pair;
}

int createRequestInfoM1(IEEE19051_Info_t* info, int mid, int /*freqBand*/, char* destmac,
                        void* extraData) {
    if (info == nullptr)
        return -1;
    *info = m1_request(mid, mac_of_text(destmac));
    info->extraData = extraData;
    return 0;
}

int msgApcloneProcesM2(int /*type*/, u_int8_t* buf, int recvlen) {
    if (buf == nullptr)
        return -1;
    kestr::WscMessage message;
    kestr::read_wsc(kestr::FrameView(buf, recvlen < 0 ? 0 : static_cast<size_t>(recvlen)),
                    &message);
    return kestr::msgApcloneProcesM2(message);
}

int kestr::msgApcloneProcesM2(const WscMessage& message) {
    // Held from the look-up until the handler returns, so the M1 request's
    // key pair and kept M1 cannot be freed by its expiry meanwhile.
    RequestUseGuard use;
    if (IEEE19051_ListEmpty() == 1)
        return 0;
    u_int8_t nonce[kWscNonceLen];
    std::memcpy(nonce, message.attributes.enrollee_nonce.val, sizeof nonce);
    IEEE19051_Info_t request{};
    if (IEEE19051_GetRequestRecordInfoByEnrolleeNonce(nonce,
                                                      IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC,
                                                      message.source.ether(), &request) != 0)
        return 0;
    continueAfterM1(message, request);
    run_state.M2_decrypt_success.store(1);
    return 0;
}

int continueAfterM1(void* response, void* responseLen, void* requestInfo) {
    if (response == nullptr || requestInfo == nullptr)
        return -1;
    kestr::WscMessage message;
    kestr::read_wsc(response_frame(response, responseLen), &message);
    return kestr::continueAfterM1(message, *static_cast<const IEEE19051_Info_t*>(requestInfo));
}

int kestr::continueAfterM1(const WscMessage& message, const IEEE19051_Info_t& m1_request) {
    if (!message.has_m2)
        return 0;
    const Mac own = interface_mac(kBridge);
    if (m1_request.extraData == nullptr)
        return -1;
    const auto& registration = *static_cast<const RequestExtraDataM1_t*>(m1_request.extraData);

    wsc_encrypted_settings_t settings{};
    WipeOnExit wipe_settings(&settings, sizeof settings);
    if (IEEE19051_ParseTlvWscEncryptedSettings(message.attributes, registration.dh.get(), own,
                                               &settings, registration.m1_attributes(),
                                               message.m2) < 0) {
        KESTR_ERR("Err:IEEE19051_ParseTlvWscEncryptedSettings\n");
        return -1;
    }
    const wsc_configuration_8byte_t& authenticator = message.attributes.authenticator;
    if (authenticator.valid == 1)
        print_packet(ConstBytes(authenticator.val, authenticator.valid_len));
    saveApcloneInfo(band_of_m2(message.attributes.rf_bands), settings);
    return 0;
}

void saveApcloneInfo(RFBands_e band, wsc_encrypted_settings_t settings) {
    kestr::WipeOnExit wipe_settings(&settings, sizeof settings);
    kestr::saveApcloneInfo(Band::from_rf_bands(band), settings);
}

void kestr::saveApcloneInfo(Band band, const wsc_encrypted_settings_t& settings) {
    if (settings.encryption_type.val == WSC_ENCR_WEP) {
        KESTR_ERR("Err: not save, not support WEP\n");
        return;
    }
    const int is5G = band.is5G();
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
