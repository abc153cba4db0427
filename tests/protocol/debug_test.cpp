// The console formats, exactly.
#include "protocol/debug.h"

#include <gtest/gtest.h>

#include <functional>

#include "protocol/19051_protocol.h"
#include "tests/protocol/cmdu_util.h"

namespace {

using kestr::test::capture_output;
using kestr::test::Frame;
using kestr::test::frame_with_content;
using kestr::test::hex;
using kestr::test::mac;
using kestr::test::make_param;

const std::string kSep = std::string(62, '=') + "\n";

std::string printed(const std::function<void()>& fn) {
    return capture_output(fn).out;
}

TEST(Debug, BytesAddressesAndHexdump) {
    auto bytes = hex("00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10");
    struct Case {
        const char* what;
        std::function<void()> print;
        std::string text;
    };
    const Case cases[] = {
        {"three zero bytes",
         [] {
             uint8_t z[3] = {};
             print_packet(z, 3);
         },
         " 00 00 00\n"},
        {"no bytes", [&] { print_packet(bytes.data(), 0); }, "\n"},
        {"negative length", [&] { print_packet(bytes.data(), -4); }, "\n"},
        {"lower-case digits",
         [] {
             uint8_t b[2] = {0xAB, 0x0C};
             print_packet(b, 2);
         },
         " ab 0c\n"},
        {"address, unpadded", [] { print_ether_addr(mac("00 0a 1b 2c 3d 4e")); },
         "mac:0:a:1b:2c:3d:4e\n"},
        {"hexdump of nothing", [&] { hexdump(stdout, "mac", bytes.data(), 0); }, "mac\n"},
        {"hexdump of 6", [&] { hexdump(stdout, "mac", bytes.data(), 6); },
         "mac\n0000 00 01 02 03 04 05\n"},
        {"hexdump of 16: one offset line",
         [&] { hexdump(stdout, "key_wrap_authenticator", bytes.data(), 16); },
         "key_wrap_authenticator\n0000 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f\n"},
        {"hexdump of 17", [&] { hexdump(stdout, "v", bytes.data(), 17); },
         "v\n0000 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f\n0010 10\n"},
        {"vendor value",
         [] {
             uint8_t oui[3] = {0, 3, 0x7F};
             uint8_t val[3] = {0xDE, 0xAD, 0x01};
             print_tlv_vendor_specific(oui, val, 3);
         },
         "de ad 01 \n"},
        {"vendor value, empty", [] { print_tlv_vendor_specific(nullptr, nullptr, 0); }, "\n"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(printed(c.print), c.text) << c.what;

    // hexdump writes to the stream it is given, not to standard output.
    const auto out = capture_output([&] { hexdump(stderr, "t", bytes.data(), 1); });
    EXPECT_EQ(out.out, "");
    EXPECT_EQ(out.err, "t\n0000 00\n");
}

TEST(Debug, ReceivedFrames) {
    Frame search;
    ASSERT_EQ(IEEE19051_GetPacketApAutoconfigurationSearch(
                  search.msg(), make_param("01 80 c2 00 00 13", "00 11 22 33 44 55", 0x1234),
                  {0, 1, mac("02 00 00 00 00 07")}),
              42);
    Frame wsc = frame_with_content(hex("11 00 02 10 4a 00 00 00"));
    Frame odd = frame_with_content(hex("c8 00 01 ff 15 00 00 00 00 00"));
    odd.bytes[16] = 0x12;
    odd.bytes[17] = 0x34;
    Frame eom = frame_with_content(hex("00 00 00"));

    struct Case {
        const char* what;
        uint8_t* frame;
        std::string text;
    };
    const Case cases[] = {
        {"a search", search.data(),
         "source mac:mac:0:11:22:33:44:55\n"
         "ieee1905Header.type: 7|IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH\n"
         "ieee1905Header.mid: 4660\n"
         "ieee1905Header.flags: c0\n"
         "ieee1905tvl_number: 3\n"
         "tlv_type:1,IEEE1905_TLV_TYPE_AL_ID, tlv_len:6\n" +
             kSep + "tlv: 01 00 06 02 00 00 00 00 07\n" + kSep +
             "tlv_type:13,IEEE1905_TLV_TYPE_SEARCHED_ROLE, tlv_len:1\n" + kSep +
             "tlv: 0d 00 01 00\n" + kSep + "tlv_type:14,IEEE1905_TLV_TYPE_FREQ_BAND, tlv_len:1\n" +
             kSep + "tlv: 0e 00 01 01\n" + kSep},
        {"only the end of message", eom.data(),
         "source mac:mac:2:0:0:0:0:2\n"
         "ieee1905Header.type: 9|IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC \n"
         "ieee1905Header.mid: 5\n"
         "ieee1905Header.flags: 80\n"
         "ieee1905tvl_number: 0\n"},
        {"a WSC message: the name ends in a blank", wsc.data(),
         "source mac:mac:2:0:0:0:0:2\n"
         "ieee1905Header.type: 9|IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC \n"
         "ieee1905Header.mid: 5\n"
         "ieee1905Header.flags: 80\n"
         "ieee1905tvl_number: 1\n"
         "tlv_type:17,IEEE1905_TLV_TYPE_WPS, tlv_len:2\n" +
             kSep + "tlv: 11 00 02 10 4a\n" + kSep},
        {"types outside the tables", odd.data(),
         "source mac:mac:2:0:0:0:0:2\n"
         "ieee1905Header.type: 4660|UNKNOWN\n"
         "ieee1905Header.mid: 5\n"
         "ieee1905Header.flags: 80\n"
         "ieee1905tvl_number: 2\n"
         "tlv_type:200,UNKNOWN, tlv_len:1\n" +
             kSep + "tlv: c8 00 01 ff\n" + kSep + "tlv_type:21,UNKNOWN, tlv_len:0\n" + kSep +
             "tlv: 15 00 00\n" + kSep},
        {"no frame", nullptr, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(printed([&] { print_packet_tlv(c.frame); }), c.text) << c.what;
    }
}

TEST(Debug, TopologyRecordsPrintUpToTheirCapacity) {
    device_information_t info{};
    info.num = 1;
    info.interface[0].mac = mac("00 00 00 00 00 01");
    info.interface[0].length = 3;
    info.interface[0].val[0] = 0xA1;
    EXPECT_EQ(printed([&] { print_tlv_device_information(mac("02 00 00 00 00 00"), info); }),
              "mac:2:0:0:0:0:0\nmac:0:0:0:0:0:1\n a1 00 00\n");

    ieee1905BridgingCapability_t bridging{};
    bridging.m = 2;
    bridging.tuple[0].k = 1;
    bridging.tuple[0].mac[0] = mac("0a 00 00 00 00 01");
    bridging.tuple[1].k = 2;
    bridging.tuple[1].mac[1] = mac("0b 00 00 00 00 02");
    EXPECT_EQ(printed([&] { print_tlv_device_bridging_capability(bridging); }),
              "mac:a:0:0:0:0:1\nmac:0:0:0:0:0:0\nmac:b:0:0:0:0:2\n");

    neighborDeviceList neighbors{};
    neighbors.num = 1;
    neighbors.neighbor[0] = {mac("0c 00 00 00 00 01"), mac("0d 00 00 00 00 01")};
    EXPECT_EQ(printed([&] { print_tlv_legacy_neighbor(neighbors); }),
              "mac:c:0:0:0:0:1\nmac:d:0:0:0:0:1\n");

    // Counts beyond the arrays: printing stops at the capacity.
    std::memset(&info, 0xFF, sizeof info);
    std::memset(&bridging, 0xFF, sizeof bridging);
    std::memset(&neighbors, 0xFF, sizeof neighbors);
    const std::string ff_mac = "mac:ff:ff:ff:ff:ff:ff\n";
    std::string ff_val;
    for (int i = 0; i < MEDIA_SPECIFIC_INFO_MAX; ++i)
        ff_val += " ff";
    std::string want = ff_mac;
    for (int i = 0; i < INTERFACE_TOTAL_MAX; ++i)
        want += ff_mac + ff_val + "\n";
    EXPECT_EQ(printed([&] { print_tlv_device_information(mac("ff ff ff ff ff ff"), info); }), want);
    want.clear();
    for (int i = 0; i < BRIDGING_TUPLE_MAX * BRIDGING_TUPLE_MAC_MAX; ++i)
        want += ff_mac;
    EXPECT_EQ(printed([&] { print_tlv_device_bridging_capability(bridging); }), want);
    want.clear();
    for (int i = 0; i < 2 * NEIGHBOR_DEVICE_LIST_MAX; ++i)
        want += ff_mac;
    EXPECT_EQ(printed([&] { print_tlv_legacy_neighbor(neighbors); }), want);
}

}  // namespace
