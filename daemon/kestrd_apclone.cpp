// Dispatch and the discovery exchange (Search and Response), and the end of
// an enrollee run.
#include "daemon/kestrd_apclone.h"

#include <syslog.h>

#include <cstring>

#include "port/19051_port.h"
#include "port/common/common.h"
#include "port/common/report.h"
#include "port/util.h"
#include "protocol/19051_frame.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_protocol.h"
#include "protocol/mid.h"
#include "wsc/encrypt/encrypt.h"

std::atomic<int> process_completed{0};
std::atomic<int> receive_response{0};
std::atomic<int> M2_decrypt_success{0};

namespace {

std::atomic<int> g_m1_recorded{0};

char g_br0[] = "br0";

}  // namespace

void kestr::note_m1_recorded() {
    g_m1_recorded.fetch_add(1);
}

int IEEE19051_MsgApcloneProcess(int type, u_int8_t* msg, int msglen) {
    if (msg == nullptr)
        return -1;
    const RoleType_e role = IEEE19051Port_GetRole();
    if (role == RoleTypeEnrollee) {
        if (type == IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_RESPONSE) {
            msgApcloneProcessResponse(type, msg, msglen);
        } else if (type == IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC) {
            msgApcloneProcesM2(type, msg, msglen);
        }
    } else if (role == RoleTypeRegistrar) {
        if (type == IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH) {
            msgApcloneProcesSearch(type, msg, msglen);
        } else if (type == IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC) {
            msgApcloneProcesM1(type, msg, msglen);
        }
    }
    return 0;
}

int msgApcloneProcessResponse(int type, u_int8_t* buf, int recvlen) {
    const int mid = IEEE19051_GetMid(buf);
    // Held from before the look-up until the handler returns: a request being
    // sent and recorded is complete before its answer is looked for, and its
    // extra data cannot be freed by its expiry meanwhile.
    kestr::RequestUseGuard use;
    if (IEEE19051_ListEmpty() == 1)
        return 0;
    IEEE19051_Info_t info;
    std::memset(&info, 0, sizeof info);
    if (IEEE19051_GetRequestRecordInfoByMid(type, mid, &info) != 0)
        return 0;
    if (info.responseHandler != nullptr)
        info.responseHandler(buf, &recvlen, &info);
    return 0;
}

int IEEE19051_CmdApcloneProcess_2P4G() {
    KESTR_INFO("IEEE19051_CmdApcloneProcess_2P4G\n");
    // Nothing is pending when the Search could not go out or be recorded:
    // no expiry would ever end the run, so it ends here.
    if (sendSearch(0) != 0) {
        KESTR_ERR("exit:search for 2.4G not sent\n");
        setProcessState(1);
    }
    return 0;
}

int IEEE19051_CmdApcloneProcess_5G() {
    KESTR_INFO("IEEE19051_CmdApcloneProcess_5G\n");
    if (sendSearch(1) != 0) {
        KESTR_ERR("exit:search for 5G not sent\n");
        setProcessState(1);
    }
    return 0;
}

int sendSearch(int freqBand) {
    KESTR_INFO("sendSearch\n");
    const int mid = IEEE19051_GenMid();
    // A registrar may answer before the Search is recorded; the receive task
    // waits for this lock before it looks for the request, so the Response is
    // never dropped for arriving too early.
    kestr::RequestUseGuard use;

    ap_autoconfig_search_param_t search;
    std::memset(&search, 0, sizeof search);
    search.role = RoleTypeRegistrar;
    search.freq_band = static_cast<u_int8_t>(freqBand);
    if (IEEE19051Port_GetAlMac(&search.almac) < 0) {
        syslog(LOG_ERR, "%s", "Err:IEEE19051Port_GetAlMac");
        return -1;
    }
    if (IEEE19051_SendMsgApAutoconfigurationSearch(g_br0, mid, search) < 0) {
        syslog(LOG_ERR, "%s", "IEEE19051_SendMsgApAutoconfigurationSearch error");
        return -1;
    }

    IEEE19051_Info_t info;
    createRequestInfoSearch(&info, mid, freqBand);
    IEEE19051_AddRequestRecord(info);
    IEEE19051_Info_t recorded;
    if (IEEE19051_GetRequestRecordInfoByMid(info.msgType, mid, &recorded) != 0) {
        // The Search went out but nothing will expire: its band counts as
        // searched, and the caller ends the run.
        IEEE19051Port_SetDone(freqBand != 0 ? 1 : 0, 1);
        return -1;
    }
    return 0;
}

