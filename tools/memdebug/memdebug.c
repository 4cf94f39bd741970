/* The functions that a preloaded library puts in the C library's place; libcloud_svr_memdebug(3).
 * One lock guards all that this library keeps. */
#include "memdebug.h"

#include <dlfcn.h>
#include <errno.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static volatile sig_atomic_t report_wanted;
static bool abort_on_fault;
static unsigned long faults;

static void* (*real_malloc)(size_t size);
static void (*real_free)(void* memory);

/* False within itself: dlsym has to do without. The first call comes before there is a second
 * thread. */
static bool real_ones_known(void) {
    static bool looking;
    if (real_free == NULL && !looking) {
        looking = true;
        *(void**)&real_malloc = dlsym(RTLD_NEXT, "malloc");
        *(void**)&real_free = dlsym(RTLD_NEXT, "free");
        looking = false;
    }
    return real_malloc != NULL && real_free != NULL;
}

/* ---- What is found. The lock is held. */

static void count_fault(void) {
    faults++;
    if (abort_on_fault) {
        abort();
    }
}

/* `site` found it while freeing the block; 0: a later look did. */
static void damage_report(struct damage damage, const struct block* block, uintptr_t site) {
    if (damage.what != NULL) {
        report_line("FAULT %s at offset %ld of %lu bytes at %p from %s, found by %s", damage.what,
                    (long)damage.offset, (unsigned long)block->size, (void*)block->user,
                    report_site(block->site), site == 0 ? "a later look" : report_site(site));
        count_fault();
    }
}

static void bad_free_report(const void* memory, uintptr_t site) {
    struct block freed;
    if (freed_find(memory, &freed)) {
        report_line("FAULT double free by %s of %lu bytes at %p from %s, freed by %s",
                    report_site(site), (unsigned long)freed.size, memory, report_site(freed.site),
                    report_site(freed.freed_by));
    } else {
        report_line("FAULT foreign free by %s of %p", report_site(site), memory);
    }
    count_fault();
}

static void held_check(const struct block* block) {
    damage_report(block_check(block), block, 0);
}

static void late_check(const struct block* block) {
    damage_report(freed_check(block), block, 0);
}

static void report_all(const char* occasion) {
    blocks_each(held_check);
    freed_each(late_check);
    statistics_report(occasion);
    report_line("%lu faults", faults);
}

/* ---- The lock, and the signal that may come while it is held. */

static void lock_take(void) {
    pthread_mutex_lock(&lock);
}

/* A report asked for meanwhile is made by whoever gets the lock next. */
static void lock_give(void) {
    pthread_mutex_unlock(&lock);
    while (report_wanted && pthread_mutex_trylock(&lock) == 0) {
        if (report_wanted) {
            report_wanted = 0;
            report_all("on SIGUSR2");
        }
        pthread_mutex_unlock(&lock);
    }
}

static void on_signal(int number) {
    const int saved = errno;
    (void)number;
    report_wanted = 1;
    if (pthread_mutex_trylock(&lock) == 0) {
        lock_give();
    }
    errno = saved;
}

/* ---- Allocation */

/* The thread that is inside the C library's own malloc or free, or 0. uClibc's call themselves by
 * name, and so come here: what they ask for is theirs, and the lock is held already. */
static atomic_ulong in_library;

static bool is_in_library(void) {
    return atomic_load(&in_library) == (unsigned long)pthread_self();
}

static void* library_malloc(size_t size) {
    atomic_store(&in_library, (unsigned long)pthread_self());
    void* const memory = real_malloc(size);
    atomic_store(&in_library, 0);
    return memory;
}

static void library_free(void* memory) {
    atomic_store(&in_library, (unsigned long)pthread_self());
    real_free(memory);
    atomic_store(&in_library, 0);
}

static void allocate_unsafe(struct block* block, size_t extra, size_t alignment) {
    block->raw = library_malloc(block->size + extra);
    if (block->raw == NULL) {
        return;
    }
    block->user = (unsigned char*)block->raw + GUARD_SIZE;
    block->user += -(uintptr_t)block->user & (alignment - 1);
    if (blocks_add(block)) {
        statistics_add(block);
    } else {
        library_free(block->raw);
        block->user = NULL;
    }
}

/* The C library's functions, too, run under the lock: at a fork no thread is inside them, which
 * matters to a C library that doesn't see to it. */
