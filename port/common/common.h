// Clock, descriptor wait and random-number helpers shared by all modules.
#pragma once

#include <time.h>

// The monotonic clock now; all request time stamps come from here, so setting
// the time of day never ages or rejuvenates a pending request.
struct timespec getSysRunningTime();

// 0 when `fd` became readable within `wait_seconds`; -1 on time-out (errno
// ETIMEDOUT) or error. A wait of 0 returns 0 at once and leaves the caller's
// read to block.
int read_timeout(int fd, unsigned int wait_seconds);

// The same wait, cut short when `wake_fd` becomes readable: -1 with errno
// ECANCELED then, even if `fd` is readable too. A negative `wake_fd` makes
// it read_timeout.
int read_timeout_or_wake(int fd, int wake_fd, unsigned int wait_seconds);

// A number from 1 to 100, from the C library generator reseeded on each call.
int get_random_number();
