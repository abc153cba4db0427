// Printing received CMDUs, their TLVs and the topology records on standard
// output as lines of lower-case hex bytes, for following an exchange on the
// device's console.
//
// Counts and lengths are taken from the records as they stand, but printing
// never reads past a record's arrays: a count above the capacity prints up to
// the capacity. A message or TLV type outside the name tables prints as
// "UNKNOWN".
#pragma once

#include <net/ethernet.h>
#include <sys/types.h>

#include <cstdio>

#include "protocol/19051_protocol.h"

// `len` bytes as " %02x" each, then a line feed.
void print_packet(u_int8_t* buf, int len);
// `title`, then `l` bytes, 16 to a line, each line led by "\n%04x" (offset).
void hexdump(FILE* f, const char* title, const unsigned char* s, int l);
// "mac:" and the address in the program's MAC text form.
void print_ether_addr(struct ether_addr addr);
// A received frame (`buf` at the Ethernet header): header fields, then every
// TLV with its name, its length and its bytes.
void print_packet_tlv(u_int8_t* buf);

// The value bytes of a vendor-specific TLV as "%02x " each; the OUI is not
// printed.
void print_tlv_vendor_specific(u_int8_t* oui, u_int8_t* val, int val_len);
void print_tlv_device_information(struct ether_addr almac, device_information_t device_info);
void print_tlv_device_bridging_capability(ieee1905BridgingCapability_t capability);
void print_tlv_legacy_neighbor(neighborDeviceList list);
