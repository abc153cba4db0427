#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <vector>

#include "port/util.h"
#include "protocol/19051_msg.h"
#include "tests/support/capture.h"
#include "tests/support/netns.h"

namespace {

using kestr::test::capture_output;
using kestr::test::PeerPort;
using namespace std::chrono_literals;

// A frame addressed to br0 from the peer end: Ethernet header, CMDU header,
// then `content` (the caller includes the end-of-message TLV when it wants one).
std::vector<uint8_t> frame(const std::vector<uint8_t>& dst, const std::vector<uint8_t>& src,
                           uint16_t ether_type, uint8_t version, uint16_t type, uint16_t mid,
                           const std::vector<uint8_t>& content) {
    std::vector<uint8_t> f(dst);
    f.insert(f.end(), src.begin(), src.end());
    f.push_back(static_cast<uint8_t>(ether_type >> 8));
    f.push_back(static_cast<uint8_t>(ether_type));
    const uint8_t header[8] = {version,
                               0xEE,
                               static_cast<uint8_t>(type >> 8),
                               static_cast<uint8_t>(type),
                               static_cast<uint8_t>(mid >> 8),
                               static_cast<uint8_t>(mid),
                               0x33,
                               0x3F};
    f.insert(f.end(), header, header + 8);
    f.insert(f.end(), content.begin(), content.end());
    return f;
}

class TransportTest : public ::testing::Test {
  protected:
    void TearDown() override { IEEE19051_MsgUninit(); }
};

TEST_F(TransportTest, ReceivePathValidatesEachFrame) {
    KESTR_ENTER_NAMESPACES();
    char br0[] = "br0";
    IEEE19051_MsgInit(br0);
    PeerPort peer;
    ASSERT_TRUE(peer.ok());
    const auto br_mac = kestr::test::interface_mac("br0");
    const std::vector<uint8_t> eom = {0, 0, 0};

    struct Case {
        const char* what;
        std::vector<uint8_t> bytes;
        int result;  // -2: the frame length
        std::string err;
    };
    auto full = frame(br_mac, peer.mac(), 0x893A, 0, 9, 77, std::vector<uint8_t>(1492, 0xA5));
    auto short24 = frame(br_mac, peer.mac(), 0x893A, 0, 7, 1, eom);
    short24.pop_back();
    // veth delivers frames as sent, without padding them to 60 bytes.
    const Case cases[] = {
        {"24-byte frame", short24, -1, "IEEE19051_RecvMsg: Bad length of the frame: 24\n"},
        {"minimal 25-byte CMDU", frame(br_mac, peer.mac(), 0x893A, 0, 7, 1, eom), 25, ""},
        {"version 1", frame(br_mac, peer.mac(), 0x893A, 1, 7, 1, eom), -1,
         "IEEE19051_RecvMsg: Unsupported version: 1\n"},
        {"version 0x80", frame(br_mac, peer.mac(), 0x893A, 0x80, 7, 1, eom), -1,
         "IEEE19051_RecvMsg: Unsupported version: 128\n"},
        {"multicast destination, odd flags and reserved byte",
         frame({0x01, 0x80, 0xC2, 0, 0, 0x13}, peer.mac(), 0x893A, 0, 7, 2, eom), 25, ""},
        {"full 1514-byte frame", full, 1514, ""},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(peer.send(c.bytes)) << c.what;
        std::vector<uint8_t> buf(1514, 0);
        int n = 0;
        const auto out = capture_output([&] { n = IEEE19051_RecvMsg("br0", buf.data(), 1514, 2); });
        EXPECT_EQ(n, c.result) << c.what;
        EXPECT_EQ(out.err, c.err) << c.what;
        if (n > 0) {
            EXPECT_EQ(0, std::memcmp(buf.data(), c.bytes.data(), c.bytes.size())) << c.what;
        }
    }

    // A frame longer than the reader's buffer is cut to the buffer.
    ASSERT_TRUE(peer.send(full));
    std::vector<uint8_t> buf(100, 0);
    EXPECT_EQ(IEEE19051_RecvMsg("br0", buf.data(), 100, 2), 100);
}

// The receive task runs key agreements inline, for tens of milliseconds
// (far longer on a small CPU); frames that come meanwhile must wait in the
// socket rather than be dropped, or a busy link costs the one M2 that
// matters. A burst of a few hundred full-size frames is kept whole.
TEST_F(TransportTest, BurstWhileTheReaderIsBusyIsQueuedWhole) {
    KESTR_ENTER_NAMESPACES();
    char br0[] = "br0";
    IEEE19051_MsgInit(br0);
    PeerPort peer;
    ASSERT_TRUE(peer.ok());
    constexpr int kBurst = 300;
    for (int i = 0; i < kBurst; ++i) {
        const auto f = frame(kestr::test::interface_mac("br0"), peer.mac(), 0x893A, 0, 9,
                             static_cast<uint16_t>(i), std::vector<uint8_t>(1492, 0x5A));
        ASSERT_TRUE(peer.send(f)) << i;
    }
    std::vector<uint8_t> buf(1514);
    int received = 0;
    while (IEEE19051_RecvMsg("br0", buf.data(), 1514, 1) == 1514) {
        EXPECT_EQ(IEEE19051_GetMid(buf.data()), received) << "in order, none missing";
        ++received;
    }
    EXPECT_EQ(received, kBurst);
}

TEST_F(TransportTest, ForeignEtherTypeNeverReachesTheReader) {
    KESTR_ENTER_NAMESPACES();
    char br0[] = "br0";
    IEEE19051_MsgInit(br0);
    PeerPort peer("veth1", 0x88B5);
    ASSERT_TRUE(peer.ok());
    auto f = frame(kestr::test::interface_mac("br0"), peer.mac(), 0x88B5, 0, 7, 1, {0, 0, 0});
    ASSERT_TRUE(peer.send(f));
    uint8_t buf[1514];
    const auto t0 = std::chrono::steady_clock::now();
    const auto out = capture_output([&] { EXPECT_EQ(IEEE19051_RecvMsg("br0", buf, 1514, 1), -1); });
    // Filtered by the socket: the whole time-out passes, silently.
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 900ms);
    EXPECT_EQ(out.out + out.err, "");
}

