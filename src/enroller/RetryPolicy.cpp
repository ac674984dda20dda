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
    return next >= MAX_DELAY ? MAX_DELAY : static_cast<unsigned>(next);
}

bool RetryPolicy::rpmb_rate_limited(const EnrollerRPMBStatus& history, RateLimit* hit) {
    for (const RateRow& row : RPMB_WRITE_RATES) {
        long wait = 0;
        const unsigned count = history.countWritesInLastSecs(row.window, &wait);
        if (count >= row.limit) {
            *hit = {count, row.limit, row.window, wait};
            return true;
        }
    }
    return false;
}
