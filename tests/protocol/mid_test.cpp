// The device-wide message-identifier counter. Every test moves into a private
// IPC namespace first, so it never touches the counter of a daemon running on
// the machine and starts on a device that has no segment yet.
#include "protocol/mid.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <tuple>

#include "tests/support/netns.h"

namespace {

#define ENTER_PRIVATE_IPC() KESTR_ENTER_NAMESPACES({.ipc = true, .bridge = false})
using Ids = std::vector<uint16_t>;

// The key every process of the device finds the counter by.
key_t counter_key() {
    return ftok("/proc/version", 63);
}

Ids allocate(int n) {
    Ids ids;
    while (n-- > 0)
        ids.push_back(static_cast<uint16_t>(IEEE19051_GenMid()));
    return ids;
}

// Starts `fn` in a forked process; collect() gathers what it allocated and
// reaps it.
int spawn(const std::function<Ids()>& fn) {
    int fds[2] = {-1, -1};
    if (pipe(fds) == 0 && fork() == 0) {
        const Ids ids = fn();
        _exit(write(fds[1], ids.data(), ids.size() * 2) < 0);
    }
    close(fds[1]);
    return fds[0];
}

Ids collect(int fd) {
    Ids ids(30000);
    size_t n = 0;
    for (ssize_t got; (got = read(fd, reinterpret_cast<char*>(ids.data()) + n, 4096)) > 0;)
        n += size_t(got);
    close(fd), wait(nullptr);
    ids.resize(n / 2);
    return ids;
}

TEST(MessageIds, CountAcrossProcessesWrapsResetsAndSurvivesADeadHolder) {
    ENTER_PRIVATE_IPC();
    IEEE19051_GenMidReset();  // before any allocation: creates nothing
    EXPECT_LT(shmget(counter_key(), 0, 0666), 0);
    EXPECT_EQ(allocate(2), (Ids{0, 1}));
    // A process started while this one is attached continues the count, and
    // so does one started after that one has ended.
    EXPECT_EQ(collect(spawn([] { return allocate(2); })), (Ids{2, 3}));
    EXPECT_EQ(collect(spawn([] { return allocate(1); })), Ids{4});
    for (int i = 5; i < 65535; ++i)
        ASSERT_EQ(IEEE19051_GenMid(), i);
    EXPECT_EQ(allocate(2), (Ids{65535, 0}));
    collect(spawn([] { return IEEE19051_GenMidReset(), Ids{}; }));  // for every process
    EXPECT_EQ(IEEE19051_GenMid(), 0);
    // A process that dies holding the lock, as a killed one does, costs the
    // next one a recovery, not a frozen counter.
    collect(spawn([] {
        auto* record = static_cast<messageId_t*>(shmat(shmget(counter_key(), 0, 0), nullptr, 0));
        return pthread_mutex_lock(&record->lock), Ids{};
    }));
    alarm(30);  // a frozen lock ends the test instead of hanging it
    EXPECT_EQ(collect(spawn([] { return alarm(10), allocate(1); })), Ids{1});
    EXPECT_EQ(allocate(2), (Ids{2, 3}));
    alarm(0);
}

// Segments of our key that another process made, each on a device (an IPC
// namespace) of its own. A claimant that never finishes the set-up is
// replaced after a grace period when it is gone, never while it lives; one
// whose pid means nothing here is not overrun while it is still writing.
TEST(MessageIds, SegmentsOthersMadeOrLeftHalfSetUp) {
    ENTER_PRIVATE_IPC();
    const pid_t gone = fork();
    if (gone == 0)
        _exit(0);
    waitpid(gone, nullptr, 0);
    // The segment's size, who claimed it (-1: not a record), whether the
    // claimant finishes, and the first two identifiers of a process after it.
    const std::tuple<const char*, size_t, pid_t, bool, Ids> cases[] = {
        {"too small for the record", 4, -1, false, {65535, 65535}},
        {"created, never claimed", sizeof(messageId_t), 0, false, {0, 1}},
        {"claimant died setting it up", sizeof(messageId_t), gone, false, {0, 1}},
        {"claimant lives and never finishes", sizeof(messageId_t), getpid(), false, {65535, 65535}},
        {"claimant looks gone but finishes", sizeof(messageId_t), gone, true, {999, 1000}},
    };
    for (const auto& [what, size, owner, finishes, first_two] : cases) {
        ASSERT_EQ(unshare(CLONE_NEWIPC), 0);
        const int id = shmget(counter_key(), size, IPC_CREAT | IPC_EXCL | 0666);
        auto* record = static_cast<messageId_t*>(shmat(id, nullptr, 0));
        if (owner >= 0)
            record->owner.store(owner), record->mid = 999;  // a set-up by anybody else clears it
        const int child = spawn([] { return allocate(2); });
        if (finishes) {  // a default mutex of zeros will do for one child
            usleep(100 * 1000);
            record->ready.store(kMessageIdReady);
        }
        EXPECT_EQ(collect(child), first_two) << what;
        shmdt(record);
    }
}

}  // namespace
