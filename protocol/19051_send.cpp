// The senders of IEEE 1905.1 CMDUs: every one opens its own send socket,
// builds one frame and closes the socket on every path, so any thread may
// send at any time.
#define KESTR_REPORT_MODULE "19051_msg"

#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "port/common/bytes.h"
#include "port/common/report.h"
#include "port/common/unique_fd.h"
#include "port/util.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_view.h"

// ---- Senders ----

namespace {

// A destination that cannot be read would leave the frame addressed to
// 00:00:00:00:00:00: the text senders refuse it (the conversion prints why).
bool destination(const char* text, kestr::Mac* out) {
    struct ether_addr da;
    if (mac_str_to_etheraddr(text, &da) != 0)
        return false;
    *out = kestr::Mac::of(da);
    return true;
}

}  // namespace

int kestr::send_cmdu(const char* sender, const Mac& da, const char* tx_interface, int mid,
                     OnAddressFailure on_address_failure, const CmduBuilder& build) {
    if (tx_interface == nullptr) {
        std::puts("tx_interface == NULL");
        return -1;
    }
    // Protocol 0: the socket only sends and never queues received frames.
    kestr::UniqueFd fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        std::puts("Error creating socket() -- you may need to run in sudo mode!");
        return -1;
    }
    param_t param{};
    param.mid = mid;
    param.da = da.ether();
    if (kestr::fill_interface(&param, fd.get(), tx_interface) != 0 &&
        on_address_failure == OnAddressFailure::Stop) {
        kestr::report_line(kestr::LineKind::Error, KESTR_MODULE, sender, __LINE__,
                           "fill_param error");
        return -1;
    }

    ieee1905Message_t frame;
    std::memset(&frame, 0, sizeof frame);
    const int num_bytes = build(&frame, param);
    if (num_bytes <= 0 || num_bytes > static_cast<int>(sizeof frame)) {
        kestr::report_line(
            kestr::LineKind::Error, KESTR_MODULE, sender, __LINE__,
            "num_bytes <= 0 || num_bytes > sizeof(ieee1905Message_t), num_bytes %d\n", num_bytes);
        return -1;
    }
    return sendPacket(fd.get(), param.sa, &frame, num_bytes, param.tx_idx);
}

using kestr::OnAddressFailure;
using kestr::send_cmdu;

namespace {

// The multicast address of Searches, Renews and topology announcements.
constexpr const kestr::Mac& kMulticast = kIeee1905Multicast;

int response_to(const char* sender, const kestr::Mac& to, const char* tx_interface, int mid,
                ap_autoconfig_response_param_t response_param) {
    return send_cmdu(sender, to, tx_interface, mid, OnAddressFailure::GoOn,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketApAutoconfigurationResponse(packet, param,
                                                                               response_param);
                     });
}

int wsc_to(const char* sender, const kestr::Mac& to, const char* tx_interface, int mid,
           wsc_configuration_t* config) {
    return send_cmdu(sender, to, tx_interface, mid, OnAddressFailure::GoOn,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketApAutoconfigurationWsc(packet, param, config);
                     });
}

int wsc_tlv_to(const char* sender, const kestr::Mac& to, const char* tx_interface, int mid,
               ieee1905TLV_t* wsctlv) {
    return send_cmdu(sender, to, tx_interface, mid, OnAddressFailure::GoOn,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketApAutoconfigurationWsc2(packet, param, wsctlv);
                     });
}

}  // namespace

int kestr::send_response(const Mac& to, const char* tx_interface, int mid,
                         ap_autoconfig_response_param_t response_param) {
    return response_to("IEEE19051_SendMsgApAutoconfigurationResponse", to, tx_interface, mid,
                       response_param);
}

int kestr::send_wsc(const Mac& to, const char* tx_interface, int mid, wsc_configuration_t* config) {
    return wsc_to("IEEE19051_SendMsgApAutoconfigurationWsc", to, tx_interface, mid, config);
}

int kestr::send_wsc_tlv(const Mac& to, const char* tx_interface, int mid, ConstBytes tlv) {
    // The builder reads 3 + the TLV's own length bytes; a buffer shorter
    // than that is refused here, so it is never read past its end.
    ByteReader whole(tlv.data(), tlv.size());
    ByteReader value;
    if (!whole.skip(1) || !whole.u16_length_prefixed(&value))
        return -1;
    return wsc_tlv_to("IEEE19051_SendMsgApAutoconfigurationWsc2", to, tx_interface, mid,
                      reinterpret_cast<ieee1905TLV_t*>(const_cast<uint8_t*>(tlv.data())));
}

