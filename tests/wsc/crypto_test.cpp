// Known answers and edge cases of the settings cipher, HMAC-SHA-256 and the
// random source. Independent results come from the crypto library's own EVP
// and HMAC interfaces, never from the code under test.
#include <dirent.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/netns.h"
#include "tests/wsc/hex.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/encrypt/wps_openssl.h"

namespace {

using kestr::test::hex;
using kestr::test::to_hex;
using Bytes = std::vector<uint8_t>;

Bytes text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

Bytes our_hmac(const Bytes& key, const Bytes& data) {
    Bytes out(32);
    unsigned int len = 0;
    hmac_sha256(key.data(), static_cast<int>(key.size()), data.data(), data.size(), out.data(),
                &len);
    EXPECT_EQ(len, 32u);
    return out;
}

Bytes library_hmac(const Bytes& key, const Bytes& data) {
    Bytes out(32);
    unsigned int len = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), data.data(), data.size(),
         out.data(), &len);
    return out;
}

// AES-128-CBC with PKCS#7 padding (or none) through EVP.
Bytes library_cbc(const Bytes& key, const Bytes& iv, const Bytes& in, bool encrypt, bool pad) {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex(ctx, EVP_aes_128_cbc(), nullptr, key.data(), iv.data(), encrypt ? 1 : 0);
    EVP_CIPHER_CTX_set_padding(ctx, pad ? 1 : 0);
    Bytes out(in.size() + 16);
    int n = 0, m = 0;
    EVP_CipherUpdate(ctx, out.data(), &n, in.data(), static_cast<int>(in.size()));
    EVP_CipherFinal_ex(ctx, out.data() + n, &m);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(static_cast<size_t>(n + m));
    return out;
}

const Bytes kKey = hex("2b7e151628aed2a6abf7158809cf4f3c");
const Bytes kIv = hex("000102030405060708090a0b0c0d0e0f");

