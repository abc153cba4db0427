// WSC messages (M1, M2) and the decrypted contents of their Encrypted
// Settings, as records of attributes, with the attribute walk, the parsers
// and the encoder.
//
// On the wire a WSC message is the value of one 1905.1 TLV of type 17: a run
// of attributes {type u16 BE, length u16 BE, value}, without padding. In the
// records every attribute has a `valid` flag; it is present only when the
// flag is exactly 1. Byte strings carry no terminator: their length is
// `valid_len`. Callers zero a record before parsing into it or filling it.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "port/common/bytes.h"
#include "protocol/19051_frame.h"

// ------------------------------------------------------------------ records

typedef struct {
    u_int8_t valid;
    u_int8_t val;
} wsc_configuration_uint8_t;

typedef struct {
    u_int8_t valid;
    u_int16_t val;  // host order
} wsc_configuration_uint16_t;

#define KESTR_WSC_BYTES_RECORD(N) \
    typedef struct {              \
        u_int8_t valid;           \
        u_int16_t valid_len;      \
        u_int8_t val[N];          \
    } wsc_configuration_##N##byte_t

KESTR_WSC_BYTES_RECORD(4);
KESTR_WSC_BYTES_RECORD(6);
KESTR_WSC_BYTES_RECORD(8);
KESTR_WSC_BYTES_RECORD(16);
KESTR_WSC_BYTES_RECORD(32);
KESTR_WSC_BYTES_RECORD(64);
KESTR_WSC_BYTES_RECORD(192);
KESTR_WSC_BYTES_RECORD(1024);
#undef KESTR_WSC_BYTES_RECORD

// One WSC message. The comment gives each field's attribute identifier.
typedef struct {
    wsc_configuration_uint8_t version;                          // 0x104A
    wsc_configuration_uint8_t message_type;                     // 0x1022, MessageType_e
    wsc_configuration_16byte_t UUIDE;                           // 0x1047
    wsc_configuration_6byte_t mac;                              // 0x1020
    wsc_configuration_16byte_t enrollee_nonce;                  // 0x101A
    wsc_configuration_16byte_t registrar_nonce;                 // 0x1039
    wsc_configuration_uint16_t authentication_type_flags;       // 0x1004
    wsc_configuration_uint16_t encryption_type_flags;           // 0x1010
    wsc_configuration_uint16_t configuration_methods;           // 0x1008
    wsc_configuration_uint16_t pwd_id;                          // 0x1012, DevicePasswordID_e
    wsc_configuration_uint16_t configuration_error;             // 0x1009
    wsc_configuration_uint8_t connectioin_type_flags;           // 0x100D
    wsc_configuration_uint8_t wifi_simple_configuration_state;  // 0x1044
    wsc_configuration_uint8_t rf_bands;                         // 0x103C, RFBands_e
    wsc_configuration_uint16_t association_state;               // 0x1002
    wsc_configuration_32byte_t serial_number;                   // 0x1042
    wsc_configuration_192byte_t public_key;                     // 0x1032
    wsc_configuration_64byte_t manufacturer;                    // 0x1021
    wsc_configuration_32byte_t model_name;                      // 0x1023
    wsc_configuration_32byte_t model_number;                    // 0x1024
    wsc_configuration_8byte_t primary_device_type;              // 0x1054
    wsc_configuration_32byte_t device_name;                     // 0x1011
    wsc_configuration_4byte_t os_version;                       // 0x102D
    wsc_configuration_1024byte_t vendor_extension;              // 0x1049
    wsc_configuration_16byte_t UUIDR;                           // 0x1048, parsed, never sent
    wsc_configuration_1024byte_t encrypted_settings;            // 0x1018, IV || ciphertext
    wsc_configuration_8byte_t authenticator;                    // 0x1005
} wsc_configuration_t;

