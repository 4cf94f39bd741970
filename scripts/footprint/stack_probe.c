/* Preloaded: measures how much of its stack each thread used at most, by painting the stack before
 * the thread's own function runs and looking afterwards how far the paint is gone. A new record is
 * written to the file that STACK_PROBE_LOG names: bytes used, bytes that the thread had. */
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { PAINT = 0x5A, IN_USE = 1024 }; /* bytes around the painter's own frame */

struct task {
    void* (*run)(void*);
    void* argument;
};

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static size_t largest;

static void record(size_t used, size_t size) {
    char line[64];
    pthread_mutex_lock(&lock);
    if (used > largest) {
        largest = used;
        const int length = snprintf(line, sizeof(line), "%zu %zu\n", used, size);
        const int fd = open(getenv("STACK_PROBE_LOG"), O_WRONLY | O_CREAT | O_APPEND, 0600);
        if (fd < 0 || write(fd, line, (size_t)length) != length) {
            abort();
        }
        close(fd);
    }
    pthread_mutex_unlock(&lock);
}

static void* run_painted(void* argument) {
    const struct task task = *(struct task*)argument;
    pthread_attr_t attributes;
    void* bottom = NULL;
    size_t size = 0, guard = 0;
    free(argument);
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstack(&attributes, &bottom, &size);
    pthread_attr_getguardsize(&attributes, &guard);
    pthread_attr_destroy(&attributes);
    char here = 0;
    /* Some C libraries count the guard page in. */
    unsigned char* const low = (unsigned char*)bottom + guard;
    memset(low, PAINT, (size_t)((unsigned char*)&here - low) - IN_USE);
    void* const result = task.run(task.argument);
    size_t untouched = 0;
    while (low[untouched] == PAINT) {
        untouched++;
    }
    record(size - guard - untouched, size);
    return result;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                   void* argument) {
    int (*create)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) = NULL;
    *(void**)&create = dlsym(RTLD_NEXT, "pthread_create");
    struct task* const task = malloc(sizeof(*task));
    if (task == NULL) {
        return 11;
    }
    task->run = run;
    task->argument = argument;
    return create(thread, attributes, run_painted, task);
}
