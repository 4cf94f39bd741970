#include "util/mutex.h"

#include <time.h>
#include <unistd.h>

cond_t::cond_t() {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&native, &attributes);
    pthread_condattr_destroy(&attributes);
}

void cond_t::wait(mutex_t& held, uint32_t ms) {
    struct timespec until;
    if (clock_gettime(CLOCK_MONOTONIC, &until) != 0) {
        // Without a clock there is no deadline to give: rest a moment with the lock free.
        held.unlock();
        usleep(1000);
        held.lock();
        return;
    }
    until.tv_sec += static_cast<time_t>(ms / 1000);
    until.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (until.tv_nsec >= 1000000000L) {
        until.tv_nsec -= 1000000000L;
        ++until.tv_sec;
    }
    pthread_cond_timedwait(&native, &held.native, &until);
}

void event_announce(event_t* event) {
    const mutex_lock_t held(event->lock);
    event->changed.wake_all();
}

bool event_wait(event_t* event, const deadline_t& deadline, bool (*holds)(void* arg), void* arg) {
    const mutex_lock_t held(event->lock);
    while (!holds(arg)) {
        const uint32_t left = deadline_left(deadline);
        if (left == 0) {
            return false;
        }
        event->changed.wait(event->lock, left);
    }
    return true;
}
