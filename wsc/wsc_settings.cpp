// The plaintext of the Encrypted Settings attribute: what the registrar
// seals for one band, and how the enrollee reads it back after decryption.
#define KESTR_REPORT_MODULE "wsc"

#include <openssl/crypto.h>

#include "port/common/bytes.h"
#include "port/common/report.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/encrypt/secret.h"
#include "wsc/encrypt/wps_openssl.h"
#include "wsc/wsc.h"
#include "wsc/wsc_attributes.h"

namespace {

constexpr auto kSealOrder = kestr::wsc::in_order<&kestr::wsc::Attribute::sealed_at>();

}  // namespace

int get_plain_by_settings(wsc_encrypted_settings_t settings, u_int8_t* buf, u_int8_t buflen,
                          u_int8_t* authkey) {
    // Our copy of the settings holds the network key.
    kestr::WipeOnExit wipe_settings(&settings, sizeof settings);
    if (buf == nullptr || authkey == nullptr)
        return 0;
    kestr::ByteWriter out(buf, buflen);
    // Each present attribute that still fits, in order; one that does not
    // fit is left out and the next ones are still tried.
    for (const kestr::wsc::Attribute* a : kSealOrder)
        kestr::wsc::write_field(&out, a->id, a->settings(settings));

    // The Key Wrap Authenticator binds everything before it to AuthKey.
    kestr::SecretBytes<32> kwa;
    hmac_sha256(authkey, kWscAuthKeyLen, out.data(), out.size(), kwa.data(), nullptr);
    wsc_configuration_8byte_t record{};
    kestr::wsc::set_bytes(&record, kestr::ConstBytes(kwa.data(), kWscAuthenticatorLen));
    kestr::wsc::write_field(&out, WSC_ID_KEY_WRAP_AUTH, kestr::wsc::field(record));
    return static_cast<int>(out.size());
}

int parse_wsc_encrypted_settings_plain(u_int8_t* plain, int plain_len,
                                       wsc_encrypted_settings_t* settings) {
    if (plain == nullptr || settings == nullptr) {
        KESTR_ERR("parameter error\n");
        return -1;
    }
    // Lengths are 16-bit on the wire; a negative length holds nothing.
    const size_t len = plain_len < 0 ? 0 : static_cast<u_int16_t>(plain_len);
    kestr::wsc::AttributeWalk walk(kestr::ByteReader(plain, len));
    kestr::wsc::AttributeBytes a;
    while (walk.next(&a)) {
        // What does not fit its record is refused; the rest is still read.
        const kestr::wsc::Attribute* row = kestr::wsc::find(a.type);
        if (row != nullptr && row->settings != nullptr)
            kestr::wsc::read_settings_field(row->settings(*settings), a.value);
    }
    return 0;
}
