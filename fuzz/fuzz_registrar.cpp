// The registrar's message handlers driven with a fuzzed frame in place of a
// received one: the Search handler and the M1 handler both get every frame.
//
// Nothing is stubbed. No database runs, so the database client fails at once
// and the device port answers its defaults (role registrar, open settings).
// Every answer the handlers try to send fails: the process has given up the
// right to open raw sockets, and its private network namespace holds no br0
// anyway. The message-identifier counter lives in a private IPC namespace.
#include <cstring>
#include <vector>

#include "daemon/kestrd_apclone.h"
#include "daemon/kestrd_enrollee.h"
#include "daemon/kestrd_registrar.h"
#include "daemon/kestrd_run.h"
#include "fuzz/support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kestr::fuzz::isolate({.net = true, .mount = true, .ipc = true, .raw_sockets = false},
                         "fuzz_registrar");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kestr::fuzz::Frame frame(data, size);
    const std::vector<uint8_t> before(frame.data(), frame.data() + kCmduMaxFrameLen);

    msgApcloneProcesSearch(IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH, frame.data(),
                           frame.length());
    msgApcloneProcesM1(IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC, frame.data(), frame.length());

    // Handlers read the received frame in place; none may change it.
    KESTR_FUZZ_CHECK(std::memcmp(before.data(), frame.data(), before.size()) == 0);
    return 0;
}
