// What the fuzz targets share: the guard that keeps them off real links and
// out of the machine's shared state, the check that turns a broken
// expectation into a crash libFuzzer keeps, and the receive buffer as the
// receive task holds it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "protocol/19051_frame.h"

namespace kestr::fuzz {

struct Namespaces {
    bool net = false;    // sends and raw sockets stay inside: only a loopback exists
    bool mount = false;  // "/var/run" (the database socket) is an empty tmpfs
    bool ipc = false;    // the message-identifier counter is private
    // Raw sockets may still be opened. Without them every send of the code
    // under test fails at its first step instead of at the interface look-up;
    // closing a raw socket waits for the kernel, which would make a handler
    // target some thirty times slower.
    bool raw_sockets = true;
};

// Moves the process into fresh namespaces of the kinds asked for, whoever
// started it (fuzz/run.sh already does, and this does no harm then), or ends
// it with the reason. Called from LLVMFuzzerInitialize, before any thread of
// the target exists.
void isolate(const Namespaces& wanted, const char* target);

// Aborts with the failed expectation: libFuzzer keeps the input as a crash.
// The line goes to the sanitizers' report as well, which libFuzzer keeps
// when the code under test has its stderr closed.
[[noreturn]] void fail(const char* file, int line, const char* what);

// Two texts that must be equal; on a difference both are printed before
// the failure.
void same_text(const std::string& got, const std::string& expected, const char* file, int line);

// The receive task's frame buffer: exactly one CMDU long, so AddressSanitizer
// sees any read past it; the input at the start and, as after every receive,
// everything behind it zero. Inputs longer than a CMDU are cut, as the
// socket read cuts them.
class Frame {
  public:
    Frame(const uint8_t* data, size_t size);
    uint8_t* data() { return bytes_.data(); }
    int length() const { return length_; }

  private:
    std::vector<uint8_t> bytes_;
    int length_;
};

// A WSC TLV of exactly 3 + `len` bytes around `value`, in storage of its own
// so a read past it is seen by the sanitizer.
std::vector<uint8_t> wsc_tlv(const uint8_t* value, size_t len);

}  // namespace kestr::fuzz

#define KESTR_FUZZ_SAME_TEXT(got, expected) \
    ::kestr::fuzz::same_text((got), (expected), __FILE__, __LINE__)

#define KESTR_FUZZ_CHECK(cond)                              \
    do {                                                    \
        if (!(cond))                                        \
            ::kestr::fuzz::fail(__FILE__, __LINE__, #cond); \
    } while (0)
