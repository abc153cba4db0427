// Writing WSC attributes: the whole-message encoder of M1 and M2, and the
// single attributes of the Encrypted Settings plaintext.
#define KESTR_REPORT_MODULE "wsc"

#include "port/common/bytes.h"
#include "port/common/report.h"
#include "wsc/wsc.h"
#include "wsc/wsc_attributes.h"

namespace kestr::wsc {

namespace {

constexpr auto kSendOrder = in_order<&Attribute::sent_at>();

// The value bytes a present field puts on the wire; false for a byte string
// whose length is beyond its record (a record that cannot be sent).
bool value_size(const Field& f, size_t* size) {
    switch (f.kind) {
        case Field::U8:
            *size = 1;
            return true;
        case Field::U16:
            *size = 2;
            return true;
        case Field::Bytes:
            *size = *f.length;
            return *f.length <= f.bytes.size();
    }
    return false;
}

void put_value(ByteWriter* out, const Field& f) {
    switch (f.kind) {
        case Field::U8:
            out->u8(*f.u8);
            break;
        case Field::U16:
            out->u16(*f.u16);
            break;
        case Field::Bytes:
            out->bytes(f.bytes.first(*f.length));
            break;
    }
}

}  // namespace

size_t write_field(ByteWriter* out, u_int16_t id, const Field& f) {
    size_t len = 0;
    if (*f.valid != 1 || !value_size(f, &len) || kWscAttrHeaderLen + len > out->room())
        return 0;
    out->u16(id).u16(static_cast<u_int16_t>(len));
    put_value(out, f);
    return kWscAttrHeaderLen + len;
}

bool write_message(wsc_configuration_t& config, ByteWriter* out) {
    for (const Attribute* a : kSendOrder) {
        const Field f = a->message(config);
        if (*f.valid != 1)
            continue;
        size_t len = 0;
        if (!value_size(f, &len))
            return false;
        const size_t size = kWscAttrHeaderLen + len;
        if ((a->room > size ? a->room : size) > out->room())
            return false;
        write_field(out, a->id, f);
    }
    return out->ok();
}

}  // namespace kestr::wsc

namespace {

constexpr size_t kMaxTlvValue = 0xFFFF;  // the TLV length is 16 bits

// One attribute at `tlv` when all of it fits `maxlen`; the bytes written.
int write_single(wscTLV_t* tlv, int maxlen, u_int16_t id, const kestr::wsc::Field& f) {
    if (tlv == nullptr || maxlen < 0)
        return 0;
    kestr::ByteWriter out(tlv, static_cast<size_t>(maxlen));
    return static_cast<int>(kestr::wsc::write_field(&out, id, f));
}

}  // namespace

int get_tlv_wsc(ieee1905TLV_t* tlv, int maxlen, wsc_configuration_t* config) {
    if (tlv == nullptr || config == nullptr)
        return -1;
    const size_t room =
        maxlen < 0 ? 0 : std::min<size_t>(static_cast<size_t>(maxlen), kMaxTlvValue);
    const kestr::MutableBytes whole(reinterpret_cast<u_int8_t*>(tlv), kTlvHeaderLen + room);
    kestr::ByteWriter(whole.first(1)).u8(IEEE1905_TLV_TYPE_WPS);
    kestr::ByteWriter attributes(whole.subspan(kTlvHeaderLen));
    if (!kestr::wsc::write_message(*config, &attributes)) {
        KESTR_ERR("Err:string too long!\n");
        return -1;
    }
    kestr::ByteWriter(whole.subspan(1, 2)).u16(static_cast<u_int16_t>(attributes.size()));
    return kTlvHeaderLen + static_cast<int>(attributes.size());
}

int getWscTlvSSID(wscTLV_t* tlv, wsc_configuration_32byte_t ssid, int maxlen) {
    return write_single(tlv, maxlen, WSC_ID_SSID, kestr::wsc::field(ssid));
}

int getWscTlvNetworkKey(wscTLV_t* tlv, wsc_configuration_64byte_t key, int maxlen) {
    return write_single(tlv, maxlen, WSC_ID_NETWORK_KEY, kestr::wsc::field(key));
}

int getWscTlvAuthtype(wscTLV_t* tlv, wsc_configuration_uint16_t type, int maxlen) {
    return write_single(tlv, maxlen, WSC_ID_AUTH_TYPE, kestr::wsc::field(type));
}

int getWscTlvEncrtype(wscTLV_t* tlv, wsc_configuration_uint16_t type, int maxlen) {
    return write_single(tlv, maxlen, WSC_ID_ENCR_TYPE, kestr::wsc::field(type));
}

int getWscTlvKWA(wscTLV_t* tlv, u_int8_t* KWA, int KWALen, int maxlen) {
    if (KWA == nullptr || KWALen < 0 || static_cast<size_t>(KWALen) > kMaxTlvValue)
        return 0;
    u_int8_t valid = 1;
    u_int16_t length = static_cast<u_int16_t>(KWALen);
    const kestr::wsc::Field f{kestr::wsc::Field::Bytes,        &valid, nullptr, nullptr, &length,
                              kestr::MutableBytes(KWA, length)};
    return write_single(tlv, maxlen, WSC_ID_KEY_WRAP_AUTH, f);
}
