// How an enrollee run stands and how it ends.
//
// A process makes at most one enrollee run. It is driven by the time-outs of
// its pending requests (the Search and each M1): requestTimeout, the timeout
// handler of both, removes the expired request, frees what it kept and
// decides the outcome, which ends the process.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "daemon/kestrd_request_list.h"

namespace kestr {

// The run-state words, each written by one thread and read by another, and
// the end of the run, which the main thread waits for.
struct RunState {
    // 0 while the run goes on; 1 when it ended without an M2; 2 when it
    // ended after an M2 was handled. The main thread ends the process when
    // it is non-zero.
    std::atomic<int> process_completed{0};
    // 1 once any Response reached the Search's response handler.
    std::atomic<int> receive_response{0};
    // 1 once a WSC message was matched to an M1 request and handed to it.
    std::atomic<int> M2_decrypt_success{0};
    // M1 requests recorded: a run whose Responses all failed to start a
    // registration has none, and ends when its Search expires.
    std::atomic<int> m1_recorded{0};

    // Stores `state` in process_completed (setProcessState) and, when it
    // ends the run, wakes the main thread's wait at once.
    void end(int state);
    // The main thread's wait: until the run has ended or `bound` has passed.
    // Whether it has ended.
    bool wait_for_end(std::chrono::milliseconds bound);

  private:
    std::mutex lock_;
    std::condition_variable ended_;
};
extern RunState run_state;

// The outcome of the run once `request` has expired.
int requestTimeout(const IEEE19051_Info_t& request);

}  // namespace kestr

void setProcessState(int state);
// The timeout handler of Search and M1 requests.
int requestTimeout(void* requestInfo);
// Frees what an M1 request keeps (its key pair and M1) and clears the
// copy's pointer to it.
void releaseRequestRecord(IEEE19051_Info_t* info);
