#include "daemon/kestrd_msg_process.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>

#include "daemon/kestrd_apclone.h"
#include "os/pthread_utils.h"
#include "port/19051_port.h"
#include "protocol/19051_frame.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_view.h"

std::atomic<int> msgThreadIsRunning{0};

namespace {

int msgThreadId = -1;

// One whole frame, owned by the receive task and parsed in place.
u_int8_t g_frame[kCmduMaxFrameLen];

// The frame and the number of bytes read travel together from here on, so
// nothing past what arrived is ever taken for part of the frame.
uint32_t run(void*) {
    // The pause after a handled frame is 10 µs; the default 50 µs of timer
    // slack of a thread would make it 60 µs or more, and cap how many frames
    // a busy link can bring through.
    prctl(PR_SET_TIMERSLACK, 1UL);
    std::memset(g_frame, 0, sizeof g_frame);
    while (msgThreadIsRunning.load() != 0) {
        const int n = IEEE19051_RecvMsg(kestr::kBridge, g_frame, sizeof g_frame, 1);
        if (n <= 0)
            continue;
        handle_msg(g_frame, n);
        usleep(10);
    }
    return 0;
}

}  // namespace

void kestr::open_receive_socket() {
    char bridge[] = "br0";
    IEEE19051_MsgInit(bridge);
    // Where the kernel will not filter, the type filter below still drops
    // what no handler takes, as it always has.
    receive_only_types(kFirstHandledType, kLastHandledType);
}

void IEEE19051_MsgProcessStart() {
    kestr::open_receive_socket();
    if (msgThreadId == -1) {
        msgThreadIsRunning.store(1);
        msgThreadId = OS_TaskSpawnParam("msgProcess", run, nullptr, nullptr);
        if (msgThreadId == -1)
            msgThreadIsRunning.store(0);
    }
}

void IEEE19051_MsgProcessEnd() {
    msgThreadIsRunning.store(0);
    // The task leaves its wait for a frame at once, without its time-out.
    kestr::wake_receive();
    if (msgThreadId != -1) {
        OS_TaskJoin(msgThreadId);
        OS_TaskDelete(msgThreadId);
        msgThreadId = -1;
    }
    IEEE19051_MsgUninit();
}

void handle_msg(u_int8_t* msg, int msglen) {
    if (msg == nullptr)
        return;
    const int type = kestr::FrameView(msg, msglen < 0 ? 0 : static_cast<size_t>(msglen)).type();
    if (type >= kestr::kFirstHandledType && type <= kestr::kLastHandledType) {
        IEEE19051_MsgApcloneProcess(type, msg, msglen);
    }
}
