// The device-wide identifier counter. Every test first moves into a private
// IPC namespace, so it never touches the counter of a daemon running on the
// machine and starts on a device that has no segment yet.
#include "protocol/mid.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <numeric>
#include <thread>
#include <vector>

#include "tests/support/netns.h"

namespace {

#define ENTER_PRIVATE_IPC() KESTR_ENTER_NAMESPACES({.ipc = true, .bridge = false})
using Ids = std::vector<uint16_t>;

key_t counter_key() {
    return ftok(kMessageIdKeyFile, kMessageIdProjectId);
}

Ids allocate(int n) {
    Ids ids;
    while (n-- > 0)
        ids.push_back(static_cast<uint16_t>(IEEE19051_GenMid()));
    return ids;
}

// Starts `fn` in a forked process; read_ids() collects what it reported.
struct Child {
    pid_t pid = -1;
    int fd = -1;
    explicit Child(const std::function<Ids()>& fn) {
        int fds[2];
        if (pipe(fds) != 0)
            return;
        pid = fork();
        if (pid == 0) {
            const Ids ids = fn();
            const auto bytes = static_cast<ssize_t>(ids.size() * sizeof(uint16_t));
            _exit(write(fds[1], ids.data(), static_cast<size_t>(bytes)) == bytes ? 0 : 1);
        }
        close(fds[1]);
        fd = fds[0];
    }
    Ids read_ids() {
        Ids ids;
        uint16_t id;
        while (read(fd, &id, sizeof id) == static_cast<ssize_t>(sizeof id))
            ids.push_back(id);
        close(fd);
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        return ids;
    }
};

Ids in_child(const std::function<Ids()>& fn) {
    return Child(fn).read_ids();
}

TEST(MessageId, CountsWrapsAndResetsAcrossProcesses) {
    ENTER_PRIVATE_IPC();
    IEEE19051_GenMidReset();  // before any allocation: creates nothing
    EXPECT_LT(shmget(counter_key(), 0, 0666), 0);

    EXPECT_EQ(allocate(2), (Ids{0, 1}));
    // A process started while this one is attached continues the count, and
    // so does one started after that one has ended.
    EXPECT_EQ(in_child([] { return allocate(2); }), (Ids{2, 3}));
    EXPECT_EQ(in_child([] { return allocate(1); }), Ids{4});
    EXPECT_EQ(IEEE19051_GenMid(), 5);

    for (int i = 6; i < 65535; ++i)
        ASSERT_EQ(IEEE19051_GenMid(), i);
    EXPECT_EQ(allocate(2), (Ids{65535, 0}));  // 65535 is a regular value

    // A reset in one process restarts the count for all of them.
    in_child([] {
        IEEE19051_GenMidReset();
        return Ids{};
    });
    EXPECT_EQ(IEEE19051_GenMid(), 0);
}

// Processes and threads that all make their first allocation at the same
// moment on a device without a segment: one creates it, one sets it up, and
// together they receive exactly 0..N-1.
TEST(MessageId, RacingProcessesAndThreadsGetEveryIdentifierOnce) {
    ENTER_PRIVATE_IPC();
    constexpr int kProcesses = 4, kThreads = 2, kEach = 3000;
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    std::vector<Child> children;
    for (int p = 0; p < kProcesses; ++p) {
        children.emplace_back([&] {
            char start;
            if (read(go[0], &start, 1) != 1)
                return Ids{};
            Ids mine[kThreads], all;
            std::vector<std::thread> threads;
            for (auto& m : mine)
                threads.emplace_back([&m] { m = allocate(kEach); });
            for (auto& t : threads)
                t.join();
            for (const auto& m : mine)
                all.insert(all.end(), m.begin(), m.end());
            return all;
        });
    }
    ASSERT_EQ(write(go[1], "gggg", kProcesses), kProcesses);
    Ids all;
    for (auto& c : children) {
        const Ids ids = c.read_ids();
        all.insert(all.end(), ids.begin(), ids.end());
    }
    std::sort(all.begin(), all.end());
    Ids expected(kProcesses * kThreads * kEach);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(all, expected);
}

TEST(MessageId, ProcessKilledWhileHoldingTheLockDoesNotFreezeAllocation) {
    ENTER_PRIVATE_IPC();
    ASSERT_EQ(IEEE19051_GenMid(), 0);
    int locked[2];
    ASSERT_EQ(pipe(locked), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        auto* record = static_cast<messageId_t*>(shmat(shmget(counter_key(), 0, 0666), nullptr, 0));
        if (pthread_mutex_lock(&record->lock) != 0 || write(locked[1], "L", 1) != 1)
            _exit(1);
        pause();
        _exit(0);
    }
    char c = 0;
    ASSERT_EQ(read(locked[0], &c, 1), 1);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);

    // A frozen lock ends the test (and its child) instead of hanging it.
    alarm(30);
    EXPECT_EQ(in_child([] {
                  alarm(10);
                  return allocate(1);
              }),
              Ids{1});
    EXPECT_EQ(allocate(2), (Ids{2, 3}));
    alarm(0);
}

TEST(MessageId, WithoutKeyFileEveryCallYields65535AndRetries) {
    ENTER_PRIVATE_IPC();
    ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(messageId_init(), -1);
    EXPECT_EQ(allocate(2), (Ids{65535, 65535}));
    ASSERT_EQ(umount2("/proc", MNT_DETACH), 0);
    EXPECT_EQ(allocate(2), (Ids{0, 1}));
}

// Segments of our key that this process did not make. Each case runs in a
// process of its own with an IPC namespace of its own.
TEST(MessageId, ForeignAndHalfMadeSegments) {
    ENTER_PRIVATE_IPC();
    const pid_t dead = fork();
    if (dead == 0)
        _exit(0);
    waitpid(dead, nullptr, 0);
    struct Case {
        const char* what;
        size_t size;
        pid_t owner;  // written into the record; -1: record left alone
        Ids first_two;
    };
    const Case cases[] = {
        {"too small for the record", 4, -1, {65535, 65535}},
        {"created by a process that died before claiming it", sizeof(messageId_t), 0, {0, 1}},
        {"claimed by a process that died while setting it up", sizeof(messageId_t), dead, {0, 1}},
        {"claimed by a live process that never finishes",
         sizeof(messageId_t),
         getpid(),
         {65535, 65535}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(in_child([&c] {
                      const int id =
                          unshare(CLONE_NEWIPC) == 0
                              ? shmget(counter_key(), c.size, IPC_CREAT | IPC_EXCL | 0666)
                              : -1;
                      if (id < 0)
                          return Ids{};
                      if (c.owner >= 0) {
                          auto* record = static_cast<messageId_t*>(shmat(id, nullptr, 0));
                          record->owner.store(c.owner);
                          record->mid = 999;  // a set-up that ran must have cleared this
                      }
                      return allocate(2);
                  }),
                  c.first_two)
            << c.what;
    }
}

}  // namespace