TEST_F(TransportTest, SendPadsShortFramesWithZeros) {
    KESTR_ENTER_NAMESPACES();
    PeerPort peer;
    ASSERT_TRUE(peer.ok());
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(0x893A));
    ASSERT_GE(fd, 0);
    param_t param{};
    char da[kMacTextSize];
    struct ether_addr peer_mac;
    std::memcpy(peer_mac.ether_addr_octet, peer.mac().data(), 6);
    ASSERT_EQ(mac_etheraddr_to_str(&peer_mac, da, sizeof da), 0);
    ASSERT_EQ(fillParam(&param, fd, da, "br0", 70000), 0);

    // A 42-byte frame in a buffer of exactly 42 bytes: arrives as 60, the last
    // 18 zero, and nothing past the 42 is read (ASan would see it).
    std::vector<uint8_t> small(peer.mac());
    small.insert(small.end(), param.sa.ether_addr_octet, param.sa.ether_addr_octet + 6);
    small.resize(42, 0x7E);
    small[12] = 0x89;
    small[13] = 0x3A;
    ASSERT_EQ(sendPacket(fd, param.sa, small.data(), 42, param.tx_idx), 0);
    auto got = peer.receive(2000ms);
    ASSERT_TRUE(got.has_value());
    std::vector<uint8_t> padded = small;
    padded.resize(60, 0);
    EXPECT_EQ(*got, padded);

    std::vector<uint8_t> big(small.begin(), small.begin() + 14);
    big.resize(1514, 0x5C);
    ASSERT_EQ(sendPacket(fd, param.sa, big.data(), 1514, param.tx_idx), 0);
    got = peer.receive(2000ms);
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(*got, big);

    EXPECT_EQ(sendPacket(fd, param.sa, nullptr, 42, param.tx_idx), -1);
    EXPECT_EQ(sendPacket(fd, param.sa, small.data(), 0, param.tx_idx), -1);
    const auto out =
        capture_output([&] { EXPECT_EQ(sendPacket(fd, param.sa, small.data(), 42, 9999), -1); });
    EXPECT_EQ(out.err, "Error running sendto()\n");
    close(fd);
}

