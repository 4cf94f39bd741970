// Monotonic time in unsigned 32-bit milliseconds. It wraps after about 49.7 days, so two readings
// are only ever compared by subtraction. Callable from any thread.
#pragma once

#include <stdint.h>

// The monotonic clock; 0 when it can't be read.
uint32_t monotonic_ms_get();

// A wait's end: `budget_ms` milliseconds after `start_ms`.
struct deadline_t {
    uint32_t start_ms;
    uint32_t budget_ms;
};

// A deadline that many milliseconds from now; negative counts as 0.
deadline_t deadline_in(int32_t ms);

// Milliseconds left; 0 once it has passed.
uint32_t deadline_left(const deadline_t& deadline);

// The lesser of what is left and `slice_ms`, as poll takes it.
int deadline_slice(const deadline_t& deadline, uint32_t slice_ms);
