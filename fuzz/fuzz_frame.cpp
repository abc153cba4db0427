// Frame validation and the header getters, on frames that really arrive:
// the receive socket is opened as the daemon opens it, on the loopback
// interface of a private network namespace, and each input is sent there as
// one raw frame and read back with the receive call the receive task uses.
//
// The receive call must accept exactly the frames of at least 25 bytes with
// version 0, return what was read (a longer frame cut to one CMDU), and the
// getters must read the fields at their wire offsets. The socket is bound to
// the 1905.1 EtherType, so only such frames ever reach it: bytes 12 and 13 of
// every input are set to it.
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/support.h"
#include "port/common/bytes.h"
#include "protocol/19051_msg.h"

namespace {

int g_send = -1;
int g_ifindex = 0;

// A frame longer than any CMDU, still far below the loopback's MTU.
constexpr size_t kMaxInput = 4096;

bool send_frame(const uint8_t* data, size_t size) {
    struct sockaddr_ll to;
    std::memset(&to, 0, sizeof to);
    to.sll_family = AF_PACKET;
    to.sll_ifindex = g_ifindex;
    to.sll_halen = ETH_ALEN;
    std::memcpy(to.sll_addr, data, ETH_ALEN);
    return sendto(g_send, data, size, 0, reinterpret_cast<struct sockaddr*>(&to), sizeof to) ==
           static_cast<ssize_t>(size);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kestr::fuzz::isolate({.net = true}, "fuzz_frame");
    // Protocol 0: this socket sends only and never receives.
    g_send = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    char lo[] = "lo";
    g_ifindex = static_cast<int>(if_nametoindex(lo));
    // Up before the receive socket is bound: a socket bound to a down
    // interface reports "Network is down" on its first read.
    struct ifreq ifr;
    std::memset(&ifr, 0, sizeof ifr);
    std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", lo);
    ifr.ifr_flags = IFF_UP;
    if (g_send < 0 || g_ifindex == 0 || ioctl(g_send, SIOCSIFFLAGS, &ifr) != 0) {
        std::perror("fuzz_frame: send socket on lo");
        std::exit(2);
    }
    IEEE19051_MsgInit(lo);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
    if (size < kEtherHeaderLen || size > kMaxInput)
        return 0;
    std::vector<uint8_t> frame_bytes(input, input + size);
    kestr::store_be16(frame_bytes.data() + 12, kIeee1905EtherType);
    const uint8_t* data = frame_bytes.data();
    if (!send_frame(data, size))
        return 0;

    // The receive task's buffer, holding the bytes of an earlier frame.
    std::vector<uint8_t> buf(kCmduMaxFrameLen, 0xA5);
    char lo[] = "lo";
    const int n = IEEE19051_RecvMsg(lo, buf.data(), static_cast<int>(buf.size()), 1);

    const int read = static_cast<int>(std::min<size_t>(size, kCmduMaxFrameLen));
    const bool good = read >= kCmduMinFrameLen && data[14] == 0;
    KESTR_FUZZ_CHECK(n == (good ? read : -1));
    if (n < 0)
        return 0;
    KESTR_FUZZ_CHECK(std::memcmp(buf.data(), data, static_cast<size_t>(n)) == 0);

    uint8_t* frame = buf.data();
    KESTR_FUZZ_CHECK(IEEE19051_GetEtherType(frame) == kIeee1905EtherType);
    KESTR_FUZZ_CHECK(IEEE19051_GetType(frame) == kestr::load_be16(data + 16));
    KESTR_FUZZ_CHECK(IEEE19051_GetMid(frame) == kestr::load_be16(data + 18));
    KESTR_FUZZ_CHECK(IEEE19051_GetFlags(frame) == data[21]);
    struct ether_addr mac;
    KESTR_FUZZ_CHECK(IEEE19051_GetEtherSmac(frame, &mac) == 0 &&
                     std::memcmp(mac.ether_addr_octet, data + 6, 6) == 0);
    KESTR_FUZZ_CHECK(IEEE19051_GetEtherDmac(frame, &mac) == 0 &&
                     std::memcmp(mac.ether_addr_octet, data, 6) == 0);
    return 0;
}
