// How long to wait between attempts to reach the cloud. Pure functions, which the simulation of a
// whole fleet (docs/fleet.md) calls as well.
#pragma once

#include <stdint.h>

// The delay after that one, in ms; 0 stands for no delay yet. 0 gives 1 s, then 2 s, 4 s ... 512 s,
// then 900 s for ever.
int32_t back_off_next(int32_t delay_ms);

// A wait in place of `delay_ms`: evenly drawn from the second half of it, both ends included, by
// `random`, of which every value must be equally likely.
int32_t back_off_jitter(int32_t delay_ms, uint32_t random);
