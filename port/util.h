// MAC addresses as values and as text.
//
// Written as six unpadded lower-case hex numbers ("0:a:1b:2c:3d:4e"); read
// with one or two hex digits per byte, either case, so "01:80:C2:00:00:13"
// and "1:80:c2:0:0:13" are the same address.
#pragma once

#include <net/ethernet.h>

#include <array>
#include <cstdint>
#include <cstring>

// Longest text plus its terminator.
constexpr int kMacTextSize = 18;

int mac_etheraddr_to_str(const struct ether_addr* addr, char* buf, int buflen);
int mac_str_to_etheraddr(const char* mac, struct ether_addr* addr);

namespace kestr {

// A MAC address: six bytes, first byte first as on the wire. Addresses stay
// in this form inside kestrd; text appears only where an interface of the
// system takes text.
struct Mac {
    std::array<uint8_t, ETH_ALEN> octets{};

    static Mac of(const struct ether_addr& a) {
        Mac m;
        std::memcpy(m.octets.data(), a.ether_addr_octet, ETH_ALEN);
        return m;
    }
    struct ether_addr ether() const {
        struct ether_addr a;
        std::memcpy(a.ether_addr_octet, octets.data(), ETH_ALEN);
        return a;
    }
    bool operator==(const Mac& o) const { return octets == o.octets; }
    bool operator!=(const Mac& o) const { return octets != o.octets; }
};

// The text form of `mac`, for the interfaces that take text.
struct MacText {
    char text[kMacTextSize] = "00:00:00:00:00:00";
    explicit MacText(const Mac& mac) {
        const struct ether_addr a = mac.ether();
        mac_etheraddr_to_str(&a, text, sizeof text);
    }
};

}  // namespace kestr
