// Pending requests of an enrollee run (the Search and each M1) and the
// watcher task "request_list" that expires them.
//
// The list knows nothing of the protocol: each request carries its own
// response handler (called on the receive task for every matching answer)
// and timeout handler (called on the watcher once the request's lifetime in
// whole seconds has passed). Answers never remove a request; only its timeout
// handler does, by deleting it.
#pragma once

#include <net/ethernet.h>
#include <openssl/types.h>
#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <memory>

#include "port/common/bytes.h"
#include "protocol/19051_frame.h"
#include "protocol/19051_view.h"
#include "wsc/encrypt/encrypt.h"

typedef int (*RESPONSE_HANDLER)(void* response, void* responseLen, void* requestInfo);
typedef int (*TIMEOUT_HANDLER)(void* requestInfo);

typedef enum {
    RequestExtraDataType_Unknown = 0,
    RequestExtraDataType_M1 = 1,
} RequestExtraDataType_e;

constexpr int kRequestLifetimeSeconds = 3;

// What an M1 request keeps to check the M2 that answers it. The pending
// request owns it (see kestr::add_request), and with it the key pair.
struct RequestExtraDataM1_t {
    kestr::DhKeyPair dh;                    // the enrollee's key pair for this M1
    u_int8_t wsctlv[kCmduContentLen] = {};  // the M1's WSC TLV exactly as sent, zero after its end
    u_int8_t enrollee_nonce[kWscNonceLen] = {};

    // The M1's attribute bytes as sent: what the M2's Authenticator covers.
    kestr::ByteReader m1_attributes() const { return kestr::tlv_value(wsctlv); }
};

typedef struct {
    int mid;
    int msgType;                  // 7 (Search) or 9 (M1)
    struct timespec sendAbsTime;  // monotonic; whole seconds count for expiry
    struct ether_addr srcMac;
    struct ether_addr destMac;  // all zero for a multicast Search
    int freqBand;               // Search only: 0 = 2.4 GHz, 1 = 5 GHz
    int isMulticast;
    int timeout;      // lifetime in seconds
    void* extraData;  // shared by every copy; freed by the timeout handler
    RequestExtraDataType_e extraDataType;
    RESPONSE_HANDLER responseHandler;
    TIMEOUT_HANDLER timeoutHandler;
} IEEE19051_Info_t;

struct list_head {
    struct list_head* next;
    struct list_head* prev;
};

typedef struct {
    IEEE19051_Info_t info;
    struct list_head node;
    // The extra data, when the record owns it (kestr::add_request): it is
    // freed with the record.
    RequestExtraDataM1_t* owned;
} IEEE19051_RequestRecord_t;

// What a response handler receives, as a view: the frame `response` and the
// int at `responseLen` (a whole 1514-byte frame buffer when there is none).
kestr::FrameView response_frame(void* response, void* responseLen);

void IEEE19051_InitList();
void IEEE19051_UninitList();
void IEEE19051_AddRequestRecord(IEEE19051_Info_t info);
// Look-ups copy the oldest matching record into *info and return 0, or return
// -1 and leave *info alone. By identifier, `type` does not take part.
int IEEE19051_GetRequestRecordInfoByMid(int type, int mid, IEEE19051_Info_t* info);
int IEEE19051_GetRequestRecordInfoByEnrolleeNonce(u_int8_t* nonce, int type,
                                                  struct ether_addr destmac,
                                                  IEEE19051_Info_t* info);
int IEEE19051_GetRequestRecordInfoByDestmac(int type, struct ether_addr destmac,
                                            IEEE19051_Info_t* info);
void IEEE19051_DelRequestRecordByMid(int mid);
void IEEE19051_DelRequestRecord(IEEE19051_RequestRecord_t* record);
// Records themselves, not copies: usable only while no other thread deletes.
IEEE19051_RequestRecord_t* IEEE19051_GetFirstRequestRecord();
IEEE19051_RequestRecord_t* IEEE19051_GetNextRequestRecord(IEEE19051_RequestRecord_t* record);
int IEEE19051_ListEmpty();

// The request-use lock orders the three threads around a request:
// - a request's extra data (an M1's key pair and kept bytes) is shared by
//   every copy and freed by its timeout handler on the watcher task, so
//   timeout handlers run holding this lock, and a response path holds it
//   from its look-up until its handler has returned: extra data is never
//   freed under a handler that is using it;
// - a sender that records a request after sending it (the Search, on the
//   main thread) holds it across both, so an answer that comes back at once
//   finds the request recorded.
// Lock order: the request-use lock before the list lock, never the reverse.
void IEEE19051_LockRequestUse();
void IEEE19051_UnlockRequestUse();

namespace kestr {

// Records `info` as IEEE19051_AddRequestRecord does, and hands the record
// `extra` to own: info.extraData points at it until the record is deleted,
// which frees it (key pair included). False, with `extra` freed, when the
// request could not be recorded.
bool add_request(IEEE19051_Info_t info, std::unique_ptr<RequestExtraDataM1_t> extra);

// Frees the extra data that the record of request `mid` owns, before the
// record itself goes.
void release_extra(int mid);

class RequestUseGuard {
  public:
    RequestUseGuard() { IEEE19051_LockRequestUse(); }
    ~RequestUseGuard() { IEEE19051_UnlockRequestUse(); }
    RequestUseGuard(const RequestUseGuard&) = delete;
    RequestUseGuard& operator=(const RequestUseGuard&) = delete;
};
}  // namespace kestr
