// The AP-autoconfiguration messages as the daemon receives them: each frame
// is read once, through views bounded by the bytes that arrived, into the
// record of its kind, and the handlers work on that record.
#pragma once

#include <cstdint>

#include "port/common/bytes.h"
#include "port/util.h"
#include "protocol/19051_view.h"
#include "wsc/wsc.h"

namespace kestr {

// A Search (type 7). TLVs that are missing leave their values zero.
struct SearchMessage {
    int mid = 0;
    Mac source;
    Mac almac;
    uint8_t searched_role = 0;
    uint8_t searched_band = 0;
};
SearchMessage read_search(const FrameView& frame);

// A Response (type 8). Of a TLV that occurs twice the later one counts.
struct ResponseMessage {
    int mid = 0;
    Mac source;
    bool has_role = false;
    uint8_t supported_role = 0;
    bool has_band = false;
    uint8_t supported_band = 0;
};
ResponseMessage read_response(const FrameView& frame);

// A WSC message (type 9): the attributes of all its WSC TLVs, later ones
// overwriting earlier ones, and the attribute bytes of the WSC TLV that made
// it an M1 or an M2, exactly as received (the Authenticator covers them).
struct WscMessage {
    int mid = 0;
    Mac source;
    wsc_configuration_t attributes{};
    bool has_m1 = false;
    ByteReader m1;
    bool has_m2 = false;
    ByteReader m2;
};
// Reads into `out`, which the caller keeps (the record is large).
void read_wsc(const FrameView& frame, WscMessage* out);

}  // namespace kestr
