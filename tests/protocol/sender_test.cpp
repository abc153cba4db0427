// Real sends from br0, captured on the far end of the bridge (veth1), inside
// namespaces the test creates.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <set>
#include <thread>

#include "port/util.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "tests/protocol/cmdu_util.h"
#include "tests/support/netns.h"

namespace {

using kestr::test::capture_output;
using kestr::test::Frame;
using kestr::test::hex;
using kestr::test::mac;
using kestr::test::masked_error;
using kestr::test::PeerPort;
using namespace std::chrono_literals;

using Bytes = std::vector<uint8_t>;

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes padded(Bytes frame) {
    if (frame.size() < 60)
        frame.resize(60, 0);
    return frame;
}

std::string text(const Bytes& mac_bytes) {
    const auto a = mac(mac_bytes);
    char t[kMacTextSize];
    mac_etheraddr_to_str(&a, t, sizeof t);
    return t;
}

const Bytes kMulticast = hex("01 80 c2 00 00 13");
const auto kAlmac = mac("00 11 22 33 44 55");

TEST(Senders, EveryMessageArrivesAsBuilt) {
    KESTR_ENTER_NAMESPACES();
    PeerPort peer;
    ASSERT_TRUE(peer.ok());
    const Bytes br = kestr::test::interface_mac("br0");
    const Bytes to = peer.mac();
    const std::string to_text = text(to);

    device_information_t info{};
    info.num = INTERFACE_TOTAL_MAX;
    for (auto& itf : info.interface)
        itf.length = MEDIA_SPECIFIC_INFO_MAX;
    ieee1905BridgingCapability_t bridging{};
    bridging.m = BRIDGING_TUPLE_MAX;
    for (auto& t : bridging.tuple)
        t.k = BRIDGING_TUPLE_MAC_MAX;
    neighborDeviceList neighbors{};
    neighbors.num = NEIGHBOR_DEVICE_LIST_MAX;
    Frame biggest;
    param_t p{};
    p.da = mac(to);
    p.sa = mac(br);
    p.mid = 9;
    ASSERT_EQ(IEEE19051_GetPacketTopologyResponse(biggest.msg(), p, info, bridging, neighbors),
              1212);

    ap_autoconfig_renew_param_t renew{0, 1, kAlmac};
    struct Case {
        const char* what;
        std::function<int()> send;
        Bytes frame;
    };
    const Case cases[] = {
        {"search",
         [] {
             return IEEE19051_SendMsgApAutoconfigurationSearch("br0", 0x1234, {0, 1, kAlmac});
         },
         padded(cat({kMulticast, br,
                     hex("89 3a 00 00 00 07 12 34 00 c0 01 00 06 00 11 22 33 44 55 0d 00 01 00"
                         "0e 00 01 01 00 00 00")}))},
        {"response to the searcher, identifier 70000",
         [&] {
             return IEEE19051_SendMsgApAutoconfigurationResponse(to_text.c_str(), "br0", 70000,
                                                                 {0, 1});
         },
         padded(
             cat({to, br, hex("89 3a 00 00 00 08 11 70 00 80 0f 00 01 00 10 00 01 01 00 00 00")}))},
        {"renew", [&] { return IEEE19051_SendMsgApAutoconfigurationRenew("br0", 1, &renew); },
         padded(cat({kMulticast, br,
                     hex("89 3a 00 00 00 0a 00 01 00 c0 01 00 06 00 11 22 33 44 55 0f 00 01 00"
                         "10 00 01 01 00 00 00")}))},
        {"topology discovery", [] { return IEEE19051_SendMsgTopologyDiscovery("br0", 2, kAlmac); },
         padded(
             cat({kMulticast, br, hex("89 3a 00 00 00 00 00 02 00 80 01 00 06 00 11 22 33 44 55"),
                  hex("02 00 06"), br, hex("00 00 00")}))},
        {"topology notification",
         [] { return IEEE19051_SendMsgTopologyNotification("br0", 3, kAlmac); },
         padded(cat({kMulticast, br,
                     hex("89 3a 00 00 00 01 00 03 00 c0 01 00 06 00 11 22 33 44 55 00 00 00")}))},
        {"topology query",
         [&] { return IEEE19051_SendMsgTopologyQuery(to_text.c_str(), "br0", 7); },
         padded(cat({to, br, hex("89 3a 00 00 00 02 00 07 00 80 00 00 00")}))},
        {"largest topology response, not padded",
         [&] {
             return IEEE19051_SendMsgTopologyResponse(to_text.c_str(), "br0", 9, info, bridging,
                                                      neighbors);
         },
         biggest.head(1212)},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(c.send(), 0) << c.what;
        const auto got = peer.receive(2000ms);
        ASSERT_TRUE(got.has_value()) << c.what;
        EXPECT_EQ(*got, c.frame) << c.what;
    }
}

// The enrollee's Search goes out; the far end reads it as a registrar would
// and answers with the same identifier; the enrollee's receive path gets the
// Response and reads the offered role and band.
TEST(Senders, EnrolleeAndRegistrarOverTheBridge) {
    KESTR_ENTER_NAMESPACES();
    PeerPort registrar;
    ASSERT_TRUE(registrar.ok());
    const auto enrollee_al = mac("02 00 00 00 0e 01");
    ASSERT_EQ(IEEE19051_SendMsgApAutoconfigurationSearch("br0", 0x4321, {0, 1, enrollee_al}), 0);

    auto search = registrar.receive(2000ms);
    ASSERT_TRUE(search.has_value());
    Frame in;
    std::copy(search->begin(), search->end(), in.bytes.begin());
    ASSERT_EQ(IEEE19051_GetType(in.data()), IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH);
    ASSERT_EQ(IEEE19051_GetTlvTotalNumber(in.data()), 3);
    struct ether_addr al {};
    uint8_t role = 9, band = 9;
    ASSERT_EQ(IEEE19051_ParseTlvSingleAddr(reinterpret_cast<ieee1905SingleAddressTLV_t*>(
                                               IEEE19051_GetTlvByNumber(in.data(), 0)),
                                           &al),
              0);
    ASSERT_EQ(
        IEEE19051_ParseTlvSearchedRole(reinterpret_cast<ieee1905APAutoConfigSearchedRoleTLV_t*>(
                                           IEEE19051_GetTlvByNumber(in.data(), 1)),
                                       &role),
        0);
    ASSERT_EQ(IEEE19051_ParseTlvFreqBand(reinterpret_cast<ieee1905APAutoConfigFreqBandTLV_t*>(
                                             IEEE19051_GetTlvByNumber(in.data(), 2)),
                                         &band),
              0);
    EXPECT_EQ(std::memcmp(&al, &enrollee_al, 6), 0);
    EXPECT_EQ(role, kIeee1905RoleRegistrar);
    EXPECT_EQ(band, kIeee1905FreqBand5G);

    param_t reply{};
    IEEE19051_GetEtherSmac(in.data(), &reply.da);
    reply.sa = mac(registrar.mac());
    reply.mid = IEEE19051_GetMid(in.data());
    Frame answer;
    const int n = IEEE19051_GetPacketApAutoconfigurationResponse(answer.msg(), reply, {role, band});
    ASSERT_EQ(n, 33);

    char br0[] = "br0";
    IEEE19051_MsgInit(br0);
    ASSERT_TRUE(registrar.send(answer.head(n)));
    Frame got;
    ASSERT_EQ(IEEE19051_RecvMsg("br0", got.data(), 1514, 2), n);
    IEEE19051_MsgUninit();
    EXPECT_EQ(IEEE19051_GetType(got.data()), IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_RESPONSE);
    EXPECT_EQ(IEEE19051_GetMid(got.data()), 0x4321);
    uint8_t offered_role = 9, offered_band = 9;
    EXPECT_EQ(
        IEEE19051_ParseTlvSupportedRole(reinterpret_cast<ieee1905APAutoConfigSupportedRoleTLV_t*>(
                                            IEEE19051_GetTlvByNumber(got.data(), 0)),
                                        &offered_role),
        0);
    EXPECT_EQ(IEEE19051_ParseTlvSupportedFreqBand(
                  reinterpret_cast<ieee1905APAutoConfigSupportedFreqBandTLV_t*>(
                      IEEE19051_GetTlvByNumber(got.data(), 1)),
                  &offered_band),
              0);
    EXPECT_EQ(offered_role, kIeee1905RoleRegistrar);
    EXPECT_EQ(offered_band, kIeee1905FreqBand5G);
}

// Senders share nothing: threads sending at once each get their own frame out.
TEST(Senders, ThreadsSendAtTheSameTime) {
    KESTR_ENTER_NAMESPACES();
    PeerPort peer;
    ASSERT_TRUE(peer.ok());
    constexpr int kThreads = 4;
    constexpr int kEach = 25;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &failures] {
            for (int i = 0; i < kEach; ++i) {
                if (IEEE19051_SendMsgApAutoconfigurationSearch("br0", t * 1000 + i,
                                                               {0, 0, kAlmac}) != 0) {
                    ++failures;
                }
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(failures.load(), 0);
    std::set<int> mids;
    while (auto f = peer.receive(500ms)) {
        ASSERT_EQ(f->size(), 60u);
        mids.insert((*f)[18] << 8 | (*f)[19]);
    }
    std::set<int> want;
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kEach; ++i)
            want.insert(t * 1000 + i);
    }
    EXPECT_EQ(mids, want);
}