int createRequestInfoSearch(IEEE19051_Info_t* info, int mid, int freqBand) {
    if (info == nullptr)
        return -1;
    std::memset(info, 0, sizeof *info);
    info->mid = mid;
    info->isMulticast = 1;
    info->msgType = IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH;
    IEEE19051Port_GetMacByInterface(g_br0, &info->srcMac);
    info->freqBand = freqBand;
    info->sendAbsTime = getSysRunningTime();
    info->timeout = kRequestLifetimeSeconds;
    info->responseHandler = continueAfterSearch;
    info->timeoutHandler = requestTimeout;
    info->extraData = nullptr;
    info->extraDataType = RequestExtraDataType_Unknown;
    return 0;
}

int continueAfterSearch(void* response, void* /*responseLen*/, void* requestInfo) {
    receive_response.store(1);
    if (response == nullptr || requestInfo == nullptr)
        return -1;
    auto* frame = static_cast<u_int8_t*>(response);
    const auto* search = static_cast<const IEEE19051_Info_t*>(requestInfo);

    bool have_role = false, have_band = false;
    u_int8_t role = 0, band = 0;
    const int total = IEEE19051_GetTlvTotalNumber(frame);
    for (int i = 0; i < total; ++i) {
        u_int8_t* tlv = IEEE19051_GetTlvByNumber(frame, i);
        if (tlv == nullptr)
            break;
        if (tlv[0] == IEEE1905_TLV_TYPE_SUPPORTED_ROLE) {
            if (IEEE19051_ParseTlvSupportedRole(
                    reinterpret_cast<ieee1905APAutoConfigSupportedRoleTLV_t*>(tlv), &role) == 0)
                have_role = true;
        } else if (tlv[0] == IEEE1905_TLV_TYPE_SUPPORTED_FREQ_BAND) {
            if (IEEE19051_ParseTlvSupportedFreqBand(
                    reinterpret_cast<ieee1905APAutoConfigSupportedFreqBandTLV_t*>(tlv), &band) == 0)
                have_band = true;
        }
    }
    if (!have_role || !have_band) {
        KESTR_ERR("err:response packet is incomplete\n");
        return -1;
    }
    if (IEEE19051Port_GetRole() == RoleTypeEnrollee && role != RoleTypeRegistrar) {
        KESTR_ERR("err:unsupport role\n");
        return -1;
    }
    if (band != search->freqBand) {
        KESTR_ERR("err:unsupport band\n");
        return -1;
    }

    struct ether_addr registrar;
    IEEE19051_GetEtherSmac(frame, &registrar);
    char destmac[50] = {};
    mac_etheraddr_to_str(&registrar, destmac, sizeof destmac);
    sendM1(destmac, search->freqBand);
    return 0;
}

void releaseRequestRecord(IEEE19051_Info_t* info) {
    if (info == nullptr)
        return;
    if (info->extraDataType == RequestExtraDataType_M1 && info->extraData != nullptr) {
        auto* m1 = static_cast<RequestExtraDataM1_t*>(info->extraData);
        reg_proto_delete_dhkeypair(&m1->dh);
        delete m1;
        info->extraData = nullptr;
    }
}

void setProcessState(int state) {
    process_completed.store(state);
}

