// Named, joinable tasks over POSIX threads, addressed by positive integer ids.
//
// Each task prints "pthread tid:%u(name:%s)\n" when it starts. A task is
// stopped cooperatively: its owner clears the task's own running flag, joins
// it and deletes it, then sets its copy of the id back to -1.
#pragma once

#include <pthread.h>

#include <cstdint>

typedef uint32_t (*OS_FUNCPTR_PARAM)(void*);
typedef int OS_STATUS;

typedef struct tagThreadRecord {
    OS_FUNCPTR_PARAM pvFunction;
    void* pvParam;
    void* pvStackBase;  // kept, not applied to the thread
    pthread_t pthread;
    pthread_attr_t attr;
    const char* strName;  // not copied: must outlive the task
    int detached;
    int joined;
} OS_TASK;

// The new task's id (> 0), or -1.
OS_STATUS OS_TaskSpawnParam(const char* strName, OS_FUNCPTR_PARAM func, void* pvParam,
                            void* pvStackBaseParam);
// 0 once the task has ended and been joined (again 0 on a second call), else -1.
OS_STATUS OS_TaskJoin(int taskId);
// Cancels and joins a task not yet joined, then releases it.
void OS_TaskDelete(int taskId);
// From now on the task releases itself when its function returns.
void OS_TaskDetach(int taskId);
[[noreturn]] void OS_TaskExit();

void* linuxThread(void* param);
