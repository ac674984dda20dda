#include <gtest/gtest.h>

#include <ctime>

#include "EnrollerStatus.h"
#include "RetryPolicy.h"

namespace {
constexpr gint64 SEC = G_USEC_PER_SEC;
}

TEST(RetryPolicy, SpacingHoldsRequestsApart) {
    // a retry asked for at once, 10 s after the last request started, waits out the spacing
    EXPECT_EQ(RetryPolicy::spaced_delay(0, 60, 10 * SEC), 50u);
    EXPECT_EQ(RetryPolicy::spaced_delay(5, 60, 10 * SEC), 50u);
    // with no base interval there is no spacing: an idle source (0) is used
    EXPECT_EQ(RetryPolicy::spaced_delay(0, 0, 0), 0u);
    // the spacing is capped at 60 s whatever the base
    EXPECT_EQ(RetryPolicy::spaced_delay(0, 600, 30 * SEC), 30u);
    EXPECT_EQ(RetryPolicy::spaced_delay(0, 5, 1 * SEC), 4u);
    // long enough ago, or a delay longer than the spacing: unchanged
    EXPECT_EQ(RetryPolicy::spaced_delay(0, 60, 61 * SEC), 0u);
    EXPECT_EQ(RetryPolicy::spaced_delay(20, 60, 45 * SEC), 20u);
    EXPECT_EQ(RetryPolicy::spaced_delay(90, 60, 0), 90u);
    // partial seconds are truncated, and a clock going backwards counts as no time at all
    EXPECT_EQ(RetryPolicy::spaced_delay(0, 60, 10 * SEC + SEC - 1), 50u);
    EXPECT_EQ(RetryPolicy::spaced_delay(0, 60, -5 * SEC), 60u);
    // the longest delay is one day
    EXPECT_EQ(RetryPolicy::spaced_delay(1000000, 60, 0), 86400u);
}

TEST(RetryPolicy, BackoffBoundsDoubleUntilTheDayCap) {
    const unsigned base = 60;
    double multiplier = 1.0;
    const unsigned expectedMax[] = {120, 180, 300, 540, 1020};
    for (unsigned upper : expectedMax) {
        // uniform is drawn from [0, base * multiplier)
        EXPECT_EQ(RetryPolicy::backoff_delay(base, 0.0), base);
        EXPECT_EQ(RetryPolicy::backoff_delay(base, base * multiplier - 0.4), upper);
        multiplier *= 2;
    }
    EXPECT_EQ(RetryPolicy::backoff_delay(base, 29.5), 90u);  // rounded, not truncated
    EXPECT_EQ(RetryPolicy::backoff_delay(base, 86339.6), 86400u);
    EXPECT_EQ(RetryPolicy::backoff_delay(base, 1e12), 86400u);
    EXPECT_EQ(RetryPolicy::backoff_delay(86400, 0.0), 86400u);
}

namespace {
EnrollerRPMBStatus history_with_writes_ago(std::initializer_list<long> agos) {
    EnrollerRPMBStatus history;
    const time_t now = time(nullptr);
    for (long ago : agos)
        history.writeTStamps.insert(now - ago);
    history.writeCounter = static_cast<unsigned>(agos.size());
    return history;
}
}  // namespace

TEST(RetryPolicy, RpmbRateTable) {
    RetryPolicy::RateLimit hit{};
    EXPECT_FALSE(RetryPolicy::rpmb_rate_limited(EnrollerRPMBStatus(), &hit));

    // nine writes today: below every limit
    EXPECT_FALSE(RetryPolicy::rpmb_rate_limited(
        history_with_writes_ago({10, 20, 30, 40, 50, 60, 70, 80, 90}), &hit));

    // ten writes within the last day, the oldest 3600 s ago: the one-day row fires and the
    // retry waits until that write is a day old
    const auto today = history_with_writes_ago({100, 200, 300, 400, 500, 600, 700, 800, 900, 3600});
    ASSERT_TRUE(RetryPolicy::rpmb_rate_limited(today, &hit));
    EXPECT_EQ(hit.count, 10u);
    EXPECT_EQ(hit.limit, 10u);
    EXPECT_EQ(hit.window, 86400);
    EXPECT_NEAR(hit.wait, 86400 - 3600, 2);

    // twenty writes spread over nine days: the ten-day row is checked before the one-day one
    std::initializer_list<long> spread = {
        1 * 86400 + 1, 1 * 86400 + 2, 2 * 86400,     2 * 86400 + 1, 3 * 86400,
        3 * 86400 + 1, 4 * 86400,     4 * 86400 + 1, 5 * 86400,     5 * 86400 + 1,
        6 * 86400,     6 * 86400 + 1, 7 * 86400,     7 * 86400 + 1, 8 * 86400,
        8 * 86400 + 1, 9 * 86400,     9 * 86400 + 1, 9 * 86400 + 2, 9 * 86400 + 3};
    ASSERT_TRUE(RetryPolicy::rpmb_rate_limited(history_with_writes_ago(spread), &hit));
    EXPECT_EQ(hit.limit, 20u);
    EXPECT_EQ(hit.window, 864000);
    EXPECT_NEAR(hit.wait, 864000 - (9 * 86400 + 3), 2);
}
