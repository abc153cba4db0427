// Reading a received CMDU TLV by TLV.
//
// `buf` is a frame (first byte = first byte of the Ethernet header) in a
// buffer of at least 1514 bytes; its TLVs start at offset 22. The list ends
// at the first TLV whose three header bytes are zero. It also ends at a TLV
// whose header or value would pass the end of the 1492-byte content area:
// such a TLV is neither counted nor returned, so every TLV handed out lies
// wholly inside the frame buffer. Code that knows how many bytes arrived
// walks a kestr::FrameView instead, which also stops at that length.
//
// The parsers take a TLV as IEEE19051_GetTlvByNumber returns it and read no
// byte beyond the length in its header; a TLV whose length is shorter than
// the value the parser needs is refused with -1.
#pragma once

#include <net/ethernet.h>
#include <sys/types.h>

#include "protocol/19051_protocol.h"
#include "protocol/19051_view.h"

// Number of TLVs before the end of the list; -1 for a null buffer.
int IEEE19051_GetTlvTotalNumber(u_int8_t* buf);
// The TLV at position `num` (0 = first), or null for a null buffer, a
// negative `num` or one at or past the end of the list.
u_int8_t* IEEE19051_GetTlvByNumber(const u_int8_t* buf, const int num);

int IEEE19051_ParseTlvSearchedRole(const ieee1905APAutoConfigSearchedRoleTLV_t* tlv,
                                   u_int8_t* role);
int IEEE19051_ParseTlvFreqBand(const ieee1905APAutoConfigFreqBandTLV_t* tlv, u_int8_t* freqBand);
int IEEE19051_ParseTlvSupportedRole(const ieee1905APAutoConfigSupportedRoleTLV_t* tlv,
                                    u_int8_t* role);
int IEEE19051_ParseTlvSupportedFreqBand(const ieee1905APAutoConfigSupportedFreqBandTLV_t* tlv,
                                        u_int8_t* freqBand);
// AL MAC address (type 1) or MAC address (type 2) TLV.
int IEEE19051_ParseTlvSingleAddr(const ieee1905SingleAddressTLV_t* tlv, struct ether_addr* mac);
// Copies the OUI into `oui` (3 bytes) and the length - 3 value bytes into
// `val`; a `val` of kVendorValueMax (1486) bytes holds any vendor TLV that
// fits a CMDU. TLVs of length under 3 or over 3 + kVendorValueMax are refused.
int IEEE19051_ParseTlvVendorSpecific(const ieee1905VendorSpecificHeaderTLV_t* tlv, u_int8_t* oui,
                                     u_int8_t* val, int* val_len);

// Topology TLVs. Counts and lengths that would not fit the records, or
// entries that would run past the TLV, are refused with -1.
int IEEE19051_ParseTlvDeviceInformation(const ieee1905DeviceInformationTLV_t* tlv,
                                        struct ether_addr* almac,
                                        device_information_t* device_info);
int IEEE19051_ParseTlvDeviceBridgingCapability(const ieee1905DeviceBridgingCapabilityTLV_t* tlv,
                                               ieee1905BridgingCapability_t* capability);
int IEEE19051_ParseTlvLegacyNeighbor(const ieee1905NeighborDeviceListTLV_t* tlv,
                                     neighborDeviceList* list);

namespace kestr {
// The value byte of a one-byte TLV, and the address of an address TLV. A
// TLV whose value is shorter is refused with an error line in the name of
// `parser`, the parser function the caller stands in for.
bool read_tlv_byte(const Tlv& tlv, uint8_t* out, const char* parser);
bool read_tlv_mac(const Tlv& tlv, Mac* out, const char* parser);
}  // namespace kestr
