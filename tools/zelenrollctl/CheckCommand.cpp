// `zelenrollctl check`: a preflight of everything the daemon needs to enroll. Nothing here
// changes the device: files are only read, the RPMB only answers a counter read and the
// TPM only a read of its public key.

#include <libxml/parser.h>

#include <algorithm>

#include "Checks.h"

bool CheckContext::offers(const char* protocol) const {
    return std::find(protocols.begin(), protocols.end(), protocol) != protocols.end();
}

bool CheckContext::user_may_access(const char* name, const std::string& path, int mode,
                                   const std::string& fix) {
    if (!user_known)
        return true;  // reported once by the daemon user's own line
    std::string why;
    if (user.may_access(path, mode, &why))
        return true;
    report.error(name, why, fix);
    return false;
}

LogCapture::LogCapture() : previous(g_log_set_default_handler(handler, this)) {}

LogCapture::~LogCapture() {
    g_log_set_default_handler(previous, nullptr);
}

void LogCapture::handler(const gchar*, GLogLevelFlags level, const gchar* message, gpointer self) {
    if (level & G_LOG_LEVEL_DEBUG || level & G_LOG_LEVEL_INFO)
        return;
    std::string& text = static_cast<LogCapture*>(self)->text;
    text += (text.empty() ? "" : "; ") + std::string(message);
}

std::string LogCapture::take() {
    std::string taken;
    taken.swap(text);
    return taken;
}

void check_daemon_user(CheckContext& ctx) {
    const std::string name = ctx.opts.user_name();
    ctx.user_known = ctx.user.lookup(name);
    if (!ctx.user_known) {
        ctx.report.error("daemon user", "'" + name + "': " + ctx.user.error,
                         "create the user (systemd-sysusers zelenroll.conf) or give the "
                         "daemon's --user here too");
        return;
    }
    ctx.report.ok("daemon user", ctx.user.describe());
}

namespace {

// libxml2 prints parse errors itself; the proxy check reports them in its own words.
void quiet_xml_error(void*, const char*, ...) {}

}  // namespace

int run_checks(const CtlOptions& opts) {
    xmlInitParser();
    xmlSetGenericErrorFunc(nullptr, quiet_xml_error);
    // The TSS library logs each TCTI it fails to load; the TPM check says what matters.
    g_setenv("TSS2_LOG", "all+none", FALSE);

    CheckReport report;
    {
        CheckContext ctx(opts, report);
        for (auto check :
             {check_daemon_user, check_branding, check_device_key, check_certificate, check_clock,
              check_ca_bundle, check_proxy, check_server_tls, check_status_file, check_services_dir,
              check_rpmb, check_tpm, check_daemon})
            check(ctx);
    }
    if (opts.json)
        report.print_json();
    else
        report.print_text();
    return report.has_error() ? 1 : 0;
}
