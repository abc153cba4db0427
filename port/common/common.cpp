#include "port/common/common.h"

#include <poll.h>
#include <sys/select.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdlib>

struct timespec getSysRunningTime() {
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

int read_timeout(int fd, unsigned int wait_seconds) {
    if (wait_seconds == 0)
        return 0;
    if (fd < 0 || fd >= FD_SETSIZE) {
        errno = EBADF;
        return -1;
    }
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    struct timeval left {};
    left.tv_sec = static_cast<time_t>(wait_seconds);
    int ready;
    do {
        // Linux leaves the time not yet waited in `left`, so an interrupted
        // wait resumes with what remains.
        ready = select(fd + 1, &readable, nullptr, nullptr, &left);
    } while (ready < 0 && errno == EINTR);
    if (ready < 0)
        return ready;
    if (ready == 0) {
        errno = ETIMEDOUT;
        return -1;
    }
    return 0;
}

int read_timeout_or_wake(int fd, int wake_fd, unsigned int wait_seconds) {
    if (wait_seconds == 0)
        return 0;
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    // A negative descriptor is skipped by poll: no wake-up, only the wait.
    struct pollfd watched[2] = {{fd, POLLIN, 0}, {wake_fd, POLLIN, 0}};
    const struct timespec start = getSysRunningTime();
    const long long bound_ms = static_cast<long long>(wait_seconds) * 1000;
    int ready;
    for (;;) {
        const struct timespec now = getSysRunningTime();
        const long long waited_ms =
            (now.tv_sec - start.tv_sec) * 1000LL + (now.tv_nsec - start.tv_nsec) / 1000000;
        const long long left_ms = bound_ms > waited_ms ? bound_ms - waited_ms : 0;
        ready = poll(watched, 2, static_cast<int>(left_ms));
        if (ready >= 0 || errno != EINTR)
            break;
    }
    if (ready < 0)
        return -1;
    if (watched[1].revents != 0) {
        errno = ECANCELED;
        return -1;
    }
    if (ready == 0) {
        errno = ETIMEDOUT;
        return -1;
    }
    if ((watched[0].revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    // Readable, or an error the read will report.
    return 0;
}

int get_random_number() {
    struct timeval tv {};
    gettimeofday(&tv, nullptr);
    srand(static_cast<unsigned>(tv.tv_usec));
    const double r = static_cast<double>(rand());
    return static_cast<int>(r * 100.0 / 2147483648.0) + 1;
}
