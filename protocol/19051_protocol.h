// IEEE 1905.1 TLV records, the TLV encoders and message builders of the
// AP-autoconfiguration and topology messages, and the printable names of the
// message and TLV types.
//
// Builders write one whole frame into a zero-filled ieee1905Message_t and
// return the number of bytes to send, end-of-message TLV included, or -1.
// Every encoder and builder writes through a bounded writer: a builder never
// writes outside its frame, an encoder never outside its record.
#pragma once

#include <net/ethernet.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "protocol/19051_frame.h"
#include "wsc/wsc.h"

// 1905.1 codes carried in the role and band TLVs.
constexpr uint8_t kIeee1905RoleRegistrar = 0;
constexpr uint8_t kIeee1905FreqBand2P4G = 0;
constexpr uint8_t kIeee1905FreqBand5G = 1;

// CMDU flags: multicasts that every 1905.1 device relays, and unicasts.
constexpr uint8_t kCmduFlagsRelayedMulticast = kCmduFlagLastFragment | kCmduFlagRelay;  // 0xC0
constexpr uint8_t kCmduFlagsUnicast = kCmduFlagLastFragment;                            // 0x80

// OUI written by getTlvVendorSpecific.
constexpr uint8_t kVendorOui[3] = {0x00, 0x03, 0x7F};
// Value bytes after the OUI that fit one CMDU: 1492 - 3 (TLV header) - 3 (OUI).
constexpr int kVendorValueMax = kCmduContentLen - kTlvHeaderLen - 3;

#pragma pack(push, 1)
// The 3-byte header that every TLV record starts with; the same bytes as
// ieee1905TLV_t without its open-ended value, so that records can embed it.
typedef struct {
    uint8_t type;
    uint16_t length;  // big-endian
} ieee1905TLVHeader_t;

typedef struct {  // AL MAC address (type 1) and MAC address (type 2)
    ieee1905TLVHeader_t tlvHeader;
    struct ether_addr mac;
} ieee1905SingleAddressTLV_t;

typedef struct {
    ieee1905TLVHeader_t tlvHeader;
    uint8_t searchedRole;
} ieee1905APAutoConfigSearchedRoleTLV_t;

typedef struct {
    ieee1905TLVHeader_t tlvHeader;
    uint8_t freqBand;
} ieee1905APAutoConfigFreqBandTLV_t;

typedef struct {
    ieee1905TLVHeader_t tlvHeader;
    uint8_t supportedRole;
} ieee1905APAutoConfigSupportedRoleTLV_t;

typedef struct {
    ieee1905TLVHeader_t tlvHeader;
    uint8_t supportedFreqBand;
} ieee1905APAutoConfigSupportedFreqBandTLV_t;

typedef struct {
    ieee1905TLVHeader_t tlvHeader;
    uint8_t oui[3];
    uint8_t val[];  // length - 3 bytes
} ieee1905VendorSpecificHeaderTLV_t;
#pragma pack(pop)

static_assert(sizeof(ieee1905TLVHeader_t) == sizeof(ieee1905TLV_t), "same TLV header");
static_assert(sizeof(ieee1905SingleAddressTLV_t) == 9, "address TLV is 9 bytes");
static_assert(sizeof(ieee1905APAutoConfigSearchedRoleTLV_t) == 4, "one-byte TLV is 4 bytes");

typedef struct {
    uint8_t role;       // the role searched for
    uint8_t freq_band;  // the band searched for
    struct ether_addr almac;
} ap_autoconfig_search_param_t;

typedef struct {
    uint8_t support_role;
    uint8_t support_freq_band;
} ap_autoconfig_response_param_t;

typedef struct {
    uint8_t support_role;
    uint8_t support_freq_band;
    struct ether_addr almac;
} ap_autoconfig_renew_param_t;

// ---- Topology records ----------------------------------------------------

