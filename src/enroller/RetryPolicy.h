#pragma once

#include <glib.h>

struct EnrollerRPMBStatus;

// The arithmetic of retry timing and of the RPMB write-rate limit, kept free of the main
// loop so that it can be checked on its own.
class RetryPolicy {
  public:
    static constexpr unsigned MAX_DELAY = 86400;  // one day
    static constexpr unsigned MAX_SPACING = 60;   // cap of the spacing between requests

    // The delay to arm for a requested delay, so that requests stay at least
    // min(base, 60) seconds apart counted from the start of the previous one.
    static unsigned spaced_delay(unsigned delay, unsigned base, gint64 elapsed_us);

    // The delay of the next retry: base + round(uniform), capped at one day.
    static unsigned backoff_delay(unsigned base, double uniform);

    // One step of the back-off: backoff_delay with uniform = random(0, base * multiplier),
    // then *multiplier doubles. `random(begin, end)` draws from [begin, end)
    // (g_random_double_range in the daemon).
    template <typename Random>
    static unsigned backoff_step(unsigned base, double* multiplier, Random&& random) {
        const unsigned next = backoff_delay(base, random(0.0, base * *multiplier));
        *multiplier *= 2;
        return next;
    }

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
    // Time stamps have whole seconds, and writes made in one second share one. Checked
    // right before a write, the table gets this row too, so that each write keeps a time
    // stamp of its own and is counted.
    static constexpr RateRow RPMB_WRITE_SECOND = {1, 1};

    // True when one more RPMB write would exceed the write-rate table (with
    // RPMB_WRITE_SECOND when `before_write`); fills *hit with the first row reached.
    static bool rpmb_rate_limited(const EnrollerRPMBStatus& history, RateLimit* hit,
                                  bool before_write = false);
};
