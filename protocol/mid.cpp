#include "protocol/mid.h"

#include <signal.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <mutex>

namespace {

static_assert(std::atomic<int32_t>::is_always_lock_free &&
                  std::atomic<uint32_t>::is_always_lock_free,
              "the set-up words are shared between processes and must not need a lock");

// How long a process waits for another one to finish setting up a fresh
// segment. A set-up takes microseconds; a claimant that has held the segment
// this long without finishing is presumed dead (see wait_until_ready).
constexpr std::chrono::milliseconds kSetUpGrace{1000};
constexpr useconds_t kSetUpPoll = 1000;

messageIdMem_t messageIdMem{};
// Null until this process is attached to a segment that is ready.
std::atomic<messageId_t*> messageId{nullptr};
// Two threads of one process (the main thread's Search, the receive task's M2)
// may make the first allocation at the same time; only one of them sets up.
std::mutex setUpLock;

struct ShmDetach {
    void operator()(void* addr) const { shmdt(addr); }
};
using Attachment = std::unique_ptr<void, ShmDetach>;

bool set_up_record(messageId_t* record) {
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0)
        return false;
    // Robust: a process killed while it holds the lock must not freeze
    // identifier allocation for every later process on the device.
    const bool ok = pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED) == 0 &&
                    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST) == 0 &&
                    pthread_mutex_init(&record->lock, &attr) == 0;
    pthread_mutexattr_destroy(&attr);
    if (!ok)
        return false;
    record->mid = 0;
    record->ready.store(kMessageIdReady, std::memory_order_release);
    return true;
}

bool process_is_gone(pid_t pid) {
    return kill(pid, 0) != 0 && errno == ESRCH;
}

// Exactly one process sets up a fresh segment: the one that claims it by
// writing its pid into `owner`. In practice that is the process that created
// the segment, a moment earlier. Everybody else waits until `ready` is set.
// A claimant that died half-way is replaced, but only after the grace period,
// so a slow claimant (or one whose pid means nothing in our pid namespace) is
// not overrun while it is still writing.
bool wait_until_ready(messageId_t* record) {
    const pid_t self = getpid();
    const auto deadline = std::chrono::steady_clock::now() + kSetUpGrace;
    for (;;) {
        if (record->ready.load(std::memory_order_acquire) == kMessageIdReady)
            return true;
        int32_t owner = record->owner.load(std::memory_order_acquire);
        const bool claimable =
            owner == 0 || owner == self ||
            (std::chrono::steady_clock::now() >= deadline && process_is_gone(owner));
        if (claimable) {
            if (record->owner.compare_exchange_strong(owner, self, std::memory_order_acq_rel)) {
                return set_up_record(record);
            }
            continue;  // somebody else claimed it first; wait for them
        }
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        usleep(kSetUpPoll);
    }
}

// Looks the segment up; creates it when there is none. The create is
// exclusive, so of two processes starting at the same instant exactly one
// creates and the other finds the segment on its next look-up.
int find_or_create(key_t key) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        int id = shmget(key, 0, kMessageIdPermissions);
        if (id >= 0 || errno != ENOENT)
            return id;
        id = shmget(key, sizeof(messageId_t), IPC_CREAT | IPC_EXCL | kMessageIdPermissions);
        if (id >= 0 || errno != EEXIST)
            return id;
    }
    return -1;
}

bool lock_counter(messageId_t* record) {
    const int rc = pthread_mutex_lock(&record->lock);
    if (rc == EOWNERDEAD) {
        // The previous holder died inside its read-and-increment. `mid` is
        // either the value it read (never handed out: it died before
        // returning it) or that value + 1; both are safe to continue from.
        pthread_mutex_consistent(&record->lock);
        return true;
    }
    return rc == 0;
}

}  // namespace

int32_t messageId_init() {
    if (messageId.load(std::memory_order_acquire) != nullptr)
        return 0;
    std::lock_guard<std::mutex> guard(setUpLock);
    if (messageId.load(std::memory_order_acquire) != nullptr)
        return 0;

    const key_t key = ftok(kMessageIdKeyFile, kMessageIdProjectId);
    if (key == -1)
        return -1;
    messageIdMem.key = key;

    const int id = find_or_create(key);
    if (id < 0)
        return -1;
    messageIdMem.id = id;

    // A segment of this key that cannot hold the record is not one of ours;
    // writing into it would run past its end.
    struct shmid_ds ds;
    if (shmctl(id, IPC_STAT, &ds) != 0 || ds.shm_segsz < sizeof(messageId_t))
        return -1;

    void* const addr = shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1))
        return -1;
    Attachment attachment(addr);
    auto* const record = static_cast<messageId_t*>(addr);
    if (!wait_until_ready(record))
        return -1;

    // Attached for the life of the process, on purpose.
    messageIdMem.addr = attachment.release();
    messageId.store(record, std::memory_order_release);
    return 0;
}

uint16_t messageId_getNext() {
    messageId_t* record = messageId.load(std::memory_order_acquire);
    if (record == nullptr) {
        messageId_init();
        record = messageId.load(std::memory_order_acquire);
        if (record == nullptr)
            return kMessageIdUnavailable;
    }
    if (!lock_counter(record))
        return kMessageIdUnavailable;
    const uint16_t next = record->mid;
    record->mid = static_cast<uint16_t>(next + 1);
    pthread_mutex_unlock(&record->lock);
    return next;
}

void messageId_reset() {
    messageId_t* const record = messageId.load(std::memory_order_acquire);
    if (record == nullptr || !lock_counter(record))
        return;
    record->mid = 0;
    pthread_mutex_unlock(&record->lock);
}

int IEEE19051_GenMid() {
    return messageId_getNext();
}

void IEEE19051_GenMidReset() {
    messageId_reset();
}
