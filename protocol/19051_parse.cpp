#include "protocol/19051_parse.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "port/common/bytes.h"
#include "port/common/report.h"
#include "protocol/19051_view.h"

using kestr::ByteReader;
using kestr::Tlv;

bool kestr::TlvReader::next(Tlv* out) {
    ByteReader ahead = rest_;
    uint8_t type = 0;
    ByteReader value;
    if (!ahead.u8(&type) || !ahead.u16_length_prefixed(&value))
        return false;  // header or value passes the end
    if (type == IEEE1905_TLV_TYPE_END_OF_MESSAGE && value.empty())
        return false;
    ByteReader whole;
    rest_.sub(kTlvHeaderLen + value.remaining(), &whole);
    *out = Tlv{type, whole, value};
    return true;
}

bool kestr::read_tlv_byte(const Tlv& tlv, uint8_t* out, const char* parser) {
    ByteReader value = tlv.value;
    if (!value.u8(out)) {
        KESTR_ERR_IN(parser, "tlv length %u < 1\n", static_cast<unsigned>(tlv.value.remaining()));
        return false;
    }
    return true;
}

bool kestr::read_tlv_mac(const Tlv& tlv, Mac* out, const char* parser) {
    ByteReader value = tlv.value;
    if (!value.bytes(out->octets.data(), out->octets.size())) {
        KESTR_ERR_IN(parser, "tlv length %u < %u\n", static_cast<unsigned>(tlv.value.remaining()),
                     static_cast<unsigned>(ETH_ALEN));
        return false;
    }
    return true;
}

namespace {

// A TLV handed out by IEEE19051_GetTlvByNumber, as a view again: its own
// length field says how long it is, and the walk made sure it lies inside
// the frame.
Tlv tlv_at(const void* tlv) {
    ByteReader whole = ByteReader::self_delimited(tlv, 1, kTlvHeaderLen);
    Tlv out;
    out.whole = whole;
    whole.u8(&out.type);
    whole.u16_length_prefixed(&out.value);
    return out;
}

unsigned length_of(const Tlv& tlv) {
    return static_cast<unsigned>(tlv.value.remaining());
}

// The walk over a bare frame buffer, which by contract holds a whole frame.
kestr::TlvReader tlvs_of(const u_int8_t* buf) {
    return kestr::FrameView(buf, kCmduMaxFrameLen).tlvs();
}

int one_byte(const void* tlv, u_int8_t* out, const char* parser) {
    if (tlv == nullptr || out == nullptr) {
        KESTR_ERR_IN(parser, "tlv == NULL || role == NULL\n");
        return -1;
    }
    return kestr::read_tlv_byte(tlv_at(tlv), out, parser) ? 0 : -1;
}

}  // namespace

int IEEE19051_GetTlvTotalNumber(u_int8_t* buf) {
    if (buf == nullptr)
        return -1;
    kestr::TlvReader walk = tlvs_of(buf);
    Tlv tlv;
    int count = 0;
    while (walk.next(&tlv))
        ++count;
    return count;
}

u_int8_t* IEEE19051_GetTlvByNumber(const u_int8_t* buf, const int num) {
    if (buf == nullptr || num < 0)
        return nullptr;
    kestr::TlvReader walk = tlvs_of(buf);
    Tlv tlv;
    for (int position = 0;; ++position) {
        const ByteReader start = walk.rest();
        if (!walk.next(&tlv))
            return nullptr;
        if (position == num)
            return const_cast<u_int8_t*>(start.data());
    }
}

int IEEE19051_ParseTlvSearchedRole(const ieee1905APAutoConfigSearchedRoleTLV_t* tlv,
                                   u_int8_t* role) {
    return one_byte(tlv, role, __func__);
}

int IEEE19051_ParseTlvFreqBand(const ieee1905APAutoConfigFreqBandTLV_t* tlv, u_int8_t* freqBand) {
    return one_byte(tlv, freqBand, __func__);
}

int IEEE19051_ParseTlvSupportedRole(const ieee1905APAutoConfigSupportedRoleTLV_t* tlv,
                                    u_int8_t* role) {
    return one_byte(tlv, role, __func__);
}

int IEEE19051_ParseTlvSupportedFreqBand(const ieee1905APAutoConfigSupportedFreqBandTLV_t* tlv,
                                        u_int8_t* freqBand) {
    return one_byte(tlv, freqBand, __func__);
}

int IEEE19051_ParseTlvSingleAddr(const ieee1905SingleAddressTLV_t* tlv, struct ether_addr* mac) {
    if (tlv == nullptr || mac == nullptr) {
        KESTR_ERR("tlv == NULL || mac == NULL\n");
        return -1;
    }
    kestr::Mac read;
    if (!kestr::read_tlv_mac(tlv_at(tlv), &read, __func__))
        return -1;
    *mac = read.ether();
    return 0;
}

