// Raw-socket transport of IEEE 1905.1 CMDUs: the long-lived receive socket
// on the bridge, the addressing and the send of one built frame, and the
// header getters used on received frames.
#include "protocol/19051_msg.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "port/common/bytes.h"
#include "port/common/common.h"
#include "port/common/report.h"
#include "port/common/unique_fd.h"
#include "port/util.h"
#include "protocol/19051_view.h"

namespace {

// The receive socket. Written only by MsgInit/MsgUninit on the main thread,
// before the receive task starts and after it has been joined; so is `wake`.
int sock = -1;
// Readable once the reader is to stop waiting: it ends any wait for a frame
// at once, and every wait after it, until the socket is closed. Opened and
// closed with the socket; written from any thread (kestr::wake_receive).
int wake = -1;

// The receive queue holds the work the receive task can still do in time.
// Frames wait in it while the task runs a handler, and the costliest frame
// is an M1: a key agreement of about 1 ms on a desktop processor, several on
// a small one. A request that arrives behind a full queue is useful only if
// it is answered within its lifetime (3 whole seconds, at least 2 s) with
// time left for the rest of its exchange; a longer queue only makes every
// answer late. The kernel counts twice what is asked, and 1,280 bytes for an
// M1-sized frame (2,304 for a full one): 160 KiB asked holds 256 M1s, a
// quarter of a second of key agreements here and within the 2 s on a
// processor eight times slower, and still ten times the frames that junk at
// 20,000 frames/s brings while one key agreement runs. Frames of types no
// handler takes do not count: the kernel keeps them out.
constexpr int kReceiveBufferBytes = 160 << 10;

// An interface request naming `name`, cut to IFNAMSIZ - 1 characters.
void name_request(struct ifreq* ifr, const char* name) {
    std::memset(ifr, 0, sizeof *ifr);
    std::strncpy(ifr->ifr_name, name, IFNAMSIZ - 1);
}

}  // namespace

void IEEE19051_MsgInit(char* interface) {
    sock = IEEE19051_RecvSockCreate(interface, kIeee1905EtherType);
    // Without it a wait ends only by its time-out, as it always did.
    if (sock != -1 && wake == -1)
        wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

void IEEE19051_MsgUninit() {
    if (sock != -1) {
        close(sock);
        sock = -1;
    }
    if (wake != -1) {
        close(wake);
        wake = -1;
    }
}

void kestr::wake_receive() {
    if (wake == -1)
        return;
    const uint64_t one = 1;
    // Fails only on a full counter, and a full counter is readable.
    const ssize_t written = write(wake, &one, sizeof one);
    static_cast<void>(written);
}

int32_t IEEE19051_RecvSockCreate(const char* ifName, uint16_t etherType) {
    static const char* const fn = "IEEE19051_RecvSockCreate";
    struct sockaddr_ll addr {};
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = htons(etherType);
    addr.sll_ifindex = 0;
    addr.sll_hatype = ARPHRD_ETHER;
    addr.sll_pkttype = PACKET_OTHERHOST;
    addr.sll_halen = ETH_ALEN;

    if (ifName == nullptr || *ifName == '\0') {
        std::fprintf(stderr, "%s: Empty interface name\n", fn);
        return -1;
    }
    kestr::UniqueFd fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(etherType)));
    if (!fd.valid()) {
        std::fprintf(stderr, "%s: socket(): %s, try running with sudo.\n", fn, strerror(errno));
        return -1;
    }
    // Beyond the system's cap where the daemon may (it runs as root; a small
    // device's cap can be lower than this), within it otherwise; a smaller
    // queue still works, so neither is an error.
    if (setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBufferBytes,
                   sizeof kReceiveBufferBytes) != 0) {
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBufferBytes,
                   sizeof kReceiveBufferBytes);
    }

    struct ifreq ifr;
    name_request(&ifr, ifName);
    if (ioctl(fd.get(), SIOCGIFINDEX, &ifr) < 0) {
        std::fprintf(stderr, "%s: ioctl index: %s\n", fn, strerror(errno));
        return -1;
    }
    addr.sll_ifindex = ifr.ifr_ifindex;
    if (ioctl(fd.get(), SIOCGIFHWADDR, &ifr) < 0) {
        std::fprintf(stderr, "%s: ioctl hwaddr: %s\n", fn, strerror(errno));
        return -1;
    }
    static_assert(sizeof addr.sll_addr == 8, "link-layer address field is 8 bytes");
    std::memcpy(addr.sll_addr, ifr.ifr_hwaddr.sa_data, sizeof addr.sll_addr);
    if (bind(fd.get(), reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) < 0) {
        std::fprintf(stderr, "%s: bind:%s\n", fn, strerror(errno));
        return -1;
    }
    if (ioctl(fd.get(), SIOCGIFFLAGS, &ifr) < 0) {
        std::fprintf(stderr, "%s: ioctl get flags:%s\n", fn, strerror(errno));
        return -1;
    }
    // Bring the interface up; promiscuous and all-multicast modes stay as
    // they are.
    ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP | IFF_BROADCAST | IFF_MULTICAST);
    if (ioctl(fd.get(), SIOCSIFFLAGS, &ifr) < 0) {
        std::fprintf(stderr, "%s: ioctl set flags:%s\n", fn, strerror(errno));
        return -1;
    }
    return fd.release();
}

