// A mutex that clang's analysis knows, its scoped guard, a condition that waits on the monotonic
// clock, and a gate that threads wait at for something that others announce.
//
//     mutex_t lock;
//     int count GUARDED_BY(lock);
//     ...
//     const mutex_lock_t held(lock);
//     ++count;
#pragma once

#include <pthread.h>
#include <stdint.h>

#include "util/clock.h"
#include "util/thread_annotations.h"

struct CAPABILITY("mutex") mutex_t {
    pthread_mutex_t native;

    mutex_t() { pthread_mutex_init(&native, nullptr); }
    mutex_t(const mutex_t&) = delete;
    mutex_t& operator=(const mutex_t&) = delete;
    ~mutex_t() { pthread_mutex_destroy(&native); }

    void lock() ACQUIRE() { pthread_mutex_lock(&native); }
    bool try_lock() TRY_ACQUIRE(true) { return pthread_mutex_trylock(&native) == 0; }
    void unlock() RELEASE() { pthread_mutex_unlock(&native); }
};

struct SCOPED_CAPABILITY mutex_lock_t {
    mutex_t& mutex;

    explicit mutex_lock_t(mutex_t& m) ACQUIRE(m) : mutex(m) { mutex.lock(); }
    mutex_lock_t(const mutex_lock_t&) = delete;
    mutex_lock_t& operator=(const mutex_lock_t&) = delete;
    ~mutex_lock_t() RELEASE() { mutex.unlock(); }
};

struct cond_t {
    pthread_cond_t native;

    cond_t();
    cond_t(const cond_t&) = delete;
    cond_t& operator=(const cond_t&) = delete;
    ~cond_t() { pthread_cond_destroy(&native); }

    // Waits until woken, at most `ms` milliseconds; the caller tests its condition again.
    void wait(mutex_t& held, uint32_t ms) REQUIRES(held);
    void wake_all() { pthread_cond_broadcast(&native); }
};

// Lets threads sleep until a condition over atomics holds, without the lock of whoever changes
// them: change the atomic, then event_announce.
struct event_t {
    mutex_t lock;
    cond_t changed;
};

void event_announce(event_t* event);

// Sleeps until `holds(arg)` or until the deadline; the condition's last value.
bool event_wait(event_t* event, const deadline_t& deadline, bool (*holds)(void* arg), void* arg);
