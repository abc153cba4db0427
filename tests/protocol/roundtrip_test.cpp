// Build, walk, parse, compare: every message and TLV kind of the layer, the
// topology TLVs at every limit, and their parsers' limits. Randomly damaged
// frames are the fuzz targets' work (fuzz/fuzz_frame.cpp, fuzz_tlv.cpp).
#include <gtest/gtest.h>

#include <functional>

#include "port/common/bytes.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "tests/support/bytes.h"

namespace {

using kestr::test::capture_output;
using kestr::test::Frame;
using kestr::test::hex;
using kestr::test::mac;
using kestr::test::make_param;
using kestr::test::mask_line_numbers;
using kestr::test::masked_error;
using Bytes = std::vector<uint8_t>;

const param_t kParam = make_param("00 11 22 33 44 55", "aa bb cc dd ee ff", 4242);

using kestr::test::call;

// What a receiver reads out of one frame, TLV by TLV, as the handlers do.
struct Parsed {
    std::vector<int> types;
    Bytes values;  // addresses and role/band bytes, in order
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
        const uint8_t* t = IEEE19051_GetTlvByNumber(frame, i);
        if (t == nullptr)
            break;
        p.types.push_back(t[0]);
        uint8_t b = 0, oui[3];
        struct ether_addr a {};
        Bytes val(kVendorValueMax);
        int rc = 0, len = 0;
        switch (t[0]) {
            case IEEE1905_TLV_TYPE_AL_ID:
            case IEEE1905_TLV_TYPE_MAC_ID:
                rc = call(IEEE19051_ParseTlvSingleAddr, t, &a);
                p.values.insert(p.values.end(), a.ether_addr_octet, a.ether_addr_octet + 6);
                break;
            case IEEE1905_TLV_TYPE_SEARCHED_ROLE:
                rc = call(IEEE19051_ParseTlvSearchedRole, t, &b);
                break;
            case IEEE1905_TLV_TYPE_FREQ_BAND:
                rc = call(IEEE19051_ParseTlvFreqBand, t, &b);
                break;
            case IEEE1905_TLV_TYPE_SUPPORTED_ROLE:
                rc = call(IEEE19051_ParseTlvSupportedRole, t, &b);
                break;
            case IEEE1905_TLV_TYPE_SUPPORTED_FREQ_BAND:
                rc = call(IEEE19051_ParseTlvSupportedFreqBand, t, &b);
                break;
            case IEEE1905_TLV_TYPE_DEVICE_INFORMATION:
                rc = call(IEEE19051_ParseTlvDeviceInformation, t, &p.almac, &p.info);
                break;
            case IEEE1905_TLV_TYPE_DEVICE_BRIDGING_CAPABILITY:
                rc = call(IEEE19051_ParseTlvDeviceBridgingCapability, t, &p.bridging);
                break;
            case IEEE1905_TLV_TYPE_LEGACY_NEIGHBOR:
                rc = call(IEEE19051_ParseTlvLegacyNeighbor, t, &p.neighbors);
                break;
            case IEEE1905_TLV_TYPE_VENDOR_SPECIFIC:
                rc = call(IEEE19051_ParseTlvVendorSpecific, t, oui, val.data(), &len);
                break;
        }
        if (t[0] >= IEEE1905_TLV_TYPE_SEARCHED_ROLE &&
            t[0] <= IEEE1905_TLV_TYPE_SUPPORTED_FREQ_BAND)
            p.values.push_back(b);
        p.failures += rc != 0;
    }
    return p;
}

uint8_t u8(int v) {
    return static_cast<uint8_t>(v);
}

// Records with every count at its limit, no two entries alike.
void fill_to_the_limits(device_information_t& info, ieee1905BridgingCapability_t& bridging,
                        neighborDeviceList& neighbors) {
    info.num = INTERFACE_TOTAL_MAX;
    for (int i = 0; i < INTERFACE_TOTAL_MAX; ++i) {
        interface_information_t& itf = info.interface[i];
        itf.mac = mac(Bytes{2, u8(i), 0, 0, 0, 1});
        itf.media_type = static_cast<uint16_t>(0x0100 + i);
        itf.length = MEDIA_SPECIFIC_INFO_MAX;
        for (int b = 0; b < MEDIA_SPECIFIC_INFO_MAX; ++b)
            itf.val[b] = u8(i + b);
    }
    bridging.m = BRIDGING_TUPLE_MAX;
    for (int t = 0; t < BRIDGING_TUPLE_MAX; ++t) {
        bridging.tuple[t].k = BRIDGING_TUPLE_MAC_MAX;
        for (int a = 0; a < BRIDGING_TUPLE_MAC_MAX; ++a)
            bridging.tuple[t].mac[a] = mac(Bytes{2, u8(t), u8(a), 3});
    }
    neighbors.num = NEIGHBOR_DEVICE_LIST_MAX;
    for (int i = 0; i < NEIGHBOR_DEVICE_LIST_MAX; ++i) {
        neighbors.neighbor[i] = {mac(Bytes{6, u8(i), 0, 0, 0, 1}),
                                 mac(Bytes{6, u8(i), 0, 0, 0, 2})};
    }
}

