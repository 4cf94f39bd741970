#include "cloud/back_off.h"

#include <map>

#include <gtest/gtest.h>

#include "util/random.h"

TEST(back_off_test, grows_to_a_quarter_of_an_hour) {
    int32_t delay_ms = 0;
    for (const int32_t s : {1, 2, 4, 8, 16, 32, 64, 128, 256, 512, 900, 900}) {
        delay_ms = back_off_next(delay_ms);
        EXPECT_EQ(delay_ms, s * 1000);
    }
}

TEST(back_off_test, waits_are_even_over_the_second_half) {
    EXPECT_EQ(back_off_jitter(1000, 0), 500);
    EXPECT_EQ(back_off_jitter(900000, UINT32_MAX), 900000);
    EXPECT_EQ(back_off_jitter(0, UINT32_MAX), 0);
    std::map<int32_t, int> seen;
    for (uint64_t random = 0; random <= UINT32_MAX; random += 65521) {
        ++seen[back_off_jitter(1001, static_cast<uint32_t>(random))];
    }
    ASSERT_EQ(seen.size(), 502U);
    for (const auto& [wait_ms, times] : seen) {
        EXPECT_NEAR(times, (1ULL << 32) / 65521.0 / 502, 2) << wait_ms;
    }
    int upper = 0;
    for (int i = 0; i < 1000; ++i) {
        upper += back_off_jitter(1000, random_get()) >= 750 ? 1 : 0;
    }
    EXPECT_NEAR(upper, 500, 100);  // six standard deviations
}
