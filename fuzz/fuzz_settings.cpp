// The enrollee's reading of sealed settings: the plaintext reader, and the
// opening of an M2 with the keys of the fixed registration (fuzz/fuzz.h). A
// registrar that holds the keys can seal any bytes behind a right
// Authenticator, so the plaintext is as hostile as the frame around it. The
// input is such a plaintext after its first byte, which, when odd, asks for
// the Key Wrap Authenticator the registrar computes to be appended. What
// the plaintext reader reads, the registrar's plaintext builder writes back
// to the same bytes; the M2 that seals the plaintext opens exactly when its
// Key Wrap Authenticator is right, giving what the plaintext reader reads,
// and a failed opening leaves nothing usable.
#include "fuzz/fuzz.h"
#include "protocol/19051_parse_wsc.h"
#include "protocol/debug.h"
#include "wsc/encrypt/wps_openssl.h"

using namespace kestr;
using fuzz::Bytes;

namespace {

Bytes kwa(const Bytes& plain) {  // the Key Wrap Authenticator attribute over `plain`
    uint8_t d[32];
    hmac_sha256(fuzz::registration().keys.authKey, 32, plain.data(), plain.size(), d, nullptr);
    return {0x10, 0x1e, 0, 8, d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7]};
}

wsc_encrypted_settings_t read_plain(Bytes plain) {  // in a buffer of just its length
    wsc_encrypted_settings_t s{};
    KESTR_FUZZ_CHECK(parse_wsc_encrypted_settings_plain(plain.data(), int(plain.size()), &s) == 0 ||
                     plain.empty());
    return s;
}

Bytes rebuilt(const wsc_encrypted_settings_t& s) {
    Bytes plain(254);
    plain.resize(
        size_t(get_plain_by_settings(s, plain.data(), 254, fuzz::registration().keys.authKey)));
    return plain;
}

fuzz::Seeds seeds() {  // what the registrar sealed into its M2
    fuzz::Registration& r = fuzz::registration();
    Bytes plain(1 + sizeof r.m2.encrypted_settings.val);
    int n = -1;
    reg_proto_decrypt_data(r.m2.encrypted_settings.val + 16, r.m2.encrypted_settings.valid_len - 16,
                           r.m2.encrypted_settings.val, r.keys.keyWrapKey, nullptr, &plain[1], &n);
    plain.resize(size_t(1 + std::max(n, 0)));
    return {{"registrar", plain}};
}

}  // namespace

KESTR_FUZZ_START(seeds, [] {})

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Registration& r = fuzz::registration();
    Bytes plain(data + std::min<size_t>(size, 1), data + size);
    const Bytes appended = kwa(plain);
    if (size > 0 && data[0] % 2 == 1)
        plain.insert(plain.end(), appended.begin(), appended.end());
    const wsc_encrypted_settings_t s = read_plain(plain);
    print_wsc_encrypted_settings(s);
    const Bytes once = rebuilt(s);
    KESTR_FUZZ_CHECK(rebuilt(read_plain(once)) == once);

    // Sealed as the registrar seals it. The Authenticator covers the M1 and
    // the M2's bytes before it; the opener is handed none of the latter, so
    // here it covers the M1 alone.
    wsc_configuration_t m2 = r.m2;
    int n = 0;
    if (16 + (plain.size() / 16 + 1) * 16 > sizeof m2.encrypted_settings.val)
        return 0;  // the IV and the padded ciphertext do not fit
    reg_proto_encrypt_data(plain.data(), int(plain.size()), r.keys.keyWrapKey, nullptr,
                           m2.encrypted_settings.val + 16, &n, m2.encrypted_settings.val);
    m2.encrypted_settings.valid_len = uint16_t(16 + n);
    uint8_t auth[32], m2_bytes[12] = {};
    hmac_sha256(r.keys.authKey, 32, &r.m1_tlv[3], r.m1_tlv.size() - 3, auth, nullptr);
    std::copy_n(auth, 8, m2.authenticator.val);
    wsc_encrypted_settings_t opened{}, nothing{};
    const int rc = IEEE19051_ParseTlvWscEncryptedSettings(&m2, r.enrollee.get(), r.m1.mac.val,
                                                          &opened, &r.m1_tlv[3],
                                                          int(r.m1_tlv.size() - 3), m2_bytes, 12);
    const Bytes right = kwa(Bytes(plain.begin(), plain.end() - std::min<size_t>(plain.size(), 12)));
    const wsc_configuration_8byte_t& got = s.key_wrap_authenticator;
    const bool opens = plain.size() >= 12 && got.valid == 1 && got.valid_len == 8 &&
                       std::equal(got.val, got.val + 8, &right[4]);
    KESTR_FUZZ_CHECK(rc == (opens ? 0 : -1) &&
                     std::memcmp(&opened, opens ? &s : &nothing, sizeof s) == 0);
    return 0;
}
