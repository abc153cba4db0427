// Reading WSC attributes: the walk over a message and the per-attribute
// parsers that fill the message and settings records.
#define KESTR_REPORT_MODULE "wsc"

#include <cstring>

#include "port/common/bytes.h"
#include "port/common/report.h"
#include "wsc/wsc.h"

namespace kestr::wsc {

bool AttributeWalk::next(Attribute* out) {
    ByteReader r(p_, left_);
    uint16_t type = 0;
    uint16_t length = 0;
    ByteReader value;
    // A header or value cut short ends the walk for good.
    if (!r.u16(&type) || !r.u16(&length) || !r.sub(length, &value)) {
        left_ = 0;
        return false;
    }
    *out = Attribute{type, length, p_, value.data()};
    p_ = r.data();
    left_ = r.remaining();
    return true;
}

}  // namespace kestr::wsc

int get_wsc_tlv_total(u_int8_t* buf, u_int16_t buflen) {
    if (buf == nullptr)
        return -1;
    kestr::wsc::AttributeWalk walk(buf, buflen);
    kestr::wsc::Attribute a;
    int n = 0;
    while (walk.next(&a))
        ++n;
    return n;
}

u_int8_t* get_wsc_tlv_by_number(u_int8_t* buf, u_int16_t buflen, const int num) {
    if (buf == nullptr || num < 0)
        return nullptr;
    kestr::wsc::AttributeWalk walk(buf, buflen);
    kestr::wsc::Attribute a;
    for (int i = 0; walk.next(&a); ++i) {
        if (i == num)
            return const_cast<u_int8_t*>(a.start);
    }
    return nullptr;
}

namespace {

// The value of an attribute that came from the walk: its length is known to
// lie inside the received bytes.
struct Value {
    u_int16_t length;
    const u_int8_t* bytes;
};

Value value_of(const void* tlv) {
    const auto* p = static_cast<const u_int8_t*>(tlv);
    return Value{kestr::load_be16(p + 2), p + kWscAttrHeaderLen};
}

int read_u8(const void* tlv, wsc_configuration_uint8_t* rec) {
    if (tlv == nullptr || rec == nullptr)
        return -1;
    const Value v = value_of(tlv);
    if (v.length < 1)
        return -1;
    rec->val = v.bytes[0];
    rec->valid = 1;
    return 0;
}

int read_u16(const void* tlv, wsc_configuration_uint16_t* rec) {
    if (tlv == nullptr || rec == nullptr)
        return -1;
    const Value v = value_of(tlv);
    if (v.length < 2)
        return -1;
    rec->val = kestr::load_be16(v.bytes);
    rec->valid = 1;
    return 0;
}

enum class Bytes { Ok, Null, TooLong };

// Copies a byte string into a record of any size, bounded by the record.
template <typename Record>
Bytes read_bytes(const void* tlv, Record* rec) {
    if (tlv == nullptr || rec == nullptr)
        return Bytes::Null;
    const Value v = value_of(tlv);
    if (v.length > sizeof rec->val)
        return Bytes::TooLong;
    if (v.length != 0)
        std::memcpy(rec->val, v.bytes, v.length);
    rec->valid_len = v.length;
    rec->valid = 1;
    return Bytes::Ok;
}

template <typename Record>
int read_field(const void* tlv, wsc_configuration_t* config, Record wsc_configuration_t::*field) {
    if (config == nullptr)
        return -1;
    return read_bytes(tlv, &(config->*field)) == Bytes::Ok ? 0 : -1;
}

}  // namespace

// ------------------------------------------------------- message attributes

