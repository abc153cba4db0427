// Reading WSC attributes: the walk over a message, and the parsers that
// fill the message and settings records, all by the rules of the attribute
// table.
#define KESTR_REPORT_MODULE "wsc"

#include "port/common/bytes.h"
#include "port/common/report.h"
#include "wsc/wsc.h"
#include "wsc/wsc_attributes.h"

namespace kestr::wsc {

bool AttributeWalk::next(AttributeBytes* out) {
    ByteReader ahead = rest_;
    u_int16_t type = 0;
    ByteReader value;
    // A header or value cut short ends the walk for good.
    if (!ahead.u16(&type) || !ahead.u16_length_prefixed(&value)) {
        rest_ = ByteReader();
        return false;
    }
    ByteReader whole;
    rest_.sub(kWscAttrHeaderLen + value.remaining(), &whole);
    *out = AttributeBytes{type, whole, value};
    return true;
}

ReadResult read_field(const Field& f, ByteReader value) {
    switch (f.kind) {
        case Field::U8:
            if (!value.u8(f.u8))
                return ReadResult::TooShort;
            break;
        case Field::U16:
            if (!value.u16(f.u16))
                return ReadResult::TooShort;
            break;
        case Field::Bytes: {
            const size_t n = value.remaining();
            if (n > f.bytes.size())
                return ReadResult::TooLong;
            value.bytes(f.bytes.data(), n);
            *f.length = static_cast<u_int16_t>(n);
            break;
        }
    }
    *f.valid = 1;
    return ReadResult::Ok;
}

void read_message(ByteReader attributes, wsc_configuration_t* config) {
    AttributeWalk walk(attributes);
    AttributeBytes a;
    while (walk.next(&a)) {
        const wsc::Attribute* row = find(a.type);
        // A refused attribute is simply absent; the others are still read.
        if (row != nullptr && row->message != nullptr)
            read_field(row->message(*config), a.value);
    }
}

}  // namespace kestr::wsc

using kestr::ByteReader;
using kestr::wsc::AttributeWalk;

int get_wsc_tlv_total(u_int8_t* buf, u_int16_t buflen) {
    if (buf == nullptr)
        return -1;
    AttributeWalk walk(ByteReader(buf, buflen));
    kestr::wsc::AttributeBytes a;
    int n = 0;
    while (walk.next(&a))
        ++n;
    return n;
}

u_int8_t* get_wsc_tlv_by_number(u_int8_t* buf, u_int16_t buflen, const int num) {
    if (buf == nullptr || num < 0)
        return nullptr;
    AttributeWalk walk(ByteReader(buf, buflen));
    kestr::wsc::AttributeBytes a;
    for (int i = 0; walk.next(&a); ++i) {
        if (i == num)
            return const_cast<u_int8_t*>(a.whole.data());
    }
    return nullptr;
}

namespace {

// The value of an attribute that a walk handed out, as a view again.
ByteReader value_of(const void* tlv) {
    ByteReader whole = ByteReader::self_delimited(tlv, 2, kWscAttrHeaderLen);
    ByteReader value;
    whole.skip(2);
    whole.u16_length_prefixed(&value);
    return value;
}

// Parses `tlv` as the attribute `id` of a message, whatever its own type.
int parse_as(u_int16_t id, const void* tlv, wsc_configuration_t* config) {
    if (tlv == nullptr || config == nullptr)
        return -1;
    const kestr::wsc::Attribute* row = kestr::wsc::find(id);
    return kestr::wsc::read_field(row->message(*config), value_of(tlv)) ==
                   kestr::wsc::ReadResult::Ok
               ? 0
               : -1;
}

// The generic parsers refuse a byte string longer than their record out
// loud, in their own name.
template <typename Record>
int parse_generic(const void* tlv, Record* rec) {
    if (tlv == nullptr || rec == nullptr)
        return -1;
    return kestr::wsc::read_settings_field(kestr::wsc::field(*rec), value_of(tlv)) ? 0 : -1;
}

}  // namespace

namespace kestr::wsc {

bool read_settings_field(const Field& f, ByteReader value) {
    const ReadResult r = read_field(f, value);
    if (r == ReadResult::TooLong) {
        switch (f.bytes.size()) {
            case 6:
                KESTR_ERR_IN("parse_wsc_tlv_6byte", "tlvlen > 6\n");
                break;
            case 8:
                KESTR_ERR_IN("parse_wsc_tlv_8byte", "tlvlen > 8\n");
                break;
            case 32:
                KESTR_ERR_IN("parse_wsc_tlv_32byte", "tlvlen > 32\n");
                break;
            case 64:
                KESTR_ERR_IN("parse_wsc_tlv_64byte", "tlvlen > 64\n");
                break;
            default:
                KESTR_ERR_IN("parse_wsc_tlv_1024byte", "tlvlen > 1024\n");
                break;
        }
    }
    return r == ReadResult::Ok;
}

}  // namespace kestr::wsc