TEST(HmacSha256, Rfc4231KnownAnswers) {
    const Bytes long_key(131, 0xaa);
    struct Case {
        const char* name;
        Bytes key;
        Bytes data;
        const char* mac;
    } cases[] = {
        {"1", Bytes(20, 0x0b), text("Hi There"),
         "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
        {"2", text("Jefe"), text("what do ya want for nothing?"),
         "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
        {"3", Bytes(20, 0xaa), Bytes(50, 0xdd),
         "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe"},
        {"4", hex("0102030405060708090a0b0c0d0e0f10111213141516171819"), Bytes(50, 0xcd),
         "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b"},
        {"6 key longer than the block", long_key,
         text("Test Using Larger Than Block-Size Key - Hash Key First"),
         "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
        {"7 key and data longer than the block", long_key,
         text("This is a test using a larger than block-size key and a larger than block-size "
              "data. The key needs to be hashed before being used by the HMAC algorithm."),
         "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(our_hmac(c.key, c.data), hex(c.mac)) << "RFC 4231 case " << c.name;
    }
}

TEST(HmacSha256, KeysAroundTheBlockSize) {
    const Bytes data = text("Wi-Fi settings");
    for (size_t len : {0u, 1u, 32u, 63u, 64u, 65u, 200u}) {
        Bytes key(len);
        for (size_t i = 0; i < len; ++i)
            key[i] = static_cast<uint8_t>(i * 7 + 1);
        EXPECT_EQ(our_hmac(key, data), library_hmac(key, data)) << "key of " << len;

        // Only a key beyond the 64-byte block is replaced by its digest.
        Bytes digest(32);
        SHA256(key.data(), key.size(), digest.data());
        if (len > 64) {
            EXPECT_EQ(our_hmac(key, data), our_hmac(digest, data)) << len;
        } else if (len != 0) {
            EXPECT_NE(our_hmac(key, data), our_hmac(digest, data)) << len;
        }
    }

    // Two parts give the HMAC of their concatenation, wherever the cut is.
    const Bytes key(32, 0x42);
    Bytes whole(300);
    for (size_t i = 0; i < whole.size(); ++i)
        whole[i] = static_cast<uint8_t>(i);
    for (size_t cut : {0u, 1u, 150u, 300u}) {
        uint8_t out[32];
        ASSERT_TRUE(kestr::hmac_sha256_two(key.data(), key.size(), whole.data(), cut,
                                           whole.data() + cut, whole.size() - cut, out));
        EXPECT_EQ(Bytes(out, out + 32), library_hmac(key, whole)) << "cut at " << cut;
    }
}

TEST(AesCbc, Sp800_38aVectorAndItsPaddingBlock) {
    const Bytes plain =
        hex("6bc1bee22e409f96e93d7e117393172a ae2d8a571e03ac9c9eb76fac45af8e51"
            "30c81c46a35ce411e5fbc1191a0a52ef f69f2445df4f9b17ad2b417be66c3710");
    const Bytes cipher =
        hex("7649abac8119b246cee98e9b12e9197d 5086cb9b507219ee95db113a917678b2"
            "73bed6b8e3c1743b7116e69e22229516 3ff1caa1681fac09120eca307586e1a7");

    u_int32_t rk[44];
    ASSERT_EQ(rijndaelKeySetupEnc(rk, kKey.data(), 128), 10);
    Bytes out(80);
    ASSERT_EQ(aes_cbc_encrypt_pad(rk, 16, kIv.data(), plain.size(), plain.data(), out.data(), 1),
              80);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 64), cipher);
    // A whole block of 0x10 follows data that ends on a block boundary.
    EXPECT_EQ(out, library_cbc(kKey, kIv, plain, true, true));

    u_int32_t drk[44];
    ASSERT_EQ(rijndaelKeySetupDec(drk, kKey.data(), 128), 10);
    Bytes back(80);
    ASSERT_EQ(aes_cbc_decrypt_pad(drk, 16, kIv.data(), out.size(), out.data(), back.data(), 1), 64);
    EXPECT_EQ(Bytes(back.begin(), back.begin() + 64), plain);

    // In place, as the decryption of a received value may be done.
    ASSERT_EQ(aes_cbc_decrypt_pad(drk, 16, kIv.data(), out.size(), out.data(), out.data(), 1), 64);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 64), plain);
}

TEST(AesCbc, EveryLengthGainsPaddingAndRoundTrips) {
    struct Case {
        int plain;
        int cipher;
    } cases[] = {{0, 16},  {1, 16},  {15, 16},   {16, 32},
                 {17, 32}, {44, 48}, {100, 112}, {1023, 1024}};
    for (const Case& c : cases) {
        Bytes plain(static_cast<size_t>(c.plain));
        for (size_t i = 0; i < plain.size(); ++i)
            plain[i] = static_cast<uint8_t>(i ^ 0x5a);
        Bytes cipher(1024, 0);
        Bytes iv(16, 0);
        int cipher_len = -7;
        reg_proto_encrypt_data(plain.empty() ? nullptr : plain.data(), c.plain,
                               const_cast<uint8_t*>(kKey.data()), nullptr, cipher.data(),
                               &cipher_len, iv.data());
        ASSERT_EQ(cipher_len, c.cipher) << c.plain;
        cipher.resize(static_cast<size_t>(cipher_len));
        EXPECT_EQ(cipher, library_cbc(kKey, iv, plain, true, true)) << c.plain;

        Bytes back(1024, 0xEE);
        int back_len = -7;
        reg_proto_decrypt_data(cipher.data(), cipher_len, iv.data(),
                               const_cast<uint8_t*>(kKey.data()), nullptr, back.data(), &back_len);
        ASSERT_EQ(back_len, c.plain);
        EXPECT_EQ(Bytes(back.begin(), back.begin() + back_len), plain);
    }
}

