// Random numbers that differ between devices which are alike and were switched on together. Not for
// secrets.
#pragma once

#include <stdint.h>

// Any 32-bit number, equally likely. From any thread; where the system gives none, for want of a
// descriptor say, it comes from the clock.
uint32_t random_get();
