// Build, walk, parse, compare: every message and TLV kind of the layer, the
// topology TLVs at every limit, and hostile variations of them.
#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "port/common/bytes.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "tests/protocol/cmdu_util.h"

namespace {

using kestr::test::capture_output;
using kestr::test::Frame;
using kestr::test::hex;
using kestr::test::mac;
using kestr::test::make_param;
using kestr::test::masked_error;
using Bytes = std::vector<uint8_t>;

const param_t kParam = make_param("00 11 22 33 44 55", "aa bb cc dd ee ff", 4242);

// What a receiver reads out of one frame, TLV by TLV, as the handlers do.
struct Parsed {
    std::vector<int> types;
    std::vector<struct ether_addr> addresses;
    std::vector<uint8_t> bytes;  // role and band values in order
    struct ether_addr almac {};
    device_information_t info{};
    ieee1905BridgingCapability_t bridging{};
    neighborDeviceList neighbors{};
    int failures = 0;
};

Parsed parse_all(uint8_t* frame) {
    Parsed p;
    const int count = IEEE19051_GetTlvTotalNumber(frame);
    for (int i = 0; i < count; ++i) {
        uint8_t* tlv = IEEE19051_GetTlvByNumber(frame, i);
        if (tlv == nullptr)
            break;
        p.types.push_back(tlv[0]);
        uint8_t byte = 0;
        struct ether_addr a {};
        int rc = 0;
        switch (tlv[0]) {
            case IEEE1905_TLV_TYPE_AL_ID:
            case IEEE1905_TLV_TYPE_MAC_ID:
                rc = IEEE19051_ParseTlvSingleAddr(
                    reinterpret_cast<ieee1905SingleAddressTLV_t*>(tlv), &a);
                p.addresses.push_back(a);
                break;
            case IEEE1905_TLV_TYPE_SEARCHED_ROLE:
                rc = IEEE19051_ParseTlvSearchedRole(
                    reinterpret_cast<ieee1905APAutoConfigSearchedRoleTLV_t*>(tlv), &byte);
                p.bytes.push_back(byte);
                break;
            case IEEE1905_TLV_TYPE_FREQ_BAND:
                rc = IEEE19051_ParseTlvFreqBand(
                    reinterpret_cast<ieee1905APAutoConfigFreqBandTLV_t*>(tlv), &byte);
                p.bytes.push_back(byte);
                break;
            case IEEE1905_TLV_TYPE_SUPPORTED_ROLE:
                rc = IEEE19051_ParseTlvSupportedRole(
                    reinterpret_cast<ieee1905APAutoConfigSupportedRoleTLV_t*>(tlv), &byte);
                p.bytes.push_back(byte);
                break;
            case IEEE1905_TLV_TYPE_SUPPORTED_FREQ_BAND:
                rc = IEEE19051_ParseTlvSupportedFreqBand(
                    reinterpret_cast<ieee1905APAutoConfigSupportedFreqBandTLV_t*>(tlv), &byte);
                p.bytes.push_back(byte);
                break;
            case IEEE1905_TLV_TYPE_DEVICE_INFORMATION:
                rc = IEEE19051_ParseTlvDeviceInformation(
                    reinterpret_cast<ieee1905DeviceInformationTLV_t*>(tlv), &p.almac, &p.info);
                break;
            case IEEE1905_TLV_TYPE_DEVICE_BRIDGING_CAPABILITY:
                rc = IEEE19051_ParseTlvDeviceBridgingCapability(
                    reinterpret_cast<ieee1905DeviceBridgingCapabilityTLV_t*>(tlv), &p.bridging);
                break;
            case IEEE1905_TLV_TYPE_LEGACY_NEIGHBOR:
                rc = IEEE19051_ParseTlvLegacyNeighbor(
                    reinterpret_cast<ieee1905NeighborDeviceListTLV_t*>(tlv), &p.neighbors);
                break;
            case IEEE1905_TLV_TYPE_VENDOR_SPECIFIC: {
                uint8_t oui[3];
                std::vector<uint8_t> val(kVendorValueMax);
                int len = 0;
                rc = IEEE19051_ParseTlvVendorSpecific(
                    reinterpret_cast<ieee1905VendorSpecificHeaderTLV_t*>(tlv), oui, val.data(),
                    &len);
                break;
            }
            default:
                break;
        }
        if (rc != 0)
            ++p.failures;
    }
    return p;
}

bool same(const struct ether_addr& a, const struct ether_addr& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Records with every count at its limit and no two bytes alike in a row.
device_information_t full_info() {
    device_information_t info{};
    info.num = INTERFACE_TOTAL_MAX;
    for (int i = 0; i < INTERFACE_TOTAL_MAX; ++i) {
        interface_information_t& itf = info.interface[i];
        for (int b = 0; b < 6; ++b)
            itf.mac.ether_addr_octet[b] = static_cast<uint8_t>(i * 16 + b);
        itf.media_type = static_cast<uint16_t>(0x0100 + i);
        itf.length = MEDIA_SPECIFIC_INFO_MAX;
        for (int b = 0; b < MEDIA_SPECIFIC_INFO_MAX; ++b)
            itf.val[b] = static_cast<uint8_t>(i + b);
    }
    return info;
}

ieee1905BridgingCapability_t full_bridging() {
    ieee1905BridgingCapability_t c{};
    c.m = BRIDGING_TUPLE_MAX;
    for (int t = 0; t < BRIDGING_TUPLE_MAX; ++t) {
        c.tuple[t].k = BRIDGING_TUPLE_MAC_MAX;
        for (int a = 0; a < BRIDGING_TUPLE_MAC_MAX; ++a) {
            c.tuple[t].mac[a] =
                mac(Bytes{0x02, static_cast<uint8_t>(t), static_cast<uint8_t>(a), 3, 4, 5});
        }
    }
    return c;
}

neighborDeviceList full_neighbors() {
    neighborDeviceList l{};
    l.num = NEIGHBOR_DEVICE_LIST_MAX;
    for (int i = 0; i < NEIGHBOR_DEVICE_LIST_MAX; ++i) {
        l.neighbor[i] = {mac(Bytes{0x06, static_cast<uint8_t>(i), 0, 0, 0, 1}),
                         mac(Bytes{0x06, static_cast<uint8_t>(i), 0, 0, 0, 2})};
    }
    return l;
}

TEST(RoundTrip, AutoconfigurationAndTopologyMessages) {
    const auto almac = mac("02 aa 00 00 00 01");
    ap_autoconfig_renew_param_t renew{0, 1, almac};
    struct Case {
        const char* what;
        std::function<int(ieee1905Message_t*)> build;
        int type;
        std::vector<int> tlvs;
        std::vector<struct ether_addr> addresses;
        std::vector<uint8_t> bytes;
    };
    const Case cases[] = {
        {"search",
         [&](ieee1905Message_t* p) {
             return IEEE19051_GetPacketApAutoconfigurationSearch(p, kParam, {0, 1, almac});
         },
         7,
         {1, 13, 14},
         {almac},
         {0, 1}},
        {"response",
         [](ieee1905Message_t* p) {
             return IEEE19051_GetPacketApAutoconfigurationResponse(p, kParam, {0, 1});
         },
         8,
         {15, 16},
         {},
         {0, 1}},
        {"renew",
         [&](ieee1905Message_t* p) {
             return IEEE19051_GetPacketApAutoconfigurationRenew(p, kParam, &renew);
         },
         10,
         {1, 15, 16},
         {almac},
         {0, 1}},
        {"topology discovery",
         [&](ieee1905Message_t* p) {
             return IEEE19051_GetPacketTopologyDiscovery(p, kParam, almac);
         },
         0,
         {1, 2},
         {almac, kParam.sa},
         {}},
        {"topology notification",
         [&](ieee1905Message_t* p) {
             return IEEE19051_GetPacketTopologyNotification(p, kParam, almac);
         },
         1,
         {1},
         {almac},
         {}},
        {"topology query",
         [](ieee1905Message_t* p) { return IEEE19051_GetPacketTopologyQuery(p, kParam); },
         2,
         {},
         {},
         {}},
    };
    for (const auto& c : cases) {
        Frame f;
        ASSERT_GT(c.build(f.msg()), 0) << c.what;
        EXPECT_EQ(IEEE19051_GetType(f.data()), c.type) << c.what;
        EXPECT_EQ(IEEE19051_GetMid(f.data()), 4242) << c.what;
        const Parsed p = parse_all(f.data());
        EXPECT_EQ(p.types, c.tlvs) << c.what;
        EXPECT_EQ(p.failures, 0) << c.what;
        EXPECT_EQ(p.bytes, c.bytes) << c.what;
        ASSERT_EQ(p.addresses.size(), c.addresses.size()) << c.what;
        for (size_t i = 0; i < c.addresses.size(); ++i) {
            EXPECT_TRUE(same(p.addresses[i], c.addresses[i])) << c.what;
        }
    }
}

// With every count at its limit the response is 1212 bytes, and it reads back
// into records identical to the ones it was built from.
TEST(RoundTrip, TopologyResponseAtEveryLimit) {
    const auto info = full_info();
    const auto bridging = full_bridging();
    const auto neighbors = full_neighbors();
    Frame f;
    ASSERT_EQ(IEEE19051_GetPacketTopologyResponse(f.msg(), kParam, info, bridging, neighbors),
              1212);
    const Parsed p = parse_all(f.data());
    EXPECT_EQ(p.types, (std::vector<int>{3, 4, 6}));
    EXPECT_EQ(p.failures, 0);
    EXPECT_TRUE(same(p.almac, kParam.sa));
    EXPECT_EQ(std::memcmp(&p.info, &info, sizeof info), 0);
    EXPECT_EQ(std::memcmp(&p.bridging, &bridging, sizeof bridging), 0);
    EXPECT_EQ(std::memcmp(&p.neighbors, &neighbors, sizeof neighbors), 0);

    // The same records through the stand-alone encoders, into buffers of
    // exactly the largest size each can produce.
    std::vector<uint8_t> di(kDeviceInformationTlvMax), bc(kBridgingCapabilityTlvMax),
        ln(kLegacyNeighborTlvMax);
    EXPECT_EQ(getTlvDeviceInformation(reinterpret_cast<ieee1905DeviceInformationTLV_t*>(di.data()),
                                      kParam.sa, info),
              kDeviceInformationTlvMax);
    EXPECT_EQ(getTlvDeviceBridgingCapability(
                  reinterpret_cast<ieee1905DeviceBridgingCapabilityTLV_t*>(bc.data()), bridging),
              kBridgingCapabilityTlvMax);
    EXPECT_EQ(getTlvLegacyNeighbor(reinterpret_cast<ieee1905NeighborDeviceListTLV_t*>(ln.data()),
                                   neighbors),
              kLegacyNeighborTlvMax);
    EXPECT_TRUE(std::equal(di.begin(), di.end(), f.bytes.begin() + 22));
}

// The parsers' limits, with the TLV buffer exactly as long as the TLV.
TEST(TopologyParsers, LimitsAndLyingLengths) {
    struct Case {
        const char* what;
        std::vector<uint8_t> tlv;
        int result;
        int count;  // num / m afterwards
        std::string err;
    };
    const std::string m = "19051_parse";
    const std::string di = "IEEE19051_ParseTlvDeviceInformation";
    const std::string bc = "IEEE19051_ParseTlvDeviceBridgingCapability";
    const std::string ln = "IEEE19051_ParseTlvLegacyNeighbor";
    auto dev = [](int n, int entries, int li, int length_field) {
        std::vector<uint8_t> t = {3,
                                  static_cast<uint8_t>(length_field >> 8),
                                  static_cast<uint8_t>(length_field),
                                  1,
                                  2,
                                  3,
                                  4,
                                  5,
                                  6,
                                  static_cast<uint8_t>(n)};
        for (int i = 0; i < entries; ++i) {
            const std::vector<uint8_t> e = {
                9, 9, 9, 9, 9, static_cast<uint8_t>(i), 1, 3, static_cast<uint8_t>(li)};
            t.insert(t.end(), e.begin(), e.end());
            t.insert(t.end(), static_cast<size_t>(li), 0x44);
        }
        return t;
    };
    auto dev_ok = [&](int n, int li) { return dev(n, n, li, 7 + n * (9 + li)); };
    auto tuples = [](int m_field, const std::vector<int>& ks) {
        std::vector<uint8_t> t = {4, 0, 0, static_cast<uint8_t>(m_field)};
        for (const int k : ks) {
            t.push_back(static_cast<uint8_t>(k));
            t.insert(t.end(), static_cast<size_t>(k) * 6, 0x55);
        }
        const size_t len = t.size() - 3;
        t[1] = static_cast<uint8_t>(len >> 8);
        t[2] = static_cast<uint8_t>(len);
        return t;
    };
    auto legacy = [](int length) {
        std::vector<uint8_t> t = {6, static_cast<uint8_t>(length >> 8),
                                  static_cast<uint8_t>(length)};
        t.insert(t.end(), static_cast<size_t>(length), 0x66);
        return t;
    };
    const Case dev_cases[] = {
        {"ten interfaces", dev_ok(10, 11), 0, 10, ""},
        {"eleven interfaces", dev_ok(11, 0), -1, 11,
         masked_error(m, di, "device_info->num > INTERFACE_TOTAL_MAX\n")},
        {"media information of 12 bytes", dev_ok(1, 12), -1, 0,
         masked_error(m, di, "interface 0 media info length 12 > 11\n")},
        {"entries claimed but not there", dev(3, 2, 0, 7 + 2 * 9), -1, 0,
         masked_error(m, di, "interface 2 runs past the tlv\n")},
        {"length field shorter than the entries", dev(1, 1, 4, 7 + 9), -1, 0,
         masked_error(m, di, "interface 0 runs past the tlv\n")},
        {"no room for the AL MAC and count", hex("03 00 06 01 02 03 04 05 06"), -1, 0,
         masked_error(m, di, "tlv length 6 < 7\n")},
    };
    for (const auto& c : dev_cases) {
        device_information_t info{};
        struct ether_addr almac {};
        int rc = 0;
        const auto out = capture_output([&] {
            rc = IEEE19051_ParseTlvDeviceInformation(
                reinterpret_cast<const ieee1905DeviceInformationTLV_t*>(c.tlv.data()), &almac,
                &info);
        });
        EXPECT_EQ(rc, c.result) << c.what;
        EXPECT_EQ(info.num, c.count) << c.what;
        EXPECT_EQ(kestr::test::mask_line_numbers(out.out), c.err) << c.what;
        if (rc == 0) {
            EXPECT_EQ(info.interface[9].mac.ether_addr_octet[5], 9);
            const uint16_t media_type = info.interface[9].media_type;  // packed: copy first
            EXPECT_EQ(media_type, 0x0103);
            EXPECT_EQ(info.interface[9].val[10], 0x44);
        }
    }

    const Case bridge_cases[] = {
        {"ten tuples of ten", tuples(10, std::vector<int>(10, 10)), 0, 10, ""},
        {"eleven tuples", tuples(11, std::vector<int>(11, 0)), -1, 0x7E,
         masked_error(m, bc, "tlv->m > BRIDGING_TUPLE_MAX\n")},
        {"a tuple of eleven addresses", tuples(2, {1, 11}), -1, 0x7E,
         masked_error(m, bc, "tuple 1 has 11 addresses > 10\n")},
        {"tuples claimed but not there", tuples(3, {1, 1}), -1, 0x7E,
         masked_error(m, bc, "tuple 2 runs past the tlv\n")},
        {"addresses claimed but not there", hex("04 00 05 01 02 aa bb cc"), -1, 0x7E,
         masked_error(m, bc, "tuple 0 runs past the tlv\n")},
        {"empty value", hex("04 00 00"), -1, 0x7E, masked_error(m, bc, "tlv length 0 < 1\n")},
    };
    for (const auto& c : bridge_cases) {
        ieee1905BridgingCapability_t cap;
        std::memset(&cap, 0x7E, sizeof cap);
        int rc = 0;
        const auto out = capture_output([&] {
            rc = IEEE19051_ParseTlvDeviceBridgingCapability(
                reinterpret_cast<const ieee1905DeviceBridgingCapabilityTLV_t*>(c.tlv.data()), &cap);
        });
        EXPECT_EQ(rc, c.result) << c.what;
        EXPECT_EQ(cap.m, c.count) << c.what;
        EXPECT_EQ(kestr::test::mask_line_numbers(out.out), c.err) << c.what;
    }

    const Case legacy_cases[] = {
        {"25 bytes: two entries, the rest ignored", legacy(25), 0, 2, ""},
        {"thirty entries", legacy(360), 0, 30, ""},
        {"thirty-one entries", legacy(372), -1, 31,
         masked_error(m, ln, "list->num > NEIGHBOR_DEVICE_LIST_MAX\n")},
        {"far too many for the count byte", legacy(12 * 300), -1, 255,
         masked_error(m, ln, "list->num > NEIGHBOR_DEVICE_LIST_MAX\n")},
        {"empty", legacy(0), 0, 0, ""},
    };
    for (const auto& c : legacy_cases) {
        neighborDeviceList list{};
        int rc = 0;
        const auto out = capture_output([&] {
            rc = IEEE19051_ParseTlvLegacyNeighbor(
                reinterpret_cast<const ieee1905NeighborDeviceListTLV_t*>(c.tlv.data()), &list);
        });
        EXPECT_EQ(rc, c.result) << c.what;
        EXPECT_EQ(list.num, c.count) << c.what;
        EXPECT_EQ(kestr::test::mask_line_numbers(out.out), c.err) << c.what;
    }

    const auto out = capture_output([] {
        device_information_t info;
        struct ether_addr almac;
        ieee1905BridgingCapability_t cap;
        neighborDeviceList list;
        EXPECT_EQ(IEEE19051_ParseTlvDeviceInformation(nullptr, &almac, &info), -1);
        EXPECT_EQ(IEEE19051_ParseTlvDeviceBridgingCapability(nullptr, &cap), -1);
        EXPECT_EQ(IEEE19051_ParseTlvLegacyNeighbor(nullptr, &list), -1);
    });
    EXPECT_EQ(kestr::test::mask_line_numbers(out.out),
              masked_error(m, di, "tlv == NULL || device_info == NULL\n") +
                  masked_error(m, bc, "tlv == NULL || capability == NULL\n") +
                  masked_error(m, ln, "tlv == NULL || list == NULL\n"));
}

// Random damage to real frames and random content: the walk and every parser
// stay inside the frame and the records (the sanitizer build checks each
// access), and nothing the walk hands out runs past the content area.
TEST(RoundTrip, HostileFramesStayInBounds) {
    Frame full;
    ASSERT_EQ(IEEE19051_GetPacketTopologyResponse(full.msg(), kParam, full_info(), full_bridging(),
                                                  full_neighbors()),
              1212);
    Frame search;
    ASSERT_EQ(IEEE19051_GetPacketApAutoconfigurationSearch(search.msg(), kParam,
                                                           {0, 1, mac("01 02 03 04 05 06")}),
              42);
    std::mt19937 rng(1905);
    capture_output([&] {
        for (int round = 0; round < 3000; ++round) {
            Frame f = (round % 3 == 0) ? search : full;
            if (round % 5 == 4) {
                for (int i = 22; i < 1514; ++i)
                    f.bytes[i] = static_cast<uint8_t>(rng());
            } else {
                const int flips = 1 + static_cast<int>(rng() % 8);
                for (int i = 0; i < flips; ++i) {
                    f.bytes[22 + rng() % 1212] = static_cast<uint8_t>(rng());
                }
            }
            const int count = IEEE19051_GetTlvTotalNumber(f.data());
            for (int i = 0; i < count; ++i) {
                const uint8_t* tlv = IEEE19051_GetTlvByNumber(f.data(), i);
                ASSERT_NE(tlv, nullptr);
                ASSERT_LE(tlv + 3 + kestr::load_be16(tlv + 1), f.data() + 1514);
            }
            parse_all(f.data());
        }
    });
}

}  // namespace
