#include "util/log.h"

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "util/memory.h"
#include "util/mutex.h"

namespace {

constexpr size_t kTimestampSize = 24;

// The last second that was broken down: converting costs more than all the rest of a line, and
// hundreds of lines may share one second.
struct broken_down_t {
    mutex_t lock;
    bool known GUARDED_BY(lock) = false;
    time_t second GUARDED_BY(lock) = 0;
    struct tm fields GUARDED_BY(lock) = {};
};

broken_down_t g_last;

bool local_time_get(time_t second, struct tm* fields) {
    const mutex_lock_t held(g_last.lock);
    if (!g_last.known || g_last.second != second) {
        g_last.known = localtime_r(&second, &g_last.fields) != nullptr;
        g_last.second = second;
    }
    *fields = g_last.fields;
    return g_last.known;
}

}  // namespace

char* log_timestamp_get() {
    struct timeval now;
    struct tm fields;
    gettimeofday(&now, nullptr);
    if (!local_time_get(now.tv_sec, &fields)) {
        return nullptr;
    }
    char* const text = static_cast<char*>(calloc(1, kTimestampSize));
    if (text == nullptr) {
        return nullptr;
    }
    char whole[kTimestampSize * 4];  // a year may have more digits than its column
    snprintf(whole, sizeof(whole), "%04d-%02d-%02d %02d:%02d:%02d.%03d", fields.tm_year + 1900,
             fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec,
             static_cast<int>(now.tv_usec / 1000));
    memcpy(text, whole, kTimestampSize - 1);
    return text;
}

void log_print(const char* level, const char* file, int line, const char* function,
               const char* format, ...) {
    const text_ptr timestamp(log_timestamp_get());
    const auto process = static_cast<int>(getpid());
    // A pointer to some C libraries, a number to others: only this cast takes both.
    const auto thread = (unsigned long)pthread_self();
    va_list arguments;
    va_start(arguments, format);
    flockfile(stdout);
    if (timestamp != nullptr) {
        printf("%s | ", timestamp.get());
    }
    printf("%5s | %d:0x%lX | %s:%d | %s | - ", level, process, thread, file, line, function);
    vprintf(format, arguments);
    putchar('\n');
    funlockfile(stdout);
    va_end(arguments);
}
