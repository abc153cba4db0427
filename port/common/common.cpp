#include "port/common/common.h"

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

int get_random_number() {
    struct timeval tv {};
    gettimeofday(&tv, nullptr);
    srand(static_cast<unsigned>(tv.tv_usec));
    const double r = static_cast<double>(rand());
    return static_cast<int>(r * 100.0 / 2147483648.0) + 1;
}
