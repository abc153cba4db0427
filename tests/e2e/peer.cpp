// A third device for the end-to-end scenarios.
//
//   kestr_test_peer flood RATE SECONDS   hostile 1905.1 frames on br0
//   kestr_test_peer hold-mid-lock        takes the identifier lock and keeps it
//
// The flood mixes random bytes, CMDUs whose TLVs run past the frame, WSC
// messages whose attribute lengths lie, forged Responses under random
// identifiers and forged M2s under random nonces, all built from the
// project's own builders and then spoiled. It goes to the multicast address
// and to broadcast, and prints "peer: sent N frames".
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "port/common/bytes.h"
#include "port/common/unique_fd.h"
#include "protocol/19051_protocol.h"
#include "protocol/mid.h"
#include "wsc/wsc.h"

namespace {

using Frame = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

class Flood {
  public:
    Frame next() {
        Frame f(kCmduMaxFrameLen, 0);
        param_t p{};
        std::memcpy(p.da.ether_addr_octet, destination(), 6);
        // A few made-up senders, never a real device's address: that would
        // teach the link's bridge a wrong port instead of testing kestrd.
        p.sa.ether_addr_octet[0] = 0x06;
        p.sa.ether_addr_octet[5] = static_cast<uint8_t>(pick(1, 16));
        p.mid = static_cast<int>(pick(0, 0xFFFF));
        auto* m = reinterpret_cast<ieee1905Message_t*>(f.data());
        int n = 0;
        // Searches and M1s cost a registrar an answer each (an M1 a key
        // agreement): they stay rare, or it would do nothing else.
        const uint64_t kind = pick(0, 99);
        switch (kind < 30 ? 0 : kind < 60 ? 1 : kind < 61 ? 2 : 3) {
            case 0:  // noise after a valid header
                n = static_cast<int>(pick(22, kCmduMaxFrameLen));
                for (int i = 22; i < n; ++i)
                    f[i] = static_cast<uint8_t>(rng_());
                break;
            case 1: {  // a Response, possibly for a pending Search, with a TLV that lies
                ap_autoconfig_response_param_t r{static_cast<uint8_t>(pick(0, 1)),
                                                 static_cast<uint8_t>(pick(0, 1))};
                n = IEEE19051_GetPacketApAutoconfigurationResponse(m, p, r);
                lie_about_length(&f, 22 + 3 * static_cast<size_t>(pick(0, 2)));
                break;
            }
            case 2:  // a Search that every registrar answers
                n = IEEE19051_GetPacketApAutoconfigurationSearch(m, p, {0, 0, {}});
                break;
            default: {  // an M2 under a random nonce, or one whose attribute lengths lie
                wsc_configuration_t c{};
                kestr::wsc::set(&c.version, kWscVersion);
                kestr::wsc::set(&c.message_type,
                                pick(0, 49) == 0 ? MessageType_M1 : MessageType_M2);
                for (auto* r : {&c.enrollee_nonce, &c.registrar_nonce})
                    kestr::wsc::set_length(r, 16);
                c.enrollee_nonce.val[0] = static_cast<uint8_t>(rng_());
                kestr::wsc::set_length(&c.encrypted_settings, 16 * pick(0, 8));
                kestr::wsc::set_length(&c.authenticator, 8);
                n = IEEE19051_GetPacketApAutoconfigurationWsc(m, p, &c);
                if (pick(0, 1) == 0)
                    lie_about_length(&f, 25 + 4 * static_cast<size_t>(pick(0, 5)));
                break;
            }
        }
        f.resize(static_cast<size_t>(n > 0 ? n : 60));
        return f;
    }

  private:
    uint64_t pick(uint64_t lo, uint64_t hi) {
        return std::uniform_int_distribution<uint64_t>(lo, hi)(rng_);
    }
    const uint8_t* destination() {
        static const uint8_t kMulticast[6] = {0x01, 0x80, 0xc2, 0x00, 0x00, 0x13};
        static const uint8_t kBroadcast[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
        return pick(0, 4) != 0 ? kMulticast : kBroadcast;
    }
    // A TLV or attribute length somewhere in the frame claims far more.
    void lie_about_length(Frame* f, size_t at) {
        if (at + 2 < f->size())
            kestr::store_be16(&(*f)[at + 1], static_cast<uint16_t>(pick(0, 0xFFFF)));
    }

    std::mt19937_64 rng_{0x1905};
};

int flood(int rate, int seconds) {
    kestr::UniqueFd fd(
        socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(kIeee1905EtherType)));
    struct sockaddr_ll addr {};
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = htons(kIeee1905EtherType);
    addr.sll_ifindex = static_cast<int>(if_nametoindex("br0"));
    if (!fd.valid() || bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
        return 1;
    Flood f;
    const auto start = Clock::now();
    long sent = 0;
    while (Clock::now() - start < std::chrono::seconds(seconds)) {
        const Frame frame = f.next();
        if (send(fd.get(), frame.data(), frame.size(), 0) > 0)
            ++sent;
        std::this_thread::sleep_until(start + std::chrono::microseconds(sent * 1000000 / rate));
    }
    std::printf("peer: sent %ld frames\n", sent);
    return 0;
}

int hold_mid_lock() {
    // The first allocation attaches the counter (and sets it up on a fresh
    // device), as it does in a daemon.
    std::printf("peer: mid %d\n", IEEE19051_GenMid());
    const int id = shmget(ftok(kMessageIdKeyFile, kMessageIdProjectId), 0, kMessageIdPermissions);
    void* addr = id < 0 ? reinterpret_cast<void*>(-1) : shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1) ||
        pthread_mutex_lock(&static_cast<messageId_t*>(addr)->lock) != 0)
        return 1;
    std::printf("peer: holding the identifier lock\n");
    std::fflush(stdout);
    for (;;)
        pause();
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() == 3 && args[0] == "flood")
        return flood(std::atoi(args[1].c_str()), std::atoi(args[2].c_str()));
    if (args.size() == 1 && args[0] == "hold-mid-lock")
        return hold_mid_lock();
    std::fprintf(stderr, "usage: kestr_test_peer flood RATE SECONDS | hold-mid-lock\n");
    return 2;
}
