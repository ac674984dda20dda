#include "Enroller.h"

#include "ClassCallback.h"
#include "RetryPolicy.h"

void Enroller::schedule_retry(unsigned int delay) {
    if (info->disabled) {
        g_message("enroller disabled, not scheduling retry");
        return;
    }
    const unsigned interval = RetryPolicy::spaced_delay(
        delay, static_cast<unsigned>(info->retry_interval), g_get_monotonic_time() - requestStart);
    cancel_retry_timeout();
    g_debug("scheduling a retry in %u secs", interval);
    auto callback = class_callback<Enroller, &Enroller::handle_retry_timeout>;
    retrySource = interval == 0 ? g_idle_add_full(G_PRIORITY_DEFAULT, callback, this, nullptr)
                                : g_timeout_add_seconds(interval, callback, this);
}

int Enroller::handle_retry_timeout() {
    retrySource = 0;
    if (status.enrolled) {
        g_debug("already enrolled, not retrying enrollment");
        return G_SOURCE_REMOVE;
    }
    const unsigned base = static_cast<unsigned>(info->retry_interval);
    if (base != 0) {
        const double multiplier = retryMultiplier;
        const unsigned next =
            RetryPolicy::backoff_step(base, &retryMultiplier, g_random_double_range);
        g_debug("retrying enroll (multiplier %.0f), next retry in %u secs", multiplier, next);
        schedule_retry(next);
    }
    if (request == REQUEST_NONE)
        initiate();
    return G_SOURCE_REMOVE;
}

void Enroller::cancel_retry_timeout() {
    if (retrySource)
        g_source_remove(retrySource);
    retrySource = 0;
}

bool Enroller::rpmb_rate_limit_reschedule(bool before_write) {
    RetryPolicy::RateLimit hit{};
    if (!RetryPolicy::rpmb_rate_limited(status.rpmb, &hit, before_write))
        return false;
    g_warning(
        "reached RPMB write limit (%u >= %u) over last %li seconds, one slot will free in %li "
        "seconds",
        hit.count, hit.limit, hit.window, hit.wait);
    schedule_retry(hit.wait > 0 ? static_cast<unsigned>(hit.wait) : 0);
    return true;
}
