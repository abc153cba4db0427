// The round-key interface of the settings cipher is the classic AES key
// schedule (`AES_KEY`), which the crypto library keeps only as a deprecated
// interface; this file is one of the few that may use it.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "wsc/encrypt/wps_openssl.h"

#include <fcntl.h>
#include <openssl/aes.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "port/common/bytes.h"
#include "port/common/report.h"
#include "wsc/encrypt/secret.h"

namespace {

constexpr size_t kAesBlock = 16;
constexpr size_t kHmacBlock = 64;
constexpr size_t kSha256Len = 32;

static_assert(sizeof(((AES_KEY*)nullptr)->rd_key[0]) == sizeof(u_int32_t),
              "round keys are 32-bit words");

// ---------------------------------------------------------------- AES-CBC

// One 16-byte block of a buffer: the views below are cut to whole blocks.
using Block = kestr::MutableBytes;

void xor_block(Block dst, kestr::ConstBytes a, kestr::ConstBytes b) {
    for (size_t i = 0; i < kAesBlock; ++i)
        dst[i] = a[i] ^ b[i];
}

// The CBC worker behind aes_cbc_encrypt_pad / aes_cbc_decrypt_pad. Works one
// block at a time and reads each input block before writing the output block
// at the same place, so `in` and `out` may be the same buffer; `out` holds
// the result (one block more than `length` when encrypting).
int AES_cbc_encrypt_pad(const unsigned char* in, unsigned char* out, const unsigned long length,
                        const AES_KEY* key, unsigned char* ivec, const int enc) {
    if (in == nullptr || out == nullptr || key == nullptr || ivec == nullptr)
        return -1;
    if (enc != 0 && enc != 1)
        return -1;
    if (length > static_cast<unsigned long>(INT_MAX) - kAesBlock)
        return -1;

    const size_t blocks = length / kAesBlock;
    const size_t rest = length % kAesBlock;
    const kestr::ConstBytes input(in, length);
    const kestr::MutableBytes output(out, blocks * kAesBlock + (enc == 1 ? kAesBlock : 0));
    auto in_block = [&](size_t i) { return input.subspan(i * kAesBlock, kAesBlock); };
    auto out_block = [&](size_t i) { return output.subspan(i * kAesBlock, kAesBlock); };
    kestr::SecretBytes<kAesBlock> chain, work, saved;
    std::memcpy(chain.data(), ivec, kAesBlock);

    if (enc == 1) {
        for (size_t i = 0; i < blocks; ++i) {
            xor_block(work.bytes, in_block(i), chain.bytes);
            AES_encrypt(work.data(), out_block(i).data(), key);
            std::memcpy(chain.data(), out_block(i).data(), kAesBlock);
        }
        // The last block always carries the padding: a whole block of 0x10
        // when the data ends on a block boundary.
        const uint8_t pad = static_cast<uint8_t>(kAesBlock - rest);
        std::memset(work.data(), pad, kAesBlock);
        if (rest != 0)
            std::memcpy(work.data(), in_block(blocks).data(), rest);
        xor_block(work.bytes, work.bytes, chain.bytes);
        AES_encrypt(work.data(), out_block(blocks).data(), key);
        return static_cast<int>(output.size());
    }

    if (blocks == 0)
        return -1;  // no block, so no padding to read
    for (size_t i = 0; i < blocks; ++i) {
        std::memcpy(saved.data(), in_block(i).data(), kAesBlock);
        AES_decrypt(saved.data(), work.data(), key);
        xor_block(out_block(i), work.bytes, chain.bytes);
        std::memcpy(chain.data(), saved.data(), kAesBlock);
    }
    const long whole = static_cast<long>(output.size());
    // A sender that cut its ciphertext short: the whole blocks are returned
    // as they decrypt, the partial tail is ignored and no padding removed.
    if (rest != 0)
        return static_cast<int>(whole);
    // The pad count is taken as sent; a count beyond the data is reported as
    // a negative length, which every caller treats as a failure.
    return static_cast<int>(whole - output[output.size() - 1]);
}

int rounds_for(size_t key_len) {
    if (key_len != 16 && key_len != 24 && key_len != 32)
        return -1;
    return static_cast<int>(key_len * 8 / 32 + 6);
}

int cbc_with_round_keys(u_int32_t* rk, size_t key_len, const u_int8_t* nonce, size_t data_len,
                        const u_int8_t* in, u_int8_t* out, int enc) {
    const int rounds = rounds_for(key_len);
    if (rk == nullptr || nonce == nullptr || rounds < 0)
        return -1;
    AES_KEY key;
    std::memset(&key, 0, sizeof key);
    std::memcpy(key.rd_key, rk, static_cast<size_t>(rounds + 1) * 4 * sizeof(u_int32_t));
    key.rounds = rounds;
    uint8_t iv[kAesBlock];
    std::memcpy(iv, nonce, kAesBlock);
    const int n = AES_cbc_encrypt_pad(in, out, data_len, &key, iv, enc);
    OPENSSL_cleanse(&key, sizeof key);
    return n;
}

// ------------------------------------------------------------ HMAC-SHA-256

using Span = kestr::ConstBytes;

struct MdCtxFree {
    void operator()(EVP_MD_CTX* c) const { EVP_MD_CTX_free(c); }
};

// Fetched once for the life of the process: an implicit fetch on every
// digest would cost more than the digest of a short attribute string.
const EVP_MD* sha256() {
    static EVP_MD* fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return fetched != nullptr ? fetched : EVP_sha256();
}

bool digest(EVP_MD_CTX* ctx, kestr::Span<const Span> parts, uint8_t out[kSha256Len]) {
    if (EVP_DigestInit_ex(ctx, sha256(), nullptr) != 1)
        return false;
    for (const Span& part : parts) {
        if (!part.empty() && EVP_DigestUpdate(ctx, part.data(), part.size()) != 1)
            return false;
    }
    unsigned int len = 0;
    return EVP_DigestFinal_ex(ctx, out, &len) == 1 && len == kSha256Len;
}

// RFC 2104: H((K0 ^ opad) || H((K0 ^ ipad) || text)), K0 the key padded with
// zeros to the block, or its digest when it is longer than the block.
bool hmac(const uint8_t* key, size_t key_len, kestr::Span<const Span> text,
          uint8_t out[kSha256Len]) {
    std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
    if (!ctx)
        return false;

    kestr::SecretBytes<kHmacBlock> k0;
    if (key_len > kHmacBlock) {
        const Span whole[1] = {Span(key, key_len)};
        if (!digest(ctx.get(), whole, k0.data()))
            return false;
    } else if (key_len != 0) {
        std::memcpy(k0.data(), key, key_len);
    }

    kestr::SecretBytes<kHmacBlock> pad;
    for (size_t i = 0; i < kHmacBlock; ++i)
        pad.bytes[i] = k0.bytes[i] ^ 0x36;
    Span inner_parts[3] = {Span(pad.data(), kHmacBlock), {}, {}};
    size_t parts = 1;
    for (const Span& t : text.first(2))
        inner_parts[parts++] = t;
    kestr::SecretBytes<kSha256Len> inner;
    if (!digest(ctx.get(), kestr::Span<const Span>(inner_parts, parts), inner.data()))
        return false;

    for (size_t i = 0; i < kHmacBlock; ++i)
        pad.bytes[i] = k0.bytes[i] ^ 0x5c;
    const Span outer_parts[2] = {Span(pad.data(), kHmacBlock), Span(inner.data(), kSha256Len)};
    return digest(ctx.get(), outer_parts, out);
}

// ------------------------------------------------------------ random bytes

// One descriptor for the life of the process. Opening is raced safely: the
// loser of two first callers closes its own descriptor.
std::atomic<int> g_urandom{-1};

int urandom_fd() {
    int fd = g_urandom.load(std::memory_order_acquire);
    if (fd >= 0)
        return fd;
    const int opened = ::open("/dev/urandom", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (opened < 0)
        return -1;
    int expected = -1;
    if (!g_urandom.compare_exchange_strong(expected, opened, std::memory_order_acq_rel)) {
        ::close(opened);
        return expected;
    }
    return opened;
}

}  // namespace

int rijndaelKeySetupEnc(u_int32_t* rk, const u_int8_t* cipherKey, int keyBits) {
    AES_KEY key;
    const int r = rk == nullptr ? -1 : AES_set_encrypt_key(cipherKey, keyBits, &key);
    if (r < 0) {
        KESTR_ERR("rijndaelKeySetupEnc() : AES_set_encrypt_key failed %d\n", r);
        return r;
    }
    const int rounds = key.rounds;
    std::memcpy(rk, key.rd_key, static_cast<size_t>(rounds + 1) * 4 * sizeof(u_int32_t));
    OPENSSL_cleanse(&key, sizeof key);
    return rounds;
}

int rijndaelKeySetupDec(u_int32_t* rk, const u_int8_t* cipherKey, int keyBits) {
    AES_KEY key;
    const int r = rk == nullptr ? -1 : AES_set_decrypt_key(cipherKey, keyBits, &key);
    if (r < 0) {
        KESTR_ERR("rijndaelKeySetupDec() :  AES_set_decrypt_key failed %d\n", r);
        return r;
    }
    const int rounds = key.rounds;
    std::memcpy(rk, key.rd_key, static_cast<size_t>(rounds + 1) * 4 * sizeof(u_int32_t));
    OPENSSL_cleanse(&key, sizeof key);
    return rounds;
}

int aes_cbc_encrypt_pad(u_int32_t* rk, const size_t key_len, const u_int8_t* nonce,
                        const size_t data_len, const u_int8_t* ptxt, u_int8_t* ctxt,
                        u_int8_t /*padd_type*/) {
    return cbc_with_round_keys(rk, key_len, nonce, data_len, ptxt, ctxt, 1);
}

int aes_cbc_decrypt_pad(u_int32_t* rk, const size_t key_len, const u_int8_t* nonce,
                        const size_t data_len, const u_int8_t* ctxt, u_int8_t* ptxt,
                        u_int8_t /*padd_type*/) {
    return cbc_with_round_keys(rk, key_len, nonce, data_len, ctxt, ptxt, 0);
}

void hmac_sha256(const void* key, int key_len, const unsigned char* text, size_t text_len,
                 unsigned char* digest_out, unsigned int* digest_len) {
    if (digest_out == nullptr)
        return;
    const Span part[1] = {Span(text, text_len)};
    const size_t klen = key == nullptr || key_len < 0 ? 0 : static_cast<size_t>(key_len);
    if (!hmac(static_cast<const uint8_t*>(key), klen, part, digest_out)) {
        // Only an exhausted library gets here; a zero digest never matches a
        // received authenticator by accident of our own making.
        std::memset(digest_out, 0, kSha256Len);
    }
    if (digest_len != nullptr)
        *digest_len = kSha256Len;
}

void linux_random(u_int8_t* rand, int len) {
    if (rand == nullptr || len <= 0)
        return;
    size_t got = 0;
    const int fd = urandom_fd();
    if (fd >= 0) {
        for (int attempt = 0; attempt < 10; ++attempt) {
            const ssize_t n = ::read(fd, rand, static_cast<size_t>(len));
            if (n >= 0) {
                got = static_cast<size_t>(n);
                break;
            }
            if (errno != EINTR)
                break;
        }
    }
    const kestr::MutableBytes missing =
        kestr::MutableBytes(rand, static_cast<size_t>(len)).subspan(got);
    if (!missing.empty())
        RAND_bytes(missing.data(), static_cast<int>(missing.size()));
}

void RAND_linux_init() {}

namespace kestr {

bool hmac_sha256_two(const uint8_t* key, size_t key_len, const uint8_t* a, size_t a_len,
                     const uint8_t* b, size_t b_len, uint8_t digest_out[32]) {
    const ConstBytes parts[2] = {ConstBytes(a, a_len), ConstBytes(b, b_len)};
    if (hmac(key, key_len, parts, digest_out))
        return true;
    std::memset(digest_out, 0, kSha256Len);
    return false;
}

}  // namespace kestr