TEST(RoundTrip, EveryMessageReadsBackWhatWasBuilt) {
    const auto al = mac("02 aa 00 00 00 01");
    const Bytes al_bytes = hex("02 aa 00 00 00 01"), sa = hex("aa bb cc dd ee ff");
    ap_autoconfig_renew_param_t renew{0, 1, al};
    struct Case {
        std::function<int(ieee1905Message_t*)> build;
        int type;
        std::vector<int> tlvs;
        Bytes values;
    };
    const Case cases[] = {
        {[&](auto* p) {
             return IEEE19051_GetPacketApAutoconfigurationSearch(p, kParam, {0, 1, al});
         },
         7,
         {1, 13, 14},
         kestr::test::cat({al_bytes, {0, 1}})},
        {[](auto* p) {
             return IEEE19051_GetPacketApAutoconfigurationResponse(p, kParam, {0, 1});
         },
         8,
         {15, 16},
         {0, 1}},
        {[&](auto* p) { return IEEE19051_GetPacketApAutoconfigurationRenew(p, kParam, &renew); },
         10,
         {1, 15, 16},
         kestr::test::cat({al_bytes, {0, 1}})},
        {[&](auto* p) { return IEEE19051_GetPacketTopologyDiscovery(p, kParam, al); },
         0,
         {1, 2},
         kestr::test::cat({al_bytes, sa})},
        {[&](auto* p) { return IEEE19051_GetPacketTopologyNotification(p, kParam, al); },
         1,
         {1},
         al_bytes},
        {[](auto* p) { return IEEE19051_GetPacketTopologyQuery(p, kParam); }, 2, {}, {}},
    };
    for (const auto& c : cases) {
        Frame f;
        ASSERT_GT(c.build(f.msg()), 0) << c.type;
        EXPECT_EQ(IEEE19051_GetType(f.data()), c.type);
        EXPECT_EQ(IEEE19051_GetMid(f.data()), 4242);
        const Parsed p = parse_all(f.data());
        EXPECT_EQ(p.types, c.tlvs) << c.type;
        EXPECT_EQ(p.values, c.values) << c.type;
        EXPECT_EQ(p.failures, 0) << c.type;
    }
}

