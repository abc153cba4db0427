#include "os/pthread_utils.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <thread>

#include "tests/support/capture.h"

namespace {

using kestr::test::capture_output;

std::atomic<int> g_runs{0};

uint32_t count_once(void* arg) {
    g_runs.fetch_add(1);
    if (arg != nullptr)
        static_cast<std::atomic<int>*>(arg)->store(1);
    return 0;
}

uint32_t spin_until_cleared(void* arg) {
    auto* running = static_cast<std::atomic<int>*>(arg);
    while (running->load() != 0)
        usleep(1000);  // a cancellation point
    return 0;
}

uint32_t sleep_forever(void*) {
    for (;;)
        usleep(100000);
}

TEST(Tasks, SpawnPrintsItsLineJoinTwiceDelete) {
    std::atomic<int> ran{0};
    int id = -1;
    const auto out = capture_output([&] {
        id = OS_TaskSpawnParam("worker", count_once, &ran, nullptr);
        ASSERT_GT(id, 0);
        EXPECT_EQ(OS_TaskJoin(id), 0);
        EXPECT_EQ(OS_TaskJoin(id), 0);  // already joined: at once
        OS_TaskDelete(id);              // joined: no cancel, just released
    });
    EXPECT_EQ(ran.load(), 1);
    EXPECT_TRUE(std::regex_match(out.out, std::regex("pthread tid:[0-9]+\\(name:worker\\)\n")))
        << out.out;
    EXPECT_EQ(OS_TaskJoin(id), -1);  // the id is gone after delete
}

TEST(Tasks, DeleteCancelsARunningTask) {
    const int id = OS_TaskSpawnParam("stuck", sleep_forever, nullptr, nullptr);
    ASSERT_GT(id, 0);
    usleep(20000);
    const auto out = capture_output([&] { OS_TaskDelete(id); });
    EXPECT_EQ(out.out, "");  // cancellation succeeded: nothing printed
    EXPECT_EQ(OS_TaskJoin(id), -1);
}

TEST(Tasks, InvalidIdsAreRefusedQuietly) {
    const auto out = capture_output([] {
        EXPECT_EQ(OS_TaskJoin(0), -1);
        EXPECT_EQ(OS_TaskJoin(-1), -1);
        EXPECT_EQ(OS_TaskJoin(123456), -1);
        OS_TaskDelete(0);
        OS_TaskDelete(-1);
        OS_TaskDelete(123456);
        OS_TaskDetach(0);
    });
    EXPECT_EQ(out.out, "");
    const auto detach = capture_output([] { OS_TaskDetach(-1); });
    EXPECT_EQ(detach.out, "OS_TaskDetach: taskID is invalid, taskId:-1\n");
}

// Tasks that stop by themselves once told to: joined, then released.
TEST(Tasks, IdsArePositiveDistinctAndReused) {
    std::atomic<int> running{1};
    std::vector<int> ids;
    for (int i = 0; i < 20; ++i) {
        const int id = OS_TaskSpawnParam("many", spin_until_cleared, &running, nullptr);
        ASSERT_GT(id, 0);
        for (int other : ids)
            EXPECT_NE(id, other);
        ids.push_back(id);
    }
    running.store(0);
    for (int id : ids) {
        EXPECT_EQ(OS_TaskJoin(id), 0);
        OS_TaskDelete(id);
    }
    const int again = OS_TaskSpawnParam("again", count_once, nullptr, nullptr);
    EXPECT_GT(again, 0);
    EXPECT_LE(again, 20);  // a freed slot is reused: ids stay small
    OS_TaskJoin(again);
    OS_TaskDelete(again);
}

TEST(Tasks, DetachedTasksReleaseThemselves) {
    // Detach before and after the task function returns; neither leaks (the
    // sanitizer build checks) and the id is unusable afterwards.
    std::atomic<int> running{1};
    const int early = OS_TaskSpawnParam("early", spin_until_cleared, &running, nullptr);
    ASSERT_GT(early, 0);
    OS_TaskDetach(early);
    running.store(0);

    std::atomic<int> done{0};
    const int late = OS_TaskSpawnParam("late", count_once, &done, nullptr);
    ASSERT_GT(late, 0);
    while (done.load() == 0)
        usleep(1000);
    usleep(20000);
    OS_TaskDetach(late);

    EXPECT_EQ(OS_TaskJoin(early), -1);  // detached ids cannot be joined
    EXPECT_EQ(OS_TaskJoin(late), -1);
    usleep(50000);  // let "early" leave; the leak checker runs at exit
}

}  // namespace
