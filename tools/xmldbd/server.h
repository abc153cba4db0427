// The daemon's event loop: one thread, non-blocking sockets and ppoll.
//
// Every connection carries one request and is closed after its answer. A
// client is never waited for: a connection that sends bytes slowly, stalls or
// does not read its answer only holds its own slot until its time runs out,
// and a broken request closes only that connection (with one line on stderr).
#pragma once

#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstddef>

#include "tools/xmldbd/tree.h"

namespace xmldbd {

struct ServerOptions {
    // Time a connection has from accept until its answer has been taken.
    std::chrono::milliseconds stall_limit{10000};
    // Connections served at once; more wait in the listen backlog.
    size_t max_clients = 512;
};

// Serves `listen_fd` (a listening, non-blocking stream socket) until `stop`
// becomes non-zero. `wait_mask` is the signal mask while waiting, so that a
// signal blocked otherwise can interrupt the wait without a race.
void serve(ConfigTree& tree, int listen_fd, const ServerOptions& options,
           const std::atomic<int>& stop, const sigset_t* wait_mask);

}  // namespace xmldbd
