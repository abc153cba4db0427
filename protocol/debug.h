// Printing received CMDUs, their TLVs and the topology records on standard
// output as lines of lower-case hex bytes, for following an exchange on the
// device's console.
//
// Counts and lengths are taken from the records as they stand, but printing
// never reads past a record's arrays: a count or length above the capacity
// prints up to the capacity. A message or TLV type outside the name tables
// prints as "UNKNOWN". Each printout is written with one call, so printouts
// of different threads do not mix (print_wsc_configuration's error line is a
// write of its own).
#pragma once

#include <net/ethernet.h>
#include <sys/types.h>

#include <cstdio>

#include "port/common/bytes.h"
#include "protocol/19051_protocol.h"
#include "wsc/wsc.h"

// `len` bytes as " %02x" each, then a line feed.
void print_packet(u_int8_t* buf, int len);
void print_packet(kestr::ConstBytes bytes);
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

// Every attribute of one WSC TLV (type 17, length, attributes): a line
// "tlv_type:%04x, <name>, tlv_len:%d", then the attribute's bytes between two
// separator lines. The TLV's length field says how many bytes `tlv` holds
// after its header; an attribute running past them ends the printout.
void print_tlv_wsc_packet(ieee1905TLV_t* tlv);
// One attribute of `len` bytes: type, length and value set apart by " |",
// e.g. " 10 4a | 00 01 | 10". No byte at or past `len` is read; a shorter
// buffer shows only the header bytes it has.
void print_tlv_wsc_packet_single(u_int8_t* buf, int len);

// The attributes of a WSC message a developer follows an exchange by (UUIDs,
// MAC, nonces, public key, device type, OS version, vendor extension,
// encrypted settings, authenticator), one unlabelled hex line each when
// present. A missing serial number is reported with an error line.
void print_wsc_configuration(wsc_configuration_t config);
// The MAC address, vendor extension and key wrap authenticator of decrypted
// settings, each as a hexdump titled with its name. SSID and network key are
// never printed.
void print_wsc_encrypted_settings(wsc_encrypted_settings_t settings);
