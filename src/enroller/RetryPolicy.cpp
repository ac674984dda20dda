#include "RetryPolicy.h"

#include <algorithm>
#include <cmath>

#include "EnrollerStatus.h"

unsigned RetryPolicy::spaced_delay(unsigned delay, unsigned base, gint64 elapsed_us) {
    const unsigned spacing = std::min(base, MAX_SPACING);
    if (spacing > delay) {
        const gint64 elapsed = std::max<gint64>(elapsed_us / G_USEC_PER_SEC, 0);
        if (delay + elapsed < spacing)
            delay = spacing - static_cast<unsigned>(elapsed);
    }
    return std::min(delay, MAX_DELAY);
}

unsigned RetryPolicy::backoff_delay(unsigned base, double uniform) {
    const double next = base + std::round(uniform);
    // also catches a range grown to infinity after years of doubling
    return next < MAX_DELAY ? static_cast<unsigned>(next) : MAX_DELAY;
}

bool RetryPolicy::rpmb_rate_limited(const EnrollerRPMBStatus& history, RateLimit* hit,
                                    bool before_write) {
    auto reached = [&](const RateRow& row) {
        long wait = 0;
        const unsigned count = history.countWritesInLastSecs(row.window, &wait);
        if (count < row.limit)
            return false;
        *hit = {count, row.limit, row.window, wait};
        return true;
    };
    for (const RateRow& row : RPMB_WRITE_RATES) {
        if (reached(row))
            return true;
    }
    return before_write && reached(RPMB_WRITE_SECOND);
}
