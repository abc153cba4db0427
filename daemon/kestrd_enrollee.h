// The enrollee's cloning run: the Search for one band, the check of each
// Response, the M1 to the registrar that answered, and the M2 that answers
// it opened and its settings saved as a new numbered entry of the band.
//
// The functions taking bare frames, pointers and numbers are the interfaces
// other parts of the system call; each reads what it is given into its
// record and hands it to the function of the same name below, which does
// the work on typed values.
#pragma once

#include <openssl/types.h>
#include <sys/types.h>

#include "daemon/kestrd_band.h"
#include "daemon/kestrd_request_list.h"
#include "port/util.h"
#include "protocol/19051_message.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/wsc.h"

// Discovery: the main thread's command, the Search and its Responses.
int IEEE19051_CmdApcloneProcess_2P4G();
int IEEE19051_CmdApcloneProcess_5G();
int sendSearch(int freqBand);
int createRequestInfoSearch(IEEE19051_Info_t* info, int mid, int freqBand);
int continueAfterSearch(void* response, void* responseLen, void* requestInfo);

// Registration: M1 out, M2 in, settings saved.
int sendM1(char* destmac, int freqBand);
int getWscConfigurationM1(wsc_configuration_t* config, int freqBand, DH** enrolle_DHSecret);
int createRequestInfoM1(IEEE19051_Info_t* info, int mid, int freqBand, char* destmac,
                        void* extraData);
int msgApcloneProcesM2(int type, u_int8_t* buf, int recvlen);
int continueAfterM1(void* response, void* responseLen, void* requestInfo);
void saveApcloneInfo(RFBands_e band, wsc_encrypted_settings_t settings);

namespace kestr {

// 0 when the Search went out and is recorded, -1 otherwise.
int sendSearch(Band band);
// Checks a Response to the Search `search` and sends M1 to its sender.
int continueAfterSearch(const ResponseMessage& response, const IEEE19051_Info_t& search);

// 0 when the M1 went out and is recorded, -1 otherwise; the key pair made
// for it is released on every way out but the recorded one.
int sendM1(const Mac& registrar, Band band);
// Fills the M1 record; the key pair whose public value it carries is the
// caller's.
DhKeyPair getWscConfigurationM1(wsc_configuration_t* config, Band band);
// Finds the M1 request a WSC message answers, by enrollee nonce and sender.
int msgApcloneProcesM2(const WscMessage& message);
// Opens the M2 with what the M1 request kept, and saves its settings.
int continueAfterM1(const WscMessage& message, const IEEE19051_Info_t& m1_request);
void saveApcloneInfo(Band band, const wsc_encrypted_settings_t& settings);

}  // namespace kestr