// A classic socket filter, run by the kernel on every frame before it is
// queued. It keeps out only CMDUs the reader would pass and its caller drop
// without a word: at least 25 bytes, message version 0, a type outside
// first..last. A frame the reader refuses with a line (too short, another
// version) still reaches it, and so does one of a type the caller takes.
int kestr::receive_only_types(int first, int last) {
    if (sock < 0 || first < 0 || last < first || last > 0xFFFF)
        return -1;
    constexpr uint32_t kKeep = 0xFFFFFFFF;  // the whole frame
    const auto u = [](int v) { return static_cast<uint32_t>(v); };
    struct sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_LEN, 0),                           // 0: A = frame length
        BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, u(kCmduMinFrameLen), 0, 5),  // 1: short: keep (7)
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 14),                          // 2: A = version
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 3),                    // 3: not 0: keep (7)
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 16),                          // 4: A = type
        BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, u(first), 0, 2),             // 5: below: drop (8)
        BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, u(last), 1, 0),              // 6: above: drop (8)
        BPF_STMT(BPF_RET | BPF_K, kKeep),                                // 7: keep
        BPF_STMT(BPF_RET | BPF_K, 0),                                    // 8: drop
    };
    struct sock_fprog program {};
    program.len = static_cast<unsigned short>(sizeof code / sizeof code[0]);
    program.filter = code;
    return setsockopt(sock, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0 ? 0 : -1;
}

int IEEE19051_RecvMsg(const char* /*ifName*/, uint8_t* buf, int buf_len, unsigned int timeout_sec) {
    static const char* const fn = "IEEE19051_RecvMsg";
    if (sock < 0)
        return -1;
    if (buf == nullptr || buf_len <= 0)
        return -1;
    if (read_timeout_or_wake(sock, wake, timeout_sec) != 0)
        return -1;

    const ssize_t n = read(sock, buf, static_cast<size_t>(buf_len));
    if (n < 0) {
        std::fprintf(stderr, "Read response failure: %s\n", strerror(errno));
        return -1;
    }
    // A frame too short to hold an EtherType is refused on its length alone,
    // so no byte beyond what was read is ever examined.
    const kestr::FrameView frame(buf, static_cast<size_t>(n));
    if (n >= kEtherHeaderLen) {
        const uint16_t type = frame.ether_type();
        if (type != kIeee1905EtherType) {
            std::fprintf(stderr,
                         "%s: Not an IEEE1905.1 EtherType (received 0x%04X, expected 0x%04X)", fn,
                         type, kIeee1905EtherType);
            return -1;
        }
    }
    if (n < kCmduMinFrameLen) {
        std::fprintf(stderr, "%s: Bad length of the frame: %d\n", fn, static_cast<int>(n));
        return -1;
    }
    if (frame.version() != 0) {
        std::fprintf(stderr, "%s: Unsupported version: %d\n", fn, frame.version());
        return -1;
    }
    return static_cast<int>(n);
}

