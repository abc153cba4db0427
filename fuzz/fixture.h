// One registration with fixed keys, the same in every fuzz process and in
// the corpus generator, so that M2s kept in the corpus keep opening.
//
// The enrollee's M1 is built by the enrollee's own code and then pinned: its
// nonce and key pair are fixed, and its MAC address and UUID are those a fuzz
// process sees for br0, all zero (there is no br0 in its namespace; the
// enrollee reads the same zeros when it derives its keys). The registrar's
// side has a fixed key pair and nonce too, so a target can seal any
// plaintext the way a registrar that knows the keys would.
#pragma once

#include <openssl/types.h>

#include <cstdint>
#include <vector>

#include "protocol/19051_frame.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/wsc.h"

namespace kestr::fuzz {

// The addressing of the fixed exchange; the identifiers are those of the
// first Search and M1 of a `make demo` capture, so its frames match.
constexpr uint8_t kRegistrarMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x0a};
constexpr uint8_t kEnrolleeMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x0b};
constexpr const char* kRegistrarMacText = "2:0:0:0:0:a";
constexpr int kSearchMid24G = 0x0159;
constexpr int kSearchMid5G = 0x015c;
constexpr int kM1Mid = 0x015a;

struct FixedExchange {
    DH* enrollee = nullptr;   // owned here for the life of the process
    DH* registrar = nullptr;  // likewise
    wsc_configuration_t m1{};
    std::vector<uint8_t> m1_tlv;  // 1492 bytes: the WSC TLV as sent, zero after it
    uint8_t own_mac[6] = {};      // what the enrollee reads for br0 here
    uint8_t registrar_nonce[kWscNonceLen] = {};
    wps_keys_t keys{};  // what both sides derive
};

// Made on first use; aborts if the fixed registration cannot be made.
const FixedExchange& fixed_exchange();

// The M1's attribute bytes (the TLV's value) and their length.
const uint8_t* m1_attributes();
int m1_attributes_length();

// An M2 for the fixed M1 as the registrar's own code builds it (its fresh
// key pair and nonce, the band's settings from the database, empty here).
// The whole WSC TLV.
std::vector<uint8_t> registrar_m2(int band);

// An M2 from the fixed registrar whose Encrypted Settings seal `plain`
// exactly as given (fixed IV), with a correct Authenticator over the fixed
// M1 and itself. Empty when `plain` is too long to seal. The whole WSC TLV.
std::vector<uint8_t> sealed_m2(const uint8_t* plain, size_t plain_len);

// `plain` followed by the Key Wrap Authenticator a registrar computes over
// it with the fixed AuthKey.
std::vector<uint8_t> with_kwa(const uint8_t* plain, size_t plain_len);

// A type-9 frame from the registrar to the enrollee around a WSC TLV, cut
// to its length; empty for an empty TLV.
std::vector<uint8_t> wsc_frame(const std::vector<uint8_t>& tlv, int mid);

}  // namespace kestr::fuzz
