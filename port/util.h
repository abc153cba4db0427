// MAC addresses as text.
//
// Written as six unpadded lower-case hex numbers ("0:a:1b:2c:3d:4e"); read
// with one or two hex digits per byte, either case, so "01:80:C2:00:00:13"
// and "1:80:c2:0:0:13" are the same address.
#pragma once

#include <net/ethernet.h>

// Longest text plus its terminator.
constexpr int kMacTextSize = 18;

int mac_etheraddr_to_str(const struct ether_addr* addr, char* buf, int buflen);
int mac_str_to_etheraddr(const char* mac, struct ether_addr* addr);
