// The enrollee's opening of an M2 with fixed keys: the fixed M1 and key
// pair of fuzz/fixture.h are made once, the input is the M2. The first byte
// says how the rest is used:
//   0 (and any even value)  the M2's attributes as received;
//   1 (and 5, 9, ...)       a plaintext that a registrar holding the keys
//                           seals into an otherwise correct M2;
//   3 (and 7, 11, ...)      the same with the Key Wrap Authenticator such a
//                           registrar computes appended to the plaintext.
// A registrar that knows the keys can put any plaintext behind a valid
// Authenticator; with the Key Wrap Authenticator appended the M2 must open
// exactly when the plaintext's last authenticator is that one, and then give
// what the plaintext reader reads.
#include <cstring>
#include <vector>

#include "fuzz/fixture.h"
#include "fuzz/records.h"
#include "fuzz/support.h"
#include "port/common/bytes.h"
#include "protocol/19051_parse_wsc.h"
#include "wsc/encrypt/wps_openssl.h"

namespace {

using kestr::fuzz::fixed_exchange;

struct Opened {
    int rc;
    wsc_encrypted_settings_t settings;
};

// As the M1 request's response handler does it: parse the WSC TLV, then
// open it against the M1 as sent.
Opened open_m2(std::vector<uint8_t> tlv) {
    const kestr::fuzz::FixedExchange& x = fixed_exchange();
    wsc_configuration_t m2;
    std::memset(&m2, 0, sizeof m2);
    IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv.data()), &m2);
    std::vector<uint8_t> m1(kestr::fuzz::m1_attributes(),
                            kestr::fuzz::m1_attributes() + kestr::fuzz::m1_attributes_length());
    uint8_t mac[6];
    std::memcpy(mac, x.own_mac, sizeof mac);
    Opened o;
    std::memset(&o.settings, 0, sizeof o.settings);
    o.rc = IEEE19051_ParseTlvWscEncryptedSettings(
        &m2, x.enrollee, mac, &o.settings, m1.data(), static_cast<int>(m1.size()),
        tlv.data() + kTlvHeaderLen, static_cast<int>(tlv.size()) - kTlvHeaderLen);
    KESTR_FUZZ_CHECK(o.rc == 0 || o.rc == -1);
    KESTR_FUZZ_CHECK(kestr::fuzz::well_formed(o.settings));
    return o;
}

// The settings the plaintext reader makes of `plain`, and whether its Key
// Wrap Authenticator is the right one for the bytes before it.
bool authentic(const std::vector<uint8_t>& plain, wsc_encrypted_settings_t* read) {
    std::vector<uint8_t> copy = plain;
    std::memset(read, 0, sizeof *read);
    parse_wsc_encrypted_settings_plain(copy.data(), static_cast<int>(copy.size()), read);
    if (plain.size() < 12 || read->key_wrap_authenticator.valid != 1 ||
        read->key_wrap_authenticator.valid_len != 8) {
        return false;
    }
    uint8_t digest[32];
    hmac_sha256(fixed_exchange().keys.authKey, 32, plain.data(), plain.size() - 12, digest,
                nullptr);
    return std::memcmp(digest, read->key_wrap_authenticator.val, 8) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fixed_exchange();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 0xFFFF)
        return 0;
    const uint8_t mode = data[0];
    const uint8_t* rest = data + 1;
    const size_t rest_len = size - 1;

    if ((mode & 1) == 0) {
        open_m2(kestr::fuzz::wsc_tlv(rest, rest_len));
        return 0;
    }

    std::vector<uint8_t> plain(rest, rest + rest_len);
    if ((mode & 2) != 0)
        plain = kestr::fuzz::with_kwa(plain.data(), plain.size());
    const std::vector<uint8_t> tlv = kestr::fuzz::sealed_m2(plain.data(), plain.size());
    if (tlv.empty())
        return 0;  // more than one M2 can seal
    const Opened o = open_m2(tlv);

    wsc_encrypted_settings_t expected;
    const bool should_open = authentic(plain, &expected);
    KESTR_FUZZ_CHECK(o.rc == (should_open ? 0 : -1));
    if (o.rc == 0)
        KESTR_FUZZ_CHECK(kestr::fuzz::same(o.settings, expected));
    return 0;
}
