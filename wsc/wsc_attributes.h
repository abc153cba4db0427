// The WSC attributes kestrd knows, one row each, in the order of their
// names: what each is called, where it lives in the message and settings
// records, and where it goes when kestrd writes an M1 or M2 or seals Wi-Fi
// settings. The parser, the encoder, the sealed plaintext and the names the
// diagnostic printer shows are all read off this one table.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "port/common/bytes.h"
#include "wsc/wsc.h"

namespace kestr::wsc {

// One attribute's record inside a message or settings record: its presence
// flag and its value, which is one byte, a 16-bit number or a byte string
// held in the record's array.
struct Field {
    enum Kind : uint8_t { U8, U16, Bytes };
    Kind kind;
    u_int8_t* valid;
    u_int8_t* u8 = nullptr;
    u_int16_t* u16 = nullptr;
    u_int16_t* length = nullptr;
    MutableBytes bytes;  // the whole array of a byte string's record
};

inline Field field(wsc_configuration_uint8_t& r) {
    return Field{Field::U8, &r.valid, &r.val, nullptr, nullptr, MutableBytes()};
}
inline Field field(wsc_configuration_uint16_t& r) {
    return Field{Field::U16, &r.valid, nullptr, &r.val, nullptr, MutableBytes()};
}
template <typename Record>
Field field(Record& r) {
    return Field{Field::Bytes, &r.valid, nullptr, nullptr, &r.valid_len, MutableBytes(r.val)};
}

using MessageField = Field (*)(wsc_configuration_t&);
using SettingsField = Field (*)(wsc_encrypted_settings_t&);

template <auto Member>
Field message_field(wsc_configuration_t& c) {
    return field(c.*Member);
}
template <auto Member>
Field settings_field(wsc_encrypted_settings_t& s) {
    return field(s.*Member);
}
template <auto Member>
constexpr MessageField in_message = &message_field<Member>;
template <auto Member>
constexpr SettingsField in_settings = &settings_field<Member>;

struct Attribute {
    u_int16_t id;
    const char* name;                // as the diagnostic printer shows it, trailing blanks and all
    int nominal_len;                 // informative only; 0 for values of variable length
    MessageField message = nullptr;  // its record in M1 and M2, when kestrd reads it there
    int sent_at = 0;  // its place when kestrd writes M1 and M2, from 1; 0: never written
    size_t room = 0;  // room the encoder counts for it when that is more than it takes
    SettingsField settings = nullptr;  // its record in decrypted settings
    int sealed_at = 0;  // its place in the plaintext the registrar seals, from 1; 0: never

