// The device-wide identifier counter. Every test moves into a private IPC
// namespace first, so it never touches the counter of a daemon running on the
// machine, and starts from a device that has no segment yet.
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

key_t counter_key() {
    return ftok(kMessageIdKeyFile, kMessageIdProjectId);
}

bool segment_exists() {
    return shmget(counter_key(), 0, kMessageIdPermissions) >= 0;
}

// The shared record as another process sees it, attached independently of
// the allocator's own bookkeeping.
messageId_t* attach_by_hand() {
    const int id = shmget(counter_key(), 0, kMessageIdPermissions);
    if (id < 0)
        return nullptr;
    void* addr = shmat(id, nullptr, 0);
    return addr == reinterpret_cast<void*>(-1) ? nullptr : static_cast<messageId_t*>(addr);
}

// Runs `fn` in a forked process and returns the identifiers it reports.
std::vector<uint16_t> in_child(const std::function<std::vector<uint16_t>()>& fn) {
    int fds[2];
    if (pipe(fds) != 0)
        return {};
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        const auto ids = fn();
        const ssize_t want = static_cast<ssize_t>(ids.size() * sizeof(uint16_t));
        _exit(write(fds[1], ids.data(), static_cast<size_t>(want)) == want ? 0 : 1);
    }
    close(fds[1]);
    std::vector<uint16_t> ids;
    uint16_t id;
    while (read(fds[0], &id, sizeof id) == static_cast<ssize_t>(sizeof id))
        ids.push_back(id);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    return ids;
}

std::vector<uint16_t> allocate(int n) {
    std::vector<uint16_t> ids;
    for (int i = 0; i < n; ++i)
        ids.push_back(static_cast<uint16_t>(IEEE19051_GenMid()));
    return ids;
}

TEST(MessageId, CountsFromZeroWrapsAndResetsForEveryProcess) {
    ENTER_PRIVATE_IPC();
    // A reset before the first allocation neither creates nor attaches.
    IEEE19051_GenMidReset();
    EXPECT_FALSE(segment_exists());

    EXPECT_EQ(allocate(3), (std::vector<uint16_t>{0, 1, 2}));
    IEEE19051_GenMidReset();
    EXPECT_EQ(IEEE19051_GenMid(), 0);

    // 65535 is a regular identifier and is followed by 0.
    for (int i = 1; i < 65535; ++i)
        ASSERT_EQ(IEEE19051_GenMid(), i);
    EXPECT_EQ(allocate(3), (std::vector<uint16_t>{65535, 0, 1}));

    // A reset in one process restarts the count for all of them.
    EXPECT_EQ(in_child([] {
                  IEEE19051_GenMidReset();
                  return std::vector<uint16_t>{};
              }),
              std::vector<uint16_t>{});
    EXPECT_EQ(IEEE19051_GenMid(), 0);
}

TEST(MessageId, LaterAndConcurrentProcessesContinueTheCount) {
    ENTER_PRIVATE_IPC();
    EXPECT_EQ(allocate(2), (std::vector<uint16_t>{0, 1}));
    // Started while this process is attached, and after it has allocated.
    EXPECT_EQ(in_child([] { return allocate(3); }), (std::vector<uint16_t>{2, 3, 4}));
    // Started after another process has ended: the segment outlives it.
    EXPECT_EQ(in_child([] { return allocate(1); }), std::vector<uint16_t>{5});
    EXPECT_EQ(IEEE19051_GenMid(), 6);
}