TEST(AesCbc, EncryptionDrawsAFreshIvAndRefusesWhatDoesNotFit) {
    Bytes plain(44, 0x33);
    Bytes c1(1024), c2(1024), iv1(16), iv2(16);
    int n1 = 0, n2 = 0;
    auto* key = const_cast<uint8_t*>(kKey.data());
    reg_proto_encrypt_data(plain.data(), 44, key, nullptr, c1.data(), &n1, iv1.data());
    reg_proto_encrypt_data(plain.data(), 44, key, nullptr, c2.data(), &n2, iv2.data());
    EXPECT_EQ(n1, 48);
    EXPECT_EQ(n2, 48);
    EXPECT_NE(iv1, iv2);
    EXPECT_NE(Bytes(c1.begin(), c1.begin() + 48), Bytes(c2.begin(), c2.begin() + 48));

    // 1024 bytes would need 1040 bytes of ciphertext: nothing is written
    // but the IV.
    Bytes big(1024, 1);
    Bytes out(1100, 0xCC);
    Bytes iv(16, 0);
    int n = -5;
    reg_proto_encrypt_data(big.data(), 1024, key, nullptr, out.data(), &n, iv.data());
    EXPECT_EQ(n, -5);
    EXPECT_EQ(out, Bytes(1100, 0xCC));
    EXPECT_NE(iv, Bytes(16, 0));
}

TEST(AesCbc, DecryptionTakesThePadCountAsSent) {
    // Plaintexts whose last byte is chosen, encrypted without padding.
    auto sealed = [](uint8_t last, size_t len) {
        Bytes plain(len, 0x61);
        plain.back() = last;
        return library_cbc(kKey, kIv, plain, true, false);
    };
    struct Case {
        const char* what;
        Bytes cipher;
        int result;
    } cases[] = {
        {"count 4 removes 4", sealed(0x04, 32), 28},
        {"count 16 removes a block", sealed(0x10, 32), 16},
        {"count 0 removes nothing", sealed(0x00, 32), 32},
        {"count equal to the data", sealed(0x20, 32), 0},
        {"count beyond the data", sealed(0x21, 32), -1},
        {"count far beyond the data", sealed(0xFF, 16), 16 - 255},
    };
    auto* key = const_cast<uint8_t*>(kKey.data());
    for (const Case& c : cases) {
        Bytes out(1024, 0xEE);
        int n = 99;
        // An exact-size copy, so a read past the ciphertext is caught.
        Bytes cipher = c.cipher;
        reg_proto_decrypt_data(cipher.data(), static_cast<int>(cipher.size()),
                               const_cast<uint8_t*>(kIv.data()), key, nullptr, out.data(), &n);
        EXPECT_EQ(n, c.result) << c.what;
        if (c.result <= 0) {
            EXPECT_EQ(out, Bytes(1024, 0xEE)) << c.what << ": nothing copied";
        }
    }

    // A ciphertext cut inside a block: the whole blocks come back as they
    // decrypt, padding and all, and the tail is not read.
    const Bytes full = library_cbc(kKey, kIv, Bytes(20, 0x61), true, true);  // 32 bytes
    Bytes cut(full.begin(), full.begin() + 24);
    Bytes out(1024, 0);
    int n = 0;
    reg_proto_decrypt_data(cut.data(), 24, const_cast<uint8_t*>(kIv.data()), key, nullptr,
                           out.data(), &n);
    EXPECT_EQ(n, 16);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 16), Bytes(16, 0x61));

    // No block at all, or more than the work buffer: a failure.
    for (int len : {0, 1040, -16}) {
        Bytes big(1040, 0);
        n = 0;
        reg_proto_decrypt_data(big.data(), len, const_cast<uint8_t*>(kIv.data()), key, nullptr,
                               out.data(), &n);
        EXPECT_LT(n, 0) << len;
    }
}

