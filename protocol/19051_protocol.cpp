#include "protocol/19051_protocol.h"

#include <cstring>

#include "port/common/bytes.h"
#include "port/util.h"

using kestr::ByteWriter;

const char* const ieee1905MessageTypeDesc[kIeee1905MessageTypeCount] = {
    "IEEE1905_MSG_TYPE_TOPOLOGY_DISCOVERY",
    "IEEE1905_MSG_TYPE_TOPOLOGY_NOTIFICATION",
    "IEEE1905_MSG_TYPE_TOPOLOGY_QUERY",
    "IEEE1905_MSG_TYPE_TOPOLOGY_RESPONSE",
    "IEEE1905_MSG_TYPE_VENDOR_SPECIFIC",
    "IEEE1905_MSG_TYPE_LINK_METRIC_QUERY",
    "IEEE1905_MSG_TYPE_LINK_METRIC_RESPONSE",
    "IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH",
    "IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_RESPONSE",
    "IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC ",
    "IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_RENEW",
    "IEEE1905_MSG_TYPE_PB_EVENT_NOTIFICATION",
    "IEEE1905_MSG_TYPE_PB_JOIN_NOTIFICATION",
    "IEEE1905_MSG_TYPE_RESERVED",
};

const char* const ieee1905TlvTypeDesc[kIeee1905TlvTypeCount] = {
    "IEEE1905_TLV_TYPE_END_OF_MESSAGE",
    "IEEE1905_TLV_TYPE_AL_ID",
    "IEEE1905_TLV_TYPE_MAC_ID",
    "IEEE1905_TLV_TYPE_DEVICE_INFORMATION",
    "IEEE1905_TLV_TYPE_DEVICE_BRIDGING_CAPABILITY",
    "IEEE1905_TLV_TYPE_MEDIA_TYPE",
    "IEEE1905_TLV_TYPE_LEGACY_NEIGHBOR",
    "IEEE1905_TLV_TYPE_NEIGHBOR_DEVICE",
    "IEEE1905_TLV_TYPE_LINK_METRIC_QUERY",
    "IEEE1905_TLV_TYPE_TRANSMITTER_LINK_METRIC_RESPONSE",
    "IEEE1905_TLV_TYPE_RECEIVER_LINK_METRIC_RESPONSE",
    "IEEE1905_TLV_TYPE_VENDOR_SPECIFIC",
    "IEEE1905_TLV_TYPE_RESULT_CODE",
    "IEEE1905_TLV_TYPE_SEARCHED_ROLE",
    "IEEE1905_TLV_TYPE_FREQ_BAND",
    "IEEE1905_TLV_TYPE_SUPPORTED_ROLE",
    "IEEE1905_TLV_TYPE_SUPPORTED_FREQ_BAND",
    "IEEE1905_TLV_TYPE_WPS",
    "IEEE1905_TLV_TYPE_PUSH_BUTTON_EVENT",
    "IEEE1905_TLV_TYPE_PUSH_BUTTON_JOIN",
    "IEEE1905_TLV_TYPE_RESERVED",
};

static_assert(IEEE1905_MSG_TYPE_RESERVED + 1 == kIeee1905MessageTypeCount, "one name per type");
static_assert(IEEE1905_TLV_TYPE_RESERVED + 1 == kIeee1905TlvTypeCount, "one name per type");

const char* IEEE19051_MessageTypeDesc(int type) {
    if (type < 0 || type >= kIeee1905MessageTypeCount)
        return "UNKNOWN";
    return ieee1905MessageTypeDesc[type];
}

const char* IEEE19051_TlvTypeDesc(int type) {
    if (type < 0 || type >= kIeee1905TlvTypeCount)
        return "UNKNOWN";
    return ieee1905TlvTypeDesc[type];
}

