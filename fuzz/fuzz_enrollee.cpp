// The enrollee's message handlers driven with a fuzzed frame in place of a
// received one: the Response handler and the M2 handler both get every
// frame, while an enrollee run is in progress. The first byte of the input
// says what the frame is:
//   0 (and any even value)  the rest of the input, as received;
//   1 (and 5, 9, ...)       an M2 from the registrar 02:00:00:00:00:0a whose
//                           Encrypted Settings seal the rest of the input as
//                           plaintext with the keys of the fixed M1 below;
//   3 (and 7, 11, ...)      the same with the Key Wrap Authenticator the
//                           registrar computes appended to the plaintext.
// A registrar holding the keys can send any settings it likes; with them the
// handlers go on to open the M2 and save what it carries.
//
// Before the first input, the pending-request list gets what a run leaves
// in it: a Search for each band (the identifiers of the Searches of a
// `make demo` capture) and the M1 of fuzz/fixture.h sent to the registrar
// 02:00:00:00:00:0a, with its key pair and bytes. The watcher task is not
// started, so they never expire. An M2 for that M1 from that registrar gets
// past the nonce match and is opened with the real keys; the corpus holds
// such M2s.
//
// Nothing is stubbed: as for the registrar, the database client fails at
// once, the device port answers its defaults and every send fails (no raw
// sockets, no br0).
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "daemon/kestrd_apclone.h"
#include "daemon/kestrd_enrollee.h"
#include "daemon/kestrd_registrar.h"
#include "daemon/kestrd_request_list.h"
#include "daemon/kestrd_run.h"
#include "fuzz/fixture.h"
#include "fuzz/support.h"

namespace {

void record_search(int mid, int band) {
    IEEE19051_Info_t info;
    createRequestInfoSearch(&info, mid, band);
    IEEE19051_AddRequestRecord(info);
}

void record_m1() {
    const kestr::fuzz::FixedExchange& x = kestr::fuzz::fixed_exchange();
    auto extra = std::make_unique<RequestExtraDataM1_t>();
    // The request never expires (no watcher runs), so it may hold the
    // fixture's key pair for the life of the process.
    extra->dh.reset(x.enrollee);
    std::memcpy(extra->wsctlv, x.m1_tlv.data(), sizeof extra->wsctlv);
    std::memcpy(extra->enrollee_nonce, x.m1.enrollee_nonce.val, sizeof extra->enrollee_nonce);
    IEEE19051_Info_t info;
    char registrar[32];
    std::snprintf(registrar, sizeof registrar, "%s", kestr::fuzz::kRegistrarMacText);
    createRequestInfoM1(&info, kestr::fuzz::kM1Mid, 0, registrar, nullptr);
    kestr::add_request(info, std::move(extra));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kestr::fuzz::isolate({.net = true, .mount = true, .ipc = true, .raw_sockets = false},
                         "fuzz_enrollee");
    record_search(kestr::fuzz::kSearchMid24G, 0);
    record_search(kestr::fuzz::kSearchMid5G, 1);
    record_m1();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    std::vector<uint8_t> received(data + 1, data + size);
    if ((data[0] & 1) != 0) {
        if ((data[0] & 2) != 0)
            received = kestr::fuzz::with_kwa(received.data(), received.size());
        received = kestr::fuzz::wsc_frame(kestr::fuzz::sealed_m2(received.data(), received.size()),
                                          0x0400);
        if (received.empty())
            return 0;  // more than one M2 can seal
    }
    kestr::fuzz::Frame frame(received.data(), received.size());
    const std::vector<uint8_t> before(frame.data(), frame.data() + kCmduMaxFrameLen);

    msgApcloneProcessResponse(IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_RESPONSE, frame.data(),
                              frame.length());
    msgApcloneProcesM2(IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC, frame.data(), frame.length());

    KESTR_FUZZ_CHECK(std::memcmp(before.data(), frame.data(), before.size()) == 0);
    return 0;
}