// The decrypted contents of an Encrypted Settings attribute.
typedef struct {
    wsc_configuration_32byte_t ssid;                   // 0x1045
    wsc_configuration_uint16_t authentication_type;    // 0x1003
    wsc_configuration_uint16_t encryption_type;        // 0x100F
    wsc_configuration_64byte_t network_key;            // 0x1027
    wsc_configuration_uint8_t network_key_index;       // 0x1028
    wsc_configuration_6byte_t mac;                     // 0x1020
    wsc_configuration_1024byte_t vendor_extension;     // 0x1049
    wsc_configuration_8byte_t key_wrap_authenticator;  // 0x101E
    wsc_configuration_64byte_t new_password;           // 0x102A
    wsc_configuration_uint16_t device_password_id;     // 0x1012
} wsc_encrypted_settings_t;

typedef enum {
    MessageType_Beacon = 1,
    MessageType_ProbeRequest = 2,
    MessageType_ProbeResponse = 3,
    MessageType_M1 = 4,
    MessageType_M2 = 5,
    MessageType_M2D = 6,
    MessageType_M3 = 7,
    MessageType_M4 = 8,
    MessageType_M5 = 9,
    MessageType_M6 = 10,
    MessageType_M7 = 11,
    MessageType_M8 = 12,
    MessageType_WSC_ACK = 13,
    MessageType_WSC_NACK = 14,
    MessageType_WSC_DONE = 15,
} MessageType_e;

typedef enum {
    DevicePasswordID_Default = 0,
    DevicePasswordID_UserSpecified = 1,
    DevicePasswordID_MachineSpecified = 2,
    DevicePasswordID_Rekey = 3,
    DevicePasswordID_PushButton = 4,
    DevicePasswordID_RegistrarSpecified = 5,
    DevicePasswordID_Reserved = 6,
} DevicePasswordID_e;

typedef enum {
    RFBands_2P4G = 1,
    RFBands_5G = 2,
} RFBands_e;

// --------------------------------------------------------------- attributes

// One attribute as it lies on the wire. Code never reads the fields through
// these types: they name what a pointer points at, and the bytes are read
// explicitly, big-endian.
#pragma pack(push, 1)
typedef struct {
    u_int16_t type;    // big-endian
    u_int16_t length;  // big-endian
    u_int8_t val[];
} wscTLV_t;

typedef struct {
    u_int16_t type;
    u_int16_t length;
    u_int8_t val;
} wscTLV_uint8_t;

typedef struct {
    u_int16_t type;
    u_int16_t length;
    u_int16_t val;  // big-endian
} wscTLV_uint16_t;
#pragma pack(pop)

constexpr int kWscAttrHeaderLen = 4;
// The Version attribute of every message kestrd sends.
constexpr u_int8_t kWscVersion = 0x10;

// Attribute identifiers the daemon reads or writes.
enum : u_int16_t {
    WSC_ID_ASSOC_STATE = 0x1002,
    WSC_ID_AUTH_TYPE = 0x1003,
    WSC_ID_AUTH_TYPE_FLAGS = 0x1004,
    WSC_ID_AUTHENTICATOR = 0x1005,
    WSC_ID_CONFIG_METHODS = 0x1008,
    WSC_ID_CONFIG_ERROR = 0x1009,
    WSC_ID_CONN_TYPE_FLAGS = 0x100D,
    WSC_ID_ENCR_TYPE = 0x100F,
    WSC_ID_ENCR_TYPE_FLAGS = 0x1010,
    WSC_ID_DEVICE_NAME = 0x1011,
    WSC_ID_DEVICE_PASSWORD_ID = 0x1012,
    WSC_ID_ENCR_SETTINGS = 0x1018,
    WSC_ID_ENROLLEE_NONCE = 0x101A,
    WSC_ID_KEY_WRAP_AUTH = 0x101E,
    WSC_ID_MAC_ADDR = 0x1020,
    WSC_ID_MANUFACTURER = 0x1021,
    WSC_ID_MSG_TYPE = 0x1022,
    WSC_ID_MODEL_NAME = 0x1023,
    WSC_ID_MODEL_NUMBER = 0x1024,
    WSC_ID_NETWORK_KEY = 0x1027,
    WSC_ID_NETWORK_KEY_INDEX = 0x1028,
    WSC_ID_NEW_PASSWORD = 0x102A,
    WSC_ID_OS_VERSION = 0x102D,
    WSC_ID_PUBLIC_KEY = 0x1032,
    WSC_ID_REGISTRAR_NONCE = 0x1039,
    WSC_ID_RF_BANDS = 0x103C,
    WSC_ID_SERIAL_NUMBER = 0x1042,
    WSC_ID_WSC_STATE = 0x1044,
    WSC_ID_SSID = 0x1045,
    WSC_ID_UUID_E = 0x1047,
    WSC_ID_UUID_R = 0x1048,
    WSC_ID_VENDOR_EXT = 0x1049,
    WSC_ID_VERSION = 0x104A,
    WSC_ID_PRIMARY_DEV_TYPE = 0x1054,
};

