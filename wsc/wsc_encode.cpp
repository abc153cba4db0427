// Writing WSC attributes: the whole-message encoder of M1 and M2, and the
// single attributes of the Encrypted Settings plaintext.
#define KESTR_REPORT_MODULE "wsc"

#include "port/common/bytes.h"
#include "port/common/report.h"
#include "wsc/wsc.h"

namespace {

constexpr size_t kMaxTlvValue = 0xFFFF;  // the TLV length is 16 bits
// Peers size their buffers for an OS Version of the full 4 bytes, so the
// room check charges it that much whatever is actually sent.
constexpr size_t kOsVersionCharge = kWscAttrHeaderLen + 4;

// Appends attributes of present records while checking every one against
// the room first. The first one that does not fit stops the encoding.
class MessageEncoder {
  public:
    MessageEncoder(u_int8_t* out, size_t room)
        : room_(room < kMaxTlvValue ? room : kMaxTlvValue), w_(out, room_) {}

    bool ok() const { return ok_; }
    size_t size() const { return w_.size(); }

    MessageEncoder& u8(u_int16_t id, const wsc_configuration_uint8_t& r) {
        if (r.valid == 1 && fits(kWscAttrHeaderLen + 1))
            w_.u16(id).u16(1).u8(r.val);
        return *this;
    }
    MessageEncoder& u16(u_int16_t id, const wsc_configuration_uint16_t& r) {
        if (r.valid == 1 && fits(kWscAttrHeaderLen + 2))
            w_.u16(id).u16(2).u16(r.val);
        return *this;
    }
    // A byte string of its record's `valid_len`; `charge` overrides the size
    // counted against the room. A length beyond the record's array is a
    // record that cannot be sent.
    template <typename Record>
    MessageEncoder& bytes(u_int16_t id, const Record& r, size_t charge = 0) {
        if (r.valid != 1)
            return *this;
        if (r.valid_len > sizeof r.val) {
            ok_ = false;
            return *this;
        }
        const size_t size = kWscAttrHeaderLen + r.valid_len;
        if (fits(charge > size ? charge : size))
            w_.u16(id).u16(r.valid_len).bytes(r.val, r.valid_len);
        return *this;
    }

  private:
    bool fits(size_t charge) {
        if (!ok_)
            return false;
        if (w_.size() + charge > room_)
            ok_ = false;
        return ok_;
    }

    size_t room_;
    kestr::ByteWriter w_;
    bool ok_ = true;
};

// Writes one attribute of `len` value bytes when it fits `maxlen`.
int write_single(wscTLV_t* tlv, int maxlen, u_int16_t id, const u_int8_t* value, size_t len) {
    if (tlv == nullptr || maxlen < 0 || len > kMaxTlvValue)
        return 0;
    // Nothing at all is written unless the whole attribute fits.
    if (static_cast<size_t>(maxlen) < kWscAttrHeaderLen + len)
        return 0;
    kestr::ByteWriter w(tlv, static_cast<size_t>(maxlen));
    w.u16(id).u16(static_cast<u_int16_t>(len)).bytes(value, len);
    return w.ok() ? static_cast<int>(w.size()) : 0;
}

int write_single_u16(wscTLV_t* tlv, int maxlen, u_int16_t id, u_int16_t v) {
    u_int8_t be[2];
    kestr::store_be16(be, v);
    return write_single(tlv, maxlen, id, be, sizeof be);
}

}  // namespace