TEST(Senders, FailuresAndTheirMessages) {
    KESTR_ENTER_NAMESPACES();
    PeerPort peer;
    ASSERT_TRUE(peer.ok());
    const std::string to = text(peer.mac());
    const std::string no_if = "tx_interface == NULL\n";
    const std::string not_a_mac =
        masked_error("util", "mac_str_to_etheraddr", "sscanf error\n") +
        "INI entry da doesn't seem to be a valid MAC address - xx:xx:xx:xx:xx:xx\n";
    const std::string no_hwaddr = "Error running ioctl/SIOCGIFHWADDR\n";
    auto num_bytes = [](const char* sender, int n) {
        return masked_error("19051_msg", sender,
                            "num_bytes <= 0 || num_bytes > sizeof(ieee1905Message_t), num_bytes " +
                                std::to_string(n) + "\n");
    };
    device_information_t too_many{};
    too_many.num = INTERFACE_TOTAL_MAX + 1;

    struct Case {
        const char* what;
        std::function<int()> send;
        std::string out;
        std::string err;
    };
    const Case cases[] = {
        {"search without interface",
         [] { return IEEE19051_SendMsgApAutoconfigurationSearch(nullptr, 1, {}); }, no_if, ""},
        {"response without interface",
         [&] { return IEEE19051_SendMsgApAutoconfigurationResponse(to.c_str(), nullptr, 1, {}); },
         no_if, ""},
        {"renew without interface",
         [] {
             ap_autoconfig_renew_param_t r{};
             return IEEE19051_SendMsgApAutoconfigurationRenew(nullptr, 1, &r);
         },
         no_if, ""},
        {"discovery without interface",
         [] { return IEEE19051_SendMsgTopologyDiscovery(nullptr, 1, kAlmac); }, no_if, ""},
        {"notification without interface",
         [] { return IEEE19051_SendMsgTopologyNotification(nullptr, 1, kAlmac); }, no_if, ""},
        {"topology response without interface",
         [&] { return IEEE19051_SendMsgTopologyResponse(to.c_str(), nullptr, 1, {}, {}, {}); },
         no_if, ""},
        {"query without interface",
         [&] { return IEEE19051_SendMsgTopologyQuery(to.c_str(), nullptr, 1); },
         "tx_interface == NULL || da_str == NULL\n", ""},
        {"query without destination",
         [] { return IEEE19051_SendMsgTopologyQuery(nullptr, "br0", 1); },
         "tx_interface == NULL || da_str == NULL\n", ""},
        // A destination that is not a MAC address is refused, not sent to
        // 00:00:00:00:00:00.
        {"response to a destination in the wrong form",
         [] {
             return IEEE19051_SendMsgApAutoconfigurationResponse("00-11-22-33-44-55", "br0", 1, {});
         },
         not_a_mac, ""},
        {"response without destination",
         [] { return IEEE19051_SendMsgApAutoconfigurationResponse(nullptr, "br0", 1, {}); },
         "INI entry da doesn't seem to be a valid MAC address - xx:xx:xx:xx:xx:xx\n", ""},
        {"query to five numbers",
         [] { return IEEE19051_SendMsgTopologyQuery("0:1:2:3:4", "br0", 1); }, not_a_mac, ""},
        {"topology response to a name",
         [] { return IEEE19051_SendMsgTopologyResponse("peer", "br0", 1, {}, {}, {}); }, not_a_mac,
         ""},
        {"search from an interface that does not exist",
         [] { return IEEE19051_SendMsgApAutoconfigurationSearch("nosuchif", 1, {}); }, no_hwaddr,
         "Error running sendto()\n"},
        {"response from an interface that does not exist",
         [&] {
             return IEEE19051_SendMsgApAutoconfigurationResponse(to.c_str(), "nosuchif", 1, {});
         },
         no_hwaddr, "Error running sendto()\n"},
        {"discovery stops when its address record cannot be filled",
         [] { return IEEE19051_SendMsgTopologyDiscovery("nosuchif", 1, kAlmac); },
         no_hwaddr +
             masked_error("19051_msg", "IEEE19051_SendMsgTopologyDiscovery", "fill_param error"),
         ""},
        {"renew without parameters",
         [] { return IEEE19051_SendMsgApAutoconfigurationRenew("br0", 1, nullptr); },
         num_bytes("IEEE19051_SendMsgApAutoconfigurationRenew", -1), ""},
        {"topology response with too many interfaces",
         [&] { return IEEE19051_SendMsgTopologyResponse(to.c_str(), "br0", 1, too_many, {}, {}); },
         num_bytes("IEEE19051_SendMsgTopologyResponse", -1), ""},
    };
    for (const auto& c : cases) {
        int rc = 0;
        const auto printed = capture_output([&] { rc = c.send(); });
        EXPECT_EQ(rc, -1) << c.what;
        EXPECT_EQ(kestr::test::mask_line_numbers(printed.out), c.out) << c.what;
        EXPECT_EQ(printed.err, c.err) << c.what;
    }
    EXPECT_FALSE(peer.receive(300ms).has_value()) << "a refused message went out";
}

