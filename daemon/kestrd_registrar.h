// The registrar: every Search is answered with a Response for the band it
// asks for, and every M1 with an M2 that carries this device's Wi-Fi
// settings for that band, sealed with the keys of that one exchange.
// Nothing survives a message.
//
// The functions taking bare frames are the dispatcher's handlers; each reads
// the frame into its record and hands it to the function of the same name
// below.
#pragma once

#include <sys/types.h>

#include "daemon/kestrd_band.h"
#include "protocol/19051_message.h"
#include "wsc/wsc.h"

int msgApcloneProcesSearch(int type, u_int8_t* buf, int recvlen);
int msgApcloneProcesM1(int type, u_int8_t* buf, int recvlen);
int getWscConfigurationM2(wsc_configuration_t* config, wsc_configuration_t M1config, int freqBand,
                          u_int8_t* m1wsc, int m1len);

namespace kestr {

int msgApcloneProcesSearch(const SearchMessage& search);
// 0 when an M2 went out; -1 when the message holds no M1 or the send failed.
int msgApcloneProcesM1(const WscMessage& message);
// Fills the M2 record (zeroed by the caller) that answers `m1`, whose
// attribute bytes as received are `m1_bytes`.
int getWscConfigurationM2(wsc_configuration_t* config, const wsc_configuration_t& m1, Band band,
                          ByteReader m1_bytes);

}  // namespace kestr
