// Runs each added piece of work on a detached thread of its own and counts those that still run,
// so that an owner can wait for all of them before it frees what they use.
#pragma once

#include <stdint.h>

#include "util/mutex.h"

// Takes the argument that was added with it.
typedef void (*task_pool_work_fn)(void* arg);
typedef void (*task_pool_done_fn)(void* arg);

struct task_pool_t {
    mutex_t lock;
    cond_t idle;
    int32_t running GUARDED_BY(lock) = 0;
};

// A pool without tasks; NULL when memory is out.
task_pool_t* task_pool_init();

// Starts `work(arg)` and then, unless NULL, `done(arg)` on a new thread. Any thread may add, also a
// task of the same pool.
//   0; -20107 when `pool` or `work` is NULL; -10000 when the thread can't be started: `arg` is
//   then still the caller's.
int32_t task_pool_add(task_pool_t* pool, task_pool_work_fn work, task_pool_done_fn done, void* arg);

// Waits until no task runs, without a limit. Nobody but the pool's own tasks may add
// meanwhile. NULL is ignored.
void task_pool_wait(task_pool_t* pool);

// task_pool_wait, then frees the pool. NULL is ignored.
void task_pool_destroy(task_pool_t* pool);
