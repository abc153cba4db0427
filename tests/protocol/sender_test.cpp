// Real sends from br0, captured on the far end of the bridge (veth1), inside
// namespaces the test creates.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>

#include "port/util.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_parse_wsc.h"
#include "tests/protocol/cmdu_util.h"
#include "tests/protocol/wsc_records.h"
#include "tests/support/netns.h"

namespace {

using kestr::test::capture_output;
using kestr::test::cat;
using kestr::test::Frame;
using kestr::test::hex;
using kestr::test::mac;
using kestr::test::masked_error;
using kestr::test::PeerPort;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

Bytes padded(Bytes frame) {
    frame.resize(std::max<size_t>(frame.size(), 60), 0);
    return frame;
}

std::string text(const Bytes& mac_bytes) {
    const auto a = mac(mac_bytes);
    char t[kMacTextSize];
    mac_etheraddr_to_str(&a, t, sizeof t);
    return t;
}

template <typename Tlv>
Tlv* tlv_at(Frame& f, int n) {
    return reinterpret_cast<Tlv*>(IEEE19051_GetTlvByNumber(f.data(), n));
}

const Bytes kMulticast = hex("01 80 c2 00 00 13");
const auto kAl = mac("00 11 22 33 44 55");

TEST(Senders, EveryMessageArrivesAsBuilt) {
    KESTR_ENTER_NAMESPACES();
    PeerPort peer;
    ASSERT_TRUE(peer.ok());
    const Bytes br = kestr::test::interface_mac("br0"), to = peer.mac();
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
    param_t p{mac(to), mac(br), 0, 9};
    ASSERT_EQ(IEEE19051_GetPacketTopologyResponse(biggest.msg(), p, info, bridging, neighbors),
              1212);

    ap_autoconfig_renew_param_t renew{0, 1, kAl};
    const std::pair<std::function<int()>, Bytes> cases[] = {
        {[] {
             return IEEE19051_SendMsgApAutoconfigurationSearch("br0", 0x1234, {0, 1, kAl});
         },
         padded(cat({kMulticast, br,
                     hex("89 3a 00 00 00 07 12 34 00 c0 01 00 06 00 11 22 33 44 55 0d 00 01 00 0e "
                         "00 01 01 00 00 00")}))},
        {[&] {
             return IEEE19051_SendMsgApAutoconfigurationResponse(to_text.c_str(), "br0", 70000,
                                                                 {0, 1});
         },
         padded(
             cat({to, br, hex("89 3a 00 00 00 08 11 70 00 80 0f 00 01 00 10 00 01 01 00 00 00")}))},
        {[&] { return IEEE19051_SendMsgApAutoconfigurationRenew("br0", 1, &renew); },
         padded(cat({kMulticast, br,
                     hex("89 3a 00 00 00 0a 00 01 00 c0 01 00 06 00 11 22 33 44 55 0f 00 01 00 10 "
                         "00 01 01 00 00 00")}))},
        {[] { return IEEE19051_SendMsgTopologyDiscovery("br0", 2, kAl); },
         padded(cat({kMulticast, br,
                     hex("89 3a 00 00 00 00 00 02 00 80 01 00 06 00 11 22 33 44 55 02 00 06"), br,
                     hex("00 00 00")}))},
        {[] { return IEEE19051_SendMsgTopologyNotification("br0", 3, kAl); },
         padded(cat({kMulticast, br,
                     hex("89 3a 00 00 00 01 00 03 00 c0 01 00 06 00 11 22 33 44 55 00 00 00")}))},
        {[&] { return IEEE19051_SendMsgTopologyQuery(to_text.c_str(), "br0", 7); },
         padded(cat({to, br, hex("89 3a 00 00 00 02 00 07 00 80 00 00 00")}))},
        {[&] {
             return IEEE19051_SendMsgTopologyResponse(to_text.c_str(), "br0", 9, info, bridging,
                                                      neighbors);
         },
         biggest.head(1212)},
    };
    for (const auto& [send, frame] : cases) {
        ASSERT_EQ(send(), 0);
        const auto got = peer.receive(2000ms);
        ASSERT_TRUE(got.has_value());
        EXPECT_EQ(*got, frame);
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
    const auto search = registrar.receive(2000ms);
    ASSERT_TRUE(search.has_value());
    Frame in;
    std::copy(search->begin(), search->end(), in.bytes.begin());
    struct ether_addr al {};
    uint8_t role = 9, band = 9;
    ASSERT_EQ(IEEE19051_GetTlvTotalNumber(in.data()), 3);
    ASSERT_EQ(IEEE19051_ParseTlvSingleAddr(tlv_at<ieee1905SingleAddressTLV_t>(in, 0), &al), 0);
    ASSERT_EQ(
        IEEE19051_ParseTlvSearchedRole(tlv_at<ieee1905APAutoConfigSearchedRoleTLV_t>(in, 1), &role),
        0);
    ASSERT_EQ(IEEE19051_ParseTlvFreqBand(tlv_at<ieee1905APAutoConfigFreqBandTLV_t>(in, 2), &band),
              0);
    EXPECT_EQ(std::memcmp(&al, &enrollee_al, 6), 0);
    EXPECT_EQ(role, kIeee1905RoleRegistrar);
    EXPECT_EQ(band, kIeee1905FreqBand5G);

    param_t reply{};
    IEEE19051_GetEtherSmac(in.data(), &reply.da);
    reply.sa = mac(registrar.mac());
    reply.mid = IEEE19051_GetMid(in.data());
    Frame answer;
    ASSERT_EQ(IEEE19051_GetPacketApAutoconfigurationResponse(answer.msg(), reply, {role, band}),
              33);
    char br0[] = "br0";
    IEEE19051_MsgInit(br0);
    ASSERT_TRUE(registrar.send(answer.head(33)));
    Frame got;
    EXPECT_EQ(IEEE19051_RecvMsg("br0", got.data(), 1514, 2), 33);
    IEEE19051_MsgUninit();
    EXPECT_EQ(IEEE19051_GetMid(got.data()), 0x4321);
    uint8_t offered_role = 9, offered_band = 9;
    EXPECT_EQ(IEEE19051_ParseTlvSupportedRole(
                  tlv_at<ieee1905APAutoConfigSupportedRoleTLV_t>(got, 0), &offered_role),
              0);
    EXPECT_EQ(IEEE19051_ParseTlvSupportedFreqBand(
                  tlv_at<ieee1905APAutoConfigSupportedFreqBandTLV_t>(got, 1), &offered_band),
              0);
    EXPECT_EQ(offered_role, kIeee1905RoleRegistrar);
    EXPECT_EQ(offered_band, kIeee1905FreqBand5G);
}

// One case per path through the sending pattern, each with its exact text;
// none of them may put a frame on the wire.
TEST(Senders, FailuresAndTheirMessages) {
    KESTR_ENTER_NAMESPACES();
    PeerPort peer;
    ASSERT_TRUE(peer.ok());
    const std::string to = text(peer.mac());
    const std::string ini =
        "INI entry da doesn't seem to be a valid MAC address - xx:xx:xx:xx:xx:xx\n";
    const std::string not_a_mac =
        masked_error("util", "mac_str_to_etheraddr", "sscanf error\n") + ini;
    const std::string no_hwaddr = "Error running ioctl/SIOCGIFHWADDR\n";
    auto num_bytes = [](const char* sender) {
        return masked_error(
            "19051_msg", sender,
            "num_bytes <= 0 || num_bytes > sizeof(ieee1905Message_t), num_bytes -1\n");
    };
    device_information_t too_many{};
    too_many.num = INTERFACE_TOTAL_MAX + 1;
    struct Case {
        std::function<int()> send;
        std::string out;
        std::string err;
    };
    const Case cases[] = {
        {[] { return IEEE19051_SendMsgApAutoconfigurationSearch(nullptr, 1, {}); },
         "tx_interface == NULL\n", ""},
        {[&] { return IEEE19051_SendMsgTopologyQuery(to.c_str(), nullptr, 1); },
         "tx_interface == NULL || da_str == NULL\n", ""},
        {[] { return IEEE19051_SendMsgTopologyQuery(nullptr, "br0", 1); },
         "tx_interface == NULL || da_str == NULL\n", ""},
        // A destination that is not a MAC address is refused rather than
        // sent to 00:00:00:00:00:00.
        {[] {
             return IEEE19051_SendMsgApAutoconfigurationResponse("00-11-22-33-44-55", "br0", 1, {});
         },
         not_a_mac, ""},
        {[] { return IEEE19051_SendMsgApAutoconfigurationResponse(nullptr, "br0", 1, {}); }, ini,
         ""},
        {[] { return IEEE19051_SendMsgTopologyResponse("0:1:2:3:4", "br0", 1, {}, {}, {}); },
         not_a_mac, ""},
        {[] { return IEEE19051_SendMsgApAutoconfigurationSearch("nosuchif", 1, {}); }, no_hwaddr,
         "Error running sendto()\n"},
        {[] { return IEEE19051_SendMsgTopologyDiscovery("nosuchif", 1, kAl); },
         no_hwaddr +
             masked_error("19051_msg", "IEEE19051_SendMsgTopologyDiscovery", "fill_param error"),
         ""},
        {[] { return IEEE19051_SendMsgApAutoconfigurationRenew("br0", 1, nullptr); },
         num_bytes("IEEE19051_SendMsgApAutoconfigurationRenew"), ""},
        {[&] { return IEEE19051_SendMsgTopologyResponse(to.c_str(), "br0", 1, too_many, {}, {}); },
         num_bytes("IEEE19051_SendMsgTopologyResponse"), ""},
    };
    for (const auto& c : cases) {
        int rc = 0;
        const auto printed = capture_output([&] { rc = c.send(); });
        EXPECT_EQ(rc, -1) << c.out;
        EXPECT_EQ(kestr::test::mask_line_numbers(printed.out), c.out);
        EXPECT_EQ(printed.err, c.err) << c.out;
    }
    EXPECT_FALSE(peer.receive(300ms).has_value()) << "a refused message went out";
}

// M2 from the registrar's record and M1 from the enrollee's kept TLV, as
// the far end receives them, and read back there into the records sent.
TEST(Senders, WscMessagesArriveAsBuiltAndReadBack) {
    KESTR_ENTER_NAMESPACES();
    PeerPort peer;
    ASSERT_TRUE(peer.ok());
    const Bytes br = kestr::test::interface_mac("br0"), to = peer.mac();
    const std::string to_text = text(to);

    wsc_configuration_t m2 = kestr::test::sample_m2();
    ASSERT_EQ(IEEE19051_SendMsgApAutoconfigurationWsc(to_text.c_str(), "br0", 0x2345, &m2), 0);
    wsc_configuration_t m1 = kestr::test::sample_m1();
    Bytes kept(kCmduContentLen, 0);
    const int m1_len = IEEE19051_GetWscTlv(&m1, kept.data(), kCmduContentLen);
    ASSERT_EQ(m1_len, 125);
    ASSERT_EQ(IEEE19051_SendMsgApAutoconfigurationWsc2(
                  to_text.c_str(), "br0", 70000, reinterpret_cast<ieee1905TLV_t*>(kept.data())),
              0);

    const std::pair<wsc_configuration_t, Bytes> sent[] = {
        {m2, cat({to, br, hex("89 3a 00 00 00 09 23 45 00 80"), kestr::test::sample_m2_tlv(),
                  hex("00 00 00")})},
        {m1, cat({to, br, hex("89 3a 00 00 00 09 11 70 00 80"), kestr::test::sample_m1_tlv(),
                  hex("00 00 00")})},
    };
    for (const auto& [config, frame] : sent) {
        const auto got = peer.receive(2000ms);
        ASSERT_TRUE(got.has_value());
        EXPECT_EQ(*got, frame);
        Frame in;
        std::copy(got->begin(), got->end(), in.bytes.begin());
        ASSERT_EQ(IEEE19051_GetTlvTotalNumber(in.data()), 1);
        wsc_configuration_t read = kestr::test::zeroed_config();
        ASSERT_EQ(IEEE19051_ParseTlvWsc(tlv_at<ieee1905TLV_t>(in, 0), &read), 0);
        EXPECT_EQ(kestr::test::describe(read), kestr::test::describe_sent(config));
    }
}

// Both WSC senders at the frame limit: a 1514-byte frame goes out whole; a
// longer one, a TLV that does not fit and a missing message are refused
// with their lines, and nothing of them reaches the wire.
TEST(Senders, WscAtTheFrameLimit) {
    KESTR_ENTER_NAMESPACES();
    PeerPort peer;
    ASSERT_TRUE(peer.ok());
    const std::string to = text(peer.mac());
    auto num_bytes = [](const char* sender, int n) {
        return masked_error("19051_msg", sender,
                            "num_bytes <= 0 || num_bytes > sizeof(ieee1905Message_t), num_bytes " +
                                std::to_string(n) + "\n");
    };
    const std::string too_long = masked_error("wsc", "get_tlv_wsc", "Err:string too long!\n");
    const char* const wsc = "IEEE19051_SendMsgApAutoconfigurationWsc";
    const char* const wsc2 = "IEEE19051_SendMsgApAutoconfigurationWsc2";
    // A ready WSC TLV with `value_len` bytes of attributes.
    auto ready = [](int value_len) {
        Bytes tlv(3 + static_cast<size_t>(value_len), 0x3C);
        tlv[0] = IEEE1905_TLV_TYPE_WPS;
        tlv[1] = static_cast<uint8_t>(value_len >> 8);
        tlv[2] = static_cast<uint8_t>(value_len);
        return tlv;
    };
    auto send_ready = [&](Bytes tlv) {
        return IEEE19051_SendMsgApAutoconfigurationWsc2(
            to.c_str(), "br0", 5, reinterpret_cast<ieee1905TLV_t*>(tlv.data()));
    };
    auto send_record = [&](int attr_len) {
        wsc_configuration_t config = kestr::test::config_of_size(attr_len);
        return IEEE19051_SendMsgApAutoconfigurationWsc(to.c_str(), "br0", 5, &config);
    };
    struct Case {
        std::function<int()> send;
        std::string out;
        Bytes tlv;  // the WSC TLV of the frame that goes out; empty when refused
    };
    // The record of 1486 attribute bytes: a full Vendor Extension and an
    // Encrypted Settings of 454 bytes.
    const Bytes record_tlv = cat(
        {hex("11 05 ce  10 49 04 00"), Bytes(1024, 0x5E), hex("10 18 01 c6"), Bytes(454, 0xE5)});
    const Case cases[] = {
        {[&] { return send_ready(ready(1486)); }, "", ready(1486)},
        {[&] { return send_ready(ready(1487)); }, num_bytes(wsc2, 1515), {}},
        {[&] { return send_ready(ready(1490)); }, num_bytes(wsc2, -1), {}},
        {[&] { return IEEE19051_SendMsgApAutoconfigurationWsc2(to.c_str(), "br0", 5, nullptr); },
         num_bytes(wsc2, -1),
         {}},
        {[&] { return send_record(1486); }, "", record_tlv},
        {[&] { return send_record(1487); }, num_bytes(wsc, 1515), {}},
        {[&] { return send_record(1490); }, too_long + num_bytes(wsc, -1), {}},
        {[&] { return IEEE19051_SendMsgApAutoconfigurationWsc(to.c_str(), "br0", 5, nullptr); },
         num_bytes(wsc, -1),
         {}},
    };
    for (const auto& c : cases) {
        int rc = 0;
        const auto printed = capture_output([&] { rc = c.send(); });
        EXPECT_EQ(rc, c.tlv.empty() ? -1 : 0) << c.out;
        EXPECT_EQ(kestr::test::mask_line_numbers(printed.out), c.out);
        if (c.tlv.empty())
            continue;
        const auto got = peer.receive(2000ms);
        ASSERT_TRUE(got.has_value());
        ASSERT_EQ(got->size(), 1514u);
        EXPECT_TRUE(std::equal(c.tlv.begin(), c.tlv.end(), got->begin() + 22));
    }
    EXPECT_FALSE(peer.receive(300ms).has_value()) << "a refused message went out";
}

TEST(Senders, WithoutRawSocketPermission) {
    KESTR_ENTER_NAMESPACES();
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0)
            _exit(2);
        int rc = 0;
        const auto out =
            capture_output([&] { rc = IEEE19051_SendMsgApAutoconfigurationSearch("br0", 1, {}); });
        const std::string report = std::to_string(rc) + "|" + out.out;
        _exit(write(fds[1], report.data(), report.size()) == static_cast<ssize_t>(report.size())
                  ? 0
                  : 3);
    }
    close(fds[1]);
    char report[256] = {};
    EXPECT_GT(read(fds[0], report, sizeof report - 1), 0);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_STREQ(report, "-1|Error creating socket() -- you may need to run in sudo mode!\n");
}

}  // namespace
