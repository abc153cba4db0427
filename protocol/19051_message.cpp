// Reading received AP-autoconfiguration messages into their records. A TLV
// too short for its value is reported in the name of the TLV parser the
// value belongs to, as that parser reports it.
#include "protocol/19051_message.h"

#include "protocol/19051_parse.h"
#include "protocol/19051_parse_wsc.h"

namespace kestr {

SearchMessage read_search(const FrameView& frame) {
    SearchMessage m;
    m.mid = frame.mid();
    m.source = frame.source();
    TlvReader tlvs = frame.tlvs();
    Tlv tlv;
    while (tlvs.next(&tlv)) {
        switch (tlv.type) {
            case IEEE1905_TLV_TYPE_AL_ID:
                read_tlv_mac(tlv, &m.almac, "IEEE19051_ParseTlvSingleAddr");
                break;
            case IEEE1905_TLV_TYPE_SEARCHED_ROLE:
                read_tlv_byte(tlv, &m.searched_role, "IEEE19051_ParseTlvSearchedRole");
                break;
            case IEEE1905_TLV_TYPE_FREQ_BAND:
                read_tlv_byte(tlv, &m.searched_band, "IEEE19051_ParseTlvFreqBand");
                break;
            default:
                break;
        }
    }
    return m;
}

ResponseMessage read_response(const FrameView& frame) {
    ResponseMessage m;
    m.mid = frame.mid();
    m.source = frame.source();
    TlvReader tlvs = frame.tlvs();
    Tlv tlv;
    while (tlvs.next(&tlv)) {
        if (tlv.type == IEEE1905_TLV_TYPE_SUPPORTED_ROLE) {
            if (read_tlv_byte(tlv, &m.supported_role, "IEEE19051_ParseTlvSupportedRole"))
                m.has_role = true;
        } else if (tlv.type == IEEE1905_TLV_TYPE_SUPPORTED_FREQ_BAND) {
            if (read_tlv_byte(tlv, &m.supported_band, "IEEE19051_ParseTlvSupportedFreqBand"))
                m.has_band = true;
        }
    }
    return m;
}

void read_wsc(const FrameView& frame, WscMessage* out) {
    *out = WscMessage{};
    out->mid = frame.mid();
    out->source = frame.source();
    const wsc_configuration_uint8_t& type = out->attributes.message_type;
    TlvReader tlvs = frame.tlvs();
    Tlv tlv;
    while (tlvs.next(&tlv)) {
        if (tlv.type != IEEE1905_TLV_TYPE_WPS)
            continue;
        wsc::read_message(tlv.value, &out->attributes);
        if (type.valid == 1 && type.val == MessageType_M1) {
            out->has_m1 = true;
            out->m1 = tlv.value;
        } else if (type.valid == 1 && type.val == MessageType_M2) {
            out->has_m2 = true;
            out->m2 = tlv.value;
        }
    }
}

}  // namespace kestr