// ------------------------------------------------------------ attribute walk
//
// Attribute 0 starts at `buf`, each next one 4 + length bytes after the
// previous. The walk ends at the end of `buflen` bytes, and also at an
// attribute whose header or value would run past it: such an attribute and
// anything after it are not part of the message. So every attribute the walk
// hands out lies wholly inside the bytes received.

// Number of attributes; -1 for a null `buf`.
int get_wsc_tlv_total(u_int8_t* buf, u_int16_t buflen);
// Start of attribute `num` (0-based), or null.
u_int8_t* get_wsc_tlv_by_number(u_int8_t* buf, u_int16_t buflen, const int num);

namespace kestr::wsc {

// Setting attributes of a record; each marks the attribute present.
template <typename Record, typename Value>
void set(Record* r, Value v) {
    r->val = v;
    r->valid = 1;
}
// A byte string, cut to what the record holds.
template <typename Record>
void set_bytes(Record* r, ConstBytes v) {
    const size_t n = v.size() < sizeof r->val ? v.size() : sizeof r->val;
    if (n != 0)
        std::memcpy(r->val, v.data(), n);
    r->valid_len = static_cast<u_int16_t>(n);
    r->valid = 1;
}
// The record's first `len` bytes, already in place (cut to what it holds).
template <typename Record>
void set_length(Record* r, size_t len) {
    r->valid_len = static_cast<u_int16_t>(len < sizeof r->val ? len : sizeof r->val);
    r->valid = 1;
}

// One attribute as it lies in a buffer: all of it, and its value.
struct AttributeBytes {
    u_int16_t type = 0;
    ByteReader whole;
    ByteReader value;
};

// One pass over the attributes of a buffer, by the rules above.
class AttributeWalk {
  public:
    explicit AttributeWalk(ByteReader attributes) : rest_(attributes) {}
    bool next(AttributeBytes* out);

  private:
    ByteReader rest_;
};

// The attributes of a WSC message (the value of a WSC TLV) into `config`:
// unknown attributes are skipped, one that does not fit its record is left
// absent, and of a repeated attribute the last good one counts.
void read_message(ByteReader attributes, wsc_configuration_t* config);
// The present attributes of `config` in the order peers expect, the
// Authenticator last; false, with `out` to be discarded, when they do not
// fit its room.
bool write_message(wsc_configuration_t& config, ByteWriter* out);

}  // namespace kestr::wsc

// ------------------------------------------------------------------ parsing
//
// Each takes one attribute handed out by the walk (so its value lies inside
// the received bytes) and fills its field of `wsc_config`. A byte string
// longer than its field, or a number shorter than its value (a Version of
// length 0), is refused with -1 and the field keeps what it had. -1 also for
// a null argument.

