#include "port/util.h"

#include <cstdio>

#include "port/common/report.h"

namespace {
void say_not_a_mac() {
    std::puts("INI entry da doesn't seem to be a valid MAC address - xx:xx:xx:xx:xx:xx");
}
}  // namespace

int mac_etheraddr_to_str(const struct ether_addr* addr, char* buf, int buflen) {
    if (addr == nullptr || buf == nullptr || buflen < kMacTextSize) {
        KESTR_ERR("parameter is error\n");
        return -1;
    }
    const auto& b = addr->ether_addr_octet;
    const int n = std::snprintf(buf, static_cast<size_t>(buflen), "%x:%x:%x:%x:%x:%x", b[0], b[1],
                                b[2], b[3], b[4], b[5]);
    if (n < 0) {
        KESTR_ERR("snprintf error\n");
        return -1;
    }
    return 0;
}

int mac_str_to_etheraddr(const char* mac, struct ether_addr* addr) {
    if (mac == nullptr || addr == nullptr) {
        say_not_a_mac();
        return -1;
    }
    unsigned int v[ETH_ALEN];
    if (std::sscanf(mac, "%2x:%2x:%2x:%2x:%2x:%2x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]) !=
        ETH_ALEN) {
        KESTR_ERR("sscanf error\n");
        say_not_a_mac();
        return -1;
    }
    for (int i = 0; i < ETH_ALEN; ++i)
        addr->ether_addr_octet[i] = static_cast<unsigned char>(v[i]);
    return 0;
}
