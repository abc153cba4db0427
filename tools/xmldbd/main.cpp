// xmldbd: a stand-in for the device's configuration-database daemon, so that
// kestrd and its tests run end to end on a development machine.
//
//   xmldbd [-s SOCKET_PATH] [-f SEED_FILE] [-t STALL_SECONDS]
//
// Runs in the foreground and serves the database protocol on a local stream
// socket ("/var/run/xmldb_sock" by default) until SIGTERM or SIGINT, then
// removes its socket.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "port/comlib/libxmldbc.h"
#include "port/common/unique_fd.h"
#include "tools/xmldbd/server.h"
#include "tools/xmldbd/tree.h"

namespace {

using kestr::UniqueFd;

std::atomic<int> stop_requested{0};

void on_stop_signal(int) {
    stop_requested.store(1);
}

void usage(FILE* to) {
    std::fprintf(to,
                 "usage: xmldbd [-s SOCKET_PATH] [-f SEED_FILE] [-t STALL_SECONDS]\n"
                 "  -s  socket to serve (default %s)\n"
                 "  -f  XML file to start with: the root element is \"/\", child elements\n"
                 "      are nodes, repeated siblings are list members 1..n, text is the value\n"
                 "  -t  seconds a client has to send its request and take the answer "
                 "(default 10)\n",
                 kXmldbDefaultSocket);
}

int fail(const std::string& message) {
    std::fprintf(stderr, "xmldbd: %s\n", message.c_str());
    return 1;
}

bool load_seed(xmldbd::ConfigTree& tree, const char* path, std::string* why) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *why = std::strerror(errno);
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    return tree.load(text.str(), why);
}

struct sockaddr_un address_of(const std::string& path) {
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size());
    return addr;
}

// A socket file left by a daemon that died is removed; one that another
// daemon still answers on, or a file that is not a socket, is left alone.
bool clear_stale_socket(const std::string& path, std::string* why) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return true;
    if (!S_ISSOCK(st.st_mode)) {
        *why = path + " exists and is not a socket";
        return false;
    }
    UniqueFd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const struct sockaddr_un addr = address_of(path);
    if (probe.valid() &&
        connect(probe.get(), reinterpret_cast<const struct sockaddr*>(&addr), sizeof addr) == 0) {
        *why = "another daemon serves " + path;
        return false;
    }
    unlink(path.c_str());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string socket_path = kXmldbDefaultSocket;
    const char* seed = nullptr;
    xmldbd::ServerOptions options;
    int opt;
    while ((opt = getopt(argc, argv, "s:f:t:h")) != -1) {
        switch (opt) {
            case 's':
                socket_path = optarg;
                break;
            case 'f':
                seed = optarg;
                break;
            case 't': {
                char* end = nullptr;
                const long seconds = std::strtol(optarg, &end, 10);
                if (*optarg == '\0' || *end != '\0' || seconds < 1 || seconds > 3600) {
                    return fail("-t takes a number of seconds from 1 to 3600");
                }
                options.stall_limit = std::chrono::seconds(seconds);
                break;
            }
            case 'h':
                usage(stdout);
                return 0;
            default:
                usage(stderr);
                return 2;
        }
    }
    if (optind != argc) {
        usage(stderr);
        return 2;
    }
    if (socket_path.empty() || socket_path.size() > kXmldbSocketPathMax) {
        return fail("socket path must have 1 to " + std::to_string(kXmldbSocketPathMax) +
                    " characters");
    }

    xmldbd::ConfigTree tree;
    std::string why;
    if (seed != nullptr && !load_seed(tree, seed, &why)) {
        return fail(std::string("cannot use seed file ") + seed + ": " + why);
    }

    // SIGTERM and SIGINT are blocked except while the loop waits, so a stop
    // request can never slip in between the check and the wait.
    signal(SIGPIPE, SIG_IGN);
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_stop_signal;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    sigset_t stop_signals;
    sigset_t wait_mask;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    sigprocmask(SIG_BLOCK, &stop_signals, &wait_mask);
    sigdelset(&wait_mask, SIGTERM);
    sigdelset(&wait_mask, SIGINT);

    if (!clear_stale_socket(socket_path, &why))
        return fail(why);
    UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const struct sockaddr_un addr = address_of(socket_path);
    if (!listener.valid() ||
        bind(listener.get(), reinterpret_cast<const struct sockaddr*>(&addr), sizeof addr) != 0) {
        return fail("cannot bind " + socket_path + ": " + std::strerror(errno));
    }
    struct stat own;
    const bool have_own = stat(socket_path.c_str(), &own) == 0;
    if (listen(listener.get(), 64) != 0) {
        unlink(socket_path.c_str());
        return fail("cannot listen on " + socket_path + ": " + std::strerror(errno));
    }
    std::fprintf(stderr, "xmldbd: serving %s with %zu nodes\n", socket_path.c_str(),
                 tree.node_count());

    xmldbd::serve(tree, listener.get(), options, stop_requested, &wait_mask);

    // Remove the socket only if it is still ours, not one a successor made.
    struct stat now;
    if (have_own && stat(socket_path.c_str(), &now) == 0 && now.st_ino == own.st_ino &&
        now.st_dev == own.st_dev) {
        unlink(socket_path.c_str());
    }
    std::fprintf(stderr, "xmldbd: stopped\n");
    return 0;
}
