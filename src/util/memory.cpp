#include "util/memory.h"

#include <malloc.h>
#include <pthread.h>
#include <string.h>

char* string_dup(const char* s) {
    if (s == nullptr) {
        return nullptr;
    }
    const size_t size = strlen(s) + 1;
    char* const copy = static_cast<char*>(malloc(size));
    return copy == nullptr ? nullptr : static_cast<char*>(memcpy(copy, s, size));
}

// uClibc calls itself glibc, too.
#if defined(__GLIBC__) && !defined(__UCLIBC__)
namespace {

// glibc keeps the stacks of ended threads, with the pages that they touched, up to 40 MiB of them.
// Only a stack that goes beyond that makes it give them back; this one is never touched.
constexpr size_t kStackBeyondCache = 41UL * 1024 * 1024;

void* nothing(void* arg) {
    return arg;
}

void stacks_give_back() {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return;
    }
    pthread_t thread;
    if (pthread_attr_setstacksize(&attributes, kStackBeyondCache) == 0 &&
        pthread_create(&thread, &attributes, nothing, nullptr) == 0) {
        pthread_join(thread, nullptr);
    }
    pthread_attr_destroy(&attributes);
}

}  // namespace

void memory_give_back() {
    stacks_give_back();
    (void)malloc_trim(0);
}
#else
void memory_give_back() {}
#endif
