// Frames and TLVs byte for byte as other 1905.1 stacks expect them.
#include <gtest/gtest.h>

#include <functional>

#include "protocol/19051_protocol.h"
#include "tests/protocol/cmdu_util.h"

namespace {

using kestr::test::Frame;
using kestr::test::hex;
using kestr::test::mac;
using kestr::test::make_param;

const param_t kMulticast = make_param("01 80 c2 00 00 13", "aa bb cc dd ee ff", 0x1234);
const param_t kToPeer = make_param("00 11 22 33 44 55", "aa bb cc dd ee ff", 70000);

TEST(Builders, FramesByteForByte) {
    struct Case {
        const char* what;
        std::function<int(ieee1905Message_t*)> build;
        std::string bytes;
    };
    ap_autoconfig_renew_param_t renew{0, 1, mac("00 11 22 33 44 55")};
    const Case cases[] = {
        {"search for a registrar on 5 GHz",
         [](ieee1905Message_t* p) {
             return IEEE19051_GetPacketApAutoconfigurationSearch(
                 p, kMulticast,
                 {kIeee1905RoleRegistrar, kIeee1905FreqBand5G, mac("00 11 22 33 44 55")});
         },
         "01 80 c2 00 00 13 aa bb cc dd ee ff 89 3a 00 00 00 07 12 34 00 c0"
         "01 00 06 00 11 22 33 44 55  0d 00 01 00  0e 00 01 01  00 00 00"},
        {"response, identifier 70000 goes out as 0x1170",
         [](ieee1905Message_t* p) {
             return IEEE19051_GetPacketApAutoconfigurationResponse(p, kToPeer, {0, 0});
         },
         "00 11 22 33 44 55 aa bb cc dd ee ff 89 3a 00 00 00 08 11 70 00 80"
         "0f 00 01 00  10 00 01 00  00 00 00"},
        {"renew",
         [&](ieee1905Message_t* p) {
             return IEEE19051_GetPacketApAutoconfigurationRenew(p, kMulticast, &renew);
         },
         "01 80 c2 00 00 13 aa bb cc dd ee ff 89 3a 00 00 00 0a 12 34 00 c0"
         "01 00 06 00 11 22 33 44 55  0f 00 01 00  10 00 01 01  00 00 00"},
        {"topology discovery: AL MAC from the caller, MAC of the sending interface",
         [](ieee1905Message_t* p) {
             return IEEE19051_GetPacketTopologyDiscovery(p, kMulticast, mac("02 0a 0b 0c 0d 0e"));
         },
         "01 80 c2 00 00 13 aa bb cc dd ee ff 89 3a 00 00 00 00 12 34 00 80"
         "01 00 06 02 0a 0b 0c 0d 0e  02 00 06 aa bb cc dd ee ff  00 00 00"},
        {"topology notification",
         [](ieee1905Message_t* p) {
             return IEEE19051_GetPacketTopologyNotification(p, kMulticast,
                                                            mac("02 0a 0b 0c 0d 0e"));
         },
         "01 80 c2 00 00 13 aa bb cc dd ee ff 89 3a 00 00 00 01 12 34 00 c0"
         "01 00 06 02 0a 0b 0c 0d 0e  00 00 00"},
        {"topology query, identifier 7",
         [](ieee1905Message_t* p) {
             return IEEE19051_GetPacketTopologyQuery(
                 p, make_param("00 11 22 33 44 55", "aa bb cc dd ee ff", 7));
         },
         "00 11 22 33 44 55 aa bb cc dd ee ff 89 3a 00 00 00 02 00 07 00 80  00 00 00"},
        {"empty topology response",
         [](ieee1905Message_t* p) {
             return IEEE19051_GetPacketTopologyResponse(p, kToPeer, {}, {}, {});
         },
         "00 11 22 33 44 55 aa bb cc dd ee ff 89 3a 00 00 00 03 11 70 00 80"
         "03 00 07 aa bb cc dd ee ff 00  04 00 01 00  06 00 00  00 00 00"},
    };
    for (const auto& c : cases) {
        const auto want = hex(c.bytes);
        Frame f;
        EXPECT_EQ(c.build(f.msg()), static_cast<int>(want.size())) << c.what;
        EXPECT_EQ(f.head(static_cast<int>(want.size())), want) << c.what;
        // Not even a builder handed a dirty buffer writes a different frame.
        Frame dirty;
        std::fill(dirty.bytes.begin(), dirty.bytes.end(), 0xEE);
        c.build(dirty.msg());
        EXPECT_EQ(dirty.head(static_cast<int>(want.size())), want) << c.what;
        EXPECT_EQ(c.build(nullptr), -1) << c.what;
    }
    EXPECT_EQ(IEEE19051_GetPacketApAutoconfigurationRenew(Frame().msg(), kMulticast, nullptr), -1);
}

TEST(Builders, TopologyResponseEntriesByteForByte) {
    device_information_t info{};
    info.num = 2;
    ASSERT_EQ(IEEE19051_GetInterfaceInformation(&info.interface[0], "0:a:b:c:d:e",
                                                IEEE1905_MEDIA_TYPE_IEEE802_11, 0x03),
              0);
    ASSERT_EQ(IEEE19051_GetInterfaceInformation(&info.interface[1], "2:0:0:0:0:1",
                                                IEEE1905_MEDIA_TYPE_IEEE802_3, 0x01),
              0);
    ieee1905BridgingCapability_t bridging{};
    bridging.m = 2;
    bridging.tuple[0].k = 2;
    bridging.tuple[0].mac[0] = mac("10 00 00 00 00 01");
    bridging.tuple[0].mac[1] = mac("10 00 00 00 00 02");
    bridging.tuple[1].k = 0;
    neighborDeviceList neighbors{};
    neighbors.num = 1;
    neighbors.neighbor[0] = {mac("20 00 00 00 00 01"), mac("30 00 00 00 00 01")};

    Frame f;
    const auto want =
        hex("00 11 22 33 44 55 aa bb cc dd ee ff 89 3a 00 00 00 03 11 70 00 80"
            "03 00 23 aa bb cc dd ee ff 02"
            "   00 0a 0b 0c 0d 0e 01 03 0a 00 0a 0b 0c 0d 0e 00 00 00 00"
            "   02 00 00 00 00 01 00 01 00"
            "04 00 0f 02  02 10 00 00 00 00 01 10 00 00 00 00 02  00"
            "06 00 0c 20 00 00 00 00 01 30 00 00 00 00 01"
            "00 00 00");
    EXPECT_EQ(IEEE19051_GetPacketTopologyResponse(f.msg(), kToPeer, info, bridging, neighbors),
              static_cast<int>(want.size()));
    EXPECT_EQ(f.head(static_cast<int>(want.size())), want);
}

TEST(Builders, EncodersByteForByteAndNullTargets) {
    struct Case {
        const char* what;
        std::function<int(void*)> encode;
        std::string bytes;
    };
    const Case cases[] = {
        {"AL MAC",
         [](void* t) {
             return getTlvAlId(static_cast<ieee1905SingleAddressTLV_t*>(t),
                               mac("01 02 03 04 05 06"));
         },
         "01 00 06 01 02 03 04 05 06"},
        {"MAC",
         [](void* t) {
             return getTlvMacId(static_cast<ieee1905SingleAddressTLV_t*>(t),
                                mac("01 02 03 04 05 06"));
         },
         "02 00 06 01 02 03 04 05 06"},
        {"searched role",
         [](void* t) {
             return getTlvSearchRole(static_cast<ieee1905APAutoConfigSearchedRoleTLV_t*>(t), 0x7F);
         },
         "0d 00 01 7f"},
        {"band",
         [](void* t) {
             return getTlvFreqBand(static_cast<ieee1905APAutoConfigFreqBandTLV_t*>(t), 0xFF);
         },
         "0e 00 01 ff"},
        {"supported role",
         [](void* t) {
             return getTlvSupportRole(static_cast<ieee1905APAutoConfigSupportedRoleTLV_t*>(t), 1);
         },
         "0f 00 01 01"},
        {"supported band",
         [](void* t) {
             return getTlvSupportFreqBand(
                 static_cast<ieee1905APAutoConfigSupportedFreqBandTLV_t*>(t), 2);
         },
         "10 00 01 02"},
        {"vendor-specific header",
         [](void* t) {
             return getTlvVendorSpecific(static_cast<ieee1905VendorSpecificHeaderTLV_t*>(t));
         },
         "0b 00 03 00 03 7f"},
        {"device information without interfaces",
         [](void* t) {
             return getTlvDeviceInformation(static_cast<ieee1905DeviceInformationTLV_t*>(t),
                                            mac("01 02 03 04 05 06"), {});
         },
         "03 00 07 01 02 03 04 05 06 00"},
        {"bridging without tuples",
         [](void* t) {
             return getTlvDeviceBridgingCapability(
                 static_cast<ieee1905DeviceBridgingCapabilityTLV_t*>(t), {});
         },
         "04 00 01 00"},
        {"legacy neighbours, none",
         [](void* t) {
             return getTlvLegacyNeighbor(static_cast<ieee1905NeighborDeviceListTLV_t*>(t), {});
         },
         "06 00 00"},
    };
    for (const auto& c : cases) {
        const auto want = hex(c.bytes);
        // Exactly the TLV's size: a write past it is caught by the sanitizer.
        std::vector<uint8_t> out(want.size(), 0xEE);
        EXPECT_EQ(c.encode(out.data()), static_cast<int>(want.size())) << c.what;
        EXPECT_EQ(out, want) << c.what;
        EXPECT_EQ(c.encode(nullptr), -1) << c.what;
    }
}

// Records whose counts exceed their arrays are refused whole: nothing is
// written and nothing is read past the record.
TEST(Builders, OverLimitRecordsAreRefused) {
    device_information_t too_many{};
    too_many.num = INTERFACE_TOTAL_MAX + 1;
    device_information_t long_info{};
    long_info.num = 1;
    long_info.interface[0].length = MEDIA_SPECIFIC_INFO_MAX + 1;
    ieee1905BridgingCapability_t too_many_tuples{};
    too_many_tuples.m = BRIDGING_TUPLE_MAX + 1;
    ieee1905BridgingCapability_t long_tuple{};
    long_tuple.m = 1;
    long_tuple.tuple[0].k = BRIDGING_TUPLE_MAC_MAX + 1;
    neighborDeviceList too_many_neighbors{};
    too_many_neighbors.num = NEIGHBOR_DEVICE_LIST_MAX + 1;

    std::vector<uint8_t> out(kBridgingCapabilityTlvMax, 0xEE);
    auto* di = reinterpret_cast<ieee1905DeviceInformationTLV_t*>(out.data());
    auto* bc = reinterpret_cast<ieee1905DeviceBridgingCapabilityTLV_t*>(out.data());
    auto* ln = reinterpret_cast<ieee1905NeighborDeviceListTLV_t*>(out.data());
    EXPECT_EQ(getTlvDeviceInformation(di, {}, too_many), -1);
    EXPECT_EQ(getTlvDeviceInformation(di, {}, long_info), -1);
    EXPECT_EQ(getTlvDeviceBridgingCapability(bc, too_many_tuples), -1);
    EXPECT_EQ(getTlvDeviceBridgingCapability(bc, long_tuple), -1);
    EXPECT_EQ(getTlvLegacyNeighbor(ln, too_many_neighbors), -1);
    EXPECT_EQ(out, std::vector<uint8_t>(kBridgingCapabilityTlvMax, 0xEE));

    Frame f;
    EXPECT_EQ(IEEE19051_GetPacketTopologyResponse(f.msg(), kToPeer, long_info, {}, {}), -1);
    EXPECT_EQ(IEEE19051_GetPacketTopologyResponse(f.msg(), kToPeer, {}, long_tuple, {}), -1);
    EXPECT_EQ(IEEE19051_GetPacketTopologyResponse(f.msg(), kToPeer, {}, {}, too_many_neighbors),
              -1);
}

// A ready WSC TLV fills the frame up to 1514 bytes; one byte more leaves no
// room for the end of message (the result says so, the senders refuse it);
// a TLV that does not fit the content area at all is not copied.
TEST(Builders, WscMessageAroundReadyTlvAtTheFrameLimit) {
    struct Case {
        int value_len;
        int result;
    };
    const Case cases[] = {{0, 28},      {1486, 1514}, {1487, 1515},
                          {1489, 1517}, {1490, -1},   {65535, -1}};
    for (const auto& c : cases) {
        std::vector<uint8_t> tlv(3 + static_cast<size_t>(c.value_len), 0x5A);
        tlv[0] = IEEE1905_TLV_TYPE_WPS;
        tlv[1] = static_cast<uint8_t>(c.value_len >> 8);
        tlv[2] = static_cast<uint8_t>(c.value_len);
        Frame f;
        EXPECT_EQ(IEEE19051_GetPacketApAutoconfigurationWsc2(
                      f.msg(), kToPeer, reinterpret_cast<ieee1905TLV_t*>(tlv.data())),
                  c.result)
            << c.value_len;
        if (c.result < 0) {
            EXPECT_EQ(f.bytes, Frame().bytes) << "nothing written for " << c.value_len;
            continue;
        }
        EXPECT_EQ(f.head(22), hex("00 11 22 33 44 55 aa bb cc dd ee ff 89 3a 00 00 00 09 11 70 "
                                  "00 80"));
        EXPECT_TRUE(std::equal(tlv.begin(), tlv.end(), f.bytes.begin() + 22)) << c.value_len;
    }
    EXPECT_EQ(IEEE19051_GetPacketApAutoconfigurationWsc2(Frame().msg(), kToPeer, nullptr), -1);
}

TEST(Builders, EtherHeaderAndIdentifierBits) {
    Frame f;
    fillEtherHeader(f.msg(), kToPeer);
    fillEtherHeader(nullptr, kToPeer);
    EXPECT_EQ(f.head(16), hex("00 11 22 33 44 55 aa bb cc dd ee ff 89 3a 00 00"));

    for (const auto& [mid, wire] : {std::pair<int, std::string>{0, "00 00"},
                                    {65535, "ff ff"},
                                    {65536, "00 00"},
                                    {-1, "ff ff"}}) {
        Frame q;
        IEEE19051_GetPacketTopologyQuery(q.msg(), make_param("01", "02", mid));
        EXPECT_EQ(std::vector<uint8_t>(q.bytes.begin() + 18, q.bytes.begin() + 20), hex(wire))
            << mid;
    }
}

TEST(Builders, InterfaceInformationByMediaClass) {
    struct Case {
        ieee1905MediaType_e type;
        int desc;
        uint16_t media_type;
        uint8_t length;
        std::string val;  // all 11 bytes after the call, from 0xAA-filled
    };
    const Case cases[] = {
        {IEEE1905_MEDIA_TYPE_IEEE802_11, 0x04, 0x0104, 10, "00 0a 1b 2c 3d 4e 00 00 00 00 aa"},
        {IEEE1905_MEDIA_TYPE_IEEE802_11, 0x1FF, 0x01FF, 10, "00 0a 1b 2c 3d 4e 00 00 00 00 aa"},
        {IEEE1905_MEDIA_TYPE_IEEE1901, 0x01, 0x0201, 7, "00 00 00 00 00 00 00 aa aa aa aa"},
        {IEEE1905_MEDIA_TYPE_IEEE802_3, 0x01, 0x0001, 0, "aa aa aa aa aa aa aa aa aa aa aa"},
        {IEEE1905_MEDIA_TYPE_MOCA, 0x00, 0x0300, 0, "aa aa aa aa aa aa aa aa aa aa aa"},
    };
    for (const auto& c : cases) {
        interface_information_t info;
        std::memset(&info, 0xAA, sizeof info);
        EXPECT_EQ(IEEE19051_GetInterfaceInformation(&info, "0:a:1b:2c:3d:4e", c.type, c.desc), 0);
        const uint16_t media_type = info.media_type;  // packed: copy before comparing
        EXPECT_EQ(media_type, c.media_type);
        EXPECT_EQ(info.length, c.length);
        EXPECT_EQ(std::vector<uint8_t>(info.val, info.val + sizeof info.val), hex(c.val));
        EXPECT_EQ(info.mac.ether_addr_octet[5], 0x4E);
    }
    EXPECT_EQ(IEEE19051_GetInterfaceInformation(nullptr, "0:a:1b:2c:3d:4e",
                                                IEEE1905_MEDIA_TYPE_IEEE802_3, 0),
              -1);
}

TEST(Builders, DescriptionTables) {
    EXPECT_STREQ(IEEE19051_MessageTypeDesc(9), "IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC ");
    EXPECT_STREQ(IEEE19051_MessageTypeDesc(13), "IEEE1905_MSG_TYPE_RESERVED");
    EXPECT_STREQ(IEEE19051_MessageTypeDesc(14), "UNKNOWN");
    EXPECT_STREQ(IEEE19051_MessageTypeDesc(-1), "UNKNOWN");
    EXPECT_STREQ(IEEE19051_TlvTypeDesc(0), "IEEE1905_TLV_TYPE_END_OF_MESSAGE");
    EXPECT_STREQ(IEEE19051_TlvTypeDesc(17), "IEEE1905_TLV_TYPE_WPS");
    EXPECT_STREQ(IEEE19051_TlvTypeDesc(20), "IEEE1905_TLV_TYPE_RESERVED");
    EXPECT_STREQ(IEEE19051_TlvTypeDesc(21), "UNKNOWN");
    EXPECT_STREQ(IEEE19051_TlvTypeDesc(255), "UNKNOWN");
}

}  // namespace
