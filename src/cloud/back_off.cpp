#include "cloud/back_off.h"

namespace {

constexpr int32_t kFirstDelayMs = 1000;
constexpr int32_t kLongestDelayMs = 900000;

}  // namespace

int32_t back_off_next(int32_t delay_ms) {
    if (delay_ms == 0) {
        return kFirstDelayMs;
    }
    return delay_ms < kLongestDelayMs / 2 ? delay_ms * 2 : kLongestDelayMs;
}

int32_t back_off_jitter(int32_t delay_ms, uint32_t random) {
    const int32_t least = delay_ms / 2;
    const auto choices = static_cast<uint64_t>(delay_ms - least) + 1;
    return least + static_cast<int32_t>(choices * random >> 32);
}
