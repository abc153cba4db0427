// Views of a received CMDU: the frame, bounded by the bytes that arrived,
// and its TLVs, each bounded by its own length. Views only ever shrink, so
// nothing read through them can lie outside what was received.
#pragma once

#include <cstddef>
#include <cstdint>

#include "port/common/bytes.h"
#include "port/util.h"
#include "protocol/19051_frame.h"

namespace kestr {

// One TLV: its type, all of it, and exactly its `length` value bytes.
struct Tlv {
    uint8_t type = 0;
    ByteReader whole;
    ByteReader value;
};

// The TLVs of a content area, one after the other. The list ends at the
// end-of-message TLV (three zero bytes) and at a TLV whose header or value
// would run past the bytes given: such a TLV and anything after it are not
// part of the message. A type-0 TLV with a length is an ordinary TLV.
class TlvReader {
  public:
    explicit TlvReader(ByteReader content) : rest_(content) {}
    bool next(Tlv* out);
    // Where the next TLV would start (the start of a TLV just handed out is
    // what rest() was before that call).
    const ByteReader& rest() const { return rest_; }

  private:
    ByteReader rest_;
};

// The value of the TLV at the start of `bytes`; empty when it runs past them.
inline ByteReader tlv_value(ConstBytes bytes) {
    ByteReader tlv(bytes.data(), bytes.size());
    ByteReader value;
    if (!tlv.skip(1) || !tlv.u16_length_prefixed(&value))
        return ByteReader();
    return value;
}

// A received frame: the 14-byte Ethernet header, the 8-byte CMDU header and
// the content, never more than the bytes that arrived nor more than 1514.
// Header fields of a frame too short to hold them read as zero.
class FrameView {
  public:
    FrameView(const uint8_t* frame, size_t received)
        : bytes_(frame, received < kCmduMaxFrameLen ? received : kCmduMaxFrameLen) {}

    uint16_t ether_type() const { return u16_at(12); }
    uint8_t version() const { return u8_at(14); }
    int type() const { return u16_at(16); }
    int mid() const { return u16_at(18); }
    uint8_t flags() const { return u8_at(21); }
    Mac destination() const { return mac_at(0); }
    Mac source() const { return mac_at(6); }
    TlvReader tlvs() const { return TlvReader(bytes_.from(kEtherHeaderLen + kCmduHeaderLen)); }

  private:
    uint8_t u8_at(size_t at) const {
        uint8_t v = 0;
        ByteReader r = bytes_.from(at);
        r.u8(&v);
        return v;
    }
    uint16_t u16_at(size_t at) const {
        uint16_t v = 0;
        ByteReader r = bytes_.from(at);
        r.u16(&v);
        return v;
    }
    Mac mac_at(size_t at) const {
        Mac m;
        ByteReader r = bytes_.from(at);
        r.bytes(m.octets.data(), m.octets.size());
        return m;
    }

    ByteReader bytes_;
};

}  // namespace kestr
