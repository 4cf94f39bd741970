#include "util/clock.h"

#include <time.h>

uint32_t monotonic_ms_get() {
    struct timespec now;
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        return 0;
    }
    return static_cast<uint32_t>(now.tv_sec) * 1000U + static_cast<uint32_t>(now.tv_nsec / 1000000);
}

deadline_t deadline_in(int32_t ms) {
    return deadline_t{monotonic_ms_get(), ms > 0 ? static_cast<uint32_t>(ms) : 0};
}

uint32_t deadline_left(const deadline_t& deadline) {
    const uint32_t spent = monotonic_ms_get() - deadline.start_ms;
    return spent < deadline.budget_ms ? deadline.budget_ms - spent : 0;
}

int deadline_slice(const deadline_t& deadline, uint32_t slice_ms) {
    const uint32_t left = deadline_left(deadline);
    return static_cast<int>(left < slice_ms ? left : slice_ms);
}
