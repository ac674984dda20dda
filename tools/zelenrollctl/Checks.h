#pragma once

#include <glib.h>

#include <string>
#include <vector>

#include "CheckReport.h"
#include "CtlOptions.h"
#include "DaemonUser.h"
#include "StoredEnrollment.h"

// Collects what the daemon's own classes log while a check runs, so that their reasons end
// up in the check's line instead of on standard error. Restores the previous handler.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // The messages (not debug) logged since the last call, joined by "; ".
    std::string take();

  private:
    static void handler(const gchar* domain, GLogLevelFlags level, const gchar* message,
                        gpointer self);
    GLogFunc previous;  // the default handler takes no data of its own
    std::string text;
};

// What one run of `zelenrollctl check` has learned so far; later checks build on it (the
// branding tells which protocols the device offers, the stored certificate the validity
// that the clock is held against).
struct CheckContext {
    CheckContext(const CtlOptions& options, CheckReport& results)
        : opts(options), report(results) {}

    bool offers(const char* protocol) const;
    // Whether the daemon's user may access `path` (true for an unknown user, whose own line
    // is the error); otherwise adds the error line of check `name` with `fix`.
    bool user_may_access(const char* name, const std::string& path, int mode,
                         const std::string& fix);

    const CtlOptions& opts;
    CheckReport& report;
    DaemonUser user;
    bool user_known = false;
    std::vector<std::string> protocols;
    std::string base_url;
    StoredEnrollment stored;
    bool key_ok = false;  // the device key loads
    bool cert_present = false;
    LogCapture log;  // active while the checks run
};

// The checks, in the order they run.
void check_daemon_user(CheckContext& ctx);
void check_branding(CheckContext& ctx);
void check_device_key(CheckContext& ctx);
void check_certificate(CheckContext& ctx);
void check_clock(CheckContext& ctx);
void check_ca_bundle(CheckContext& ctx);
void check_proxy(CheckContext& ctx);
void check_server_tls(CheckContext& ctx);
void check_status_file(CheckContext& ctx);
void check_services_dir(CheckContext& ctx);
void check_rpmb(CheckContext& ctx);
void check_tpm(CheckContext& ctx);
void check_daemon(CheckContext& ctx);

// Runs every check and prints the report; 0 without errors, else 1.
int run_checks(const CtlOptions& opts);