namespace {

// ---- TLVs, written into a bounded writer ----

void put_address_tlv(ByteWriter& w, uint8_t type, const struct ether_addr& mac) {
    w.u8(type);
    const size_t len = w.begin_u16_length();
    w.bytes(mac.ether_addr_octet, ETH_ALEN);
    w.end_u16_length(len);
}

void put_byte_tlv(ByteWriter& w, uint8_t type, uint8_t value) {
    w.u8(type);
    const size_t len = w.begin_u16_length();
    w.u8(value);
    w.end_u16_length(len);
}

// Counts beyond the records' arrays are the caller's fault; they are refused
// before anything is written, so the encoders never read past a record.
bool fits(const device_information_t& info) {
    if (info.num > INTERFACE_TOTAL_MAX)
        return false;
    for (int i = 0; i < info.num; ++i) {
        if (info.interface[i].length > MEDIA_SPECIFIC_INFO_MAX)
            return false;
    }
    return true;
}

bool fits(const ieee1905BridgingCapability_t& capability) {
    if (capability.m > BRIDGING_TUPLE_MAX)
        return false;
    for (int t = 0; t < capability.m; ++t) {
        if (capability.tuple[t].k > BRIDGING_TUPLE_MAC_MAX)
            return false;
    }
    return true;
}

bool fits(const neighborDeviceList& list) {
    return list.num <= NEIGHBOR_DEVICE_LIST_MAX;
}

void put_device_information(ByteWriter& w, const struct ether_addr& almac,
                            const device_information_t& info) {
    if (!fits(info))
        return w.fail();
    w.u8(IEEE1905_TLV_TYPE_DEVICE_INFORMATION);
    const size_t len = w.begin_u16_length();
    w.bytes(almac.ether_addr_octet, ETH_ALEN).u8(info.num);
    for (int i = 0; i < info.num; ++i) {
        const interface_information_t& itf = info.interface[i];
        w.bytes(itf.mac.ether_addr_octet, ETH_ALEN).u16(itf.media_type).u8(itf.length);
        w.bytes(itf.val, itf.length);
    }
    w.end_u16_length(len);
}

void put_bridging_capability(ByteWriter& w, const ieee1905BridgingCapability_t& capability) {
    if (!fits(capability))
        return w.fail();
    w.u8(IEEE1905_TLV_TYPE_DEVICE_BRIDGING_CAPABILITY);
    const size_t len = w.begin_u16_length();
    w.u8(capability.m);
    for (int t = 0; t < capability.m; ++t) {
        const ieee1905BridgingTuple_t& tuple = capability.tuple[t];
        w.u8(tuple.k);
        for (int a = 0; a < tuple.k; ++a)
            w.bytes(tuple.mac[a].ether_addr_octet, ETH_ALEN);
    }
    w.end_u16_length(len);
}

void put_legacy_neighbor(ByteWriter& w, const neighborDeviceList& list) {
    if (!fits(list))
        return w.fail();
    w.u8(IEEE1905_TLV_TYPE_LEGACY_NEIGHBOR);
    const size_t len = w.begin_u16_length();
    for (int i = 0; i < list.num; ++i) {
        w.bytes(list.neighbor[i].local_mac.ether_addr_octet, ETH_ALEN);
        w.bytes(list.neighbor[i].neighbor_mac.ether_addr_octet, ETH_ALEN);
    }
    w.end_u16_length(len);
}

// Runs `put` on a writer over `room` bytes at `tlv`. The TLV's length, or -1
// when `tlv` is null or `put` refused.
template <typename Put>
int encode(void* tlv, size_t room, Put&& put) {
    if (tlv == nullptr)
        return -1;
    ByteWriter w(tlv, room);
    put(w);
    return w.ok() ? static_cast<int>(w.size()) : -1;
}

// ---- Frames ----

void put_ether_header(ByteWriter& w, const param_t& param) {
    w.bytes(param.da.ether_addr_octet, ETH_ALEN)
        .bytes(param.sa.ether_addr_octet, ETH_ALEN)
        .u16(kIeee1905EtherType);
}

void put_cmdu_header(ByteWriter& w, const param_t& param, ieee1905MessageType_e type,
                     uint8_t flags) {
    put_ether_header(w, param);
    w.u8(0)     // message version
        .u8(0)  // reserved
        .u16(static_cast<uint16_t>(type))
        .u16(static_cast<uint16_t>(param.mid))  // only the low 16 bits travel
        .u8(0)  // fragment identifier: every CMDU is a single fragment
        .u8(flags);
}

// The frame's length with its end-of-message TLV. The three zero bytes are
// written when they fit; when they do not, the length still counts them and
// exceeds 1514, which the senders refuse.
int finish_cmdu(ByteWriter& w) {
    if (!w.ok())
        return -1;
    const size_t len = w.size() + kTlvHeaderLen;
    if (w.room() >= static_cast<size_t>(kTlvHeaderLen))
        w.zeros(kTlvHeaderLen);
    return static_cast<int>(len);
}

// Runs `put_tlvs` after the headers of a `type` message in `packet`.
template <typename PutTlvs>
int build(ieee1905Message_t* packet, const param_t& param, ieee1905MessageType_e type,
          uint8_t flags, PutTlvs&& put_tlvs) {
    if (packet == nullptr)
        return -1;
    ByteWriter w(packet, sizeof *packet);
    put_cmdu_header(w, param, type, flags);
    put_tlvs(w);
    return finish_cmdu(w);
}

}  // namespace

// ---- TLV encoders ----

int getTlvAlId(ieee1905SingleAddressTLV_t* tlv, struct ether_addr mac) {
    return encode(tlv, sizeof *tlv,
                  [&](ByteWriter& w) { put_address_tlv(w, IEEE1905_TLV_TYPE_AL_ID, mac); });
}

