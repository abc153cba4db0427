// What the end-to-end test programs (the peer and the flood) share: reading
// the WSC message of a received frame, finding an attribute in raw bytes,
// and writing CMDU headers.
#pragma once

#include <cstring>
#include <vector>

#include "port/common/bytes.h"
#include "port/util.h"
#include "protocol/19051_frame.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_parse_wsc.h"
#include "wsc/wsc.h"

namespace kestr::test {

inline Mac mac_of(const char* text) {
    struct ether_addr a {};
    mac_str_to_etheraddr(text, &a);
    return Mac::of(a);
}

// The WSC TLV of a received frame (1514 bytes, zero after what arrived),
// read into `config`; null when the frame holds none.
inline u_int8_t* read_wsc(u_int8_t* frame, wsc_configuration_t* config) {
    std::memset(config, 0, sizeof *config);
    const int total = IEEE19051_GetTlvTotalNumber(frame);
    for (int i = 0; i < total; ++i) {
        u_int8_t* tlv = IEEE19051_GetTlvByNumber(frame, i);
        if (tlv != nullptr && tlv[0] == IEEE1905_TLV_TYPE_WPS) {
            IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv), config);
            return tlv;
        }
    }
    return nullptr;
}

// Where the WSC attribute `id` starts in `bytes`, walking the attributes
// from offset `from` on; 0 when there is none.
inline size_t find_attribute(const std::vector<uint8_t>& bytes, size_t from, uint16_t id) {
    kestr::wsc::AttributeWalk walk(kestr::ByteReader(bytes.data() + from, bytes.size() - from));
    kestr::wsc::AttributeBytes a;
    while (walk.next(&a)) {
        if (a.type == id)
            return static_cast<size_t>(a.whole.data() - bytes.data());
    }
    return 0;
}

// Ethernet and CMDU headers of one frame.
inline kestr::ByteWriter& put_header(kestr::ByteWriter& w, const uint8_t* da, const uint8_t* sa,
                                     int type, int mid, uint8_t flags = 0x80) {
    w.bytes(da, 6).bytes(sa, 6).u16(kIeee1905EtherType);
    return w.u8(0)
        .u8(0)
        .u16(static_cast<uint16_t>(type))
        .u16(static_cast<uint16_t>(mid))
        .u8(0)
        .u8(flags);
}

}  // namespace kestr::test