int fillParam(param_t* pparam, int sockfd, const char* da_str, const char* tx_interface,
              const int mid) {
    if (pparam == nullptr)
        return -1;
    pparam->mid = mid;
    mac_str_to_etheraddr(da_str, &pparam->da);
    if (tx_interface == nullptr)
        return 0;
    return kestr::fill_interface(pparam, sockfd, tx_interface);
}

int sendPacket(int sockfd, struct ether_addr sa, const void* packet, const int num_bytes,
               const int tx_idx) {
    if (packet == nullptr || num_bytes <= 0)
        return -1;

    struct sockaddr_ll to {};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(kIeee1905EtherType);
    to.sll_ifindex = tx_idx;
    to.sll_halen = ETH_ALEN;
    std::memcpy(to.sll_addr, sa.ether_addr_octet, ETH_ALEN);

    // Short frames are padded here, in a buffer of our own, so the caller's
    // buffer is never read past the length it gave.
    uint8_t padded[kMinEtherFrameLen] = {};
    const void* out = packet;
    size_t len = static_cast<size_t>(num_bytes);
    if (num_bytes < kMinEtherFrameLen) {
        std::memcpy(padded, packet, static_cast<size_t>(num_bytes));
        out = padded;
        len = sizeof padded;
    }
    if (sendto(sockfd, out, len, 0, reinterpret_cast<const struct sockaddr*>(&to), sizeof to) < 0) {
        std::fprintf(stderr, "Error running sendto()\n");
        return -1;
    }
    return 0;
}

// The header getters read a bare buffer, which by contract holds a whole
// frame.
int IEEE19051_GetEtherType(u_int8_t* buf) {
    return buf == nullptr ? -1 : kestr::FrameView(buf, kCmduMaxFrameLen).ether_type();
}

int IEEE19051_GetType(u_int8_t* buf) {
    return buf == nullptr ? -1 : kestr::FrameView(buf, kCmduMaxFrameLen).type();
}

int IEEE19051_GetMid(u_int8_t* buf) {
    return buf == nullptr ? -1 : kestr::FrameView(buf, kCmduMaxFrameLen).mid();
}

u_int8_t IEEE19051_GetFlags(u_int8_t* buf) {
    return buf == nullptr ? 255 : kestr::FrameView(buf, kCmduMaxFrameLen).flags();
}

int IEEE19051_GetEtherSmac(u_int8_t* buf, struct ether_addr* mac) {
    if (buf == nullptr || mac == nullptr)
        return -1;
    *mac = kestr::FrameView(buf, kCmduMaxFrameLen).source().ether();
    return 0;
}

int IEEE19051_GetEtherDmac(u_int8_t* buf, struct ether_addr* mac) {
    if (buf == nullptr || mac == nullptr)
        return -1;
    *mac = kestr::FrameView(buf, kCmduMaxFrameLen).destination().ether();
    return 0;
}

// The interface part of the addressing record: the sending interface's own
// address and index.
int kestr::fill_interface(param_t* pparam, int sockfd, const char* tx_interface) {
    struct ifreq ifr;
    name_request(&ifr, tx_interface);
    if (ioctl(sockfd, SIOCGIFHWADDR, &ifr) < 0) {
        std::puts("Error running ioctl/SIOCGIFHWADDR");
        return -1;
    }
    std::memcpy(pparam->sa.ether_addr_octet, ifr.ifr_hwaddr.sa_data, ETH_ALEN);

    name_request(&ifr, tx_interface);
    if (ioctl(sockfd, SIOCGIFINDEX, &ifr) < 0) {
        std::puts("Error running ioctl/SIOCGIFINDEX");
        return -1;
    }
    pparam->tx_idx = ifr.ifr_ifindex;
    return 0;
}
