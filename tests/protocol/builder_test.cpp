// Frames and TLVs byte for byte as other 1905.1 stacks expect them.
#include <gtest/gtest.h>

#include <functional>

#include "protocol/19051_protocol.h"
#include "tests/support/bytes.h"

namespace {

using kestr::test::Frame;
using kestr::test::hex;
using kestr::test::mac;
using kestr::test::make_param;
using Build = std::function<int(ieee1905Message_t*)>;

const param_t kMulticast = make_param("01 80 c2 00 00 13", "aa bb cc dd ee ff", 0x1234);
const param_t kToPeer = make_param("00 11 22 33 44 55", "aa bb cc dd ee ff", 70000);
const auto kAl = mac("00 11 22 33 44 55");
const auto kAl2 = mac("02 0a 0b 0c 0d 0e");

void expect_frame(const Build& build, const std::string& bytes) {
    const auto want = hex(bytes);
    Frame f;
    EXPECT_EQ(build(f.msg()), static_cast<int>(want.size())) << bytes;
    EXPECT_EQ(f.head(static_cast<int>(want.size())), want);
    // Even a builder handed a dirty buffer writes the same frame.
    Frame dirty;
    std::fill(dirty.bytes.begin(), dirty.bytes.end(), 0xEE);
    build(dirty.msg());
    EXPECT_EQ(dirty.head(static_cast<int>(want.size())), want);
    EXPECT_EQ(build(nullptr), -1);
}

TEST(Builders, FramesByteForByte) {
    ap_autoconfig_renew_param_t renew{0, 1, kAl};
    const std::pair<Build, std::string> cases[] = {
        {[](auto* p) {
             return IEEE19051_GetPacketApAutoconfigurationSearch(p, kMulticast, {0, 1, kAl});
         },
         "01 80 c2 00 00 13 aa bb cc dd ee ff 89 3a 00 00 00 07 12 34 00 c0"
         "01 00 06 00 11 22 33 44 55  0d 00 01 00  0e 00 01 01  00 00 00"},
        // Identifier 70000 goes out as its low 16 bits, 0x1170.
        {[](auto* p) {
             return IEEE19051_GetPacketApAutoconfigurationResponse(p, kToPeer, {0, 0});
         },
         "00 11 22 33 44 55 aa bb cc dd ee ff 89 3a 00 00 00 08 11 70 00 80"
         "0f 00 01 00  10 00 01 00  00 00 00"},
        {[&](auto* p) {
             return IEEE19051_GetPacketApAutoconfigurationRenew(p, kMulticast, &renew);
         },
         "01 80 c2 00 00 13 aa bb cc dd ee ff 89 3a 00 00 00 0a 12 34 00 c0"
         "01 00 06 00 11 22 33 44 55  0f 00 01 00  10 00 01 01  00 00 00"},
        {[](auto* p) { return IEEE19051_GetPacketTopologyDiscovery(p, kMulticast, kAl2); },
         "01 80 c2 00 00 13 aa bb cc dd ee ff 89 3a 00 00 00 00 12 34 00 80"
         "01 00 06 02 0a 0b 0c 0d 0e  02 00 06 aa bb cc dd ee ff  00 00 00"},
        {[](auto* p) { return IEEE19051_GetPacketTopologyNotification(p, kMulticast, kAl2); },
         "01 80 c2 00 00 13 aa bb cc dd ee ff 89 3a 00 00 00 01 12 34 00 c0"
         "01 00 06 02 0a 0b 0c 0d 0e  00 00 00"},
        {[](auto* p) {
             return IEEE19051_GetPacketTopologyQuery(
                 p, make_param("00 11 22 33 44 55", "aa bb cc dd ee ff", 7));
         },
         "00 11 22 33 44 55 aa bb cc dd ee ff 89 3a 00 00 00 02 00 07 00 80  00 00 00"},
        {[](auto* p) { return IEEE19051_GetPacketTopologyResponse(p, kToPeer, {}, {}, {}); },
         "00 11 22 33 44 55 aa bb cc dd ee ff 89 3a 00 00 00 03 11 70 00 80"
         "03 00 07 aa bb cc dd ee ff 00  04 00 01 00  06 00 00  00 00 00"},
    };
    for (const auto& [build, bytes] : cases)
        expect_frame(build, bytes);
    EXPECT_EQ(IEEE19051_GetPacketApAutoconfigurationRenew(Frame().msg(), kMulticast, nullptr), -1);
}

TEST(Builders, TopologyResponseEntriesByteForByte) {
    device_information_t info{};
    info.num = 2;
    IEEE19051_GetInterfaceInformation(&info.interface[0], "0:a:b:c:d:e",
                                      IEEE1905_MEDIA_TYPE_IEEE802_11, 3);
    IEEE19051_GetInterfaceInformation(&info.interface[1], "2:0:0:0:0:1",
                                      IEEE1905_MEDIA_TYPE_IEEE802_3, 1);
    ieee1905BridgingCapability_t bridging{};
    bridging.m = 2;
    bridging.tuple[0].k = 2;
    bridging.tuple[0].mac[0] = mac("10 00 00 00 00 01");
    bridging.tuple[0].mac[1] = mac("10 00 00 00 00 02");
    neighborDeviceList neighbors{};
    neighbors.num = 1;
    neighbors.neighbor[0] = {mac("20 00 00 00 00 01"), mac("30 00 00 00 00 01")};
    expect_frame(
        [&](auto* p) {
            return IEEE19051_GetPacketTopologyResponse(p, kToPeer, info, bridging, neighbors);
        },
        "00 11 22 33 44 55 aa bb cc dd ee ff 89 3a 00 00 00 03 11 70 00 80"
        "03 00 23 aa bb cc dd ee ff 02"
        "   00 0a 0b 0c 0d 0e 01 03 0a 00 0a 0b 0c 0d 0e 00 00 00 00"
        "   02 00 00 00 00 01 00 01 00"
        "04 00 0f 02  02 10 00 00 00 00 01 10 00 00 00 00 02  00"
        "06 00 0c 20 00 00 00 00 01 30 00 00 00 00 01"
        "00 00 00");
}

// The encoders no message uses, and records whose counts exceed their
// arrays: refused whole, nothing written, nothing read past the record.
TEST(Builders, StandaloneEncodersAndOverLimitRecords) {
    std::vector<uint8_t> out(9);
    EXPECT_EQ(getTlvMacId(reinterpret_cast<ieee1905SingleAddressTLV_t*>(out.data()), kAl), 9);
    EXPECT_EQ(out, hex("02 00 06 00 11 22 33 44 55"));
    out.assign(6, 0);
    EXPECT_EQ(
        getTlvVendorSpecific(reinterpret_cast<ieee1905VendorSpecificHeaderTLV_t*>(out.data())), 6);
    EXPECT_EQ(out, hex("0b 00 03 00 03 7f"));
    EXPECT_EQ(getTlvAlId(nullptr, kAl), -1);
    Frame f;
    fillEtherHeader(f.msg(), kToPeer);
    fillEtherHeader(nullptr, kToPeer);
    EXPECT_EQ(f.head(16), hex("00 11 22 33 44 55 aa bb cc dd ee ff 89 3a 00 00"));
    EXPECT_EQ(getTlvLegacyNeighbor(nullptr, {}), -1);

    device_information_t many{}, long_info{};
    many.num = INTERFACE_TOTAL_MAX + 1;
    long_info.num = 1;
    long_info.interface[0].length = MEDIA_SPECIFIC_INFO_MAX + 1;
    ieee1905BridgingCapability_t tuples{}, long_tuple{};
    tuples.m = BRIDGING_TUPLE_MAX + 1;
    long_tuple.m = 1;
    long_tuple.tuple[0].k = BRIDGING_TUPLE_MAC_MAX + 1;
    neighborDeviceList neighbors{};
    neighbors.num = NEIGHBOR_DEVICE_LIST_MAX + 1;
    out.assign(kBridgingCapabilityTlvMax, 0xEE);
    void* t = out.data();
    EXPECT_EQ(getTlvDeviceInformation(static_cast<ieee1905DeviceInformationTLV_t*>(t), kAl, many),
              -1);
    EXPECT_EQ(
        getTlvDeviceInformation(static_cast<ieee1905DeviceInformationTLV_t*>(t), kAl, long_info),
        -1);
    EXPECT_EQ(getTlvDeviceBridgingCapability(static_cast<ieee1905DeviceBridgingCapabilityTLV_t*>(t),
                                             tuples),
              -1);
    EXPECT_EQ(getTlvDeviceBridgingCapability(static_cast<ieee1905DeviceBridgingCapabilityTLV_t*>(t),
                                             long_tuple),
              -1);
    EXPECT_EQ(getTlvLegacyNeighbor(static_cast<ieee1905NeighborDeviceListTLV_t*>(t), neighbors),
              -1);
    EXPECT_EQ(out, std::vector<uint8_t>(kBridgingCapabilityTlvMax, 0xEE));
    EXPECT_EQ(IEEE19051_GetPacketTopologyResponse(Frame().msg(), kToPeer, {}, long_tuple, {}), -1);
}

TEST(Builders, InterfaceInformationByMediaClass) {
    struct Case {
        ieee1905MediaType_e type;
        int desc;
        uint16_t media_type;
        uint8_t length;
        std::string val;  // all 11 bytes afterwards, from 0xAA
    };
    const Case cases[] = {
        {IEEE1905_MEDIA_TYPE_IEEE802_11, 0x04, 0x0104, 10, "00 0a 1b 2c 3d 4e 00 00 00 00 aa"},
        {IEEE1905_MEDIA_TYPE_IEEE802_11, 0x1FF, 0x01FF, 10, "00 0a 1b 2c 3d 4e 00 00 00 00 aa"},
        {IEEE1905_MEDIA_TYPE_IEEE1901, 0x01, 0x0201, 7, "00 00 00 00 00 00 00 aa aa aa aa"},
        {IEEE1905_MEDIA_TYPE_IEEE802_3, 0x01, 0x0001, 0, "aa aa aa aa aa aa aa aa aa aa aa"},
    };
    for (const auto& c : cases) {
        interface_information_t info;
        std::memset(&info, 0xAA, sizeof info);
        EXPECT_EQ(IEEE19051_GetInterfaceInformation(&info, "0:a:1b:2c:3d:4e", c.type, c.desc), 0);
        const uint16_t media_type = info.media_type;  // packed: copy before comparing
        EXPECT_EQ(media_type, c.media_type);
        EXPECT_EQ(info.length, c.length);
        EXPECT_EQ(std::vector<uint8_t>(info.val, info.val + sizeof info.val), hex(c.val));
    }
    EXPECT_EQ(
        IEEE19051_GetInterfaceInformation(nullptr, "0:a:b:c:d:e", IEEE1905_MEDIA_TYPE_MOCA, 0), -1);
}

}  // namespace
