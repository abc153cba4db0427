#include "daemon/kestrd_request_list.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include "os/pthread_utils.h"
#include "port/common/common.h"
#include "port/common/report.h"

namespace {

// Usable (empty, unlocked) even before IEEE19051_InitList runs.
struct list_head head = {&head, &head};
pthread_mutex_t listLock = PTHREAD_MUTEX_INITIALIZER;
int isInited = 0;
int threadId = -1;
std::atomic<int> threadIsRunning{0};
// The watcher's one-second wait between passes, which its stop cuts short.
std::mutex g_watcher_lock;
std::condition_variable g_watcher_stop;

std::mutex g_request_use;

void lock() {
    pthread_mutex_lock(&listLock);
}
void unlock() {
    pthread_mutex_unlock(&listLock);
}

IEEE19051_RequestRecord_t* record_of(struct list_head* node) {
    return kestr::outer_of<IEEE19051_RequestRecord_t>(node,
                                                      offsetof(IEEE19051_RequestRecord_t, node));
}

bool list_empty_locked() {
    return head.next == &head;
}

void list_append_locked(struct list_head* node) {
    node->prev = head.prev;
    node->next = &head;
    head.prev->next = node;
    head.prev = node;
}

void list_unlink_locked(struct list_head* node) {
    node->prev->next = node->next;
    node->next->prev = node->prev;
    node->next = node->prev = node;
}

// Records live in the list from their append to their removal; the list
// holds them by their links, so ownership passes through plain pointers:
// taken by the append, given back to these owners by the removal.
using RecordPtr = std::unique_ptr<IEEE19051_RequestRecord_t>;
using ExtraPtr = std::unique_ptr<RequestExtraDataM1_t>;

RecordPtr new_record() {
    try {
        return std::make_unique<IEEE19051_RequestRecord_t>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// Frees what the record owns; the record's copies of the pointer go with it.
void free_extra_locked(IEEE19051_RequestRecord_t* record) {
    ExtraPtr doomed(std::exchange(record->owned, nullptr));
    if (doomed != nullptr)
        record->info.extraData = nullptr;
}

void delete_locked(IEEE19051_RequestRecord_t* record) {
    list_unlink_locked(&record->node);
    free_extra_locked(record);
    RecordPtr doomed(record);
}

bool append(IEEE19051_Info_t info, ExtraPtr extra) {
    lock();
    RecordPtr record = new_record();
    if (record == nullptr) {
        KESTR_ERR_IN("IEEE19051_AddRequestRecord", "malloc error\n");
        unlock();
        return false;
    }
    if (extra != nullptr) {
        info.extraData = extra.get();
        info.extraDataType = RequestExtraDataType_M1;
    }
    record->info = info;
    record->owned = extra.release();
    list_append_locked(&record.release()->node);
    unlock();
    return true;
}

// The oldest record that `match` accepts, or null. Caller holds the lock.
template <typename Match>
IEEE19051_RequestRecord_t* find_locked(Match match) {
    for (struct list_head* n = head.next; n != &head; n = n->next) {
        IEEE19051_RequestRecord_t* record = record_of(n);
        if (match(record->info))
            return record;
    }
    return nullptr;
}

template <typename Match>
int copy_first(Match match, IEEE19051_Info_t* info) {
    lock();
    IEEE19051_RequestRecord_t* record = find_locked(match);
    if (record != nullptr && info != nullptr)
        *info = record->info;
    unlock();
    return record != nullptr ? 0 : -1;
}

bool expired(const IEEE19051_Info_t& info, const struct timespec& now) {
    return static_cast<long long>(now.tv_sec) - static_cast<long long>(info.sendAbsTime.tv_sec) >=
           static_cast<long long>(info.timeout);
}

// The watcher. The lock is dropped around each timeout handler, which may
// delete its own record (and only that one): the walk goes on from the
// successor noted before the call. Between passes it waits a second, or
// until it is stopped.
uint32_t run(void*) {
    while (threadIsRunning.load() != 0) {
        lock();
        struct list_head* n = head.next;
        while (n != &head) {
            const struct timespec now = getSysRunningTime();
            struct list_head* next = n->next;
            IEEE19051_RequestRecord_t* record = record_of(n);
            if (expired(record->info, now)) {
                IEEE19051_Info_t copy = record->info;
                if (copy.timeoutHandler != nullptr) {
                    unlock();
                    {
                        std::lock_guard<std::mutex> use(g_request_use);
                        copy.timeoutHandler(&copy);
                    }
                    lock();
                }
            }
            n = next;
        }
        unlock();
        std::unique_lock<std::mutex> wait(g_watcher_lock);
        g_watcher_stop.wait_for(wait, std::chrono::seconds(1),
                                [] { return threadIsRunning.load() == 0; });
    }
    return 0;
}

void createThread() {
    if (threadId != -1)
        return;
    threadIsRunning.store(1);
    threadId = OS_TaskSpawnParam("request_list", run, nullptr, nullptr);
    if (threadId == -1)
        threadIsRunning.store(0);
}

void deleteThread() {
    {
        // Under the wait's lock, so a watcher about to wait sees it first.
        std::lock_guard<std::mutex> hold(g_watcher_lock);
        threadIsRunning.store(0);
    }
    g_watcher_stop.notify_all();
    if (threadId != -1) {
        OS_TaskJoin(threadId);
        OS_TaskDelete(threadId);
        threadId = -1;
    }
}

}  // namespace

void IEEE19051_InitList() {
    if (isInited != 0)
        return;
    head.next = head.prev = &head;
    pthread_mutex_init(&listLock, nullptr);
    createThread();
    isInited = 1;
}

// Called once every other user of the list has stopped: what is still
// pending is freed with the lock it lived under.
void IEEE19051_UninitList() {
    if (isInited != 1)
        return;
    deleteThread();
    lock();
    while (!list_empty_locked())
        delete_locked(record_of(head.next));
    unlock();
    pthread_mutex_destroy(&listLock);
    isInited = 0;
}

void IEEE19051_AddRequestRecord(IEEE19051_Info_t info) {
    append(info, nullptr);
}

bool kestr::add_request(IEEE19051_Info_t info, std::unique_ptr<RequestExtraDataM1_t> extra) {
    return append(info, std::move(extra));
}

void kestr::release_extra(int mid) {
    lock();
    IEEE19051_RequestRecord_t* record =
        find_locked([mid](const IEEE19051_Info_t& r) { return r.mid == mid; });
    if (record != nullptr)
        free_extra_locked(record);
    unlock();
}

kestr::FrameView response_frame(void* response, void* responseLen) {
    const int len =
        responseLen != nullptr ? *static_cast<const int*>(responseLen) : kCmduMaxFrameLen;
    return kestr::FrameView(static_cast<const uint8_t*>(response),
                            len < 0 ? 0 : static_cast<size_t>(len));
}

int IEEE19051_GetRequestRecordInfoByMid(int /*type*/, int mid, IEEE19051_Info_t* info) {
    return copy_first([mid](const IEEE19051_Info_t& r) { return r.mid == mid; }, info);
}

int IEEE19051_GetRequestRecordInfoByEnrolleeNonce(u_int8_t* nonce, int type,
                                                  struct ether_addr destmac,
                                                  IEEE19051_Info_t* info) {
    if (nonce == nullptr)
        return -1;
    return copy_first(
        [&](const IEEE19051_Info_t& r) {
            if (r.msgType != type)
                return false;
            if (std::memcmp(r.destMac.ether_addr_octet, destmac.ether_addr_octet, 6) != 0)
                return false;
            if (r.extraData == nullptr)
                return false;
            const auto* m1 = static_cast<const RequestExtraDataM1_t*>(r.extraData);
            return std::memcmp(m1->enrollee_nonce, nonce, sizeof m1->enrollee_nonce) == 0;
        },
        info);
}

int IEEE19051_GetRequestRecordInfoByDestmac(int type, struct ether_addr destmac,
                                            IEEE19051_Info_t* info) {
    return copy_first(
        [&](const IEEE19051_Info_t& r) {
            return r.msgType == type &&
                   std::memcmp(r.destMac.ether_addr_octet, destmac.ether_addr_octet, 6) == 0;
        },
        info);
}

void IEEE19051_DelRequestRecordByMid(int mid) {
    lock();
    IEEE19051_RequestRecord_t* record =
        find_locked([mid](const IEEE19051_Info_t& r) { return r.mid == mid; });
    if (record != nullptr)
        delete_locked(record);
    unlock();
}

void IEEE19051_DelRequestRecord(IEEE19051_RequestRecord_t* record) {
    if (record == nullptr)
        return;
    lock();
    if (!list_empty_locked())
        delete_locked(record);
    unlock();
}

IEEE19051_RequestRecord_t* IEEE19051_GetFirstRequestRecord() {
    lock();
    IEEE19051_RequestRecord_t* record = list_empty_locked() ? nullptr : record_of(head.next);
    unlock();
    return record;
}

IEEE19051_RequestRecord_t* IEEE19051_GetNextRequestRecord(IEEE19051_RequestRecord_t* record) {
    if (record == nullptr)
        return nullptr;
    lock();
    IEEE19051_RequestRecord_t* next = nullptr;
    if (!list_empty_locked() && record->node.next != &head)
        next = record_of(record->node.next);
    unlock();
    return next;
}

int IEEE19051_ListEmpty() {
    lock();
    const int empty = list_empty_locked() ? 1 : 0;
    unlock();
    return empty;
}

void IEEE19051_LockRequestUse() {
    g_request_use.lock();
}
void IEEE19051_UnlockRequestUse() {
    g_request_use.unlock();
}
