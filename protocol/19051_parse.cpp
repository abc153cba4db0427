#include "protocol/19051_parse.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "port/common/bytes.h"
#include "port/common/report.h"

using kestr::ByteReader;

// An error line in the name of `fn`, for checks shared by several parsers.
#define KESTR_ERR_IN(fn, ...) \
    ::kestr::report_line(::kestr::LineKind::Error, KESTR_MODULE, fn, __LINE__, __VA_ARGS__)

namespace {

// The TLVs of one frame's content area, one after the other.
class TlvWalk {
  public:
    explicit TlvWalk(const uint8_t* frame)
        : rest_(frame + offsetof(ieee1905Message_t, content), kCmduContentLen) {}

    // The next TLV, or null at the end of the list.
    const uint8_t* next() {
        ByteReader ahead = rest_;
        uint8_t type = 0;
        uint16_t length = 0;
        if (!ahead.u8(&type) || !ahead.u16(&length))
            return nullptr;  // header passes the end
        if (type == IEEE1905_TLV_TYPE_END_OF_MESSAGE && length == 0)
            return nullptr;
        if (!ahead.skip(length))
            return nullptr;  // value passes the end
        const uint8_t* const tlv = rest_.data();
        rest_ = ahead;
        return tlv;
    }

  private:
    ByteReader rest_;
};

// The value of a TLV that the walk handed out: exactly `length` bytes.
ByteReader value_of(const void* tlv) {
    const auto* raw = static_cast<const uint8_t*>(tlv);
    return ByteReader(raw + kTlvHeaderLen, kestr::load_be16(raw + 1));
}

unsigned length_of(const void* tlv) {
    return kestr::load_be16(static_cast<const uint8_t*>(tlv) + 1);
}

// The first `need` value bytes of `tlv`, refused when its length is shorter.
bool read_value(const void* tlv, void* out, size_t need, const char* fn) {
    ByteReader value = value_of(tlv);
    if (!value.bytes(out, need)) {
        KESTR_ERR_IN(fn, "tlv length %u < %u\n", length_of(tlv), static_cast<unsigned>(need));
        return false;
    }
    return true;
}

}  // namespace

int IEEE19051_GetTlvTotalNumber(u_int8_t* buf) {
    if (buf == nullptr)
        return -1;
    TlvWalk walk(buf);
    int count = 0;
    while (walk.next() != nullptr)
        ++count;
    return count;
}

u_int8_t* IEEE19051_GetTlvByNumber(const u_int8_t* buf, const int num) {
    if (buf == nullptr || num < 0)
        return nullptr;
    TlvWalk walk(buf);
    for (int position = 0;; ++position) {
        const uint8_t* tlv = walk.next();
        if (tlv == nullptr || position == num)
            return const_cast<u_int8_t*>(tlv);
    }
}

int kestr::end_tlvs_at_received(uint8_t* frame, int received) {
    constexpr int kContentAt = offsetof(ieee1905Message_t, content);
    if (frame == nullptr || received < kContentAt || received > kCmduMaxFrameLen)
        return -1;
    std::memset(frame + received, 0, static_cast<size_t>(kCmduMaxFrameLen - received));
    ByteReader rest(frame + kContentAt, static_cast<size_t>(received - kContentAt));
    int count = 0;
    for (;;) {
        ByteReader ahead = rest;
        uint8_t type = 0;
        uint16_t length = 0;
        if (ahead.remaining() == 0)
            return count;  // the cleared bytes after the frame end the list
        if (!ahead.u8(&type) || !ahead.u16(&length) || !ahead.skip(length))
            break;
        if (type == IEEE1905_TLV_TYPE_END_OF_MESSAGE && length == 0)
            return count;
        rest = ahead;
        ++count;
    }
    const size_t cut = static_cast<size_t>(rest.data() - frame);
    std::memset(frame + cut, 0, static_cast<size_t>(kCmduMaxFrameLen) - cut);
    return count;
}

int IEEE19051_ParseTlvSearchedRole(const ieee1905APAutoConfigSearchedRoleTLV_t* tlv,
                                   u_int8_t* role) {
    if (tlv == nullptr || role == nullptr) {
        KESTR_ERR("tlv == NULL || role == NULL\n");
        return -1;
    }
    return read_value(tlv, role, 1, __func__) ? 0 : -1;
}

int IEEE19051_ParseTlvFreqBand(const ieee1905APAutoConfigFreqBandTLV_t* tlv, u_int8_t* freqBand) {
    if (tlv == nullptr || freqBand == nullptr) {
        KESTR_ERR("tlv == NULL || role == NULL\n");
        return -1;
    }
    return read_value(tlv, freqBand, 1, __func__) ? 0 : -1;
}

int IEEE19051_ParseTlvSupportedRole(const ieee1905APAutoConfigSupportedRoleTLV_t* tlv,
                                    u_int8_t* role) {
    if (tlv == nullptr || role == nullptr) {
        KESTR_ERR("tlv == NULL || role == NULL\n");
        return -1;
    }
    return read_value(tlv, role, 1, __func__) ? 0 : -1;
}

int IEEE19051_ParseTlvSupportedFreqBand(const ieee1905APAutoConfigSupportedFreqBandTLV_t* tlv,
                                        u_int8_t* freqBand) {
    if (tlv == nullptr || freqBand == nullptr) {
        KESTR_ERR("tlv == NULL || role == NULL\n");
        return -1;
    }
    return read_value(tlv, freqBand, 1, __func__) ? 0 : -1;
}

int IEEE19051_ParseTlvSingleAddr(const ieee1905SingleAddressTLV_t* tlv, struct ether_addr* mac) {
    if (tlv == nullptr || mac == nullptr) {
        KESTR_ERR("tlv == NULL || mac == NULL\n");
        return -1;
    }
    return read_value(tlv, mac->ether_addr_octet, ETH_ALEN, __func__) ? 0 : -1;
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
    ByteReader value = value_of(tlv);
    if (value.remaining() < sizeof kVendorOui) {
        KESTR_ERR("tlv length %u < 3\n", length_of(tlv));
        return -1;
    }
    // No vendor TLV of a received CMDU is longer; a longer one would overrun
    // any `val` sized for a CMDU.
    if (value.remaining() > sizeof kVendorOui + kVendorValueMax) {
        KESTR_ERR("tlv length %u > %d\n", length_of(tlv),
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
    ByteReader value = value_of(tlv);
    if (value.remaining() < ETH_ALEN + 1) {
        KESTR_ERR("tlv length %u < 7\n", length_of(tlv));
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
    ByteReader value = value_of(tlv);
    uint8_t m = 0;
    if (!value.u8(&m)) {
        KESTR_ERR("tlv length %u < 1\n", length_of(tlv));
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
    ByteReader value = value_of(tlv);
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