int getTlvMacId(ieee1905SingleAddressTLV_t* tlv, struct ether_addr mac) {
    return encode(tlv, sizeof *tlv,
                  [&](ByteWriter& w) { put_address_tlv(w, IEEE1905_TLV_TYPE_MAC_ID, mac); });
}

int getTlvSearchRole(ieee1905APAutoConfigSearchedRoleTLV_t* tlv, uint8_t role) {
    return encode(tlv, sizeof *tlv,
                  [&](ByteWriter& w) { put_byte_tlv(w, IEEE1905_TLV_TYPE_SEARCHED_ROLE, role); });
}

int getTlvFreqBand(ieee1905APAutoConfigFreqBandTLV_t* tlv, uint8_t freqBand) {
    return encode(tlv, sizeof *tlv,
                  [&](ByteWriter& w) { put_byte_tlv(w, IEEE1905_TLV_TYPE_FREQ_BAND, freqBand); });
}

int getTlvSupportRole(ieee1905APAutoConfigSupportedRoleTLV_t* tlv, uint8_t role) {
    return encode(tlv, sizeof *tlv,
                  [&](ByteWriter& w) { put_byte_tlv(w, IEEE1905_TLV_TYPE_SUPPORTED_ROLE, role); });
}

int getTlvSupportFreqBand(ieee1905APAutoConfigSupportedFreqBandTLV_t* tlv, uint8_t freqBand) {
    return encode(tlv, sizeof *tlv, [&](ByteWriter& w) {
        put_byte_tlv(w, IEEE1905_TLV_TYPE_SUPPORTED_FREQ_BAND, freqBand);
    });
}

int getTlvVendorSpecific(ieee1905VendorSpecificHeaderTLV_t* vstlv) {
    return encode(vstlv, sizeof *vstlv, [](ByteWriter& w) {
        w.u8(IEEE1905_TLV_TYPE_VENDOR_SPECIFIC);
        const size_t len = w.begin_u16_length();
        w.bytes(kVendorOui, sizeof kVendorOui);
        w.end_u16_length(len);
    });
}

int getTlvDeviceInformation(ieee1905DeviceInformationTLV_t* tlv, struct ether_addr almac,
                            device_information_t device_info) {
    return encode(tlv, kDeviceInformationTlvMax,
                  [&](ByteWriter& w) { put_device_information(w, almac, device_info); });
}

int getTlvDeviceBridgingCapability(ieee1905DeviceBridgingCapabilityTLV_t* tlv,
                                   ieee1905BridgingCapability_t capability) {
    return encode(tlv, kBridgingCapabilityTlvMax,
                  [&](ByteWriter& w) { put_bridging_capability(w, capability); });
}

int getTlvLegacyNeighbor(ieee1905NeighborDeviceListTLV_t* tlv, neighborDeviceList list) {
    return encode(tlv, kLegacyNeighborTlvMax, [&](ByteWriter& w) { put_legacy_neighbor(w, list); });
}

// ---- Builders ----

void fillEtherHeader(ieee1905Message_t* packet, param_t param) {
    if (packet == nullptr)
        return;
    ByteWriter w(packet, kEtherHeaderLen);
    put_ether_header(w, param);
}

int IEEE19051_GetPacketApAutoconfigurationSearch(ieee1905Message_t* packet, param_t param,
                                                 ap_autoconfig_search_param_t search_param) {
    return build(packet, param, IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH,
                 kCmduFlagsRelayedMulticast, [&](ByteWriter& w) {
                     put_address_tlv(w, IEEE1905_TLV_TYPE_AL_ID, search_param.almac);
                     put_byte_tlv(w, IEEE1905_TLV_TYPE_SEARCHED_ROLE, search_param.role);
                     put_byte_tlv(w, IEEE1905_TLV_TYPE_FREQ_BAND, search_param.freq_band);
                 });
}

int IEEE19051_GetPacketApAutoconfigurationResponse(ieee1905Message_t* packet, param_t param,
                                                   ap_autoconfig_response_param_t response_param) {
    return build(packet, param, IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_RESPONSE, kCmduFlagsUnicast,
                 [&](ByteWriter& w) {
                     put_byte_tlv(w, IEEE1905_TLV_TYPE_SUPPORTED_ROLE, response_param.support_role);
                     put_byte_tlv(w, IEEE1905_TLV_TYPE_SUPPORTED_FREQ_BAND,
                                  response_param.support_freq_band);
                 });
}

