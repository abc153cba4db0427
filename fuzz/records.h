// Field-by-field comparison of WSC records: only what a record holds counts
// (the valid flag, and the value up to `valid_len`), not stale bytes behind
// it.
#pragma once

#include <cstring>

#include "wsc/wsc.h"

namespace kestr::fuzz {

inline bool same(const wsc_configuration_uint8_t& a, const wsc_configuration_uint8_t& b) {
    return a.valid == b.valid && (a.valid != 1 || a.val == b.val);
}
inline bool same(const wsc_configuration_uint16_t& a, const wsc_configuration_uint16_t& b) {
    return a.valid == b.valid && (a.valid != 1 || a.val == b.val);
}
template <typename Record>
bool same(const Record& a, const Record& b) {
    if (a.valid != b.valid)
        return false;
    if (a.valid != 1)
        return true;
    return a.valid_len == b.valid_len && a.valid_len <= sizeof a.val &&
           std::memcmp(a.val, b.val, a.valid_len) == 0;
}

// A record as a parser may leave it: flags 0 or 1, lengths inside the arrays.
template <typename Record>
bool well_formed(const Record& r) {
    return r.valid <= 1 && r.valid_len <= sizeof r.val;
}
inline bool well_formed(const wsc_configuration_uint8_t& r) {
    return r.valid <= 1;
}
inline bool well_formed(const wsc_configuration_uint16_t& r) {
    return r.valid <= 1;
}

// The fields of each record, for the comparisons below.
// clang-format off
#define KESTR_WSC_MESSAGE_FIELDS(X)    \
    X(version)                         \
    X(message_type)                    \
    X(UUIDE)                           \
    X(mac)                             \
    X(enrollee_nonce)                  \
    X(registrar_nonce)                 \
    X(authentication_type_flags)       \
    X(encryption_type_flags)           \
    X(configuration_methods)           \
    X(pwd_id)                          \
    X(configuration_error)             \
    X(connectioin_type_flags)          \
    X(wifi_simple_configuration_state) \
    X(rf_bands)                        \
    X(association_state)               \
    X(serial_number)                   \
    X(public_key)                      \
    X(manufacturer)                    \
    X(model_name)                      \
    X(model_number)                    \
    X(primary_device_type)             \
    X(device_name)                     \
    X(os_version)                      \
    X(vendor_extension)                \
    X(UUIDR)                           \
    X(encrypted_settings)              \
    X(authenticator)

#define KESTR_WSC_SETTINGS_FIELDS(X) \
    X(ssid)                          \
    X(authentication_type)           \
    X(encryption_type)               \
    X(network_key)                   \
    X(network_key_index)             \
    X(mac)                           \
    X(vendor_extension)              \
    X(key_wrap_authenticator)        \
    X(new_password)                  \
    X(device_password_id)
// clang-format on

inline bool well_formed(const wsc_configuration_t& c) {
#define KESTR_CHECK_FIELD(f) \
    if (!well_formed(c.f))   \
        return false;
    KESTR_WSC_MESSAGE_FIELDS(KESTR_CHECK_FIELD)
#undef KESTR_CHECK_FIELD
    return true;
}

inline bool well_formed(const wsc_encrypted_settings_t& s) {
#define KESTR_CHECK_FIELD(f) \
    if (!well_formed(s.f))   \
        return false;
    KESTR_WSC_SETTINGS_FIELDS(KESTR_CHECK_FIELD)
#undef KESTR_CHECK_FIELD
    return true;
}

inline bool same(const wsc_encrypted_settings_t& a, const wsc_encrypted_settings_t& b) {
#define KESTR_SAME_FIELD(f) \
    if (!same(a.f, b.f))    \
        return false;
    KESTR_WSC_SETTINGS_FIELDS(KESTR_SAME_FIELD)
#undef KESTR_SAME_FIELD
    return true;
}

inline bool same(const wsc_configuration_t& a, const wsc_configuration_t& b) {
#define KESTR_SAME_FIELD(f) \
    if (!same(a.f, b.f))    \
        return false;
    KESTR_WSC_MESSAGE_FIELDS(KESTR_SAME_FIELD)
#undef KESTR_SAME_FIELD
    return true;
}

}  // namespace kestr::fuzz
