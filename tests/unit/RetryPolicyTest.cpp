#include <gtest/gtest.h>

#include <ctime>

#include "EnrollerStatus.h"
#include "RetryPolicy.h"

TEST(RetryPolicy, SpacingHoldsRequestsApart) {
    // requested delay, base interval, time since the last request started
    EXPECT_EQ(RetryPolicy::spaced_delay(0, 60, 10 * G_USEC_PER_SEC), 50u);
    EXPECT_EQ(RetryPolicy::spaced_delay(0, 0, 0), 0u);
    EXPECT_EQ(RetryPolicy::spaced_delay(0, 600, 30 * G_USEC_PER_SEC), 30u);  // at most 60 s
    EXPECT_EQ(RetryPolicy::spaced_delay(1000000, 60, 0), 86400u);
}

TEST(RetryPolicy, BackoffBoundsDoubleUntilTheDayCap) {
    EXPECT_EQ(RetryPolicy::backoff_delay(60, 0.0), 60u);
    double range = 60;  // uniform is drawn from [0, base * multiplier), the multiplier doubling
    for (const unsigned upper : {120u, 180u, 300u, 540u, 1020u}) {
        EXPECT_EQ(RetryPolicy::backoff_delay(60, range - 0.4), upper);
        range *= 2;
    }
    EXPECT_EQ(RetryPolicy::backoff_delay(60, 86339.6), 86400u);
}

TEST(RetryPolicy, RpmbRateTableReportsTheFirstRowReached) {
    EnrollerRPMBStatus history;
    RetryPolicy::RateLimit hit{};
    for (long n = 1; n <= 20; ++n) {  // the oldest write 2000 s ago, then one every 100 s
        history.writeTStamps.insert(time(nullptr) - 2100 + 100 * n);
        ASSERT_EQ(RetryPolicy::rpmb_rate_limited(history, &hit), n >= 10) << n;
    }
    // Both the one-day row (10) and the ten-day row (20) are reached; the ten-day one is first.
    EXPECT_EQ(hit.count, 20u);
    EXPECT_EQ(hit.limit, 20u);
    EXPECT_EQ(hit.window, 864000);
    EXPECT_NEAR(hit.wait, 864000 - 2000, 2);
}
