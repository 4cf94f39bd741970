#include "util/task_pool.h"

#include <limits.h>
#include <pthread.h>

#include "cloud_svr_codes.h"
#include "util/memory.h"

// A message nested as deeply as cJSON allows (1000 levels) parses, prints and is deleted within
// 160 KiB on a 64-bit machine. TLS and printf need less than a third of that.
#ifndef TASK_STACK_SIZE
#define TASK_STACK_SIZE (256 * 1024)
#endif

namespace {

constexpr uint32_t kIdleLookMs = 1000;

struct task_t {
    task_pool_t* pool;
    task_pool_work_fn work;
    task_pool_done_fn done;
    void* arg;
};

void count_change(task_pool_t* pool, int32_t by) {
    const mutex_lock_t held(pool->lock);
    pool->running += by;
    if (pool->running <= 0) {
        pool->idle.wake_all();
    }
}

void* task_run(void* arg) {
    task_pool_t* pool = nullptr;
    {
        const record_ptr<task_t> task(static_cast<task_t*>(arg));
        pool = task->pool;
        task->work(task->arg);
        if (task->done != nullptr) {
            task->done(task->arg);
        }
    }
    count_change(pool, -1);
    return nullptr;
}

bool thread_start(task_t* task) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    pthread_attr_setstacksize(&attributes, TASK_STACK_SIZE);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    const int result = pthread_create(&thread, &attributes, task_run, task);
    pthread_attr_destroy(&attributes);
    return result == 0;
}

}  // namespace

task_pool_t* task_pool_init() {
    return record_new<task_pool_t>().release();
}

int32_t task_pool_add(task_pool_t* pool, task_pool_work_fn work, task_pool_done_fn done,
                      void* arg) {
    if (pool == nullptr || work == nullptr) {
        return CLOUD_SVR_E_ARGUMENT;
    }
    record_ptr<task_t> task = record_new<task_t>();
    if (task == nullptr) {
        return CLOUD_SVR_E_RESOURCE;
    }
    *task = task_t{pool, work, done, arg};
    // Counted before its thread exists: a pool must never look idle while a task is about to run.
    count_change(pool, 1);
    if (!thread_start(task.get())) {
        count_change(pool, -1);
        return CLOUD_SVR_E_RESOURCE;
    }
    (void)task.release();
    return 0;
}

void task_pool_wait(task_pool_t* pool) {
    if (pool == nullptr) {
        return;
    }
    const mutex_lock_t held(pool->lock);
    while (pool->running > 0) {
        pool->idle.wait(pool->lock, kIdleLookMs);
    }
}

void task_pool_destroy(task_pool_t* pool) {
    task_pool_wait(pool);
    const record_ptr<task_pool_t> owned(pool);
}
