// Hostile clients of a device's configuration database, for the end-to-end
// tests, with one honest client among them:
//
//   kestr_test_dbhostile --seconds S [--threads N] [--check PATH=VALUE]
//
// Each hostile thread opens connection after connection to
// /var/run/xmldb_sock and misbehaves in one way each time: random bytes, an
// announced length the daemon refuses, half a request and then silence, a
// request cut off by a disconnect, an argument without its NUL or with one
// inside, a request and then never reading the answer, unknown request
// codes, file requests on things that are no regular files, and sets, gets
// and deletes under /hostile of its own. Connections that stall are held
// for up to two seconds, well inside the daemon's stall limit, so many are
// open at once. The honest thread reads PATH again and again through the
// client library and counts answers other than VALUE.
//
// Prints "dbhostile: ..." and "honest: ..." and exits 0 when every honest
// answer was right.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "port/comlib/libxmldbc.h"
#include "port/common/unique_fd.h"
#include "tests/e2e/options.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kKinds = 10;
constexpr const char* kKindNames[kKinds] = {"noise",    "oversized",  "stall",  "cut-off",
                                            "no-nul",   "nul-inside", "unread", "unknown-code",
                                            "odd-file", "own-nodes"};
std::atomic<long> g_done[kKinds];
std::atomic<long> g_refused_connects{0};

kestr::UniqueFd connect_db() {
    kestr::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, kXmldbDefaultSocket, sizeof addr.sun_path - 1);
    if (!fd.valid() ||
        connect(fd.get(), reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
        ++g_refused_connects;
        fd.reset();
    }
    return fd;
}

// A request in the daemon's framing; `length` may lie about `arg`.
std::string request(uint16_t action, const std::string& arg, uint16_t length) {
    rgdb_ipc_t h;
    std::memset(&h, 0, sizeof h);
    h.action = action;
    h.length = length;
    return std::string(reinterpret_cast<const char*>(&h), sizeof h) + arg;
}
std::string request(uint16_t action, const std::string& text) {
    const std::string arg = text + std::string(1, '\0');
    return request(action, arg, static_cast<uint16_t>(arg.size()));
}

void put(int fd, const std::string& bytes) {
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

// Reads until the daemon closes or `limit` passes.
void drain(int fd, std::chrono::milliseconds limit) {
    const auto end = Clock::now() + limit;
    char buf[4096];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        struct pollfd p = {fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0)
            return;
        if (read(fd, buf, sizeof buf) <= 0)
            return;
    }
}

void misbehave(int kind, std::mt19937& rng) {
    auto pick = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    kestr::UniqueFd fd = connect_db();
    if (!fd.valid())
        return;
    const int c = fd.get();
    switch (kind) {
        case 0: {  // noise of any length
            std::string junk(static_cast<size_t>(pick(1, 5000)), '\0');
            for (char& ch : junk)
                ch = static_cast<char>(rng());
            put(c, junk);
            drain(c, 200ms);
            break;
        }
        case 1:  // a length above what the daemon takes
            put(c, request(XMLDB_GET, "", static_cast<uint16_t>(pick(4097, 65535))));
            drain(c, 500ms);
            break;
        case 2:  // half a request, then silence
            put(c, request(XMLDB_GET, "/wifi", 100).substr(0, static_cast<size_t>(pick(0, 16))));
            std::this_thread::sleep_for(std::chrono::milliseconds(pick(100, 2000)));
            break;
        case 3:  // gone in the middle of its argument
            put(c, request(XMLDB_SET, "/hostile/x 1", 40));
            break;
        case 4:  // the argument's NUL missing
            put(c, request(XMLDB_GET, "/wifi/entry:1/ssid", 18));
            drain(c, 500ms);
            break;
        case 5:  // a NUL inside the argument
            put(c,
                request(XMLDB_SET, std::string("/hostile/a\0 b", 13) + std::string(1, '\0'), 14));
            drain(c, 500ms);
            break;
        case 6:  // asks, and never reads the answer
            put(c, request(XMLDB_GET, "/hostile/big"));
            std::this_thread::sleep_for(std::chrono::milliseconds(pick(100, 2000)));
            break;
        case 7:  // codes nobody defined
            put(c, request(static_cast<uint16_t>(pick(16, 65535)), "/wifi"));
            drain(c, 500ms);
            break;
        case 8: {  // files that are no regular files
            static const char* const kOdd[] = {"/dev/zero", "/dev/null", "/var/run/xmldb_sock",
                                               "/proc/self/fd/0", "/nonexistent/x.xml"};
            const uint16_t action = pick(0, 1) == 0 ? XMLDB_READ : XMLDB_DUMP;
            put(c, request(action, kOdd[pick(0, static_cast<int>(std::size(kOdd)) - 1)]));
            drain(c, 500ms);
            break;
        }
        default: {  // its own corner of the tree: sets, gets and deletes
            const std::string node = "/hostile/n:" + std::to_string(pick(1, 50));
            const int op = pick(0, 3);
            if (op == 0)
                put(c, request(XMLDB_SET,
                               node + " " + std::string(static_cast<size_t>(pick(0, 400)), 'h')));
            else if (op == 1)
                put(c, request(XMLDB_DEL, "/hostile"));
            else if (op == 2)
                put(c, request(XMLDB_SET, "/hostile/big " + std::string(490, 'B')));
            else
                put(c, request(XMLDB_GET, node));
            drain(c, 500ms);
            break;
        }
    }
    ++g_done[kind];
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    int seconds = 10, threads = 16;
    std::string check;
    if (!kestr::test::parse_options(argc, argv, "--seconds", &seconds, "--threads", &threads,
                                    "--check", &check)) {
        std::fprintf(
            stderr, "usage: kestr_test_dbhostile --seconds S [--threads N] [--check PATH=VALUE]\n");
        return 2;
    }
    const size_t eq = check.find('=');
    const std::string check_path = check.substr(0, eq);
    const std::string check_value = eq == std::string::npos ? "" : check.substr(eq + 1);

    const auto end = Clock::now() + std::chrono::seconds(seconds);
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([t, end] {
            std::mt19937 rng(static_cast<unsigned>(t) * 7919u + 1u);
            for (int n = t; Clock::now() < end; ++n)
                misbehave(n % kKinds, rng);
        });
    }
    long honest = 0, wrong = 0;
    auto slowest = Clock::duration::zero();
    if (!check_path.empty()) {
        while (Clock::now() < end) {
            char value[256] = {};
            const auto t0 = Clock::now();
            const ssize_t rc = xmldbc_get_wb(nullptr, 0, check_path.c_str(), value, sizeof value);
            slowest = std::max(slowest, Clock::now() - t0);
            ++honest;
            if (rc != 0 || check_value != value)
                ++wrong;
            std::this_thread::sleep_for(20ms);
        }
    }
    for (auto& th : pool)
        th.join();

    long total = 0;
    std::printf("dbhostile: ");
    for (int k = 0; k < kKinds; ++k) {
        total += g_done[k];
        std::printf("%s %ld, ", kKindNames[k], g_done[k].load());
    }
    std::printf("%ld connections from %d threads in %d s; %ld refused\n", total, threads, seconds,
                g_refused_connects.load());
    if (!check_path.empty()) {
        std::printf("honest: %ld reads of %s, %ld wrong, slowest %lld ms\n", honest,
                    check_path.c_str(), wrong,
                    static_cast<long long>(
                        std::chrono::duration_cast<std::chrono::milliseconds>(slowest).count()));
    }
    return wrong == 0 && g_refused_connects.load() == 0 ? 0 : 1;
}