int get_tlv_wsc(ieee1905TLV_t* tlv, int maxlen, wsc_configuration_t* config) {
    if (tlv == nullptr || config == nullptr)
        return -1;
    auto* out = reinterpret_cast<u_int8_t*>(tlv);
    out[0] = IEEE1905_TLV_TYPE_WPS;

    const wsc_configuration_t& c = *config;
    MessageEncoder e(out + kTlvHeaderLen, maxlen < 0 ? 0 : static_cast<size_t>(maxlen));
    // The order peers expect; the Authenticator is always last, because it
    // covers the bytes before it. UUID-R is never sent.
    e.u8(WSC_ID_VERSION, c.version)
        .u8(WSC_ID_MSG_TYPE, c.message_type)
        .bytes(WSC_ID_UUID_E, c.UUIDE)
        .bytes(WSC_ID_MAC_ADDR, c.mac)
        .bytes(WSC_ID_ENROLLEE_NONCE, c.enrollee_nonce)
        .bytes(WSC_ID_REGISTRAR_NONCE, c.registrar_nonce)
        .bytes(WSC_ID_PUBLIC_KEY, c.public_key)
        .u16(WSC_ID_AUTH_TYPE_FLAGS, c.authentication_type_flags)
        .u16(WSC_ID_ENCR_TYPE_FLAGS, c.encryption_type_flags)
        .u8(WSC_ID_CONN_TYPE_FLAGS, c.connectioin_type_flags)
        .u16(WSC_ID_CONFIG_METHODS, c.configuration_methods)
        .u8(WSC_ID_WSC_STATE, c.wifi_simple_configuration_state)
        .bytes(WSC_ID_MANUFACTURER, c.manufacturer)
        .bytes(WSC_ID_MODEL_NAME, c.model_name)
        .bytes(WSC_ID_MODEL_NUMBER, c.model_number)
        .bytes(WSC_ID_SERIAL_NUMBER, c.serial_number)
        .bytes(WSC_ID_PRIMARY_DEV_TYPE, c.primary_device_type)
        .bytes(WSC_ID_DEVICE_NAME, c.device_name)
        .u8(WSC_ID_RF_BANDS, c.rf_bands)
        .u16(WSC_ID_ASSOC_STATE, c.association_state)
        .u16(WSC_ID_DEVICE_PASSWORD_ID, c.pwd_id)
        .u16(WSC_ID_CONFIG_ERROR, c.configuration_error)
        .bytes(WSC_ID_OS_VERSION, c.os_version, kOsVersionCharge)
        .bytes(WSC_ID_VENDOR_EXT, c.vendor_extension)
        .bytes(WSC_ID_ENCR_SETTINGS, c.encrypted_settings)
        .bytes(WSC_ID_AUTHENTICATOR, c.authenticator);
    if (!e.ok()) {
        KESTR_ERR("Err:string too long!\n");
        return -1;
    }
    kestr::store_be16(out + 1, static_cast<u_int16_t>(e.size()));
    return static_cast<int>(e.size()) + kTlvHeaderLen;
}

int getWscTlvSSID(wscTLV_t* tlv, wsc_configuration_32byte_t ssid, int maxlen) {
    if (ssid.valid != 1 || ssid.valid_len > sizeof ssid.val)
        return 0;
    return write_single(tlv, maxlen, WSC_ID_SSID, ssid.val, ssid.valid_len);
}

int getWscTlvNetworkKey(wscTLV_t* tlv, wsc_configuration_64byte_t key, int maxlen) {
    if (key.valid != 1 || key.valid_len > sizeof key.val)
        return 0;
    return write_single(tlv, maxlen, WSC_ID_NETWORK_KEY, key.val, key.valid_len);
}

int getWscTlvAuthtype(wscTLV_t* tlv, wsc_configuration_uint16_t type, int maxlen) {
    if (type.valid != 1)
        return 0;
    return write_single_u16(tlv, maxlen, WSC_ID_AUTH_TYPE, type.val);
}

int getWscTlvEncrtype(wscTLV_t* tlv, wsc_configuration_uint16_t type, int maxlen) {
    if (type.valid != 1)
        return 0;
    return write_single_u16(tlv, maxlen, WSC_ID_ENCR_TYPE, type.val);
}

int getWscTlvKWA(wscTLV_t* tlv, u_int8_t* KWA, int KWALen, int maxlen) {
    if (KWA == nullptr || KWALen < 0)
        return 0;
    return write_single(tlv, maxlen, WSC_ID_KEY_WRAP_AUTH, KWA, static_cast<size_t>(KWALen));
}
