// Real sends from br0, captured on the far end of the bridge (veth1), inside
// namespaces the test creates. The builders' bytes are pinned in
// builder_test and wsc_message_test; here each sender must put exactly its
// builder's frame on the wire, addressed and padded, or nothing at all.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>

#include "port/util.h"
#include "protocol/19051_msg.h"
#include "tests/support/wsc_samples.h"
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

std::string text(const Bytes& mac_bytes) {
    const auto a = mac(mac_bytes);
    char t[kMacTextSize];
    mac_etheraddr_to_str(&a, t, sizeof t);
    return t;
}

const Bytes kMulticast = hex("01 80 c2 00 00 13");
const auto kAl = mac("00 11 22 33 44 55");

// A ready WSC TLV with `value_len` bytes of attributes.
Bytes ready_tlv(int value_len) {
    Bytes tlv(3 + static_cast<size_t>(value_len), 0x3C);
    tlv[0] = IEEE1905_TLV_TYPE_WPS;
    tlv[1] = static_cast<uint8_t>(value_len >> 8);
    tlv[2] = static_cast<uint8_t>(value_len);
    return tlv;
}

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
    ap_autoconfig_renew_param_t renew{0, 1, kAl};
    wsc_configuration_t m2 = kestr::test::sample_m2();
    Bytes m1 = kestr::test::sample_m1_tlv(), limit = ready_tlv(1486);
    auto wsc2 = [](Bytes& tlv) { return reinterpret_cast<ieee1905TLV_t*>(tlv.data()); };

    using Builder = std::function<int(ieee1905Message_t*, const param_t&)>;
    const struct {
        std::function<int()> send;
        Bytes da;
        int mid;  // as the builder is given it; 70000 goes out as 0x1170
        Builder build;
    } cases[] = {
        {[] {
             return IEEE19051_SendMsgApAutoconfigurationSearch("br0", 0x1234, {0, 1, kAl});
         },
         kMulticast, 0x1234,
         [](auto* f, auto& p) {
             return IEEE19051_GetPacketApAutoconfigurationSearch(f, p, {0, 1, kAl});
         }},
        {[&] {
             return IEEE19051_SendMsgApAutoconfigurationResponse(to_text.c_str(), "br0", 70000,
                                                                 {0, 1});
         },
         to, 70000,
         [](auto* f, auto& p) {
             return IEEE19051_GetPacketApAutoconfigurationResponse(f, p, {0, 1});
         }},
        {[&] { return IEEE19051_SendMsgApAutoconfigurationRenew("br0", 1, &renew); }, kMulticast, 1,
         [&](auto* f, auto& p) {
             return IEEE19051_GetPacketApAutoconfigurationRenew(f, p, &renew);
         }},
        {[] { return IEEE19051_SendMsgTopologyDiscovery("br0", 2, kAl); }, kMulticast, 2,
         [](auto* f, auto& p) { return IEEE19051_GetPacketTopologyDiscovery(f, p, kAl); }},
        {[] { return IEEE19051_SendMsgTopologyNotification("br0", 3, kAl); }, kMulticast, 3,
         [](auto* f, auto& p) { return IEEE19051_GetPacketTopologyNotification(f, p, kAl); }},
        {[&] { return IEEE19051_SendMsgTopologyQuery(to_text.c_str(), "br0", 7); }, to, 7,
         [](auto* f, auto& p) { return IEEE19051_GetPacketTopologyQuery(f, p); }},
        {[&] {
             return IEEE19051_SendMsgTopologyResponse(to_text.c_str(), "br0", 9, info, bridging,
                                                      neighbors);
         },
         to, 9,
         [&](auto* f, auto& p) {
             return IEEE19051_GetPacketTopologyResponse(f, p, info, bridging, neighbors);
         }},
        {[&] {
             return IEEE19051_SendMsgApAutoconfigurationWsc(to_text.c_str(), "br0", 0x2345, &m2);
         },
         to, 0x2345,
         [&](auto* f, auto& p) { return IEEE19051_GetPacketApAutoconfigurationWsc(f, p, &m2); }},
        {[&] {
             return IEEE19051_SendMsgApAutoconfigurationWsc2(to_text.c_str(), "br0", 5, wsc2(m1));
         },
         to, 5,
         [&](auto* f, auto& p) {
             return IEEE19051_GetPacketApAutoconfigurationWsc2(f, p, wsc2(m1));
         }},
        // A ready WSC TLV that fills the frame to its 1514 bytes.
        {[&] {
             return IEEE19051_SendMsgApAutoconfigurationWsc2(to_text.c_str(), "br0", 6,
                                                             wsc2(limit));
         },
         to, 6,
         [&](auto* f, auto& p) {
             return IEEE19051_GetPacketApAutoconfigurationWsc2(f, p, wsc2(limit));
         }},
    };
    for (const auto& c : cases) {
        Frame built;
        const int len = c.build(built.msg(), param_t{mac(c.da), mac(br), 0, c.mid});
        ASSERT_GT(len, 0) << c.mid;
        Bytes want = built.head(len);
        want.resize(std::max(want.size(), size_t{60}), 0);
        ASSERT_EQ(c.send(), 0) << c.mid;
        const auto got = peer.receive(2000ms);
        ASSERT_TRUE(got.has_value()) << c.mid;
        EXPECT_EQ(*got, want) << c.mid;
    }
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
    auto num_bytes = [](const char* sender, int n) {
        return masked_error("19051_msg", sender,
                            "num_bytes <= 0 || num_bytes > sizeof(ieee1905Message_t), num_bytes " +
                                std::to_string(n) + "\n");
    };
    const std::string too_long = masked_error("wsc", "get_tlv_wsc", "Err:string too long!\n");
    const char* const wsc = "IEEE19051_SendMsgApAutoconfigurationWsc";
    const char* const wsc2 = "IEEE19051_SendMsgApAutoconfigurationWsc2";
    device_information_t too_many{};
    too_many.num = INTERFACE_TOTAL_MAX + 1;
    auto send_ready = [&](int value_len) {
        Bytes tlv = ready_tlv(value_len);
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
         num_bytes("IEEE19051_SendMsgApAutoconfigurationRenew", -1), ""},
        {[&] { return IEEE19051_SendMsgTopologyResponse(to.c_str(), "br0", 1, too_many, {}, {}); },
         num_bytes("IEEE19051_SendMsgTopologyResponse", -1), ""},
        // WSC messages one byte past the frame, or not fitting at all.
        {[&] { return send_ready(1487); }, num_bytes(wsc2, 1515), ""},
        {[&] { return send_ready(1490); }, num_bytes(wsc2, -1), ""},
        {[&] { return IEEE19051_SendMsgApAutoconfigurationWsc2(to.c_str(), "br0", 5, nullptr); },
         num_bytes(wsc2, -1), ""},
        {[&] { return send_record(1487); }, num_bytes(wsc, 1515), ""},
        {[&] { return send_record(1490); }, too_long + num_bytes(wsc, -1), ""},
        {[&] { return IEEE19051_SendMsgApAutoconfigurationWsc(to.c_str(), "br0", 5, nullptr); },
         num_bytes(wsc, -1), ""},
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