    constexpr Attribute(u_int16_t i, const char* n, int len) : id(i), name(n), nominal_len(len) {}
    constexpr Attribute sent(int at, MessageField f, size_t counted_room = 0) const {
        Attribute a = *this;
        a.message = f;
        a.sent_at = at;
        a.room = counted_room;
        return a;
    }
    constexpr Attribute received(MessageField f) const { return sent(0, f); }
    constexpr Attribute sealed(int at, SettingsField f) const {
        Attribute a = *this;
        a.settings = f;
        a.sealed_at = at;
        return a;
    }
    constexpr Attribute unsealed(SettingsField f) const { return sealed(0, f); }
};

using C = wsc_configuration_t;
using S = wsc_encrypted_settings_t;

inline constexpr Attribute kAttributes[] = {
    Attribute(0x1062, "802.1X Enabled", 1),
    Attribute(0x1062, "802.1X Enabled", 1),
    Attribute(0x1001, "AP Channel", 2),
    Attribute(0x1057, "AP Setup Locked", 1),
    Attribute(0x1058, "Application Extension", 512),
    Attribute(0x1063, "AppSessionKey", 128),
    Attribute(WSC_ID_ASSOC_STATE, "Association State", 2)
        .sent(20, in_message<&C::association_state>),
    Attribute(WSC_ID_AUTH_TYPE, "Authentication Type", 2)
        .sealed(2, in_settings<&S::authentication_type>),
    Attribute(WSC_ID_AUTH_TYPE_FLAGS, "Authentication Type Flags", 2)
        .sent(8, in_message<&C::authentication_type_flags>),
    // Last in every message: it covers the bytes before it.
    Attribute(WSC_ID_AUTHENTICATOR, "Authenticator", 8).sent(26, in_message<&C::authenticator>),
    Attribute(WSC_ID_CONFIG_ERROR, "Configuration Error", 2)
        .sent(22, in_message<&C::configuration_error>),
    Attribute(WSC_ID_CONFIG_METHODS, "Configuration Methods", 2)
        .sent(11, in_message<&C::configuration_methods>),
    Attribute(0x100A, "Confirmation URL4", 64),
    Attribute(0x100B, "Confirmation URL6", 76),
    Attribute(0x100C, "Connection Type", 1),
    Attribute(WSC_ID_CONN_TYPE_FLAGS, "Connection Type Flags", 1)
        .sent(10, in_message<&C::connectioin_type_flags>),
    Attribute(0x100E, "Credential", 0),
    Attribute(WSC_ID_DEVICE_NAME, "Device Name", 32).sent(18, in_message<&C::device_name>),
    Attribute(WSC_ID_DEVICE_PASSWORD_ID, "Device Password ID", 2)
        .sent(21, in_message<&C::pwd_id>)
        .unsealed(in_settings<&S::device_password_id>),
    Attribute(0x104D, "EAP Identity", 64),
    Attribute(0x1059, "EAP Type", 8),
    Attribute(0x1014, "E-Hash1", 32),
    Attribute(0x1015, "E-Hash2", 32),
    Attribute(WSC_ID_ENCR_SETTINGS, "Encrypted Settings", 0)
        .sent(25, in_message<&C::encrypted_settings>),
    Attribute(WSC_ID_ENCR_TYPE, "Encryption Type", 2).sealed(3, in_settings<&S::encryption_type>),
    Attribute(WSC_ID_ENCR_TYPE_FLAGS, "Encryption Type Flags", 2)
        .sent(9, in_message<&C::encryption_type_flags>),
    Attribute(WSC_ID_ENROLLEE_NONCE, "Enrollee Nonce ", 16).sent(5, in_message<&C::enrollee_nonce>),
    Attribute(0x1016, "E-SNonce1", 16),
    Attribute(0x1017, "E-SNonce2", 16),
    Attribute(0x101B, "Feature ID", 4),
    Attribute(0x101C, "Identity", 80),
    Attribute(0x101D, "Identity Proof", 0),
    Attribute(0x1060, "Initialization Vector", 32),
    Attribute(0x101F, "Key Identifier ", 16),
    Attribute(0x1051, "Key Lifetime ", 4),
    Attribute(0x1061, "Key Provided Automatically ", 1),
    // Written after the sealed attributes, over which it is computed.
    Attribute(WSC_ID_KEY_WRAP_AUTH, "Key Wrap Authenticator ", 8)
        .unsealed(in_settings<&S::key_wrap_authenticator>),
    Attribute(WSC_ID_MAC_ADDR, "MAC Address ", 6)
        .sent(4, in_message<&C::mac>)
        .unsealed(in_settings<&S::mac>),
    Attribute(WSC_ID_MANUFACTURER, "Manufacturer", 64).sent(13, in_message<&C::manufacturer>),
    Attribute(0x104E, "Message Counter ", 8),
    Attribute(WSC_ID_MSG_TYPE, "Message Type", 1).sent(2, in_message<&C::message_type>),
    Attribute(WSC_ID_MODEL_NAME, "Model Name ", 32).sent(14, in_message<&C::model_name>),
    Attribute(WSC_ID_MODEL_NUMBER, "Model Number ", 32).sent(15, in_message<&C::model_number>),
    Attribute(0x1026, "Network Index ", 1),
    Attribute(WSC_ID_NETWORK_KEY, "Network Key", 64).sealed(4, in_settings<&S::network_key>),
    Attribute(WSC_ID_NETWORK_KEY_INDEX, "Network Key Index (re served)", 1)
        .unsealed(in_settings<&S::network_key_index>),
    Attribute(0x1029, "New Device Name", 32),
    Attribute(WSC_ID_NEW_PASSWORD, "New Password", 64).unsealed(in_settings<&S::new_password>),
    Attribute(0x102C, "Out-of-Band Device Password", 58),
    // Peers size their buffers for the whole 4 bytes, so the encoder counts
    // them whatever is sent.
    Attribute(WSC_ID_OS_VERSION, "OS Version", 4).sent(23, in_message<&C::os_version>, 4 + 4),
    Attribute(0x1052, "Permitted Configuration Methods", 2),
    Attribute(0x1056, "Portable Device", 1),
    Attribute(0x102F, "Power Level", 1),
    Attribute(WSC_ID_PRIMARY_DEV_TYPE, "Primary Device Type", 8)
        .sent(17, in_message<&C::primary_device_type>),
    Attribute(0x1030, "PSK Current", 1),
    Attribute(0x1031, "PSK Max", 1),
    Attribute(WSC_ID_PUBLIC_KEY, "Public Key", 192).sent(7, in_message<&C::public_key>),
    Attribute(0x104F, "Public Key Hash", 20),
    Attribute(0x1033, "Radio Enabled", 1),
    Attribute(0x1034, "Reboot", 1),
    Attribute(0x1035, "Registrar Current", 1),
    Attribute(0x1036, "Registrar Established", 1),
    Attribute(0x1037, "Registrar List", 512),
    Attribute(0x1038, "Registrar Max", 1),
    Attribute(WSC_ID_REGISTRAR_NONCE, "Registrar Nonce", 16)
        .sent(6, in_message<&C::registrar_nonce>),
    Attribute(0x1050, "Rekey Key", 32),
    Attribute(0x103A, "Request Type", 1),
    Attribute(0x106A, "Requested Device Type", 8),
    Attribute(0x103B, "Response Type", 1),
    Attribute(WSC_ID_RF_BANDS, "RF Bands", 1).sent(19, in_message<&C::rf_bands>),
    Attribute(0x103D, "R-Hash1", 32),
    Attribute(0x103E, "R-Hash2", 32),
    Attribute(0x103F, "R-SNonce1", 16),
    Attribute(0x1040, "R-SNonce2", 16),
    Attribute(0x1055, "Secondary Device Type List", 128),
    Attribute(0x1041, "Selected Registrar", 1),
    Attribute(0x1053, "Selected Registrar Configuration Methods", 2),
    Attribute(WSC_ID_SERIAL_NUMBER, "Serial Number", 32).sent(16, in_message<&C::serial_number>),
    Attribute(WSC_ID_SSID, "SSID", 32).sealed(1, in_settings<&S::ssid>),
    Attribute(0x1046, "Total Networks", 1),
    Attribute(WSC_ID_UUID_E, "UUID-E", 16).sent(3, in_message<&C::UUIDE>),
    // Read from an M2, never written.
    Attribute(WSC_ID_UUID_R, "UUID-R", 16).received(in_message<&C::UUIDR>),
    Attribute(WSC_ID_VENDOR_EXT, "Vendor Extension", 1024)
        .sent(24, in_message<&C::vendor_extension>)
        .unsealed(in_settings<&S::vendor_extension>),
    Attribute(WSC_ID_VERSION, "Version", 1).sent(1, in_message<&C::version>),
    Attribute(0x1064, "WEPTransmitKey", 1),
    Attribute(WSC_ID_WSC_STATE, "Wi-Fi Simple Configuration State", 1)
        .sent(12, in_message<&C::wifi_simple_configuration_state>),
    Attribute(0x104C, "X.509 Certificate", 0),
    Attribute(0x104B, "X.509 Certificate Request", 0),
};

constexpr size_t kAttributeCount = sizeof kAttributes / sizeof kAttributes[0];
static_assert(kAttributeCount + 1 == kWscAttrDescRows, "one name row per attribute, and the end");

// The attributes with a place in one of the orders (sent_at or sealed_at),
// in that order.
template <int Attribute::*Place>
constexpr size_t count_placed() {
    size_t n = 0;
    for (const Attribute& a : kAttributes)
        n += a.*Place > 0 ? 1 : 0;
    return n;
}
template <int Attribute::*Place>
constexpr std::array<const Attribute*, count_placed<Place>()> in_order() {
    std::array<const Attribute*, count_placed<Place>()> out{};
    for (size_t place = 1; place <= out.size(); ++place) {
        for (const Attribute& a : kAttributes) {
            if (static_cast<size_t>(a.*Place) == place)
                out[place - 1] = &a;
        }
    }
    return out;
}

// How reading a value into a field went: a number needs all its bytes, a
// byte string must fit its record.
enum class ReadResult { Ok, TooShort, TooLong };
ReadResult read_field(const Field& f, ByteReader value);
// The same for decrypted settings, where a byte string too long for its
// record is refused with an error line in the name of the generic parser of
// that record size.
bool read_settings_field(const Field& f, ByteReader value);
// Appends the attribute `id` for a present field when it fits the writer:
// its size, or 0 when it writes nothing.
size_t write_field(ByteWriter* out, u_int16_t id, const Field& f);

// The first row for attribute `id`: the one that binds its records.
inline const Attribute* find(u_int16_t id) {
    for (const Attribute& a : kAttributes) {
        if (a.id == id)
            return &a;
    }
    return nullptr;
}

}  // namespace kestr::wsc