TEST_F(TransportTest, InterfaceNamesAreCutAndFailuresReported) {
    KESTR_ENTER_NAMESPACES();
    // A 15-character name exists; the same name with more characters after it
    // addresses the same interface because only 15 characters are used.
    ASSERT_EQ(kestr::test::run_shell("ip link add abcdefghijklmno type bridge"), 0);
    const int fd = IEEE19051_RecvSockCreate("abcdefghijklmnoXYZ", 0x893A);
    EXPECT_GE(fd, 0);
    if (fd >= 0)
        close(fd);

    const int sfd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(0x893A));
    param_t param{};
    EXPECT_EQ(fillParam(&param, sfd, "1:2:3:4:5:6", "abcdefghijklmnoXYZ", 5), 0);

    struct Case {
        const char* name;
        std::string err;
    } cases[] = {
        {"", "IEEE19051_RecvSockCreate: Empty interface name\n"},
        {"nosuchif", "IEEE19051_RecvSockCreate: ioctl index: No such device\n"},
    };
    for (const auto& c : cases) {
        int rc = 0;
        const auto out = capture_output([&] { rc = IEEE19051_RecvSockCreate(c.name, 0x893A); });
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(out.err, c.err);
    }
    const auto none = capture_output([] { EXPECT_EQ(IEEE19051_RecvSockCreate(nullptr, 1), -1); });
    EXPECT_EQ(none.err, "IEEE19051_RecvSockCreate: Empty interface name\n");

    param_t p2{};
    const auto out =
        capture_output([&] { EXPECT_EQ(fillParam(&p2, sfd, "1:2:3:4:5:6", "nosuchif", 9), -1); });
    EXPECT_EQ(out.out, "Error running ioctl/SIOCGIFHWADDR\n");
    close(sfd);
}

// Header fields are read big-endian and unsigned: identifier 65534 is not -2.
TEST(Transport, HeaderGetters) {
    uint8_t f[25] = {1,    2, 3, 4,    5,    6,    0xA,  0xB, 0xC,  0xD, 0xE, 0xF, 0x89,
                     0x3A, 0, 0, 0x00, 0x09, 0xFF, 0xFE, 0,   0xC0, 0,   0,   0};
    EXPECT_EQ(IEEE19051_GetEtherType(f), 0x893A);
    EXPECT_EQ(IEEE19051_GetType(f), 9);
    EXPECT_EQ(IEEE19051_GetMid(f), 65534);
    EXPECT_EQ(IEEE19051_GetFlags(f), 0xC0);
    struct ether_addr smac, dmac;
    ASSERT_EQ(IEEE19051_GetEtherSmac(f, &smac), 0);
    ASSERT_EQ(IEEE19051_GetEtherDmac(f, &dmac), 0);
    EXPECT_EQ(smac.ether_addr_octet[0], 0xA);
    EXPECT_EQ(dmac.ether_addr_octet[5], 6);
    EXPECT_EQ(IEEE19051_GetMid(nullptr), -1);
}

TEST(Transport, ReceiveWithoutSocketAndDoubleUninit) {
    uint8_t buf[64];
    const auto out = capture_output([&] {
        EXPECT_EQ(IEEE19051_RecvMsg("br0", buf, sizeof buf, 1), -1);
        IEEE19051_MsgUninit();
        IEEE19051_MsgUninit();
    });
    EXPECT_EQ(out.out + out.err, "");
}

}  // namespace
