// The task wrapper: a task's life from spawn to delete or detach, and what a
// failed thread start leaves behind (nothing).
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <limits>
#include <string>

#include "os/pthread_utils.h"
#include "tests/support/capture.h"

namespace {

using kestr::test::capture_output;

std::atomic<int> g_started{0};

// Runs until its flag is cleared (sleeping is a cancellation point).
uint32_t until_cleared(void* flag) {
    ++g_started;
    while (static_cast<std::atomic<int>*>(flag)->load() != 0)
        usleep(1000);
    return 0;
}

TEST(Tasks, SpawnJoinDeleteDetach) {
    std::atomic<int> running{1};
    std::atomic<int> done{0};
    capture_output([&] {
        const int stuck = OS_TaskSpawnParam("stuck", until_cleared, &running, nullptr);
        const int quick = OS_TaskSpawnParam("quick", until_cleared, &done, nullptr);
        ASSERT_TRUE(stuck > 0 && quick > 0);
        EXPECT_NE(stuck, quick);
        EXPECT_EQ(OS_TaskJoin(quick), 0);
        EXPECT_EQ(OS_TaskJoin(quick), 0);  // joined already: at once
        OS_TaskDelete(quick);              // after a join: no cancel
        while (g_started.load() < 2)       // "stuck" has printed its line
            usleep(1000);
        OS_TaskDelete(stuck);  // still running: cancelled, joined, released
        for (const int id : {quick, stuck, 0, -1}) {
            EXPECT_EQ(OS_TaskJoin(id), -1) << id;
            OS_TaskDelete(id);
        }
        OS_TaskDetach(0);
        OS_TaskDetach(-1);
    });

    // Detached before and after its function returns, a task releases its
    // record (the leak check of the sanitizer build); its id is dead.
    const int early = OS_TaskSpawnParam("early", until_cleared, &running, nullptr);
    const int late = OS_TaskSpawnParam("late", until_cleared, &done, nullptr);
    OS_TaskDetach(early);
    usleep(50000);
    OS_TaskDetach(late);
    EXPECT_EQ(OS_TaskJoin(early), -1);
    EXPECT_EQ(OS_TaskJoin(late), -1);
    // Once "early" has left, its id is free again. Waiting for that (under the
    // wrapper's lock) also keeps it from outliving the wrapper's table at exit.
    running.store(0);
    for (int probe = -1; probe != early; OS_TaskDelete(probe)) {
        probe = OS_TaskSpawnParam("probe", until_cleared, &done, nullptr);
        OS_TaskJoin(probe);
    }
}

// A default stack larger than the address space: no thread can start. The
// spawn says so and keeps nothing: its record is freed (leak check) and its
// id is the next spawn's again.
TEST(Tasks, FailedStartLeavesNothingBehind) {
    std::atomic<int> done{0};
    const int first = OS_TaskSpawnParam("first", until_cleared, &done, nullptr);
    EXPECT_EQ(OS_TaskJoin(first), 0);
    OS_TaskDelete(first);

    pthread_attr_t saved, huge;
    ASSERT_EQ(pthread_getattr_default_np(&saved), 0);
    pthread_attr_init(&huge);
    // Three quarters of the address space, on 32-bit targets too.
    pthread_attr_setstacksize(&huge, std::numeric_limits<size_t>::max() / 4 * 3 & ~size_t{0xFFFF});
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    int failed = 0;
    const auto out = capture_output(
        [&] { failed = OS_TaskSpawnParam("doomed", until_cleared, &done, nullptr); });
    pthread_setattr_default_np(&saved);
    pthread_attr_destroy(&huge);
    pthread_attr_destroy(&saved);
    EXPECT_EQ(failed, -1);
    EXPECT_EQ(out.out,
              "OS_TaskSpawnParam: Handle is NULL, iRetStatus:" + std::to_string(EAGAIN) + "\n");

    const int later = OS_TaskSpawnParam("later", until_cleared, &done, nullptr);
    EXPECT_EQ(later, first);
    EXPECT_EQ(OS_TaskJoin(later), 0);
    OS_TaskDelete(later);
}

}  // namespace