int IEEE19051_SendMsgApAutoconfigurationSearch(const char* tx_interface, int mid,
                                               ap_autoconfig_search_param_t search_param) {
    return send_cmdu(__func__, kMulticast, tx_interface, mid, OnAddressFailure::GoOn,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketApAutoconfigurationSearch(packet, param,
                                                                             search_param);
                     });
}

int IEEE19051_SendMsgApAutoconfigurationResponse(const char* dest_mac, const char* tx_interface,
                                                 int mid,
                                                 ap_autoconfig_response_param_t response_param) {
    kestr::Mac to;
    if (tx_interface != nullptr && !destination(dest_mac, &to))
        return -1;
    return response_to(__func__, to, tx_interface, mid, response_param);
}

int IEEE19051_SendMsgApAutoconfigurationWsc(const char* dest_mac, const char* tx_interface, int mid,
                                            wsc_configuration_t* config) {
    kestr::Mac to;
    if (tx_interface != nullptr && !destination(dest_mac, &to))
        return -1;
    return wsc_to(__func__, to, tx_interface, mid, config);
}

int IEEE19051_SendMsgApAutoconfigurationWsc2(const char* dest_mac, const char* tx_interface,
                                             int mid, ieee1905TLV_t* wsctlv) {
    kestr::Mac to;
    if (tx_interface != nullptr && !destination(dest_mac, &to))
        return -1;
    return wsc_tlv_to(__func__, to, tx_interface, mid, wsctlv);
}

int IEEE19051_GetWscTlv(wsc_configuration_t* config, u_int8_t* tlvbuf, int maxlen) {
    // The encoder's room counts attribute bytes only; the TLV header comes
    // out of `maxlen` too, so a buffer of `maxlen` bytes is never overrun.
    if (config == nullptr || tlvbuf == nullptr || maxlen < kTlvHeaderLen)
        return -1;
    return get_tlv_wsc(reinterpret_cast<ieee1905TLV_t*>(tlvbuf), maxlen - kTlvHeaderLen, config);
}

int IEEE19051_SendMsgApAutoconfigurationRenew(const char* tx_interface, int mid,
                                              ap_autoconfig_renew_param_t* renew_param) {
    return send_cmdu(__func__, kMulticast, tx_interface, mid, OnAddressFailure::GoOn,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketApAutoconfigurationRenew(packet, param,
                                                                            renew_param);
                     });
}

int IEEE19051_SendMsgTopologyDiscovery(const char* tx_interface, int mid, struct ether_addr almac) {
    // The discovery carries the sending interface's own address in a TLV, so
    // it is worthless without it.
    return send_cmdu(__func__, kMulticast, tx_interface, mid, OnAddressFailure::Stop,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketTopologyDiscovery(packet, param, almac);
                     });
}

int IEEE19051_SendMsgTopologyNotification(const char* tx_interface, int mid,
                                          struct ether_addr almac) {
    return send_cmdu(__func__, kMulticast, tx_interface, mid, OnAddressFailure::GoOn,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketTopologyNotification(packet, param, almac);
                     });
}

int IEEE19051_SendMsgTopologyResponse(const char* da_str, const char* tx_interface, int mid,
                                      device_information_t device_info,
                                      ieee1905BridgingCapability_t capability,
                                      neighborDeviceList list) {
    kestr::Mac to;
    if (tx_interface != nullptr && !destination(da_str, &to))
        return -1;
    return send_cmdu(__func__, to, tx_interface, mid, OnAddressFailure::GoOn,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketTopologyResponse(packet, param, device_info,
                                                                    capability, list);
                     });
}

int IEEE19051_SendMsgTopologyQuery(const char* da_str, const char* tx_interface, int mid) {
    if (tx_interface == nullptr || da_str == nullptr) {
        std::puts("tx_interface == NULL || da_str == NULL");
        return -1;
    }
    kestr::Mac to;
    if (tx_interface != nullptr && !destination(da_str, &to))
        return -1;
    return send_cmdu(__func__, to, tx_interface, mid, OnAddressFailure::GoOn,
                     [](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketTopologyQuery(packet, param);
                     });
}
