// generatePublicKey is where both roles of the cloning procedure make their
// key pair; its lines report under the procedure's module, where users look
// for them, while the code lives with the rest of the key handling.
#define OPENSSL_SUPPRESS_DEPRECATED
#define KESTR_REPORT_MODULE "kestrd_apclone"

#include <openssl/dh.h>

#include "port/common/report.h"
#include "wsc/encrypt/encrypt.h"

int generatePublicKey(u_int8_t* key, int keylen, DH** enrolle_DHSecret) {
    if (enrolle_DHSecret == nullptr) {
        KESTR_ERR("enrolle_DHSecret == NULL");
        return -1;
    }
    const int made = reg_proto_generate_dhkeypair(enrolle_DHSecret);
    if (*enrolle_DHSecret == nullptr) {
        KESTR_ERR("(*enrolle_DHSecret) == NULL");
        return -1;
    }
    if (made != 0)
        return -1;  // the generator has said why

    const BIGNUM* pub = nullptr;
    DH_get0_key(*enrolle_DHSecret, &pub, nullptr);
    // A field shorter than a public value is refused before anything is
    // written into it.
    if (key == nullptr || keylen < kDhPublicKeyLen || reg_proto_BN_bn2bin(pub, key) != 192) {
        KESTR_ERR("reg_proto_BN_bn2bin error");
        return -1;
    }
    return 0;
}

kestr::DhKeyPair kestr::new_key_pair(uint8_t (&public_key)[kDhPublicKeyLen]) {
    DH* made = nullptr;
    generatePublicKey(public_key, kDhPublicKeyLen, &made);
    return DhKeyPair(made);
}
