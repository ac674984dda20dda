#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <tuple>

#include "EnrollerStatus.h"
#include "RetryPolicy.h"

TEST(RetryPolicy, SpacingHoldsRequestsApart) {
    // requested delay, base interval, time since the last request started
    EXPECT_EQ(RetryPolicy::spaced_delay(0, 60, 10 * G_USEC_PER_SEC), 50u);
    EXPECT_EQ(RetryPolicy::spaced_delay(0, 0, 0), 0u);
    EXPECT_EQ(RetryPolicy::spaced_delay(0, 600, 30 * G_USEC_PER_SEC), 30u);  // at most 60 s
    EXPECT_EQ(RetryPolicy::spaced_delay(1000000, 60, 0), 86400u);
}

TEST(RetryPolicy, BackoffRangeDoublesEveryStepUntilTheDayCap) {
    // the highest draw each time: 60 + (60 * 2^n - 0.4) rounded, capped at 86400 (a range
    // that does not begin at 0 draws -1, a delay below the base)
    const auto highest = [](double begin, double end) { return begin == 0.0 ? end - 0.4 : -1.0; };
    double multiplier = 1.0;
    for (const unsigned upper : {120u, 180u, 300u, 540u, 1020u, 1980u, 3900u, 7740u, 15420u, 30780u,
                                 61500u, 86400u, 86400u})
        EXPECT_EQ(RetryPolicy::backoff_step(60, &multiplier, highest), upper);
    EXPECT_EQ(multiplier, 8192.0);
    EXPECT_EQ(RetryPolicy::backoff_delay(60, 0.0), 60u);
    EXPECT_EQ(RetryPolicy::backoff_delay(60, HUGE_VAL), 86400u);
}

TEST(RetryPolicy, RpmbRateTableReportsTheFirstRowReached) {
    EnrollerRPMBStatus history;
    RetryPolicy::RateLimit hit{};
    for (long n = 1; n <= 20; ++n) {  // the oldest write 2000 s ago, then one every 100 s
        history.writeTStamps.insert(time(nullptr) - 2100 + 100 * n);
        ASSERT_EQ(RetryPolicy::rpmb_rate_limited(history, &hit), n >= 10) << n;
    }
    // Both the one-day row (10) and the ten-day row (20) are reached; the ten-day one is first.
    EXPECT_EQ(std::tie(hit.count, hit.limit, hit.window), std::make_tuple(20u, 20u, 864000L));
    EXPECT_NEAR(hit.wait, 864000 - 2000, 2);

    // right before a write, also one per second: writes of one second share a time stamp
    EnrollerRPMBStatus now;
    now.writeTStamps.insert(time(nullptr));
    EXPECT_FALSE(RetryPolicy::rpmb_rate_limited(now, &hit));
    ASSERT_TRUE(RetryPolicy::rpmb_rate_limited(now, &hit, true));
    EXPECT_EQ(hit.window, 1);
}