TEST(AesCbc, KeySetupFailuresAreReported) {
    u_int32_t rk[60];
    int enc = 0, dec = 0;
    auto c = kestr::test::capture_output([&] {
        enc = rijndaelKeySetupEnc(rk, kKey.data(), 100);
        dec = rijndaelKeySetupDec(rk, kKey.data(), 100);
    });
    EXPECT_LT(enc, 0);
    EXPECT_LT(dec, 0);
    EXPECT_EQ(kestr::test::mask_line_numbers(c.out),
              kestr::test::mask_line_numbers(
                  kestr::test::error_line("wps_openssl", "rijndaelKeySetupEnc", 0,
                                          "rijndaelKeySetupEnc() : AES_set_encrypt_key failed " +
                                              std::to_string(enc) + "\n") +
                  kestr::test::error_line("wps_openssl", "rijndaelKeySetupDec", 0,
                                          "rijndaelKeySetupDec() :  AES_set_decrypt_key failed " +
                                              std::to_string(dec) + "\n")));
    // Wrong key sizes for the round-key helpers are refused.
    uint8_t out[32];
    EXPECT_EQ(aes_cbc_encrypt_pad(rk, 15, kIv.data(), 4, out, out, 1), -1);
    EXPECT_EQ(aes_cbc_encrypt_pad(nullptr, 16, kIv.data(), 4, out, out, 1), -1);
    EXPECT_EQ(aes_cbc_decrypt_pad(rk, 16, nullptr, 16, out, out, 1), -1);
}

TEST(GroupParameters, PrimeIsTheRfc3526Modp1536Prime) {
    BIGNUM* p = BN_get_rfc3526_prime_1536(nullptr);
    uint8_t bytes[192];
    ASSERT_EQ(BN_bn2binpad(p, bytes, sizeof bytes), 192);
    BN_free(p);
    EXPECT_EQ(to_hex(DH_P_VALUE, 192), to_hex(bytes, 192));
    EXPECT_EQ(to_hex(DH_G_VALUE, 4), "00 00 00 02");
}

int open_urandom_descriptors() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr)
        return -1;
    while (dirent* e = readdir(d)) {
        char link[256];
        const std::string path = std::string("/proc/self/fd/") + e->d_name;
        const ssize_t len = readlink(path.c_str(), link, sizeof link - 1);
        if (len > 0 && std::string(link, static_cast<size_t>(len)) == "/dev/urandom")
            ++n;
    }
    closedir(d);
    return n;
}

TEST(LinuxRandom, ConcurrentFirstUseKeepsOneDescriptor) {
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    std::vector<Bytes> drawn(8, Bytes(16, 0));
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            ready.fetch_add(1);
            while (ready.load() < 8) {
            }
            linux_random(drawn[static_cast<size_t>(t)].data(), 16);
        });
    }
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(open_urandom_descriptors(), 1);
    for (size_t i = 1; i < drawn.size(); ++i)
        EXPECT_NE(drawn[i], drawn[0]);

    Bytes untouched(8, 0x77);
    linux_random(untouched.data(), 0);
    linux_random(nullptr, 8);
    EXPECT_EQ(untouched, Bytes(8, 0x77));
}

TEST(LinuxRandom, WithoutTheDeviceTheLibraryGeneratorFillsIn) {
    kestr::test::NamespaceOptions options;
    options.bridge = false;
    KESTR_ENTER_NAMESPACES(options);
    // A private, empty /dev: the device cannot be opened in this process.
    ASSERT_EQ(mount("tmpfs", "/dev", "tmpfs", 0, "size=1m"), 0);
    ASSERT_NE(access("/dev/urandom", F_OK), 0);

    Bytes a(64, 0xAA), b(64, 0xAA);
    linux_random(a.data(), 64);
    linux_random(b.data(), 64);
    EXPECT_NE(a, Bytes(64, 0xAA));
    EXPECT_NE(a, b);
    EXPECT_EQ(open_urandom_descriptors(), 0);
}

}  // namespace
