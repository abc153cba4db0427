// Key agreement and key derivation of the WSC registration.
//
// Both sides make a Diffie-Hellman key pair in the 1536-bit MODP group of
// RFC 3526 (generator 2) and send the public value as a 192-byte big-endian
// field. From the peer's public value, the own key pair, the enrollee nonce,
// the enrollee's MAC address and the registrar nonce each side derives the
// same three keys (wps_keys_t):
//
//   DHKey = SHA-256(shared secret, left-padded to 192 bytes)
//   KDK   = HMAC-SHA-256(DHKey, enrollee nonce || enrollee MAC || registrar nonce)
//   KDF(KDK, "Wi-Fi Easy and Secure Key Derivation", 640 bits)
//         = AuthKey (32) || KeyWrapKey (16) || EMSK (32)
//
// A key pair belongs to whoever made it: typed code holds it in a
// kestr::DhKeyPair; the release goes through the crypto library, which wipes
// the private key then.
#pragma once

#include <openssl/types.h>
#include <sys/types.h>

#include <memory>

#include "wsc/encrypt/buffobj.h"

constexpr int kDhPublicKeyLen = 192;  // bytes of a public value or shared secret
constexpr int kWscNonceLen = 16;
constexpr int kWscIvLen = 16;       // before the ciphertext of the Encrypted Settings
constexpr int kWscAuthKeyLen = 32;  // AuthKey, the HMAC key of both authenticators
// The Authenticator and the Key Wrap Authenticator: an HMAC's first 64 bits.
constexpr int kWscAuthenticatorLen = 8;
constexpr int kWscKdfBits = 640;  // AuthKey + KeyWrapKey + EMSK

typedef struct {
    u_int8_t authKey[kWscAuthKeyLen];  // keys the Authenticator and the Key Wrap Authenticator
    u_int8_t keyWrapKey[16];           // AES-128 key of the Encrypted Settings
    u_int8_t emsk[32];                 // derived and kept; nothing uses it
} wps_keys_t;

// The group: the RFC 3526 1536-bit prime, big-endian, and the generator 2
// as a 4-byte big-endian number.
extern const u_int8_t DH_P_VALUE[kDhPublicKeyLen];
extern const u_int8_t DH_G_VALUE[4];

// Makes a key pair into *enrolle_DHSecret and exports its public value into
// `key` (192 bytes; `keylen` is the room there). The caller owns the pair,
// also when the export fails. 0, or -1.
int generatePublicKey(u_int8_t* key, int keylen, DH** enrolle_DHSecret);

// Makes a key pair in the group into *DHKeyPair. On a failure after the
// object was made it stays in *DHKeyPair for the caller to delete. 0, or -1.
int reg_proto_generate_dhkeypair(DH** DHKeyPair);
// Frees the pair and sets the variable to null; a null variable is left alone.
void reg_proto_delete_dhkeypair(DH** DHKeyPair);
// Writes `a` into the 192-byte field `to`, left-padded with zeros. 192, or 0
// when `a` is zero or needs more than 192 bytes (nothing is written then).
int reg_proto_BN_bn2bin(const BIGNUM* a, unsigned char* to);

// Derives the keys of one registration. The nonces are 16 bytes, the MAC
// address 6; `enrolleeNonce` and `enrolle_mac` are the enrollee's whichever
// side computes. `keys` is written only on success. 0, or -1.
int get_keys(u_int8_t* received_public_key, DH* our_DHSecret, u_int8_t* enrolleeNonce,
             u_int8_t* registrarNonce, u_int8_t* enrolle_mac, wps_keys_t* keys);

// The counter-mode KDF: HMAC-SHA-256 keyed with the first 32 bytes of `KDK`
// over be32(i) || personalization string || be32(keyBits), i = 1, 2, ...;
// appends the first keyBits / 8 output bytes to `key`.
void reg_proto_derivekey(BufferObj* KDK, BufferObj* prsnlString, uint32 keyBits, BufferObj* key);

// Encrypts with AES-128-CBC under `encrKey` with a fresh random IV (written
// to `iv`). Plaintexts up to 1023 bytes; on failure `cipherText` and
// `cipherText_len` are left as they were. `authKey` is not used.
void reg_proto_encrypt_data(u_int8_t* plainText, int plainText_len, u_int8_t* encrKey,
                            u_int8_t* authKey, u_int8_t* cipherText, int* cipherText_len,
                            u_int8_t* iv);
// Decrypts up to 1024 bytes and removes the padding; *plainText_len is
// negative on failure, and nothing is copied then. `authKey` is not used.
void reg_proto_decrypt_data(u_int8_t* cipherText, int cipherText_len, u_int8_t* iv,
                            u_int8_t* encrKey, u_int8_t* authKey, u_int8_t* plainText,
                            int* plainText_len);

namespace kestr {

// Frees a key pair; the one place in kestrd that does.
struct DhFree {
    void operator()(DH* dh) const;
};
using DhKeyPair = std::unique_ptr<DH, DhFree>;

// A new key pair for one registration, its public value exported into
// `public_key`. Null when no pair could be made. The public value stays as
// the caller left it (zeros) when it could not be exported; a message that
// carries it then cannot be opened by the peer.
DhKeyPair new_key_pair(uint8_t (&public_key)[kDhPublicKeyLen]);

}  // namespace kestr
