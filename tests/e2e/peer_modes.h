// The test peer's modes beyond answering one enrollee (peer.cpp).
#pragma once

#include <string>

namespace kestr::test {

// Many enrollees at once: `count` well-formed M1s, each with its own key
// pair and nonce, and one malformed WSC message after every fourth, all sent
// to the registrar at `to` in one burst. Every M2 that comes back is opened
// with the key pair of its M1 and must carry the registrar's SSID for the
// M1's band; the malformed ones must not be answered. Prints one summary
// line; 0 when every well-formed M1 got its M2 and nothing else came.
int m1_flood(int count, const std::string& to, const std::string& ssid24, const std::string& ssid5);

// Takes the device's message-identifier lock and keeps it until killed, as a
// daemon would that dies inside an allocation. Prints the identifier it drew
// first ("peer: mid N") and "peer: holding the identifier lock".
int hold_mid_lock();

}  // namespace kestr::test
