#include "bench/system_common.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "port/19051_port.h"
#include "protocol/19051_frame.h"
#include "protocol/19051_parse.h"

namespace kbench {

volatile std::sig_atomic_t g_stop = 0;

Args::Args(int argc, char** argv) {
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") == 0) {
            while (++i < argc)
                command.push_back(argv[i]);
            break;
        }
        const bool flag = i + 1 >= argc || std::strncmp(argv[i + 1], "--", 2) == 0;
        named[argv[i]] = flag ? "1" : argv[i + 1];
        i += flag ? 0 : 1;
    }
    command.push_back(nullptr);
}

std::string Args::text(const char* name, const char* otherwise) const {
    const auto it = named.find(name);
    return it == named.end() ? otherwise : it->second;
}

long Args::number(const char* name, long otherwise) const {
    const auto it = named.find(name);
    return it == named.end() ? otherwise : std::atol(it->second.c_str());
}

Spread spread(std::vector<double> v) {
    Spread s;
    if (v.empty())
        return s;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    s.median = n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
    s.p95 = v[std::max<size_t>((95 * n + 99) / 100, 1) - 1];
    s.max = v.back();
    return s;
}

Memory memory_of(pid_t pid) {
    Memory m;
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string line; std::getline(in, line);) {
        std::sscanf(line.c_str(), "Rss: %ld", &m.rss_kb);
        std::sscanf(line.c_str(), "Private_Dirty: %ld", &m.private_dirty_kb);
    }
    return m;
}

long backlog_drops() {
    std::ifstream in("/proc/net/softnet_stat");
    std::string processed, dropped, rest;
    long total = 0;
    while (in >> processed >> dropped && std::getline(in, rest))
        total += std::stol(dropped, nullptr, 16);
    return total;
}

namespace {

// Whether this process may be in the machine's own network namespace: in
// that of the first process or of the driver (BENCH_HOST_NETNS, set by
// system.sh), or in one it cannot tell apart from them. A namespace that
// cannot be read counts as the machine's, so the guard never fails open.
bool in_own_network_namespace() {
    char self[64] = {}, init[64] = {};
    if (readlink("/proc/self/ns/net", self, sizeof self - 1) <= 0)
        return true;
    const char* host = std::getenv("BENCH_HOST_NETNS");
    if (host == nullptr || *host == '\0' || std::strcmp(self, host) == 0)
        return true;
    return readlink("/proc/1/ns/net", init, sizeof init - 1) > 0 && std::strcmp(self, init) == 0;
}

}  // namespace

bool Link::open(bool receive) {
    if (in_own_network_namespace()) {
        std::fprintf(stderr, "bench: run inside an emulated device, not on this machine\n");
        return false;
    }
    char br0[] = "br0";
    const uint16_t proto = receive ? htons(kIeee1905EtherType) : 0;
    fd_ = kestr::UniqueFd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, proto));
    const int one = 1, queue = 8 << 20;
    setsockopt(fd_.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one);
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &queue, sizeof queue);
    struct sockaddr_ll addr {};
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = proto;
    addr.sll_ifindex = static_cast<int>(if_nametoindex(br0));
    if (!fd_.valid() || addr.sll_ifindex == 0 ||
        bind(fd_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        IEEE19051Port_GetMacByInterface(br0, &own_) != 0) {
        std::perror("bench: br0");
        return false;
    }
    return true;
}

size_t Link::send(const std::vector<Frame>& frames, size_t first, size_t count) {
    size_t sent = 0;
    while (sent < count) {
        const size_t n = std::min<size_t>(count - sent, kBatch);
        iovec iov[kBatch];
        mmsghdr msgs[kBatch] = {};
        for (size_t i = 0; i < n; ++i) {
            const Frame& f = frames[(first + sent + i) % frames.size()];
            iov[i] = {const_cast<uint8_t*>(f.data()), f.size()};
            msgs[i].msg_hdr.msg_iov = &iov[i];
            msgs[i].msg_hdr.msg_iovlen = 1;
        }
        const int done = sendmmsg(fd_.get(), msgs, static_cast<unsigned>(n), 0);
        if (done <= 0)
            break;
        sent += static_cast<size_t>(done);
    }
    return sent;
}

int Link::receive(Frame* f, int ms) {
    pollfd p = {fd_.get(), POLLIN, 0};
    f->assign(kCmduMaxFrameLen, 0);
    if (poll(&p, 1, ms) <= 0)
        return 0;
    // The bytes after the frame stay zero: the TLV walk over the whole
    // buffer ends where the frame did.
    const ssize_t n = recv(fd_.get(), f->data(), f->size(), 0);
    return n < kCmduMinFrameLen ? 0 : static_cast<int>(n);
}

}  // namespace kbench