int parse_wsc_tlv_version(wscTLV_uint8_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_message_type(wscTLV_uint8_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_UUIDE(wscTLV_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_mac(wscTLV_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_enrollee_nonce(wscTLV_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_registrar_nonce(wscTLV_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_public_key(wscTLV_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_authentication_type_flags(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_encryption_type_flags(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_connectioin_type_flags(wscTLV_uint8_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_configuration_methods(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_wifi_simple_configuration_state(wscTLV_uint8_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_manufacturer(wscTLV_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_model_name(wscTLV_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_model_number(wscTLV_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_serial_number(wscTLV_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_primary_device_type(wscTLV_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_device_name(wscTLV_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_connectioin_rf_bands(wscTLV_uint8_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_tlv_association_state(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_tlv_pwd_id(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_tlv_configuration_error(wscTLV_uint16_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_os_version(wscTLV_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_vendor_extension(wscTLV_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_UUIDR(wscTLV_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_encrypted_settings(wscTLV_t* tlv, wsc_configuration_t* wsc_config);
int parse_wsc_authenticator(wscTLV_t* tlv, wsc_configuration_t* wsc_config);

// Generic parsers, used for the decrypted settings: the byte-string ones
// print "tlvlen > N" when the attribute is longer than the record.
int parse_wsc_tlv_uint16(wscTLV_t* tlv, wsc_configuration_uint16_t* val);
int parse_wsc_tlv_uint8(wscTLV_t* tlv, wsc_configuration_uint8_t* val);
int parse_wsc_tlv_6byte(wscTLV_t* tlv, wsc_configuration_6byte_t* val);
int parse_wsc_tlv_8byte(wscTLV_t* tlv, wsc_configuration_8byte_t* val);
int parse_wsc_tlv_32byte(wscTLV_t* tlv, wsc_configuration_32byte_t* val);
int parse_wsc_tlv_64byte(wscTLV_t* tlv, wsc_configuration_64byte_t* val);
int parse_wsc_tlv_1024byte(wscTLV_t* tlv, wsc_configuration_1024byte_t* val);

// ----------------------------------------------------------------- encoding

// Encodes `config` as a whole WSC TLV at `tlv`: type 17, the 16-bit length,
// then the present attributes in the fixed order peers expect (Authenticator
// last). `maxlen` is the room for the attributes, the 3-byte header not
// counted, so `tlv` must hold maxlen + 3 bytes. Returns the bytes written
// (3 + attributes), or -1 ("Err:string too long!" when the attributes do not
// fit; the buffer is then to be discarded).
int get_tlv_wsc(ieee1905TLV_t* tlv, int maxlen, wsc_configuration_t* config);

// Single attributes for the Encrypted Settings plaintext. Each writes at
// `tlv` when the record is present and 4 + value bytes fit in `maxlen`, and
// returns the bytes written; 0 when it writes nothing.
int getWscTlvSSID(wscTLV_t* tlv, wsc_configuration_32byte_t ssid, int maxlen);
int getWscTlvNetworkKey(wscTLV_t* tlv, wsc_configuration_64byte_t key, int maxlen);
int getWscTlvAuthtype(wscTLV_t* tlv, wsc_configuration_uint16_t type, int maxlen);
int getWscTlvEncrtype(wscTLV_t* tlv, wsc_configuration_uint16_t type, int maxlen);
int getWscTlvKWA(wscTLV_t* tlv, u_int8_t* KWA, int KWALen, int maxlen);

// ---------------------------------------------------------- attribute names

typedef struct {
    char desc[256];
    int id;
    int len;  // nominal value length, 0 when variable; informative only
} wsc_attr_desc_t;

constexpr int kWscAttrDescRows = 89;  // 88 names and the end mark (id -1)
extern const std::array<wsc_attr_desc_t, kWscAttrDescRows> wsc_attr_desc;

// The name of attribute `id`, or "" when it has none. The text belongs to
// the table and must not be written to.
char* get_desc_by_id(int id);

// -------------------------------------------------------- encrypted settings

// Builds the plaintext the registrar seals: SSID, Authentication Type,
// Encryption Type and Network Key (each when present, in this order), then
// the Key Wrap Authenticator, the first 8 bytes of HMAC-SHA-256 keyed with
// the 32-byte `authkey` over everything before it. Returns its length.
int get_plain_by_settings(wsc_encrypted_settings_t settings, u_int8_t* buf, u_int8_t buflen,
                          u_int8_t* authkey);

// Reads a decrypted plaintext into `settings` (zeroed by the caller). Unknown
// attributes are skipped; an over-long one is refused by its parser and the
// rest is still read. 0; -1 ("parameter error") for a null argument.
int parse_wsc_encrypted_settings_plain(u_int8_t* plain, int plain_len,
                                       wsc_encrypted_settings_t* settings);
