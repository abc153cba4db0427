// Reading the WSC TLV of an AP-Autoconfiguration WSC message into a message
// record, and opening the Encrypted Settings of a received M2.
#pragma once

#include <openssl/types.h>
#include <sys/types.h>

#include "port/common/bytes.h"
#include "port/util.h"
#include "protocol/19051_frame.h"
#include "wsc/wsc.h"

// Parses the attributes of one WSC TLV (type byte, big-endian length,
// attributes) into `wsc_config`, which the caller zeroed. Only the TLV's own
// bytes are read: an attribute running past its end ends the parse. Unknown
// attributes are skipped, a malformed known one is left absent, and of a
// repeated attribute the last good one counts. 0; -1 for a null argument.
int IEEE19051_ParseTlvWsc(ieee1905TLV_t* tlv, wsc_configuration_t* wsc_config);

// The enrollee's opening of M2: derives the keys from the registrar's public
// key, the enrollee's own key pair `DHSecret`, both nonces of M2 and
// `enrolle_mac`; decrypts the Encrypted Settings into `settings` (zeroed by
// the caller); checks the Key Wrap Authenticator over the plaintext and the
// Authenticator over `m1` (the M1 attribute bytes as sent) followed by `m2`
// (the received M2 attribute bytes, its 12-byte Authenticator attribute
// last). 0 only when M2 is authentic and bound to this M1; otherwise -1,
// and `settings` holds nothing usable.
int IEEE19051_ParseTlvWscEncryptedSettings(wsc_configuration_t* wsc_config, DH* DHSecret,
                                           u_int8_t* enrolle_mac,
                                           wsc_encrypted_settings_t* settings, u_int8_t* m1,
                                           int m1len, u_int8_t* m2, int m2len);

namespace kestr {
// The same for a record read from the M2 and views of both messages.
int IEEE19051_ParseTlvWscEncryptedSettings(const wsc_configuration_t& m2, DH* DHSecret,
                                           const Mac& enrollee, wsc_encrypted_settings_t* settings,
                                           ByteReader m1_bytes, ByteReader m2_bytes);
}  // namespace kestr
