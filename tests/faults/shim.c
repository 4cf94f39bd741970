/* Preloaded into the daemon: lets calls of one kind fail.
 *
 *     SHIM="CALL ERRNO"   the calls; what a failing one sets or, if that is its way, returns
 *     SHIM_PAGE=FILE      which of them fail: a page_t, shared with whoever watches
 *
 * CALL is a name of the table below; "memory" is what gives memory. An ERRNO of 0 cuts a transfer
 * short instead of failing it. The first failing call says on standard error where it came from. */
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

/* life.h has the same. The calls numbered `first` and up to `last`, counted from 1, fail. */
typedef struct {
    atomic_uint calls;
    atomic_uint failed;
    atomic_uint first;
    atomic_uint last;
} page_t;

/* strdup and its like get their memory from malloc, also inside libc. */
/* clang-format off */
#define CALLS(X)                                                                         \
    X(malloc) X(calloc) X(realloc) X(pthread_create) X(socket) X(accept4) X(connect)     \
    X(select) X(poll) X(send) X(recv) X(read) X(write) X(gethostbyname) X(clock_gettime) \
    X(localtime_r) X(eventfd) X(fcntl)
/* clang-format on */
#define NUMBER(call) CALL_##call,
#define NAME(call) #call,

enum call_t { CALLS(NUMBER) CALL_COUNT };
static const char* const names[CALL_COUNT] = {CALLS(NAME)};

/* Fixed by the constructor; without it nothing is counted. */
static page_t* page;
static int selected[CALL_COUNT];
static int error_number;

static void* real[CALL_COUNT];

/* A function that shows where a call came from must not count its own. */
static __thread int inside;

/* ISO C has no cast from an object's pointer to a function's: each caller copies. */
static void next_get(enum call_t call, void* function) {
    if (real[call] == NULL) {
        real[call] = dlsym(RTLD_NEXT, names[call]);
    }
    memcpy(function, &real[call], sizeof(real[call]));
}

static void origin_show(enum call_t call) {
    void* frames[24];
    inside = 1;
    dprintf(STDERR_FILENO, "shim: %s fails\n", names[call]);
    backtrace_symbols_fd(frames, backtrace(frames, 24), STDERR_FILENO);
    inside = 0;
}

/* Whether this call is one of those that fail; errno is set then. */
static int is_due(enum call_t call) {
    if (page == NULL || inside || !selected[call]) {
        return 0;
    }
    const unsigned number = atomic_fetch_add(&page->calls, 1) + 1;
    if (number < page->first || number > page->last) {
        return 0;
    }
    if (atomic_fetch_add(&page->failed, 1) == 0) {
        origin_show(call);
    }
    errno = error_number;
    return 1;
}

/* The size that a transfer is to have; -1 when it is to fail. */
static ssize_t cut(enum call_t call, size_t size) {
    if (!is_due(call)) {
        return (ssize_t)size;
    }
    return error_number != 0 ? -1 : (ssize_t)(size - size / 2);
}

__attribute__((constructor)) static void shim_init(void) {
    const char* const wanted = getenv("SHIM");
    const char* const path = getenv("SHIM_PAGE");
    char name[32] = "";
    void* frame;
    (void)backtrace(&frame, 1); /* it loads what it needs at its first call */
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);
    if (wanted == NULL || path == NULL || sscanf(wanted, "%31s %d", name, &error_number) != 2) {
        return;
    }
    for (int call = 0; call < CALL_COUNT; ++call) {
        selected[call] =
            strcmp(name, names[call]) == 0 || (call <= CALL_realloc && strcmp(name, "memory") == 0);
    }
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    void* const shared = mmap(NULL, sizeof(page_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    page = shared == MAP_FAILED ? NULL : shared;
}

/* NOLINTBEGIN(bugprone-macro-parentheses): parameters in their parentheses, and a type. */
/* A call that fails when it is due, with `failure` as its result. */
#define CALL(result_t, call, parameters, arguments, failure)     \
    result_t call parameters {                                   \
        result_t(*next) parameters;                              \
        next_get(CALL_##call, &next);                            \
        return is_due(CALL_##call) ? (failure) : next arguments; \
    }

/* A transfer of `size` bytes. */
#define TRANSFER(call, parameters, arguments)        \
    ssize_t call parameters {                        \
        ssize_t(*next) parameters;                   \
        next_get(CALL_##call, &next);                \
        const ssize_t part = cut(CALL_##call, size); \
        return part < 0 ? -1 : next arguments;       \
    }
/* NOLINTEND(bugprone-macro-parentheses) */

CALL(void*, malloc, (size_t size), (size), NULL)
CALL(void*, calloc, (size_t number, size_t size), (number, size), NULL)
CALL(void*, realloc, (void* memory, size_t size), (memory, size), NULL)
CALL(int, pthread_create,
     (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* arg),
     (thread, attributes, body, arg), error_number)
CALL(int, socket, (int domain, int type, int protocol), (domain, type, protocol), -1)
CALL(int, accept4, (int fd, struct sockaddr* address, socklen_t* size, int flags),
     (fd, address, size, flags), -1)
CALL(int, connect, (int fd, const struct sockaddr* address, socklen_t size), (fd, address, size),
     -1)
CALL(int, select, (int number, fd_set* in, fd_set* out, fd_set* other, struct timeval* timeout),
     (number, in, out, other, timeout), -1)
CALL(int, poll, (struct pollfd * items, nfds_t number, int timeout), (items, number, timeout), -1)
TRANSFER(send, (int fd, const void* bytes, size_t size, int flags),
         (fd, bytes, (size_t)part, flags))
TRANSFER(recv, (int fd, void* bytes, size_t size, int flags), (fd, bytes, (size_t)part, flags))
TRANSFER(read, (int fd, void* bytes, size_t size), (fd, bytes, (size_t)part))
TRANSFER(write, (int fd, const void* bytes, size_t size), (fd, bytes, (size_t)part))
CALL(int, clock_gettime, (clockid_t clock, struct timespec* now), (clock, now), -1)
CALL(struct tm*, localtime_r, (const time_t* second, struct tm* fields), (second, fields), NULL)
CALL(int, eventfd, (unsigned value, int flags), (value, flags), -1)
CALL(struct hostent*, gethostbyname, (const char* name), (name), (h_errno = TRY_AGAIN, NULL))

int fcntl(int fd, int command, ...) {
    int (*next)(int, int, void*);
    va_list rest;
    va_start(rest, command);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    next_get(CALL_fcntl, &next);
    return is_due(CALL_fcntl) ? -1 : next(fd, command, argument);
}
