#include "util/random.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include "util/memory.h"

namespace {

// The clock's nanoseconds, spread over all 32 bits.
uint32_t clock_bits() {
    struct timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    const uint32_t ns = static_cast<uint32_t>(now.tv_sec) ^ static_cast<uint32_t>(now.tv_nsec);
    return ns * 2654435761U;
}

}  // namespace

uint32_t random_get() {
    uint32_t number = 0;
    const descriptor_t source(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    const bool given = source.fd >= 0 && read(source.fd, &number, sizeof(number)) ==
                                             static_cast<ssize_t>(sizeof(number));
    // Also mixed in when it was given: right after a start without stored entropy the system's
    // numbers may be the same on every device.
    return (given ? number : 0) ^ clock_bits();
}
