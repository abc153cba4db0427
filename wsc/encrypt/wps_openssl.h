// AES-128-CBC with block padding, HMAC-SHA-256 and random bytes: the
// primitives that seal the registrar's Wi-Fi settings into M2 and
// authenticate the exchange.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// Expands a 128-, 192- or 256-bit key into the AES encryption round keys
// (`rk` holds (rounds + 1) * 4 words: 44 for 128 bits). Returns the number of
// rounds, or the library's negative error.
int rijndaelKeySetupEnc(u_int32_t* rk, const u_int8_t* cipherKey, int keyBits);
// The same for the decryption round keys.
int rijndaelKeySetupDec(u_int32_t* rk, const u_int8_t* cipherKey, int keyBits);

// CBC over the round keys of rijndaelKeySetupEnc/Dec (`key_len` in bytes, 16
// for AES-128) with `nonce` as IV. Encryption always pads: the r bytes after
// the last whole block are completed with 16 - r bytes of value 16 - r, so the
// result is data_len - r + 16 bytes. Decryption removes as many bytes as the
// last decrypted byte says; a count beyond the data gives a negative length.
// `ctxt`/`ptxt` must hold the result; input and output may be the same buffer.
// `padd_type` is kept for the callers and not consulted. -1 on bad arguments.
int aes_cbc_encrypt_pad(u_int32_t* rk, const size_t key_len, const u_int8_t* nonce,
                        const size_t data_len, const u_int8_t* ptxt, u_int8_t* ctxt,
                        u_int8_t padd_type);
int aes_cbc_decrypt_pad(u_int32_t* rk, const size_t key_len, const u_int8_t* nonce,
                        const size_t data_len, const u_int8_t* ctxt, u_int8_t* ptxt,
                        u_int8_t padd_type);

// HMAC-SHA-256 (RFC 2104, 64-byte block; a key longer than the block is
// replaced by its digest). Writes 32 bytes to `digest` and, when
// `digest_len` is not null, 32 to it.
void hmac_sha256(const void* key, int key_len, const unsigned char* text, size_t text_len,
                 unsigned char* digest, unsigned int* digest_len);

// Fills `rand` with `len` bytes from "/dev/urandom", opened once per process.
// Should the device not deliver them, the rest is drawn from the crypto
// library's own generator, so a nonce or IV is never left predictable.
void linux_random(u_int8_t* rand, int len);
// Initialisation hook kept for callers; there is nothing to initialise.
void RAND_linux_init();

namespace kestr {

// HMAC-SHA-256 over the concatenation of two byte strings, without copying
// them together first (the M2 authenticator covers M1 followed by M2).
// Returns false, with `digest` zeroed, if the digest could not be computed.
bool hmac_sha256_two(const uint8_t* key, size_t key_len, const uint8_t* a, size_t a_len,
                     const uint8_t* b, size_t b_len, uint8_t digest[32]);

}  // namespace kestr