static void* allocate(size_t size, size_t alignment, uintptr_t site) {
    const size_t extra = 2 * GUARD_SIZE + (alignment > GUARD_SIZE ? alignment : 0);
    struct block block = {NULL, NULL, size, site, 0};
    if (real_ones_known() && size <= PTRDIFF_MAX - extra) {
        lock_take();
        allocate_unsafe(&block, extra, alignment);
        lock_give();
    }
    if (block.user == NULL) {
        errno = ENOMEM;
    }
    return block.user;
}

static void give_to_library(const struct block* block) {
    late_check(block);
    library_free(block->raw);
}

static void release_unsafe(const void* memory, uintptr_t site) {
    struct block block;
    if (!blocks_remove(memory, &block)) {
        bad_free_report(memory, site);
        return;
    }
    damage_report(block_check(&block), &block, site);
    statistics_remove(&block);
    block.freed_by = site;
    freed_add(&block, give_to_library);
}

static void release(const void* memory, uintptr_t site) {
    const int saved = errno;
    if (memory != NULL) {
        lock_take();
        release_unsafe(memory, site);
        lock_give();
    }
    errno = saved;
}

/* The bytes of a block; false, and a fault, when there is none. */
static bool size_of(const void* memory, uintptr_t site, size_t* size) {
    struct block block;
    lock_take();
    const bool found = blocks_find(memory, &block);
    if (!found) {
        bad_free_report(memory, site);
    }
    lock_give();
    *size = found ? block.size : 0;
    return found;
}

static void* allocate_aligned(size_t alignment, size_t size, uintptr_t site) {
    if (alignment == 0 || (alignment & (alignment - 1)) != 0) {
        errno = EINVAL;
        return NULL;
    }
    return allocate(size, alignment, site);
}

/* ---- What the program calls. `site` is the caller: taken here, where it is one frame away. */

void* malloc(size_t size) {
    if (is_in_library()) {
        return real_malloc(size);
    }
    return allocate(size, 1, (uintptr_t)__builtin_return_address(0));
}

void* calloc(size_t count, size_t size) {
    size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        errno = ENOMEM;
        return NULL;
    }
    void* const memory = allocate(bytes, 1, (uintptr_t)__builtin_return_address(0));
    return memory == NULL ? NULL : memset(memory, 0, bytes);
}

void free(void* memory) {
    if (is_in_library()) {
        real_free(memory);
        return;
    }
    release(memory, (uintptr_t)__builtin_return_address(0));
}

/* Always moves, so that a pointer to the old place is one into a freed block. */
void* realloc(void* memory, size_t size) {
    const uintptr_t site = (uintptr_t)__builtin_return_address(0);
    size_t old_size = 0;
    if (memory != NULL && size == 0) {
        release(memory, site);
        return NULL;
    }
    if (memory != NULL && !size_of(memory, site, &old_size)) {
        return NULL;
    }
    void* const moved = allocate(size, 1, site);
    if (moved != NULL && memory != NULL) {
        memcpy(moved, memory, old_size < size ? old_size : size);
        release(memory, site);
    }
    return moved;
}

int posix_memalign(void** memory, size_t alignment, size_t size) {
    const int saved = errno;
    void* const block = allocate_aligned(alignment, size, (uintptr_t)__builtin_return_address(0));
    const int error = block == NULL ? errno : 0;
    errno = saved;
    if (block != NULL) {
        *memory = block;
    }
    return error;
}

void* aligned_alloc(size_t alignment, size_t size) {
    return allocate_aligned(alignment, size, (uintptr_t)__builtin_return_address(0));
}

void* memalign(size_t alignment, size_t size) {
    return allocate_aligned(alignment, size, (uintptr_t)__builtin_return_address(0));
}

size_t malloc_usable_size(void* memory) {
    size_t size = 0;
    return memory != NULL && size_of(memory, (uintptr_t)__builtin_return_address(0), &size) ? size
                                                                                            : 0;
}

/* ---- The process's life */

static void give_in_child(void) {
    pthread_mutex_unlock(&lock);
}

__attribute__((constructor)) static void begin(void) {
    struct sigaction action;
    report_init();
    abort_on_fault = getenv("CLOUD_SVR_MEMDEBUG_ABORT") != NULL;
    pthread_atfork(lock_take, lock_give, give_in_child);
    if (sigaction(SIGUSR2, NULL, &action) == 0 && action.sa_handler == SIG_DFL) {
        memset(&action, 0, sizeof(action));
        action.sa_handler = on_signal;
        action.sa_flags = SA_RESTART;
        sigaction(SIGUSR2, &action, NULL);
    }
}

__attribute__((destructor)) static void end(void) {
    lock_take();
    report_all("at exit");
    statistics_report_held();
    lock_give();
}
