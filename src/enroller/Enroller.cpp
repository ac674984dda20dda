#include "Enroller.h"

#include "ClassCallback.h"
#include "Key.h"
#include "RPMB.h"
#include "TPM2.h"

Enroller::Enroller(const EnrollerInfo& info, const std::string& statusFile, SoupSession* session)
    : info(&info), status(statusFile), session(session) {
    GNetworkMonitor* monitor = g_network_monitor_get_default();
    if (!monitor) {
        g_critical("no network monitor available");
    } else {
        networkHandler = g_signal_connect(
            monitor, "notify::network-available",
            G_CALLBACK((class_callback<Enroller, &Enroller::on_network_changed>)), this);
        if (!networkHandler)
            g_critical("failed to connect to network monitor signal");
    }

    // the first attempt must not be held back by the spacing of requests
    requestStart = g_get_monotonic_time() - 60 * G_USEC_PER_SEC;

    if (!statusFile.empty())
        status.load(!info.disabled);
    g_message("current enrolled status: %s", status.enrolled ? "true" : "false");

    if (status.lastEnrollBaseURL != info.base_url) {
        if (status.enrolled) {
            g_warning("the enroll base URL has changed (was '%s'), forcing re-enrollment",
                      status.lastEnrollBaseURL.c_str());
            status.recordForcedEnroll();
        }
        status.lastEnrollBaseURL = info.base_url;
        status.save();
    }

    schedule_retry(1);
}

Enroller::~Enroller() {
    if (networkHandler)
        g_signal_handler_disconnect(g_network_monitor_get_default(), networkHandler);
    cancel_retry_timeout();
    if (releaseSource)
        g_source_remove(releaseSource);
    clear_request_deadline();
    enrolledCallback = nullptr;
    close_rpmb();
    if (tpm2)
        tpm2->close();
}

void Enroller::register_enrolled_cb(std::function<void()> cb) {
    enrolledCallback = std::move(cb);
}

bool Enroller::trigger() {
    if (request != REQUEST_NONE) {
        g_message("received trigger call but enrollment is ongoing");
        return false;
    }
    status.recordForcedEnroll();
    status.save();
    retryMultiplier = 1.0;
    g_message("received trigger call, enrolled status reset and scheduled a retry");
    schedule_retry(0);
    return true;
}

void Enroller::network_available() {
    if (request != REQUEST_NONE)
        return;
    retryMultiplier = 1.0;
    schedule_retry(0);
    g_message("received network available notification, scheduled a retry");
}

void Enroller::on_network_changed(GObject* monitor, GParamSpec*) {
    const bool available = g_network_monitor_get_network_available(G_NETWORK_MONITOR(monitor));
    g_debug("network changed status: available = %i", available);
    if (available)
        network_available();
}