constexpr int INTERFACE_TOTAL_MAX = 10;
constexpr int BRIDGING_TUPLE_MAX = 10;
constexpr int BRIDGING_TUPLE_MAC_MAX = 10;
constexpr int NEIGHBOR_DEVICE_LIST_MAX = 30;
constexpr int MEDIA_SPECIFIC_INFO_MAX = 11;

#pragma pack(push, 1)
typedef struct {
    struct ether_addr mac;
    uint16_t media_type;  // host order: media class in the high byte, variant in the low
    uint8_t length;       // valid bytes of val
    uint8_t val[MEDIA_SPECIFIC_INFO_MAX];
} interface_information_t;

typedef struct {
    uint8_t num;
    interface_information_t interface[INTERFACE_TOTAL_MAX];
} device_information_t;

typedef struct {
    uint8_t k;
    struct ether_addr mac[BRIDGING_TUPLE_MAC_MAX];
} ieee1905BridgingTuple_t;

typedef struct {
    uint8_t m;
    ieee1905BridgingTuple_t tuple[BRIDGING_TUPLE_MAX];
} ieee1905BridgingCapability_t;

typedef struct {
    struct ether_addr local_mac;
    struct ether_addr neighbor_mac;
} neighborDevice;

typedef struct {
    uint8_t num;
    neighborDevice neighbor[NEIGHBOR_DEVICE_LIST_MAX];
} neighborDeviceList;

// Media-specific information as IEEE19051_GetInterfaceInformation fills it.
typedef struct {
    struct ether_addr bssid;
    uint8_t role;
    uint8_t ap_channel_band;
    uint8_t ap_channel_center_frequency_index1;
    uint8_t ap_channel_center_frequency_index2;
} ieee802_11SpecificInformation_t;

typedef struct {
    uint8_t val[7];
} ieee1901SpecificInformation_t;

// Topology TLVs on the wire; `content` holds the entries.
typedef struct {
    ieee1905TLVHeader_t tlvHeader;
    struct ether_addr almac;
    uint8_t interface_num;
    uint8_t content[];  // per interface: MAC (6), media type (2, BE), Li (1), Li bytes
} ieee1905DeviceInformationTLV_t;

typedef struct {
    ieee1905TLVHeader_t tlvHeader;
    uint8_t m;
    uint8_t content[];  // per tuple: k (1), k MACs
} ieee1905DeviceBridgingCapabilityTLV_t;

typedef struct {
    ieee1905TLVHeader_t tlvHeader;
    uint8_t content[];  // per entry: local MAC, neighbour MAC
} ieee1905NeighborDeviceListTLV_t;
#pragma pack(pop)

static_assert(sizeof(interface_information_t) == 20, "interface record is 20 bytes");
static_assert(sizeof(ieee802_11SpecificInformation_t) == 10, "802.11 information is 10 bytes");
static_assert(sizeof(ieee802_11SpecificInformation_t) <= MEDIA_SPECIFIC_INFO_MAX, "fits val");

// The largest TLV each topology encoder writes, with every count at its limit:
// what a caller must provide when it encodes into a buffer of its own.
constexpr int kDeviceInformationTlvMax =
    10 + INTERFACE_TOTAL_MAX * (9 + MEDIA_SPECIFIC_INFO_MAX);  // 210
constexpr int kBridgingCapabilityTlvMax =
    4 + BRIDGING_TUPLE_MAX * (1 + 6 * BRIDGING_TUPLE_MAC_MAX);            // 614
constexpr int kLegacyNeighborTlvMax = 3 + 12 * NEIGHBOR_DEVICE_LIST_MAX;  // 363

// ---- TLV encoders ----------------------------------------------------------
// Each writes one TLV at `tlv` and returns its total length, header included;
// -1 (and nothing written) for a null `tlv`.

