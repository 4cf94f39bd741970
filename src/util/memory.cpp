#include "util/memory.h"

#include <string.h>

char* string_dup(const char* s) {
    if (s == nullptr) {
        return nullptr;
    }
    const size_t size = strlen(s) + 1;
    char* const copy = static_cast<char*>(malloc(size));
    return copy == nullptr ? nullptr : static_cast<char*>(memcpy(copy, s, size));
}
