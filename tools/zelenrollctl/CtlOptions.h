#pragma once

#include <glib.h>

#include <string>
#include <vector>

#include "EnrollConstants.h"

// The command line of zelenrollctl. Paths not given fall back to the daemon's defaults, so
// that the tool looks where the daemon does.
struct CtlOptions {
    gchar* status_file = nullptr;
    gchar* services_dir = nullptr;
    gchar* key = nullptr;
    gchar* branding = nullptr;
    gchar* proxy = nullptr;
    gchar* rpmb = nullptr;
    gchar* user = nullptr;
    gchar* base_url = nullptr;
    gchar** protocols = nullptr;
    gboolean session_bus = FALSE;
    gboolean json = FALSE;
    gboolean connect = FALSE;
    gchar* timeout_text = nullptr;
    gchar* fraction_text = nullptr;
    double timeout = 300;
    double fraction = 0.66;

    CtlOptions() = default;
    CtlOptions(const CtlOptions&) = delete;
    CtlOptions& operator=(const CtlOptions&) = delete;
    ~CtlOptions() {
        for (gchar* text : {status_file, services_dir, key, branding, proxy, rpmb, user, base_url,
                            timeout_text, fraction_text})
            g_free(text);
        g_strfreev(protocols);
    }

    std::string status_path() const { return status_file ? status_file : DEFAULT_STATUS_FILE; }
    std::string services_path() const { return services_dir ? services_dir : DEFAULT_SERVICES_DIR; }
    std::string key_path() const { return key ? key : DEFAULT_KEY_FILE; }
    std::string branding_path() const { return branding ? branding : DEFAULT_BRANDING_FILE; }
    std::string rpmb_path() const { return rpmb ? rpmb : DEFAULT_RPMB_DEVICE; }
    std::string user_name() const { return user ? user : DEFAULT_DAEMON_USER; }
};
