#pragma once

#include <glib.h>

class EnrollerRPMBStatus;

// The arithmetic of retry timing and of the RPMB write-rate limit, kept free of the main
// loop so that it can be checked on its own.
class RetryPolicy {
  public:
    static constexpr unsigned MAX_DELAY = 86400;  // one day
    static constexpr unsigned MAX_SPACING = 60;   // cap of the spacing between requests

    // The delay to arm for a requested delay, so that requests stay at least
    // min(base, 60) seconds apart counted from the start of the previous one.
    static unsigned spaced_delay(unsigned delay, unsigned base, gint64 elapsed_us);

    // The delay of the next retry: base + round(uniform), uniform drawn from
    // [0, base * multiplier), capped at one day.
    static unsigned backoff_delay(unsigned base, double uniform);

    // The RPMB write-rate table: at most `limit` writes within the trailing `window`
    // seconds, rows checked in this order.
    struct RateRow {
        unsigned limit;
        long window;
    };
    static constexpr RateRow RPMB_WRITE_RATES[] = {
        {50, 31536000}, {30, 15552000}, {20, 864000}, {10, 86400}};

    struct RateLimit {
        unsigned count;  // writes within the window
        unsigned limit;  // the table's limit for the window
        long window;     // seconds
        long wait;       // seconds until one write leaves the window
    };
    // True when one more RPMB write would exceed the write-rate table; fills *hit with
    // the first row that is reached.
    static bool rpmb_rate_limited(const EnrollerRPMBStatus& history, RateLimit* hit);
};