int requestTimeout(void* requestInfo) {
    if (requestInfo == nullptr)
        return 0;
    auto* info = static_cast<IEEE19051_Info_t*>(requestInfo);
    const bool search = info->msgType == IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH;
    const bool m1 = info->msgType == IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC;

    if (search)
        IEEE19051Port_SetDone(info->freqBand != 0 ? 1 : 0, 1);
    releaseRequestRecord(info);
    IEEE19051_DelRequestRecordByMid(info->mid);

    if (search) {
        if (receive_response.load() == 0) {
            KESTR_ERR("exit:send search, but no response\n");
            setProcessState(1);
        } else if (g_m1_recorded.load() == 0) {
            // Responses came, but none led to a recorded M1: no request is
            // left whose expiry would end the run.
            KESTR_ERR("exit:no registration started after search\n");
            setProcessState(1);
        }
    } else if (m1) {
        if (M2_decrypt_success.load() == 1) {
            KESTR_INFO("exit:processing_completed\n");
            setProcessState(2);
        } else {
            KESTR_ERR("exit:send m1 time out\n");
            setProcessState(1);
        }
    }
    return 0;
}

int msgApcloneProcesSearch(int /*type*/, u_int8_t* buf, int /*recvlen*/) {
    KESTR_INFO("msgApcloneProcesSearch\n");
    if (buf == nullptr)
        return 0;
    const int mid = IEEE19051_GetMid(buf);

    u_int8_t searched_role = 0, searched_band = 0;
    struct ether_addr almac;
    std::memset(&almac, 0, sizeof almac);
    const int total = IEEE19051_GetTlvTotalNumber(buf);
    for (int i = 0; i < total; ++i) {
        u_int8_t* tlv = IEEE19051_GetTlvByNumber(buf, i);
        if (tlv == nullptr)
            break;
        switch (tlv[0]) {
            case IEEE1905_TLV_TYPE_AL_ID:
                IEEE19051_ParseTlvSingleAddr(reinterpret_cast<ieee1905SingleAddressTLV_t*>(tlv),
                                             &almac);
                break;
            case IEEE1905_TLV_TYPE_SEARCHED_ROLE:
                IEEE19051_ParseTlvSearchedRole(
                    reinterpret_cast<ieee1905APAutoConfigSearchedRoleTLV_t*>(tlv), &searched_role);
                break;
            case IEEE1905_TLV_TYPE_FREQ_BAND:
                IEEE19051_ParseTlvFreqBand(
                    reinterpret_cast<ieee1905APAutoConfigFreqBandTLV_t*>(tlv), &searched_band);
                break;
            default:
                break;
        }
    }

    // Every Search is answered, whatever role it asks for; the band is the
    // one searched for when this device serves it, else the other one.
    u_int8_t answer_band;
    if (searched_band == 0) {
        if (IEEE19051Port_IsSupport2P4G() != 0) {
            answer_band = 0;
        } else if (IEEE19051Port_IsSupport5G() != 0) {
            answer_band = 1;
        } else {
            return 0;
        }
    } else if (searched_band == 1) {
        if (IEEE19051Port_IsSupport5G() != 0) {
            answer_band = 1;
        } else if (IEEE19051Port_IsSupport2P4G() != 0) {
            answer_band = 0;
        } else {
            return 0;
        }
    } else {
        answer_band = 0;
    }

    struct ether_addr enrollee;
    if (IEEE19051_GetEtherSmac(buf, &enrollee) != 0) {
        KESTR_ERR("Err:IEEE19051_GetEtherSmac error");
        return 0;
    }
    char dest[kMacTextSize] = {};
    mac_etheraddr_to_str(&enrollee, dest, sizeof dest);
    ap_autoconfig_response_param_t response;
    std::memset(&response, 0, sizeof response);
    response.support_role = RoleTypeRegistrar;
    response.support_freq_band = answer_band;
    IEEE19051_SendMsgApAutoconfigurationResponse(dest, g_br0, mid, response);
    return 0;
}