// ------------------------------------------------------- message attributes

int parse_wsc_tlv_version(wscTLV_uint8_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_VERSION, tlv, wsc_config);
}
int parse_wsc_message_type(wscTLV_uint8_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_MSG_TYPE, tlv, wsc_config);
}
int parse_wsc_UUIDE(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_UUID_E, tlv, wsc_config);
}
int parse_wsc_mac(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_MAC_ADDR, tlv, wsc_config);
}
int parse_wsc_enrollee_nonce(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_ENROLLEE_NONCE, tlv, wsc_config);
}
int parse_wsc_registrar_nonce(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_REGISTRAR_NONCE, tlv, wsc_config);
}
int parse_wsc_public_key(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_PUBLIC_KEY, tlv, wsc_config);
}
int parse_wsc_authentication_type_flags(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_AUTH_TYPE_FLAGS, tlv, wsc_config);
}
int parse_wsc_encryption_type_flags(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_ENCR_TYPE_FLAGS, tlv, wsc_config);
}
int parse_wsc_connectioin_type_flags(wscTLV_uint8_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_CONN_TYPE_FLAGS, tlv, wsc_config);
}
int parse_wsc_configuration_methods(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_CONFIG_METHODS, tlv, wsc_config);
}
int parse_wsc_wifi_simple_configuration_state(wscTLV_uint8_t* tlv,
                                              wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_WSC_STATE, tlv, wsc_config);
}
int parse_wsc_manufacturer(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_MANUFACTURER, tlv, wsc_config);
}
int parse_wsc_model_name(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_MODEL_NAME, tlv, wsc_config);
}
int parse_wsc_model_number(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_MODEL_NUMBER, tlv, wsc_config);
}
int parse_wsc_serial_number(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_SERIAL_NUMBER, tlv, wsc_config);
}
int parse_wsc_primary_device_type(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_PRIMARY_DEV_TYPE, tlv, wsc_config);
}
int parse_wsc_device_name(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_DEVICE_NAME, tlv, wsc_config);
}
int parse_wsc_connectioin_rf_bands(wscTLV_uint8_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_RF_BANDS, tlv, wsc_config);
}
int parse_wsc_tlv_association_state(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_ASSOC_STATE, tlv, wsc_config);
}
int parse_wsc_tlv_pwd_id(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_DEVICE_PASSWORD_ID, tlv, wsc_config);
}
int parse_wsc_tlv_configuration_error(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_CONFIG_ERROR, tlv, wsc_config);
}
int parse_wsc_os_version(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_OS_VERSION, tlv, wsc_config);
}
int parse_wsc_vendor_extension(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_VENDOR_EXT, tlv, wsc_config);
}
int parse_wsc_UUIDR(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_UUID_R, tlv, wsc_config);
}
int parse_wsc_encrypted_settings(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_ENCR_SETTINGS, tlv, wsc_config);
}
int parse_wsc_authenticator(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return parse_as(WSC_ID_AUTHENTICATOR, tlv, wsc_config);
}

// ---------------------------------------------------------- generic parsers

int parse_wsc_tlv_uint16(wscTLV_t* tlv, wsc_configuration_uint16_t* val) {
    return parse_generic(tlv, val);
}
int parse_wsc_tlv_uint8(wscTLV_t* tlv, wsc_configuration_uint8_t* val) {
    return parse_generic(tlv, val);
}
int parse_wsc_tlv_6byte(wscTLV_t* tlv, wsc_configuration_6byte_t* val) {
    return parse_generic(tlv, val);
}
int parse_wsc_tlv_8byte(wscTLV_t* tlv, wsc_configuration_8byte_t* val) {
    return parse_generic(tlv, val);
}
int parse_wsc_tlv_32byte(wscTLV_t* tlv, wsc_configuration_32byte_t* val) {
    return parse_generic(tlv, val);
}
int parse_wsc_tlv_64byte(wscTLV_t* tlv, wsc_configuration_64byte_t* val) {
    return parse_generic(tlv, val);
}
int parse_wsc_tlv_1024byte(wscTLV_t* tlv, wsc_configuration_1024byte_t* val) {
    return parse_generic(tlv, val);
}
