// What every role of the system benchmark program shares: its command line,
// clocks and spreads, the memory of a process, the kernel's drop counter,
// and the link (a packet socket on br0 of an emulated device).
#pragma once

#include <net/ethernet.h>
#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "port/common/unique_fd.h"

namespace kbench {

using Clock = std::chrono::steady_clock;
using Frame = std::vector<uint8_t>;
using Nonce = std::vector<uint8_t>;

inline double ms_since(Clock::time_point t0, Clock::time_point t = Clock::now()) {
    return std::chrono::duration<double, std::milli>(t - t0).count();
}

// Set by SIGTERM or SIGINT where a role runs until told to stop.
extern volatile std::sig_atomic_t g_stop;

// The command line after the role: "--name value" pairs, bare flags, then
// "--" COMMAND...
struct Args {
    std::map<std::string, std::string> named;
    std::vector<char*> command;  // null-terminated, for execv

    Args(int argc, char** argv);
    std::string text(const char* name, const char* otherwise = "") const;
    long number(const char* name, long otherwise) const;
};

// Median, the 95th percentile (nearest rank) and the largest of what was
// measured; -1 each when nothing was.
struct Spread {
    double median = -1, p95 = -1, max = -1;
};
Spread spread(std::vector<double> v);

// Rss and Private_Dirty of a process (smaps_rollup), in KiB; -1 if unknown.
struct Memory {
    long rss_kb = -1, private_dirty_kb = -1;
};
Memory memory_of(pid_t pid);

// Packets the kernel dropped at its per-CPU input queues, all CPUs.
long backlog_drops();

// A packet socket on br0 of an emulated device; it refuses to open in the
// machine's own network namespace.
class Link {
  public:
    // `receive`: also read 1905.1 frames (with a large queue), not only send.
    bool open(bool receive);
    const ether_addr& own() const { return own_; }

    // Sends frames[first], frames[first + 1], ... (taken round the ring) in
    // batches; how many went out.
    size_t send(const std::vector<Frame>& frames, size_t first, size_t count);
    bool send(const Frame& f) { return send(std::vector<Frame>{f}, 0, 1) == 1; }

    // The next frame within `ms` milliseconds, in a 1514-byte buffer ready
    // for the TLV walk; its length, or 0.
    int receive(Frame* f, int ms);

  private:
    static constexpr size_t kBatch = 64;
    kestr::UniqueFd fd_;
    ether_addr own_{};
};

}  // namespace kbench
