// The IEEE 1905.1 CMDU as it travels in one Ethernet frame (EtherType
// 0x893A), and the numbering shared by the whole message layer.
//
//   0  destination MAC (6)      14 version (1) = 0      18 message id (2, BE)
//   6  source MAC (6)           15 reserved (1)         20 fragment id (1)
//   12 EtherType 0x893A (2, BE) 16 message type (2, BE) 21 flags (1)
//   22 content: TLVs {type u8, length u16 BE, value}, ended by type 0 length 0
//
// Records hold the wire image; 16-bit fields are big-endian in memory and are
// only ever read and written through the header getters and the builders.
#pragma once

#include <net/ethernet.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "port/util.h"

constexpr uint16_t kIeee1905EtherType = 0x893A;
constexpr int kEtherHeaderLen = 14;
constexpr int kCmduHeaderLen = 8;
constexpr int kTlvHeaderLen = 3;
constexpr int kCmduContentLen = 1492;
constexpr int kCmduMaxFrameLen = kEtherHeaderLen + kCmduHeaderLen + kCmduContentLen;  // 1514
constexpr int kCmduMinFrameLen = kEtherHeaderLen + kCmduHeaderLen + kTlvHeaderLen;    // 25
constexpr int kMinEtherFrameLen = 60;
constexpr const char* kIeee1905MulticastMac = "01:80:c2:00:00:13";
constexpr kestr::Mac kIeee1905Multicast{{0x01, 0x80, 0xc2, 0x00, 0x00, 0x13}};

constexpr uint8_t kCmduFlagLastFragment = 0x80;
constexpr uint8_t kCmduFlagRelay = 0x40;

typedef enum {
    IEEE1905_MSG_TYPE_TOPOLOGY_DISCOVERY = 0,
    IEEE1905_MSG_TYPE_TOPOLOGY_NOTIFICATION = 1,
    IEEE1905_MSG_TYPE_TOPOLOGY_QUERY = 2,
    IEEE1905_MSG_TYPE_TOPOLOGY_RESPONSE = 3,
    IEEE1905_MSG_TYPE_VENDOR_SPECIFIC = 4,
    IEEE1905_MSG_TYPE_LINK_METRIC_QUERY = 5,
    IEEE1905_MSG_TYPE_LINK_METRIC_RESPONSE = 6,
    IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH = 7,
    IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_RESPONSE = 8,
    IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC = 9,
    IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_RENEW = 10,
    IEEE1905_MSG_TYPE_PB_EVENT_NOTIFICATION = 11,
    IEEE1905_MSG_TYPE_PB_JOIN_NOTIFICATION = 12,
    IEEE1905_MSG_TYPE_RESERVED = 13,
} ieee1905MessageType_e;

typedef enum {
    IEEE1905_TLV_TYPE_END_OF_MESSAGE = 0,
    IEEE1905_TLV_TYPE_AL_ID = 1,
    IEEE1905_TLV_TYPE_MAC_ID = 2,
    IEEE1905_TLV_TYPE_DEVICE_INFORMATION = 3,
    IEEE1905_TLV_TYPE_DEVICE_BRIDGING_CAPABILITY = 4,
    IEEE1905_TLV_TYPE_MEDIA_TYPE = 5,
    IEEE1905_TLV_TYPE_LEGACY_NEIGHBOR = 6,
    IEEE1905_TLV_TYPE_NEIGHBOR_DEVICE = 7,
    IEEE1905_TLV_TYPE_LINK_METRIC_QUERY = 8,
    IEEE1905_TLV_TYPE_TRANSMITTER_LINK_METRIC_RESPONSE = 9,
    IEEE1905_TLV_TYPE_RECEIVER_LINK_METRIC_RESPONSE = 10,
    IEEE1905_TLV_TYPE_VENDOR_SPECIFIC = 11,
    IEEE1905_TLV_TYPE_RESULT_CODE = 12,
    IEEE1905_TLV_TYPE_SEARCHED_ROLE = 13,
    IEEE1905_TLV_TYPE_FREQ_BAND = 14,
    IEEE1905_TLV_TYPE_SUPPORTED_ROLE = 15,
    IEEE1905_TLV_TYPE_SUPPORTED_FREQ_BAND = 16,
    IEEE1905_TLV_TYPE_WPS = 17,
    IEEE1905_TLV_TYPE_PUSH_BUTTON_EVENT = 18,
    IEEE1905_TLV_TYPE_PUSH_BUTTON_JOIN = 19,
    IEEE1905_TLV_TYPE_RESERVED = 20,
} ieee1905TlvType_e;

typedef enum {
    IEEE1905_MEDIA_TYPE_IEEE802_3 = 0,
    IEEE1905_MEDIA_TYPE_IEEE802_11 = 1,
    IEEE1905_MEDIA_TYPE_IEEE1901 = 2,
    IEEE1905_MEDIA_TYPE_MOCA = 3,
    IEEE1905_MEDIA_TYPE_RESERVED = 4,
} ieee1905MediaType_e;

// The 16-bit 1905.1 media type: the media class in the high byte, the low 8
// bits of `desc` (the variant within the class) in the low byte.
constexpr uint16_t IEEE19051_MeidaType(ieee1905MediaType_e type, int desc) {
    return static_cast<uint16_t>((static_cast<unsigned>(type) << 8) |
                                 (static_cast<unsigned>(desc) & 0xFF));
}

#pragma pack(push, 1)
typedef struct {
    uint8_t version;
    uint8_t reserved;
    uint16_t type;  // big-endian
    uint16_t mid;   // big-endian
    uint8_t fid;
    uint8_t flags;
} ieee1905Header_t;

typedef struct {
    struct ether_header etherHeader;
    ieee1905Header_t ieee1905Header;
    uint8_t content[kCmduContentLen];
} ieee1905Message_t;

typedef struct {
    uint8_t type;
    uint16_t length;  // big-endian
    uint8_t val[];
} ieee1905TLV_t;
#pragma pack(pop)

static_assert(sizeof(ieee1905Header_t) == kCmduHeaderLen, "CMDU header is 8 bytes");
static_assert(sizeof(ieee1905TLV_t) == kTlvHeaderLen, "TLV header is 3 bytes");
static_assert(sizeof(ieee1905Message_t) == kCmduMaxFrameLen, "a frame is 1514 bytes");
static_assert(offsetof(ieee1905Message_t, ieee1905Header) == 14, "CMDU header at 14");
static_assert(offsetof(ieee1905Message_t, content) == 22, "content at 22");

// Addressing of one outgoing CMDU.
typedef struct PARAM_T {
    struct ether_addr da;  // destination
    struct ether_addr sa;  // the sending interface's own address
    int tx_idx;            // kernel index of the sending interface
    int mid;               // message identifier; its low 16 bits go on the wire
} param_t;
