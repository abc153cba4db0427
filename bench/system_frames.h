// The frames of the system benchmark, every one built by the daemon's own
// builders and WSC encoder: Searches, enrollees' M1s, the junk a third
// device puts on the link, and the reading of an M2 that comes back.
#pragma once

#include <net/ethernet.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench/system_common.h"
#include "wsc/wsc.h"

namespace kbench {

// An enrollee's Search for the 2.4 GHz band, multicast from `own`.
Frame search(const ether_addr& own, int mid);

// A WSC message as an enrollee's M1 carries it, or (kind M2) the first
// attributes of an M2, for the enrollee nonce `nonce`.
Frame wsc(const ether_addr& to, const ether_addr& own, int mid, MessageType_e kind,
          const Nonce& nonce, const uint8_t* public_key);

Nonce random_nonce();

// The WSC message of a received frame, if it has one.
bool read_wsc(Frame& f, wsc_configuration_t* c);

// A ring of 256 junk frames from `own` of one kind: "version" (a Search of
// message version 1), "ignored" (a topology CMDU), "wsc" (an M2 for a nonce
// nobody sent). Empty for any other kind.
std::vector<Frame> junk_frames(const std::string& kind, const ether_addr& own);

}  // namespace kbench
