// One request of the database protocol, as the daemon sees it.
//
// A request is a 12-byte header (action, argument length, flags, retcode; host
// byte order) followed by exactly `length` bytes: one text whose NUL is its
// last byte. The daemon answers a status header or a NUL-terminated text,
// depending on the request code, and closes the connection.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tools/xmldbd/tree.h"

namespace xmldbd {

constexpr size_t kHeaderSize = 12;
// Longest argument accepted: a file path of PATH_MAX with its NUL, well above
// the 511 bytes of a client's set.
constexpr size_t kMaxArgument = 4096;
// Largest file a read request loads.
constexpr size_t kMaxFileSize = 16u << 20;

struct Framing {
    enum Kind { NeedMore, Complete, Bad } kind = NeedMore;
    std::string problem;  // why a request is Bad
};

// Looks at everything a connection has sent so far. Bad: the bytes can never
// become a well-formed request (too long, more bytes than announced, no NUL
// at the end of the argument).
Framing check_request(const uint8_t* data, size_t size);

// Why a connection that ended after `size` bytes did not send a whole request;
// empty for a connection that sent nothing (a mere probe).
std::string describe_eof(const uint8_t* data, size_t size);

// The reply bytes for one complete request; messages about failed file
// requests go to `log` (one line each, without the newline).
std::string answer(ConfigTree& tree, const uint8_t* request, std::string* log);

}  // namespace xmldbd
