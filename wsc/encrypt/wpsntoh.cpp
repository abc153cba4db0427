#include "wsc/encrypt/wpsntoh.h"

#include <cstring>

#include "port/common/bytes.h"

uint32 WpsNtohl(uint8* a) {
    return kestr::load_be32(a);
}

uint16 WpsNtohs(uint8* a) {
    return kestr::load_be16(a);
}

uint32 WpsHtonl(uint32 intlong) {
    uint8 wire[4];
    kestr::store_be32(wire, intlong);
    uint32 out;
    std::memcpy(&out, wire, sizeof out);
    return out;
}

uint16 WpsHtons(uint16 intshort) {
    uint8 wire[2];
    kestr::store_be16(wire, intshort);
    uint16 out;
    std::memcpy(&out, wire, sizeof out);
    return out;
}

uint16 WpsHtonsPtr(uint8* in, uint8* out) {
    uint16 host;
    std::memcpy(&host, in, sizeof host);
    kestr::store_be16(out, host);
    uint16 net;
    std::memcpy(&net, out, sizeof net);
    return net;
}

uint32 WpsHtonlPtr(uint8* in, uint8* out) {
    uint32 host;
    std::memcpy(&host, in, sizeof host);
    kestr::store_be32(out, host);
    uint32 net;
    std::memcpy(&net, out, sizeof net);
    return net;
}