int parse_wsc_tlv_version(wscTLV_uint8_t* tlv, wsc_configuration_t* wsc_config) {
    return wsc_config == nullptr ? -1 : read_u8(tlv, &wsc_config->version);
}
int parse_wsc_message_type(wscTLV_uint8_t* tlv, wsc_configuration_t* wsc_config) {
    return wsc_config == nullptr ? -1 : read_u8(tlv, &wsc_config->message_type);
}
int parse_wsc_UUIDE(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::UUIDE);
}
int parse_wsc_mac(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::mac);
}
int parse_wsc_enrollee_nonce(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::enrollee_nonce);
}
int parse_wsc_registrar_nonce(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::registrar_nonce);
}
int parse_wsc_public_key(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::public_key);
}
int parse_wsc_authentication_type_flags(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config) {
    return wsc_config == nullptr ? -1 : read_u16(tlv, &wsc_config->authentication_type_flags);
}
int parse_wsc_encryption_type_flags(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config) {
    return wsc_config == nullptr ? -1 : read_u16(tlv, &wsc_config->encryption_type_flags);
}
int parse_wsc_connectioin_type_flags(wscTLV_uint8_t* tlv, wsc_configuration_t* wsc_config) {
    return wsc_config == nullptr ? -1 : read_u8(tlv, &wsc_config->connectioin_type_flags);
}
int parse_wsc_configuration_methods(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config) {
    return wsc_config == nullptr ? -1 : read_u16(tlv, &wsc_config->configuration_methods);
}
int parse_wsc_wifi_simple_configuration_state(wscTLV_uint8_t* tlv,
                                              wsc_configuration_t* wsc_config) {
    return wsc_config == nullptr ? -1 : read_u8(tlv, &wsc_config->wifi_simple_configuration_state);
}
int parse_wsc_manufacturer(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::manufacturer);
}
int parse_wsc_model_name(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::model_name);
}
int parse_wsc_model_number(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::model_number);
}
int parse_wsc_serial_number(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::serial_number);
}
int parse_wsc_primary_device_type(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::primary_device_type);
}
int parse_wsc_device_name(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::device_name);
}
int parse_wsc_connectioin_rf_bands(wscTLV_uint8_t* tlv, wsc_configuration_t* wsc_config) {
    return wsc_config == nullptr ? -1 : read_u8(tlv, &wsc_config->rf_bands);
}
int parse_wsc_tlv_association_state(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config) {
    return wsc_config == nullptr ? -1 : read_u16(tlv, &wsc_config->association_state);
}
int parse_wsc_tlv_pwd_id(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config) {
    return wsc_config == nullptr ? -1 : read_u16(tlv, &wsc_config->pwd_id);
}
int parse_wsc_tlv_configuration_error(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config) {
    return wsc_config == nullptr ? -1 : read_u16(tlv, &wsc_config->configuration_error);
}
int parse_wsc_os_version(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::os_version);
}
int parse_wsc_vendor_extension(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::vendor_extension);
}
int parse_wsc_UUIDR(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::UUIDR);
}
int parse_wsc_encrypted_settings(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::encrypted_settings);
}
int parse_wsc_authenticator(wscTLV_t* tlv, wsc_configuration_t* wsc_config) {
    return read_field(tlv, wsc_config, &wsc_configuration_t::authenticator);
}

// ---------------------------------------------------------- generic parsers

int parse_wsc_tlv_uint16(wscTLV_t* tlv, wsc_configuration_uint16_t* val) {
    return read_u16(tlv, val);
}

int parse_wsc_tlv_uint8(wscTLV_t* tlv, wsc_configuration_uint8_t* val) {
    return read_u8(tlv, val);
}

int parse_wsc_tlv_6byte(wscTLV_t* tlv, wsc_configuration_6byte_t* val) {
    const Bytes r = read_bytes(tlv, val);
    if (r == Bytes::TooLong)
        KESTR_ERR("tlvlen > 6\n");
    return r == Bytes::Ok ? 0 : -1;
}

int parse_wsc_tlv_8byte(wscTLV_t* tlv, wsc_configuration_8byte_t* val) {
    const Bytes r = read_bytes(tlv, val);
    if (r == Bytes::TooLong)
        KESTR_ERR("tlvlen > 8\n");
    return r == Bytes::Ok ? 0 : -1;
}

int parse_wsc_tlv_32byte(wscTLV_t* tlv, wsc_configuration_32byte_t* val) {
    const Bytes r = read_bytes(tlv, val);
    if (r == Bytes::TooLong)
        KESTR_ERR("tlvlen > 32\n");
    return r == Bytes::Ok ? 0 : -1;
}

int parse_wsc_tlv_64byte(wscTLV_t* tlv, wsc_configuration_64byte_t* val) {
    const Bytes r = read_bytes(tlv, val);
    if (r == Bytes::TooLong)
        KESTR_ERR("tlvlen > 64\n");
    return r == Bytes::Ok ? 0 : -1;
}

int parse_wsc_tlv_1024byte(wscTLV_t* tlv, wsc_configuration_1024byte_t* val) {
    const Bytes r = read_bytes(tlv, val);
    if (r == Bytes::TooLong)
        KESTR_ERR("tlvlen > 1024\n");
    return r == Bytes::Ok ? 0 : -1;
}
