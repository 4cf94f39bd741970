// The log: one line per statement on standard output, never filtered, unbuffered by nobody but
// standard I/O itself. A line is
//
//     2024-05-01 12:00:00.007 | DEBUG | 812:0xB6F2A010 | main.c:31 | main | - start...
//
// local time, level, process id, thread id, source, line, function, message. Without the leading
// time when it can't be had. Any thread may log; lines never mix.
#pragma once

// The local time as "%04d-%02d-%02d %02d:%02d:%02d.%03d" in 24 bytes that the caller frees; NULL
// when the time can't be broken down or memory is out.
char* log_timestamp_get();

// `file` is the name that the build gives the statement's source.
void log_print(const char* level, const char* file, int line, const char* function,
               const char* format, ...) __attribute__((format(printf, 5, 6)));

#define LOG_ERROR(...) log_print("ERROR", LOG_FILE, __LINE__, __func__, __VA_ARGS__)
#define LOG_WARN(...) log_print("WARN", LOG_FILE, __LINE__, __func__, __VA_ARGS__)
#define LOG_INFO(...) log_print("INFO", LOG_FILE, __LINE__, __func__, __VA_ARGS__)
#define LOG_DEBUG(...) log_print("DEBUG", LOG_FILE, __LINE__, __func__, __VA_ARGS__)