int getTlvAlId(ieee1905SingleAddressTLV_t* tlv, struct ether_addr mac);
int getTlvMacId(ieee1905SingleAddressTLV_t* tlv, struct ether_addr mac);
int getTlvSearchRole(ieee1905APAutoConfigSearchedRoleTLV_t* tlv, uint8_t role);
int getTlvFreqBand(ieee1905APAutoConfigFreqBandTLV_t* tlv, uint8_t freqBand);
int getTlvSupportRole(ieee1905APAutoConfigSupportedRoleTLV_t* tlv, uint8_t role);
int getTlvSupportFreqBand(ieee1905APAutoConfigSupportedFreqBandTLV_t* tlv, uint8_t freqBand);
// Header and OUI only (length 3); the caller appends its value bytes.
int getTlvVendorSpecific(ieee1905VendorSpecificHeaderTLV_t* vstlv);

// The topology encoders also refuse (-1, nothing written) a record whose
// counts exceed its arrays. `tlv` must have room for the result (at most the
// k...TlvMax constants above).
int getTlvDeviceInformation(ieee1905DeviceInformationTLV_t* tlv, struct ether_addr almac,
                            device_information_t device_info);
int getTlvDeviceBridgingCapability(ieee1905DeviceBridgingCapabilityTLV_t* tlv,
                                   ieee1905BridgingCapability_t capability);
int getTlvLegacyNeighbor(ieee1905NeighborDeviceListTLV_t* tlv, neighborDeviceList list);

// ---- Builders ------------------------------------------------------------

void fillEtherHeader(ieee1905Message_t* packet, param_t param);

int IEEE19051_GetPacketApAutoconfigurationSearch(ieee1905Message_t* packet, param_t param,
                                                 ap_autoconfig_search_param_t search_param);
int IEEE19051_GetPacketApAutoconfigurationResponse(ieee1905Message_t* packet, param_t param,
                                                   ap_autoconfig_response_param_t response_param);
int IEEE19051_GetPacketApAutoconfigurationRenew(ieee1905Message_t* packet, param_t param,
                                                ap_autoconfig_renew_param_t* renew_param);
// A WSC message whose WSC TLV is encoded from `config` straight into the
// content area. -1 when the attributes do not fit it.
int IEEE19051_GetPacketApAutoconfigurationWsc(ieee1905Message_t* packet, param_t param,
                                              wsc_configuration_t* config);
// A WSC message around a WSC TLV that is already built (3 + its length
// bytes are copied). -1 when the TLV does not fit the content area; a TLV
// that fits but leaves no room for the end of message yields more than 1514,
// which the senders refuse.
int IEEE19051_GetPacketApAutoconfigurationWsc2(ieee1905Message_t* packet, param_t param,
                                               ieee1905TLV_t* wsctlv);

int IEEE19051_GetPacketTopologyDiscovery(ieee1905Message_t* packet, param_t param,
                                         struct ether_addr almac);
int IEEE19051_GetPacketTopologyNotification(ieee1905Message_t* packet, param_t param,
                                            struct ether_addr almac);
int IEEE19051_GetPacketTopologyQuery(ieee1905Message_t* packet, param_t param);
// The Device Information TLV carries param.sa as the AL MAC address.
int IEEE19051_GetPacketTopologyResponse(ieee1905Message_t* packet, param_t param,
                                        device_information_t device_info,
                                        ieee1905BridgingCapability_t capability,
                                        neighborDeviceList list);

// Describes one local interface from its MAC text, media class and variant.
int IEEE19051_GetInterfaceInformation(interface_information_t* info, const char* mac,
                                      ieee1905MediaType_e type, int desc);

// ---- Names ---------------------------------------------------------------

constexpr int kIeee1905MessageTypeCount = 14;
constexpr int kIeee1905TlvTypeCount = 21;
// Indexed by value; message entry 9 ends with a blank.
extern const char* const ieee1905MessageTypeDesc[kIeee1905MessageTypeCount];
extern const char* const ieee1905TlvTypeDesc[kIeee1905TlvTypeCount];
// The table entries, or "UNKNOWN" for a value outside the tables: values from
// the wire go through these, never straight into the arrays.
const char* IEEE19051_MessageTypeDesc(int type);
const char* IEEE19051_TlvTypeDesc(int type);
