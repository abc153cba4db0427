// The WSC attributes of one WSC TLV: the attribute walk, the message parser
// and the way back. The input is the TLV's value; its length field tells the
// truth, as for every TLV the frame walk hands out.
//
// Whatever the parser makes of the input, encoding that record and parsing
// the encoding must give the same record: the encoder writes exactly what
// the parser accepts, except UUID-R, which is never sent.
#include <cstring>
#include <vector>

#include "fuzz/records.h"
#include "fuzz/support.h"
#include "port/common/bytes.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse_wsc.h"
#include "wsc/wsc.h"

namespace {

constexpr size_t kMaxValue = 0xFFFF;

wsc_configuration_t parse(std::vector<uint8_t>& tlv) {
    wsc_configuration_t c;
    std::memset(&c, 0, sizeof c);
    KESTR_FUZZ_CHECK(IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv.data()), &c) == 0);
    return c;
}

// Attributes follow each other from the start without gaps, each inside
// the value; the count and the positions agree.
void walk(std::vector<uint8_t>& tlv) {
    uint8_t* value = tlv.data() + kTlvHeaderLen;
    const auto len = static_cast<u_int16_t>(tlv.size() - kTlvHeaderLen);
    const int total = get_wsc_tlv_total(value, len);
    KESTR_FUZZ_CHECK(total >= 0);
    KESTR_FUZZ_CHECK(get_wsc_tlv_by_number(value, len, total) == nullptr);
    KESTR_FUZZ_CHECK(get_wsc_tlv_by_number(value, len, -1) == nullptr);
    const uint8_t* expected = value;
    for (int i = 0; i < total; ++i) {
        const uint8_t* a = get_wsc_tlv_by_number(value, len, i);
        KESTR_FUZZ_CHECK(a == expected);
        const size_t attr_len = kWscAttrHeaderLen + kestr::load_be16(a + 2);
        KESTR_FUZZ_CHECK(a + attr_len <= value + len);
        expected = a + attr_len;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxValue)
        return 0;  // no TLV length says more
    std::vector<uint8_t> tlv = kestr::fuzz::wsc_tlv(data, size);
    walk(tlv);

    wsc_configuration_t parsed = parse(tlv);
    KESTR_FUZZ_CHECK(kestr::fuzz::well_formed(parsed));

    std::vector<uint8_t> encoded(kTlvHeaderLen + kMaxValue);
    const int n = IEEE19051_GetWscTlv(&parsed, encoded.data(), static_cast<int>(encoded.size()));
    KESTR_FUZZ_CHECK(n >= kTlvHeaderLen);
    encoded.resize(static_cast<size_t>(n));
    KESTR_FUZZ_CHECK(kestr::load_be16(encoded.data() + 1) == n - kTlvHeaderLen);

    wsc_configuration_t again = parse(encoded);
    parsed.UUIDR.valid = 0;
    KESTR_FUZZ_CHECK(kestr::fuzz::same(parsed, again));
    return 0;
}