// Processes and threads that all make their first allocation at the same
// moment on a device without a segment: one creates it, one sets it up, and
// the identifiers handed out are exactly 0..N-1.
TEST(MessageId, RacingProcessesAndThreadsGetEveryIdentifierOnce) {
    ENTER_PRIVATE_IPC();
    constexpr int kProcesses = 4;
    constexpr int kThreads = 2;
    constexpr int kEach = 3000;

    int go[2];
    ASSERT_EQ(pipe(go), 0);
    std::vector<int> results;
    std::vector<pid_t> pids;
    for (int p = 0; p < kProcesses; ++p) {
        int out[2];
        ASSERT_EQ(pipe(out), 0);
        const pid_t pid = fork();
        if (pid == 0) {
            char start;
            if (read(go[0], &start, 1) != 1)
                _exit(2);
            std::vector<uint16_t> ids[kThreads];
            std::vector<std::thread> threads;
            for (auto& mine : ids)
                threads.emplace_back([&mine] { mine = allocate(kEach); });
            for (auto& t : threads)
                t.join();
            for (const auto& mine : ids) {
                const size_t bytes = mine.size() * sizeof(uint16_t);
                if (write(out[1], mine.data(), bytes) != static_cast<ssize_t>(bytes))
                    _exit(3);
            }
            _exit(0);
        }
        close(out[1]);
        results.push_back(out[0]);
        pids.push_back(pid);
    }
    ASSERT_FALSE(segment_exists());
    const std::string starts(kProcesses, 'g');
    ASSERT_EQ(write(go[1], starts.data(), starts.size()), kProcesses);

    std::vector<uint16_t> all;
    for (const int fd : results) {
        uint16_t id;
        while (read(fd, &id, sizeof id) == static_cast<ssize_t>(sizeof id))
            all.push_back(id);
        close(fd);
    }
    for (const pid_t pid : pids) {
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    std::sort(all.begin(), all.end());
    std::vector<uint16_t> expected(kProcesses * kThreads * kEach);
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
        messageId_t* record = attach_by_hand();
        if (record == nullptr || pthread_mutex_lock(&record->lock) != 0)
            _exit(1);
        if (write(locked[1], "L", 1) != 1)
            _exit(1);
        pause();
        _exit(0);
    }
    char c = 0;
    ASSERT_EQ(read(locked[0], &c, 1), 1);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);

    // A frozen lock ends the test (and the process waiting in it) instead of
    // hanging it.
    alarm(30);
    EXPECT_EQ(in_child([] {
                  alarm(10);
                  return allocate(1);
              }),
              std::vector<uint16_t>{1});
    EXPECT_EQ(allocate(2), (std::vector<uint16_t>{2, 3}));
    IEEE19051_GenMidReset();
    EXPECT_EQ(IEEE19051_GenMid(), 0);
    alarm(0);
}

TEST(MessageId, WithoutKeyFileEveryCallYields65535AndRetries) {
    ENTER_PRIVATE_IPC();
    ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(messageId_init(), -1);
    EXPECT_EQ(allocate(2), (std::vector<uint16_t>{65535, 65535}));
    IEEE19051_GenMidReset();
    ASSERT_EQ(umount2("/proc", MNT_DETACH), 0);
    EXPECT_FALSE(segment_exists());
    EXPECT_EQ(allocate(2), (std::vector<uint16_t>{0, 1}));
    EXPECT_EQ(messageId_init(), 0);
}

// Segments of our key that this process did not make itself. Each case runs
// in a process of its own with an IPC namespace of its own.
TEST(MessageId, ForeignAndHalfMadeSegments) {
    ENTER_PRIVATE_IPC();
    const pid_t dead = fork();
    if (dead == 0)
        _exit(0);
    waitpid(dead, nullptr, 0);

    struct Case {
        const char* what;
        size_t size;
        pid_t owner;  // written into the record; -1: leave the record alone
        std::vector<uint16_t> first_two;
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
        const auto got = in_child([&c] {
            if (unshare(CLONE_NEWIPC) != 0)
                return std::vector<uint16_t>{};
            const int id = shmget(counter_key(), c.size, IPC_CREAT | IPC_EXCL | 0666);
            if (id < 0)
                return std::vector<uint16_t>{};
            if (c.owner >= 0) {
                auto* record = static_cast<messageId_t*>(shmat(id, nullptr, 0));
                record->owner.store(c.owner);
                record->mid = 999;  // a set-up that ran must have cleared this
                shmdt(record);
            }
            return allocate(2);
        });
        EXPECT_EQ(got, c.first_two) << c.what;
    }
}

}  // namespace