int IEEE19051_GetPacketApAutoconfigurationRenew(ieee1905Message_t* packet, param_t param,
                                                ap_autoconfig_renew_param_t* renew_param) {
    if (renew_param == nullptr)
        return -1;
    return build(packet, param, IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_RENEW,
                 kCmduFlagsRelayedMulticast, [&](ByteWriter& w) {
                     put_address_tlv(w, IEEE1905_TLV_TYPE_AL_ID, renew_param->almac);
                     put_byte_tlv(w, IEEE1905_TLV_TYPE_SUPPORTED_ROLE, renew_param->support_role);
                     put_byte_tlv(w, IEEE1905_TLV_TYPE_SUPPORTED_FREQ_BAND,
                                  renew_param->support_freq_band);
                 });
}

int IEEE19051_GetPacketApAutoconfigurationWsc(ieee1905Message_t* packet, param_t param,
                                              wsc_configuration_t* config) {
    if (packet == nullptr || config == nullptr)
        return -1;
    // The attributes get the content area less the TLV's own header, so the
    // encoder can never write past the frame.
    uint8_t tlv[kCmduContentLen];
    const int tlv_len =
        get_tlv_wsc(reinterpret_cast<ieee1905TLV_t*>(tlv), kCmduContentLen - kTlvHeaderLen, config);
    if (tlv_len < 0)
        return -1;
    return build(packet, param, IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC, kCmduFlagsUnicast,
                 [&](ByteWriter& w) { w.bytes(tlv, static_cast<size_t>(tlv_len)); });
}

int IEEE19051_GetPacketApAutoconfigurationWsc2(ieee1905Message_t* packet, param_t param,
                                               ieee1905TLV_t* wsctlv) {
    if (wsctlv == nullptr)
        return -1;
    // 3 + the TLV's own length bytes are copied, when they fit the content.
    const kestr::ByteReader tlv = kestr::ByteReader::self_delimited(wsctlv, 1, kTlvHeaderLen);
    if (tlv.remaining() > static_cast<size_t>(kCmduContentLen))
        return -1;
    return build(packet, param, IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC, kCmduFlagsUnicast,
                 [&](ByteWriter& w) { w.bytes(tlv.bytes_view()); });
}

int IEEE19051_GetPacketTopologyDiscovery(ieee1905Message_t* packet, param_t param,
                                         struct ether_addr almac) {
    return build(packet, param, IEEE1905_MSG_TYPE_TOPOLOGY_DISCOVERY, kCmduFlagsUnicast,
                 [&](ByteWriter& w) {
                     put_address_tlv(w, IEEE1905_TLV_TYPE_AL_ID, almac);
                     put_address_tlv(w, IEEE1905_TLV_TYPE_MAC_ID, param.sa);
                 });
}

int IEEE19051_GetPacketTopologyNotification(ieee1905Message_t* packet, param_t param,
                                            struct ether_addr almac) {
    return build(packet, param, IEEE1905_MSG_TYPE_TOPOLOGY_NOTIFICATION, kCmduFlagsRelayedMulticast,
                 [&](ByteWriter& w) { put_address_tlv(w, IEEE1905_TLV_TYPE_AL_ID, almac); });
}

int IEEE19051_GetPacketTopologyQuery(ieee1905Message_t* packet, param_t param) {
    return build(packet, param, IEEE1905_MSG_TYPE_TOPOLOGY_QUERY, kCmduFlagsUnicast,
                 [](ByteWriter&) {});
}

int IEEE19051_GetPacketTopologyResponse(ieee1905Message_t* packet, param_t param,
                                        device_information_t device_info,
                                        ieee1905BridgingCapability_t capability,
                                        neighborDeviceList list) {
    return build(packet, param, IEEE1905_MSG_TYPE_TOPOLOGY_RESPONSE, kCmduFlagsUnicast,
                 [&](ByteWriter& w) {
                     put_device_information(w, param.sa, device_info);
                     put_bridging_capability(w, capability);
                     put_legacy_neighbor(w, list);
                 });
}

int IEEE19051_GetInterfaceInformation(interface_information_t* info, const char* mac,
                                      ieee1905MediaType_e type, int desc) {
    if (info == nullptr)
        return -1;
    mac_str_to_etheraddr(mac, &info->mac);  // a bad text leaves the address as it was
    info->media_type = IEEE19051_MeidaType(type, desc);
    switch (type) {
        case IEEE1905_MEDIA_TYPE_IEEE802_11: {
            ieee802_11SpecificInformation_t wifi{};
            wifi.bssid = info->mac;
            info->length = sizeof wifi;
            std::memcpy(info->val, &wifi, sizeof wifi);
            break;
        }
        case IEEE1905_MEDIA_TYPE_IEEE1901: {
            const ieee1901SpecificInformation_t plc{};
            info->length = sizeof plc;
            std::memcpy(info->val, &plc, sizeof plc);
            break;
        }
        default:
            info->length = 0;
            break;
    }
    return 0;
}
