#include "os/pthread_utils.h"

#include <cstdio>
#include <mutex>
#include <new>
#include <vector>

namespace {

// Task ids are indexes into this table plus one, so they are positive, never
// -1, and fit an int whatever the size of a pointer. The table is the only
// state shared between tasks; its lock also orders a detach against the end
// of the detached task.
struct Slot {
    OS_TASK* record = nullptr;
    bool finished = false;  // the task function has returned
};

std::mutex g_table_lock;
std::vector<Slot>& table() {
    static std::vector<Slot> slots;
    return slots;
}

int add_record(OS_TASK* record) {
    std::lock_guard<std::mutex> guard(g_table_lock);
    auto& slots = table();
    for (size_t i = 0; i < slots.size(); ++i) {
        if (slots[i].record == nullptr) {
            slots[i] = Slot{record, false};
            return static_cast<int>(i) + 1;
        }
    }
    slots.push_back(Slot{record, false});
    return static_cast<int>(slots.size());
}

// Caller holds g_table_lock.
Slot* find_slot_locked(int taskId) {
    auto& slots = table();
    if (taskId <= 0 || static_cast<size_t>(taskId) > slots.size())
        return nullptr;
    Slot* slot = &slots[static_cast<size_t>(taskId) - 1];
    return slot->record == nullptr ? nullptr : slot;
}

// The record of a task that its owner may still join or delete. A detached
// task is not one of them: its record may vanish at any moment.
OS_TASK* find_record(int taskId) {
    std::lock_guard<std::mutex> guard(g_table_lock);
    Slot* slot = find_slot_locked(taskId);
    if (slot == nullptr || slot->record->detached == 1)
        return nullptr;
    return slot->record;
}

void remove_record(OS_TASK* record) {
    std::lock_guard<std::mutex> guard(g_table_lock);
    for (Slot& slot : table()) {
        if (slot.record == record)
            slot = Slot{};
    }
}

void release_record(OS_TASK* record, const char* who) {
    if (pthread_attr_destroy(&record->attr) != 0) {
        std::printf("%s: pthread_attr_destroy failed!\n", who);
    }
    delete record;
}

}  // namespace

OS_STATUS OS_TaskSpawnParam(const char* strName, OS_FUNCPTR_PARAM func, void* pvParam,
                            void* pvStackBaseParam) {
    OS_TASK* record = new (std::nothrow) OS_TASK{};
    if (record == nullptr) {
        std::puts("OS_TaskSpawn: Could not allocate thread record!");
        return -1;
    }
    record->detached = 0;
    record->joined = 0;
    record->pvParam = pvParam;
    record->pvStackBase = pvStackBaseParam;
    record->pvFunction = func;
    record->strName = strName;

    if (pthread_attr_init(&record->attr) != 0) {
        std::printf("%s: ATTRIBUTE CREATION FAILED!\n", "OS_TaskSpawnParam");
        pthread_attr_destroy(&record->attr);
        delete record;
        return -1;
    }
    const int taskId = add_record(record);
    const int rc = pthread_create(&record->pthread, &record->attr, linuxThread, record);
    if (rc != 0) {
        std::printf("%s: Handle is NULL, iRetStatus:%d\n", "OS_TaskSpawnParam", rc);
        remove_record(record);
        pthread_attr_destroy(&record->attr);
        delete record;
        return -1;
    }
    return taskId;
}

// Runs after the task function has returned. Kept out of linuxThread so that
// the frame a cancellation unwinds holds no locals of its own.
__attribute__((noinline)) static void finish_task(OS_TASK* record) {
    bool release = false;
    {
        std::lock_guard<std::mutex> guard(g_table_lock);
        for (Slot& slot : table()) {
            if (slot.record != record)
                continue;
            if (record->detached == 1) {
                slot = Slot{};
                release = true;
            } else {
                slot.finished = true;
            }
        }
    }
    if (release)
        release_record(record, "linuxThread");
}

void* linuxThread(void* param) {
    auto* record = static_cast<OS_TASK*>(param);
    if (record == nullptr)
        pthread_exit(nullptr);

    std::printf("pthread tid:%u(name:%s)\n", static_cast<unsigned>(pthread_self()),
                record->strName);
    if (record->pvFunction != nullptr)
        record->pvFunction(record->pvParam);
    finish_task(record);
    pthread_exit(nullptr);
}

OS_STATUS OS_TaskJoin(int taskId) {
    if (taskId <= 0)
        return -1;
    OS_TASK* record = find_record(taskId);
    if (record == nullptr)
        return -1;
    if (record->joined == 1)
        return 0;
    if (pthread_join(record->pthread, nullptr) != 0)
        return -1;
    record->joined = 1;
    return 0;
}

void OS_TaskDelete(int taskId) {
    if (taskId <= 0)
        return;
    OS_TASK* record = find_record(taskId);
    if (record == nullptr)
        return;
    if (record->joined == 0) {
        const int rc = pthread_cancel(record->pthread);
        if (rc != 0) {
            std::printf("%s: pthread_cancel failed! ret status= %d, taskId:%d, name:%s\n",
                        "OS_TaskDelete", rc, taskId, record->strName);
        }
        OS_TaskJoin(taskId);
    }
    remove_record(record);
    release_record(record, "OS_TaskDelete");
}

void OS_TaskDetach(int taskId) {
    if (taskId == -1) {
        std::printf("%s: taskID is invalid, taskId:%d\n", "OS_TaskDetach", -1);
        return;
    }
    if (taskId == 0)
        return;

    OS_TASK* finished_record = nullptr;
    {
        std::lock_guard<std::mutex> guard(g_table_lock);
        Slot* slot = find_slot_locked(taskId);
        if (slot == nullptr || slot->record->detached == 1)
            return;
        OS_TASK* record = slot->record;
        const int rc = pthread_detach(record->pthread);
        if (rc != 0) {
            std::printf("%s: pthread_detach failed! ret status= %d, taskId:%d, name:%s\n",
                        "OS_TaskDetach", rc, taskId, record->strName);
        }
        record->detached = 1;
        // A task whose function has already returned will not come back to
        // release itself, so the detach does it.
        if (slot->finished) {
            finished_record = record;
            *slot = Slot{};
        }
    }
    if (finished_record != nullptr)
        release_record(finished_record, "linuxThread");
}

void OS_TaskExit() {
    pthread_exit(nullptr);
}
