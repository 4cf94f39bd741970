// Waiting for a descriptor in slices, so that whoever waits notices that it shouldn't any more.
#pragma once

#include "util/clock.h"

// Whether a wait still makes sense; called about every 100 ms, without a lock.
typedef bool (*fd_wait_goes_on_fn)(const void* arg);

// Polls `fd` for `events` until the deadline, or until `goes_on(arg)` says no.
//   1 ready (also for an error or a hang-up); 0 time over, or no longer wanted; -1 with errno.
int fd_wait(int fd, short events, const deadline_t& deadline, fd_wait_goes_on_fn goes_on,
            const void* arg);
