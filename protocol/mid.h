// Message identifiers of the CMDUs this device originates.
//
// A reply is matched to its request by identifier, so identifiers must not
// repeat between the daemon processes of one device, whether they run side by
// side (the registrar daemon and a one-shot enrollee run) or one after the
// other. They come from one 16-bit counter in a System V shared-memory segment
// with a fixed key ("/proc/version", project 63, mode 0666), guarded by a
// robust process-shared mutex that lives in the same segment. The segment is
// never detached nor removed: the count survives every process and runs until
// the device restarts.
#pragma once

#include <pthread.h>
#include <sys/ipc.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>

constexpr const char* kMessageIdKeyFile = "/proc/version";
constexpr int kMessageIdProjectId = 63;  // '?'
constexpr int kMessageIdPermissions = 0666;
// Handed out when no segment can be had; also a regular value of the cycle.
constexpr uint16_t kMessageIdUnavailable = 0xFFFF;

// The record inside the shared segment. A fresh segment is zero-filled by the
// kernel; `owner` and `ready` make sure exactly one process sets up `lock`
// and `mid`, and that nobody touches them before that has finished.
typedef struct {
    pthread_mutex_t lock;         // process-shared, robust
    uint16_t mid;                 // the next identifier to hand out
    std::atomic<int32_t> owner;   // pid of the process that claimed the set-up, 0 before
    std::atomic<uint32_t> ready;  // kMessageIdReady once lock and mid are set up
} messageId_t;

constexpr uint32_t kMessageIdReady = 0x6D696431;  // "mid1"

// This process's view of the segment.
typedef struct {
    key_t key;
    int32_t id;
    void* addr;
} messageIdMem_t;

// Attaches to the shared counter, creating and setting it up when it does not
// exist yet. 0 on success (also when already attached), -1 on failure.
int32_t messageId_init();
// The next identifier, 0 after 65535; 65535 when the counter cannot be had
// (the set-up is tried again on the next call).
uint16_t messageId_getNext();
// Sets the shared counter back to 0. Never creates nor attaches the segment.
void messageId_reset();

int IEEE19051_GenMid();
void IEEE19051_GenMidReset();
