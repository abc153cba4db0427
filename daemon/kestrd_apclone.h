// The cloning procedure: both roles' message handlers, the enrollee's run
// and how it ends.
//
// Enrollee: Search -> (Response) -> M1 -> (M2) -> settings saved; the run is
// driven by the time-outs of its pending requests, and requestTimeout decides
// its outcome. Registrar: answers every Search with a Response and every M1
// with an M2, keeping no state between messages.
#pragma once

#include <sys/types.h>

#include <atomic>

#include "daemon/kestrd_request_list.h"
#include "wsc/wsc.h"

// Run state of the enrollee (a process makes at most one run):
// 0 running, 1 ended without an M2, 2 ended after an M2 was handled.
extern std::atomic<int> process_completed;
// 1 once any Response reached the Search's response handler.
extern std::atomic<int> receive_response;
// 1 once a WSC message was matched to an M1 request and handed to it.
extern std::atomic<int> M2_decrypt_success;

// Receive-task dispatch by the device's role and the message type. -1 for a
// missing frame, else 0 whatever the handler did.
int IEEE19051_MsgApcloneProcess(int type, u_int8_t* msg, int msglen);
int msgApcloneProcessResponse(int type, u_int8_t* buf, int recvlen);

// Discovery, enrollee side.
int IEEE19051_CmdApcloneProcess_2P4G();
int IEEE19051_CmdApcloneProcess_5G();
int sendSearch(int freqBand);
int createRequestInfoSearch(IEEE19051_Info_t* info, int mid, int freqBand);
int continueAfterSearch(void* response, void* responseLen, void* requestInfo);
int requestTimeout(void* requestInfo);
void releaseRequestRecord(IEEE19051_Info_t* info);
void setProcessState(int state);

// Discovery, registrar side.
int msgApcloneProcesSearch(int type, u_int8_t* buf, int recvlen);

// Registration, enrollee side.
int sendM1(char* destmac, int freqBand);
int getWscConfigurationM1(wsc_configuration_t* config, int freqBand, DH** enrolle_DHSecret);
int createRequestInfoM1(IEEE19051_Info_t* info, int mid, int freqBand, char* destmac,
                        void* extraData);
int msgApcloneProcesM2(int type, u_int8_t* buf, int recvlen);
int continueAfterM1(void* response, void* responseLen, void* requestInfo);
void saveApcloneInfo(RFBands_e band, wsc_encrypted_settings_t settings);

// Registration, registrar side.
int msgApcloneProcesM1(int type, u_int8_t* buf, int recvlen);
int getWscConfigurationM2(wsc_configuration_t* config, wsc_configuration_t M1config, int freqBand,
                          u_int8_t* m1wsc, int m1len);

namespace kestr {
// Counts M1 requests recorded in this run, so that a run whose Responses all
// failed to start a registration can end by itself.
void note_m1_recorded();
}  // namespace kestr