int IEEE19051_ParseTlvVendorSpecific(const ieee1905VendorSpecificHeaderTLV_t* tlv, u_int8_t* oui,
                                     u_int8_t* val, int* val_len) {
    if (tlv == nullptr || oui == nullptr) {
        KESTR_ERR("tlv == NULL || oui == NULL\n");
        return -1;
    }
    if (val == nullptr || val_len == nullptr) {
        KESTR_ERR("val == NULL || val_len == NULL\n");
        return -1;
    }
    ByteReader value = tlv_at(tlv).value;
    if (value.remaining() < sizeof kVendorOui) {
        KESTR_ERR("tlv length %u < 3\n", length_of(tlv_at(tlv)));
        return -1;
    }
    // No vendor TLV of a received CMDU is longer; a longer one would overrun
    // any `val` sized for a CMDU.
    if (value.remaining() > sizeof kVendorOui + kVendorValueMax) {
        KESTR_ERR("tlv length %u > %d\n", length_of(tlv_at(tlv)),
                  static_cast<int>(sizeof kVendorOui) + kVendorValueMax);
        return -1;
    }
    value.bytes(oui, sizeof kVendorOui);
    const size_t n = value.remaining();
    value.bytes(val, n);
    *val_len = static_cast<int>(n);
    return 0;
}

int IEEE19051_ParseTlvDeviceInformation(const ieee1905DeviceInformationTLV_t* tlv,
                                        struct ether_addr* almac,
                                        device_information_t* device_info) {
    if (tlv == nullptr || device_info == nullptr) {
        KESTR_ERR("tlv == NULL || device_info == NULL\n");
        return -1;
    }
    if (almac == nullptr) {
        KESTR_ERR("almac == NULL\n");
        return -1;
    }
    ByteReader value = tlv_at(tlv).value;
    if (value.remaining() < ETH_ALEN + 1) {
        KESTR_ERR("tlv length %u < 7\n", length_of(tlv_at(tlv)));
        return -1;
    }
    uint8_t num = 0;
    value.bytes(almac->ether_addr_octet, ETH_ALEN);
    value.u8(&num);
    device_info->num = num;
    if (num > INTERFACE_TOTAL_MAX) {
        KESTR_ERR("device_info->num > INTERFACE_TOTAL_MAX\n");
        return -1;
    }

    // Check every entry against the TLV and the record before filling any.
    ByteReader check = value;
    for (int i = 0; i < num; ++i) {
        uint8_t length = 0;
        if (!check.skip(ETH_ALEN + 2) || !check.u8(&length) || !check.skip(length)) {
            KESTR_ERR("interface %d runs past the tlv\n", i);
            device_info->num = 0;
            return -1;
        }
        if (length > MEDIA_SPECIFIC_INFO_MAX) {
            KESTR_ERR("interface %d media info length %u > %d\n", i, length,
                      MEDIA_SPECIFIC_INFO_MAX);
            device_info->num = 0;
            return -1;
        }
    }
    for (int i = 0; i < num; ++i) {
        interface_information_t& itf = device_info->interface[i];
        uint16_t media_type = 0;
        value.bytes(itf.mac.ether_addr_octet, ETH_ALEN);
        value.u16(&media_type);
        itf.media_type = media_type;
        value.u8(&itf.length);
        value.bytes(itf.val, itf.length);
    }
    return 0;
}

int IEEE19051_ParseTlvDeviceBridgingCapability(const ieee1905DeviceBridgingCapabilityTLV_t* tlv,
                                               ieee1905BridgingCapability_t* capability) {
    if (tlv == nullptr || capability == nullptr) {
        KESTR_ERR("tlv == NULL || capability == NULL\n");
        return -1;
    }
    ByteReader value = tlv_at(tlv).value;
    uint8_t m = 0;
    if (!value.u8(&m)) {
        KESTR_ERR("tlv length %u < 1\n", length_of(tlv_at(tlv)));
        return -1;
    }
    if (m > BRIDGING_TUPLE_MAX) {
        KESTR_ERR("tlv->m > BRIDGING_TUPLE_MAX\n");
        return -1;
    }

    ByteReader check = value;
    for (int t = 0; t < m; ++t) {
        uint8_t k = 0;
        if (!check.u8(&k)) {
            KESTR_ERR("tuple %d runs past the tlv\n", t);
            return -1;
        }
        if (k > BRIDGING_TUPLE_MAC_MAX) {
            KESTR_ERR("tuple %d has %u addresses > %d\n", t, k, BRIDGING_TUPLE_MAC_MAX);
            return -1;
        }
        if (!check.skip(static_cast<size_t>(k) * ETH_ALEN)) {
            KESTR_ERR("tuple %d runs past the tlv\n", t);
            return -1;
        }
    }
    capability->m = m;
    for (int t = 0; t < m; ++t) {
        ieee1905BridgingTuple_t& tuple = capability->tuple[t];
        value.u8(&tuple.k);
        value.bytes(tuple.mac, static_cast<size_t>(tuple.k) * ETH_ALEN);
    }
    return 0;
}

int IEEE19051_ParseTlvLegacyNeighbor(const ieee1905NeighborDeviceListTLV_t* tlv,
                                     neighborDeviceList* list) {
    if (tlv == nullptr || list == nullptr) {
        KESTR_ERR("tlv == NULL || list == NULL\n");
        return -1;
    }
    constexpr unsigned kEntry = 2 * ETH_ALEN;
    ByteReader value = tlv_at(tlv).value;
    const size_t num = value.remaining() / kEntry;  // a partial entry at the end is ignored
    list->num = static_cast<uint8_t>(std::min<size_t>(num, 255));
    if (num > NEIGHBOR_DEVICE_LIST_MAX) {
        KESTR_ERR("list->num > NEIGHBOR_DEVICE_LIST_MAX\n");
        return -1;
    }
    for (size_t i = 0; i < num; ++i) {
        value.bytes(list->neighbor[i].local_mac.ether_addr_octet, ETH_ALEN);
        value.bytes(list->neighbor[i].neighbor_mac.ether_addr_octet, ETH_ALEN);
    }
    return 0;
}
