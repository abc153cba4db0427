// The enrollee's reader of a decrypted Encrypted Settings plaintext. A
// registrar that holds the keys can seal any bytes at all, so the plaintext
// is as hostile as the frame around it.
//
// What the reader keeps of SSID, types and key, the registrar's plaintext
// builder must write back, followed by a Key Wrap Authenticator over what it
// wrote.
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz/records.h"
#include "fuzz/support.h"
#include "port/common/bytes.h"
#include "protocol/debug.h"
#include "wsc/encrypt/wps_openssl.h"
#include "wsc/wsc.h"

namespace {

constexpr uint8_t kAuthKey[32] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14, 15, 16,
                                  17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32};
constexpr int kKwaAttrLen = 12;
constexpr u_int8_t kRegistrarRoom = 254;

wsc_encrypted_settings_t read_plain(const uint8_t* bytes, size_t len) {
    // The reader gets a buffer of exactly the plaintext's length (never a
    // null one: the enrollee always passes its decryption buffer).
    std::unique_ptr<uint8_t[]> plain(new uint8_t[len]);
    if (len != 0)
        std::memcpy(plain.get(), bytes, len);
    wsc_encrypted_settings_t s;
    std::memset(&s, 0, sizeof s);
    KESTR_FUZZ_CHECK(parse_wsc_encrypted_settings_plain(plain.get(), static_cast<int>(len), &s) ==
                     0);
    KESTR_FUZZ_CHECK(kestr::fuzz::well_formed(s));
    return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const wsc_encrypted_settings_t s = read_plain(data, size);
    print_wsc_encrypted_settings(s);

    std::vector<uint8_t> rebuilt(kRegistrarRoom);
    uint8_t key[sizeof kAuthKey];
    std::memcpy(key, kAuthKey, sizeof key);
    const int n = get_plain_by_settings(s, rebuilt.data(), kRegistrarRoom, key);
    KESTR_FUZZ_CHECK(n >= kKwaAttrLen && n <= kRegistrarRoom);
    rebuilt.resize(static_cast<size_t>(n));

    const wsc_encrypted_settings_t back = read_plain(rebuilt.data(), rebuilt.size());
    KESTR_FUZZ_CHECK(kestr::fuzz::same(s.ssid, back.ssid));
    KESTR_FUZZ_CHECK(kestr::fuzz::same(s.authentication_type, back.authentication_type));
    KESTR_FUZZ_CHECK(kestr::fuzz::same(s.encryption_type, back.encryption_type));
    KESTR_FUZZ_CHECK(kestr::fuzz::same(s.network_key, back.network_key));

    uint8_t digest[32];
    hmac_sha256(kAuthKey, sizeof kAuthKey, rebuilt.data(), rebuilt.size() - kKwaAttrLen, digest,
                nullptr);
    KESTR_FUZZ_CHECK(back.key_wrap_authenticator.valid == 1 &&
                     back.key_wrap_authenticator.valid_len == 8 &&
                     std::memcmp(back.key_wrap_authenticator.val, digest, 8) == 0);
    return 0;
}