// A ready WSC TLV through the shared sending pattern: a 1514-byte frame goes
// out whole, one byte more is refused before anything is sent.
TEST(Senders, FrameLongerThan1514IsRefused) {
    KESTR_ENTER_NAMESPACES();
    PeerPort peer;
    ASSERT_TRUE(peer.ok());
    const std::string to = text(peer.mac());
    for (const int value_len : {1486, 1487}) {
        Bytes tlv(3 + static_cast<size_t>(value_len), 0x3C);
        tlv[0] = IEEE1905_TLV_TYPE_WPS;
        tlv[1] = static_cast<uint8_t>(value_len >> 8);
        tlv[2] = static_cast<uint8_t>(value_len);
        int rc = 0;
        const auto printed = capture_output([&] {
            rc = kestr::send_cmdu("wsc_sender", to.c_str(), "br0", 5, kestr::OnAddressFailure::GoOn,
                                  [&](ieee1905Message_t* packet, const param_t& param) {
                                      return IEEE19051_GetPacketApAutoconfigurationWsc2(
                                          packet, param,
                                          reinterpret_cast<ieee1905TLV_t*>(tlv.data()));
                                  });
        });
        const auto got = peer.receive(value_len == 1486 ? 2000ms : 300ms);
        if (value_len == 1486) {
            EXPECT_EQ(rc, 0);
            ASSERT_TRUE(got.has_value());
            ASSERT_EQ(got->size(), 1514u);
            EXPECT_TRUE(std::equal(tlv.begin(), tlv.end(), got->begin() + 22));
            EXPECT_EQ(Bytes(got->end() - 3, got->end()), hex("00 00 00"));
        } else {
            EXPECT_EQ(rc, -1);
            EXPECT_FALSE(got.has_value());
            EXPECT_EQ(kestr::test::mask_line_numbers(printed.out),
                      masked_error("19051_msg", "wsc_sender",
                                   "num_bytes <= 0 || num_bytes > sizeof(ieee1905Message_t), "
                                   "num_bytes 1515\n"));
        }
    }
}

TEST(Senders, WithoutRawSocketPermission) {
    KESTR_ENTER_NAMESPACES();
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        if (setgid(65534) != 0 || setuid(65534) != 0)
            _exit(2);
        int rc = 0;
        const auto printed = capture_output([&] {
            rc = IEEE19051_SendMsgApAutoconfigurationSearch("br0", 1, {0, 0, kAlmac});
        });
        const std::string report = std::to_string(rc) + "|" + printed.out;
        _exit(write(fds[1], report.data(), report.size()) == static_cast<ssize_t>(report.size())
                  ? 0
                  : 3);
    }
    close(fds[1]);
    std::string report;
    char chunk[256];
    ssize_t n;
    while ((n = read(fds[0], chunk, sizeof chunk)) > 0)
        report.append(chunk, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(report, "-1|Error creating socket() -- you may need to run in sudo mode!\n");
}

}  // namespace
