#include "daemon/kestrd_msg_process.h"

#include <unistd.h>

#include <cstring>

#include "daemon/kestrd_apclone.h"
#include "os/pthread_utils.h"
#include "protocol/19051_frame.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"

std::atomic<int> msgThreadIsRunning{0};

namespace {

int msgThreadId = -1;

// One whole frame, owned by the receive task and parsed in place.
u_int8_t g_frame[kCmduMaxFrameLen];

uint32_t run(void*) {
    std::memset(g_frame, 0, sizeof g_frame);
    while (msgThreadIsRunning.load() != 0) {
        const int n = IEEE19051_RecvMsg("br0", g_frame, sizeof g_frame, 1);
        if (n <= 0)
            continue;
        // Bytes of an earlier, longer frame must never look like TLVs of this
        // one, and no TLV may claim bytes that did not arrive: the handlers
        // see only TLVs that lie wholly inside what was just read.
        kestr::end_tlvs_at_received(g_frame, n);
        handle_msg(g_frame, n);
        usleep(10);
    }
    return 0;
}

}  // namespace

void IEEE19051_MsgProcessStart() {
    char br0[] = "br0";
    IEEE19051_MsgInit(br0);
    if (msgThreadId == -1) {
        msgThreadIsRunning.store(1);
        msgThreadId = OS_TaskSpawnParam("msgProcess", run, nullptr, nullptr);
        if (msgThreadId == -1)
            msgThreadIsRunning.store(0);
    }
}

void IEEE19051_MsgProcessEnd() {
    msgThreadIsRunning.store(0);
    if (msgThreadId != -1) {
        OS_TaskJoin(msgThreadId);
        OS_TaskDelete(msgThreadId);
        msgThreadId = -1;
    }
    IEEE19051_MsgUninit();
}

void handle_msg(u_int8_t* msg, int msglen) {
    const int type = IEEE19051_GetType(msg);
    if (type >= IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH &&
        type <= IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_RENEW) {
        IEEE19051_MsgApcloneProcess(type, msg, msglen);
    }
}