// With every count at its limit the response is 1212 bytes and reads back
// into records identical to the ones it was built from.
TEST(RoundTrip, TopologyResponseAtEveryLimit) {
    device_information_t info{};
    ieee1905BridgingCapability_t bridging{};
    neighborDeviceList neighbors{};
    fill_to_the_limits(info, bridging, neighbors);
    Frame f;
    ASSERT_EQ(IEEE19051_GetPacketTopologyResponse(f.msg(), kParam, info, bridging, neighbors),
              1212);
    const Parsed p = parse_all(f.data());
    EXPECT_EQ(p.types, (std::vector<int>{3, 4, 6}));
    EXPECT_EQ(p.failures, 0);
    EXPECT_EQ(std::memcmp(&p.almac, &kParam.sa, 6), 0);
    EXPECT_EQ(std::memcmp(&p.info, &info, sizeof info), 0);
    EXPECT_EQ(std::memcmp(&p.bridging, &bridging, sizeof bridging), 0);
    EXPECT_EQ(std::memcmp(&p.neighbors, &neighbors, sizeof neighbors), 0);

    // The stand-alone encoders fill buffers of exactly their largest size.
    Bytes di(kDeviceInformationTlvMax), bc(kBridgingCapabilityTlvMax), ln(kLegacyNeighborTlvMax);
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

// A topology TLV of type `type` around `value`, its length field `length`
// (-1: the true length). The buffer is exactly the TLV.
Bytes tlv(uint8_t type, const Bytes& value, int length = -1) {
    const int len = length < 0 ? static_cast<int>(value.size()) : length;
    return kestr::test::cat({{type, u8(len >> 8), u8(len)}, value});
}

Bytes interfaces(int n, int li) {
    Bytes v = hex("01 02 03 04 05 06");
    v.push_back(u8(n));
    for (int i = 0; i < n; ++i) {
        kestr::test::append(v, {9, 9, 9, 9, 9, u8(i), 1, 3, u8(li)});
        v.insert(v.end(), static_cast<size_t>(li), 0x44);
    }
    return v;
}

Bytes tuples(int m, const std::vector<int>& ks) {
    Bytes v = {u8(m)};
    for (const int k : ks) {
        v.push_back(u8(k));
        v.insert(v.end(), static_cast<size_t>(k) * 6, 0x55);
    }
    return v;
}

TEST(TopologyParsers, LimitsAndLyingLengths) {
    const std::string di = "IEEE19051_ParseTlvDeviceInformation",
                      bc = "IEEE19051_ParseTlvDeviceBridgingCapability",
                      ln = "IEEE19051_ParseTlvLegacyNeighbor";
    auto err = [](const std::string& fn, const std::string& body) {
        return masked_error("19051_parse", fn, body);
    };
    struct Case {
        const char* what;
        Bytes tlv;
        int result;
        int count;  // num or m afterwards (m starts at 0x7E)
        std::string out;
    };
    const Case cases[] = {
        {"ten interfaces", tlv(3, interfaces(10, 11)), 0, 10, ""},
        {"eleven interfaces", tlv(3, interfaces(11, 0)), -1, 11,
         err(di, "device_info->num > INTERFACE_TOTAL_MAX\n")},
        {"media information of 12 bytes", tlv(3, interfaces(1, 12)), -1, 0,
         err(di, "interface 0 media info length 12 > 11\n")},
        {"interfaces claimed but not there", tlv(3, interfaces(2, 0), 7 + 9), -1, 0,
         err(di, "interface 1 runs past the tlv\n")},
        {"no room for the AL MAC and count", tlv(3, hex("01 02 03 04 05 06")), -1, 0,
         err(di, "tlv length 6 < 7\n")},
        {"ten tuples of ten", tlv(4, tuples(10, std::vector<int>(10, 10))), 0, 10, ""},
        {"eleven tuples", tlv(4, tuples(11, std::vector<int>(11, 0))), -1, 0x7E,
         err(bc, "tlv->m > BRIDGING_TUPLE_MAX\n")},
        {"a tuple of eleven addresses", tlv(4, tuples(2, {1, 11})), -1, 0x7E,
         err(bc, "tuple 1 has 11 addresses > 10\n")},
        {"tuples claimed but not there", tlv(4, tuples(3, {1, 1})), -1, 0x7E,
         err(bc, "tuple 2 runs past the tlv\n")},
        {"addresses claimed but not there", tlv(4, hex("01 02 aa bb")), -1, 0x7E,
         err(bc, "tuple 0 runs past the tlv\n")},
        {"empty bridging value", tlv(4, {}), -1, 0x7E, err(bc, "tlv length 0 < 1\n")},
        {"25 bytes: two neighbours, the rest ignored", tlv(6, Bytes(25, 0x66)), 0, 2, ""},
        {"thirty neighbours", tlv(6, Bytes(360, 0x66)), 0, 30, ""},
        {"thirty-one neighbours", tlv(6, Bytes(372, 0x66)), -1, 31,
         err(ln, "list->num > NEIGHBOR_DEVICE_LIST_MAX\n")},
        {"more than the count byte holds", tlv(6, Bytes(12 * 300, 0x66)), -1, 255,
         err(ln, "list->num > NEIGHBOR_DEVICE_LIST_MAX\n")},
    };
    for (const auto& c : cases) {
        Parsed p;
        std::memset(&p.bridging, 0x7E, sizeof p.bridging);
        int rc = 0;
        const uint8_t* t = c.tlv.data();
        const auto printed = capture_output([&] {
            if (t[0] == 3)
                rc = call(IEEE19051_ParseTlvDeviceInformation, t, &p.almac, &p.info);
            else if (t[0] == 4)
                rc = call(IEEE19051_ParseTlvDeviceBridgingCapability, t, &p.bridging);
            else
                rc = call(IEEE19051_ParseTlvLegacyNeighbor, t, &p.neighbors);
        });
        const int count = t[0] == 3 ? p.info.num : t[0] == 4 ? p.bridging.m : p.neighbors.num;
        EXPECT_EQ(rc, c.result) << c.what;
        EXPECT_EQ(count, c.count) << c.what;
        EXPECT_EQ(mask_line_numbers(printed.out), c.out) << c.what;
    }
    const auto printed = capture_output([] {
        Parsed p;
        EXPECT_EQ(IEEE19051_ParseTlvDeviceInformation(nullptr, &p.almac, &p.info), -1);
        EXPECT_EQ(IEEE19051_ParseTlvDeviceBridgingCapability(nullptr, &p.bridging), -1);
        EXPECT_EQ(IEEE19051_ParseTlvLegacyNeighbor(nullptr, &p.neighbors), -1);
    });
    EXPECT_EQ(mask_line_numbers(printed.out), err(di, "tlv == NULL || device_info == NULL\n") +
                                                  err(bc, "tlv == NULL || capability == NULL\n") +
                                                  err(ln, "tlv == NULL || list == NULL\n"));
}

}  // namespace
