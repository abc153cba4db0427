// The console formats, exactly.
#include "protocol/debug.h"

#include <gtest/gtest.h>

#include <functional>

#include "tests/support/bytes.h"

namespace {

using kestr::test::capture_output;
using kestr::test::Frame;
using kestr::test::frame_with_content;
using kestr::test::hex;
using kestr::test::mac;

const std::string kSep = std::string(62, '=') + "\n";

std::string printed(const std::function<void()>& fn) {
    return capture_output(fn).out;
}

TEST(Debug, BytesAddressesAndHexdump) {
    auto b = hex("00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 ab");
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { print_packet(b.data() + 16, 2); }, " 10 ab\n"},
        {[&] { print_packet(b.data(), -4); }, "\n"},
        {[] { print_ether_addr(mac("00 0a 1b 2c 3d 4e")); }, "mac:0:a:1b:2c:3d:4e\n"},
        {[&] { hexdump(stdout, "mac", b.data(), 0); }, "mac\n"},
        {[&] { hexdump(stdout, "v", b.data(), 17); },
         "v\n0000 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f\n0010 10\n"},
        {[&] { print_tlv_vendor_specific(b.data(), b.data() + 16, 2); }, "10 ab \n"},
        {[] { print_tlv_vendor_specific(nullptr, nullptr, 0); }, "\n"},
    };
    for (const auto& [print, text] : cases)
        EXPECT_EQ(printed(print), text);
    // hexdump writes to the stream it is given.
    const auto out = capture_output([&] { hexdump(stderr, "t", b.data(), 1); });
    EXPECT_EQ(out.out + "|" + out.err, "|t\n0000 00\n");
}

// Types outside the name tables print as UNKNOWN; the TLVs come from the
// bounded walk.
TEST(Debug, ReceivedFrames) {
    Frame odd = frame_with_content(hex("c8 00 01 ff 15 00 00 00 00 00"));
    odd.bytes[16] = 0x12;
    odd.bytes[17] = 0x34;
    Frame eom = frame_with_content(hex("00 00 00"));
    const std::string head = "source mac:mac:2:0:0:0:0:2\n";
    const std::string tail = "ieee1905Header.mid: 5\nieee1905Header.flags: 80\n";
    const std::pair<uint8_t*, std::string> cases[] = {
        {eom.data(), head + "ieee1905Header.type: 9|IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC \n" +
                         tail + "ieee1905tvl_number: 0\n"},
        {odd.data(), head + "ieee1905Header.type: 4660|UNKNOWN\n" + tail +
                         "ieee1905tvl_number: 2\ntlv_type:200,UNKNOWN, tlv_len:1\n" + kSep +
                         "tlv: c8 00 01 ff\n" + kSep + "tlv_type:21,UNKNOWN, tlv_len:0\n" + kSep +
                         "tlv: 15 00 00\n" + kSep},
        {nullptr, ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(printed([&] { print_packet_tlv(c.first); }), c.second);
}

TEST(Debug, TopologyRecordsPrintUpToTheirCapacity) {
    device_information_t info{};
    info.num = 1;
    info.interface[0].mac = mac("00 00 00 00 00 01");
    info.interface[0].length = 3;
    info.interface[0].val[0] = 0xA1;
    ieee1905BridgingCapability_t bridging{};
    bridging.m = 2;
    bridging.tuple[0].k = 1;
    bridging.tuple[0].mac[0] = mac("0a 00 00 00 00 01");
    bridging.tuple[1].k = 2;
    bridging.tuple[1].mac[1] = mac("0b 00 00 00 00 02");
    neighborDeviceList neighbors{};
    neighbors.num = 1;
    neighbors.neighbor[0] = {mac("0c 00 00 00 00 01"), mac("0d 00 00 00 00 01")};
    EXPECT_EQ(printed([&] { print_tlv_device_information(mac("02"), info); }),
              "mac:2:0:0:0:0:0\nmac:0:0:0:0:0:1\n a1 00 00\n");
    EXPECT_EQ(printed([&] { print_tlv_device_bridging_capability(bridging); }),
              "mac:a:0:0:0:0:1\nmac:0:0:0:0:0:0\nmac:b:0:0:0:0:2\n");
    EXPECT_EQ(printed([&] { print_tlv_legacy_neighbor(neighbors); }),
              "mac:c:0:0:0:0:1\nmac:d:0:0:0:0:1\n");

    // Counts beyond the arrays print up to the capacity and no further.
    std::memset(&info, 0xFF, sizeof info);
    std::memset(&bridging, 0xFF, sizeof bridging);
    std::memset(&neighbors, 0xFF, sizeof neighbors);
    const std::string ff = "mac:ff:ff:ff:ff:ff:ff\n";
    std::string ff_val;
    for (int i = 0; i < MEDIA_SPECIFIC_INFO_MAX; ++i)
        ff_val += " ff";
    std::string want = ff;
    for (int i = 0; i < INTERFACE_TOTAL_MAX; ++i)
        want += ff + ff_val + "\n";
    EXPECT_EQ(printed([&] { print_tlv_device_information(mac("ff ff ff ff ff ff"), info); }), want);
    auto times = [](const std::string& s, int n) {
        std::string out;
        while (n-- > 0)
            out += s;
        return out;
    };
    EXPECT_EQ(printed([&] { print_tlv_device_bridging_capability(bridging); }),
              times(ff, BRIDGING_TUPLE_MAX * BRIDGING_TUPLE_MAC_MAX));
    EXPECT_EQ(printed([&] { print_tlv_legacy_neighbor(neighbors); }),
              times(ff, 2 * NEIGHBOR_DEVICE_LIST_MAX));
}

}  // namespace
