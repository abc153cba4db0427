// The TLV walk over a received frame and every 1905.1 TLV parser, on every
// TLV the walk hands out. The daemon picks a parser by the type byte; here
// each parser reads each TLV, since a parser's only promise is to stay
// inside the TLV it is given. Topology records that parse are encoded again
// and must give back the bytes they came from.
#include <cstring>
#include <vector>

#include "fuzz/support.h"
#include "port/common/bytes.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_protocol.h"

namespace {

using kestr::load_be16;

template <typename Tlv>
const Tlv* as(const uint8_t* tlv) {
    return reinterpret_cast<const Tlv*>(tlv);
}

// The encoder's value must be the TLV's own value up to where the parsed
// entries end (a TLV may carry unread bytes after them). The type byte is
// the encoder's own: the TLV may be of any type.
void same_as_encoded(const uint8_t* tlv, const std::vector<uint8_t>& encoded, int n) {
    KESTR_FUZZ_CHECK(n >= kTlvHeaderLen);
    const int length = load_be16(tlv + 1);
    KESTR_FUZZ_CHECK(n - kTlvHeaderLen <= length);
    KESTR_FUZZ_CHECK(std::memcmp(encoded.data() + kTlvHeaderLen, tlv + kTlvHeaderLen,
                                 static_cast<size_t>(n - kTlvHeaderLen)) == 0);
}

void one_byte_parsers(const uint8_t* tlv, int length) {
    const bool enough = length >= 1;
    uint8_t out = 0xEE;
    int rc = IEEE19051_ParseTlvSearchedRole(as<ieee1905APAutoConfigSearchedRoleTLV_t>(tlv), &out);
    KESTR_FUZZ_CHECK(rc == (enough ? 0 : -1) && (!enough || out == tlv[3]));
    rc = IEEE19051_ParseTlvFreqBand(as<ieee1905APAutoConfigFreqBandTLV_t>(tlv), &out);
    KESTR_FUZZ_CHECK(rc == (enough ? 0 : -1));
    rc = IEEE19051_ParseTlvSupportedRole(as<ieee1905APAutoConfigSupportedRoleTLV_t>(tlv), &out);
    KESTR_FUZZ_CHECK(rc == (enough ? 0 : -1));
    rc = IEEE19051_ParseTlvSupportedFreqBand(as<ieee1905APAutoConfigSupportedFreqBandTLV_t>(tlv),
                                             &out);
    KESTR_FUZZ_CHECK(rc == (enough ? 0 : -1));

    struct ether_addr mac;
    rc = IEEE19051_ParseTlvSingleAddr(as<ieee1905SingleAddressTLV_t>(tlv), &mac);
    KESTR_FUZZ_CHECK(rc == (length >= 6 ? 0 : -1));
    if (rc == 0)
        KESTR_FUZZ_CHECK(std::memcmp(mac.ether_addr_octet, tlv + 3, 6) == 0);
}

void vendor_parser(const uint8_t* tlv, int length) {
    uint8_t oui[3];
    // Exactly the room the parser promises to need, so AddressSanitizer sees
    // one byte more.
    std::vector<uint8_t> val(kVendorValueMax);
    int val_len = -1;
    const int rc = IEEE19051_ParseTlvVendorSpecific(as<ieee1905VendorSpecificHeaderTLV_t>(tlv), oui,
                                                    val.data(), &val_len);
    const bool fits = length >= 3 && length <= 3 + kVendorValueMax;
    KESTR_FUZZ_CHECK(rc == (fits ? 0 : -1));
    if (rc == 0) {
        KESTR_FUZZ_CHECK(val_len == length - 3);
        KESTR_FUZZ_CHECK(std::memcmp(val.data(), tlv + 6, static_cast<size_t>(val_len)) == 0);
    }
}

void topology_parsers(const uint8_t* tlv) {
    struct ether_addr almac;
    device_information_t info;
    std::memset(&info, 0, sizeof info);
    if (IEEE19051_ParseTlvDeviceInformation(as<ieee1905DeviceInformationTLV_t>(tlv), &almac,
                                            &info) == 0) {
        KESTR_FUZZ_CHECK(info.num <= INTERFACE_TOTAL_MAX);
        for (int i = 0; i < info.num; ++i)
            KESTR_FUZZ_CHECK(info.interface[i].length <= MEDIA_SPECIFIC_INFO_MAX);
        std::vector<uint8_t> out(kDeviceInformationTlvMax);
        const int n = getTlvDeviceInformation(
            reinterpret_cast<ieee1905DeviceInformationTLV_t*>(out.data()), almac, info);
        same_as_encoded(tlv, out, n);
    }

    ieee1905BridgingCapability_t capability;
    std::memset(&capability, 0, sizeof capability);
    if (IEEE19051_ParseTlvDeviceBridgingCapability(as<ieee1905DeviceBridgingCapabilityTLV_t>(tlv),
                                                   &capability) == 0) {
        KESTR_FUZZ_CHECK(capability.m <= BRIDGING_TUPLE_MAX);
        for (int t = 0; t < capability.m; ++t)
            KESTR_FUZZ_CHECK(capability.tuple[t].k <= BRIDGING_TUPLE_MAC_MAX);
        std::vector<uint8_t> out(kBridgingCapabilityTlvMax);
        const int n = getTlvDeviceBridgingCapability(
            reinterpret_cast<ieee1905DeviceBridgingCapabilityTLV_t*>(out.data()), capability);
        same_as_encoded(tlv, out, n);
    }

    neighborDeviceList list;
    std::memset(&list, 0, sizeof list);
    if (IEEE19051_ParseTlvLegacyNeighbor(as<ieee1905NeighborDeviceListTLV_t>(tlv), &list) == 0) {
        KESTR_FUZZ_CHECK(list.num <= NEIGHBOR_DEVICE_LIST_MAX);
        KESTR_FUZZ_CHECK(list.num == load_be16(tlv + 1) / 12);
        std::vector<uint8_t> out(kLegacyNeighborTlvMax);
        const int n = getTlvLegacyNeighbor(
            reinterpret_cast<ieee1905NeighborDeviceListTLV_t*>(out.data()), list);
        same_as_encoded(tlv, out, n);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kestr::fuzz::Frame frame(data, size);
    uint8_t* buf = frame.data();
    const uint8_t* const end = buf + kCmduMaxFrameLen;

    const int count = IEEE19051_GetTlvTotalNumber(buf);
    KESTR_FUZZ_CHECK(count >= 0);
    KESTR_FUZZ_CHECK(IEEE19051_GetTlvByNumber(buf, count) == nullptr);
    KESTR_FUZZ_CHECK(IEEE19051_GetTlvByNumber(buf, -1) == nullptr);

    // TLVs follow each other from the start of the content, each wholly
    // inside the frame, none of them the end of message.
    const uint8_t* expected = buf + offsetof(ieee1905Message_t, content);
    for (int i = 0; i < count; ++i) {
        const uint8_t* tlv = IEEE19051_GetTlvByNumber(buf, i);
        KESTR_FUZZ_CHECK(tlv == expected);
        const int length = load_be16(tlv + 1);
        KESTR_FUZZ_CHECK(tlv + kTlvHeaderLen + length <= end);
        KESTR_FUZZ_CHECK(tlv[0] != IEEE1905_TLV_TYPE_END_OF_MESSAGE || length != 0);
        expected = tlv + kTlvHeaderLen + length;

        one_byte_parsers(tlv, length);
        vendor_parser(tlv, length);
        topology_parsers(tlv);
    }
    return 0;
}
