// Ownership of what comes from malloc: texts, plain records, descriptors.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <utility>

struct malloc_deleter_t {
    void operator()(void* memory) const { free(memory); }
};

// A NUL-terminated text, or any block, that malloc gave.
using text_ptr = std::unique_ptr<char, malloc_deleter_t>;

// A copy of `s` with its terminator, the caller's to free; NULL when `s` is NULL or memory is out.
char* string_dup(const char* s);

template <typename T>
struct record_deleter_t {
    void operator()(T* record) const {
        record->~T();
        free(record);
    }
};

template <typename T>
using record_ptr = std::unique_ptr<T, record_deleter_t<T>>;

// A record in zeroed memory, its members initialised; empty when memory is out.
template <typename T>
record_ptr<T> record_new() {
    void* const memory = calloc(1, sizeof(T));
    return record_ptr<T>(memory == nullptr ? nullptr : new (memory) T{});
}

// Owns one descriptor and closes it; -1 when it holds none.
struct descriptor_t {
    int fd = -1;

    descriptor_t() = default;
    explicit descriptor_t(int owned) : fd(owned) {}
    descriptor_t(const descriptor_t&) = delete;
    descriptor_t& operator=(const descriptor_t&) = delete;
    ~descriptor_t() { reset(); }

    // Hands the descriptor to the caller.
    int release() { return std::exchange(fd, -1); }

    void reset() {
        if (fd >= 0) {
            close(fd);
        }
        fd = -1;
    }
};

// Gives back to the system what freed blocks and ended threads still hold. For a quiet moment: it
// takes about a tenth of a millisecond, and what is given back must be had again.
void memory_give_back();
