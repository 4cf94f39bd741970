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
constexpr size_t kHeadSize = 256;
constexpr size_t kLevelWidth = 5;

// "%04d-%02d-%02d %02d:%02d:%02d" of the last second that was converted: converting costs more
// than all the rest of a line, and hundreds of lines may share one second.
struct converted_t {
    mutex_t lock;
    time_t second GUARDED_BY(lock) = -1;
    char text[kTimestampSize] GUARDED_BY(lock) = "";  // empty: it can't be converted
};

converted_t g_last;

// A year has four digits here as far as any clock counts; the text is cut rather than overrun.
void convert(time_t second, char* text) {
    struct tm fields;
    text[0] = '\0';
    if (localtime_r(&second, &fields) == nullptr) {
        return;
    }
    char whole[kTimestampSize * 4];
    snprintf(whole, sizeof(whole), "%04d-%02d-%02d %02d:%02d:%02d", fields.tm_year + 1900,
             fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
    memcpy(text, whole, kTimestampSize - 1);
    text[kTimestampSize - 1] = '\0';
}

// Writes the local time into `text`, kTimestampSize bytes; false when it can't be had.
bool timestamp_write(char* text) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    {
        const mutex_lock_t held(g_last.lock);
        if (g_last.second != now.tv_sec) {
            g_last.second = now.tv_sec;
            convert(now.tv_sec, g_last.text);
        }
        memcpy(text, g_last.text, kTimestampSize);
    }
    const size_t length = strlen(text);
    const auto milliseconds = static_cast<unsigned>(now.tv_usec / 1000) % 1000;
    if (length == 0 || length + sizeof(".000") > kTimestampSize) {
        return length != 0;
    }
    text[length] = '.';
    text[length + 1] = static_cast<char>('0' + milliseconds / 100);
    text[length + 2] = static_cast<char>('0' + milliseconds / 10 % 10);
    text[length + 3] = static_cast<char>('0' + milliseconds % 10);
    text[length + 4] = '\0';
    return true;
}

// What stands before a line's message; cut at kHeadSize. printf would do, at three times the price,
// and each message that passes the daemon makes several lines.
struct head_t {
    char text[kHeadSize];
    size_t length = 0;
};

void add_bytes(head_t* head, const char* bytes, size_t count) {
    const size_t room = kHeadSize - head->length;
    const size_t fits = count < room ? count : room;
    memcpy(head->text + head->length, bytes, fits);
    head->length += fits;
}

void add_text(head_t* head, const char* text) {
    add_bytes(head, text, strlen(text));
}

void add_number(head_t* head, unsigned long value, unsigned base) {
    char digits[sizeof(value) * 3];
    size_t first = sizeof(digits);
    do {
        digits[--first] = "0123456789ABCDEF"[value % base];
        value /= base;
    } while (value != 0);
    add_bytes(head, digits + first, sizeof(digits) - first);
}

// "%s | %5s | %d:0x%lX | %s:%d | %s | - "
void head_build(head_t* head, const char* level, const char* file, int line, const char* function) {
    char timestamp[kTimestampSize];
    if (timestamp_write(timestamp)) {
        add_text(head, timestamp);
        add_text(head, " | ");
    }
    for (size_t width = strlen(level); width < kLevelWidth; ++width) {
        add_text(head, " ");
    }
    add_text(head, level);
    add_text(head, " | ");
    add_number(head, static_cast<unsigned long>(getpid()), 10);
    add_text(head, ":0x");
    // A pointer to some C libraries, a number to others: only this cast takes both.
    add_number(head, (unsigned long)pthread_self(), 16);
    add_text(head, " | ");
    add_text(head, file);
    add_text(head, ":");
    add_number(head, static_cast<unsigned long>(line), 10);
    add_text(head, " | ");
    add_text(head, function);
    add_text(head, " | - ");
}

}  // namespace

char* log_timestamp_get() {
    char text[kTimestampSize];
    if (!timestamp_write(text)) {
        return nullptr;
    }
    char* const copy = static_cast<char*>(calloc(1, kTimestampSize));
    if (copy != nullptr) {
        snprintf(copy, kTimestampSize, "%s", text);
    }
    return copy;
}

void log_print(const char* level, const char* file, int line, const char* function,
               const char* format, ...) {
    head_t head;
    head_build(&head, level, file, line, function);
    va_list arguments;
    va_start(arguments, format);
    // Head, message and newline stay one line whoever else logs.
    flockfile(stdout);
    (void)fwrite(head.text, 1, head.length, stdout);
    (void)vprintf(format, arguments);
    (void)putchar('\n');
    funlockfile(stdout);
    va_end(arguments);
}
