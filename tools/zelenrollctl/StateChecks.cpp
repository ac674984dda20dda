// What the daemon keeps between runs: the status file and the services directory.

#include <sys/stat.h>
#include <unistd.h>

#include "Checks.h"
#include "StatusReport.h"

namespace {

const char kWritableDirFix[] =
    "make it a directory the daemon's user may write (systemd-tmpfiles --create "
    "zelenroll.conf, or chown it to that user)";

std::string modified_text(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? time_text(st.st_mtime) : "unknown time";
}

}  // namespace

void check_status_file(CheckContext& ctx) {
    const char* name = "status file";
    const std::string path = ctx.opts.status_path();
    if (path.empty()) {
        ctx.report.warning(name,
                           "disabled by an empty path: the daemon forgets its enrollment "
                           "and RPMB writes at every restart",
                           "give the daemon a status file");
        return;
    }
    // Saved as a temporary file renamed over the old one, so its directory must be writable.
    const GCharPtr dir(g_path_get_dirname(path.c_str()));
    if (!ctx.user_may_access(name, dir.get(), W_OK | X_OK, kWritableDirFix))
        return;
    if (!g_file_test(path.c_str(), G_FILE_TEST_EXISTS)) {
        ctx.report.ok(name, "'" + path + "' absent: the daemon makes it at its start");
        return;
    }
    if (!ctx.user_may_access(name, path, R_OK,
                             "let the daemon's user read it (chown it to that user)"))
        return;
    StoredEnrollment& stored = ctx.stored;
    const std::string bad = path + ".bad";
    if (!stored.load_status(path)) {
        ctx.report.error(name,
                         "'" + path + "' cannot be parsed (" + stored.status_error +
                             "): the daemon keeps it as '" + bad +
                             "' at its next start and forgets the enrollment and RPMB history",
                         "stop the daemon, recover what it holds by hand, and remove it");
        return;
    }
    const EnrollerStatus& st = stored.status;
    std::string found =
        "'" + path + "': " +
        (!st.enrolled                ? std::string("not enrolled")
         : st.lastEnrolledTStamp > 0 ? "enrolled " + time_text(st.lastEnrolledTStamp)
                                     : std::string("enrolled")) +
        (st.enabled ? ", enabled" : ", disabled");
    if (!st.lastEnrollBaseURL.empty())
        found += ", last base URL " + st.lastEnrollBaseURL;
    if (st.enrolled && !ctx.base_url.empty() && st.lastEnrollBaseURL != ctx.base_url)
        found += " (the daemon enrolls again at its next start: the base URL changed)";
    if (g_file_test(bad.c_str(), G_FILE_TEST_EXISTS)) {
        ctx.report.warning(name,
                           found + "; an unreadable earlier one is kept as '" + bad + "' (" +
                               modified_text(bad) + ")",
                           "recover its enrolled state and RPMB write history by hand, then "
                           "remove it");
        return;
    }
    ctx.report.ok(name, found);
}

void check_services_dir(CheckContext& ctx) {
    const char* name = "services dir";
    const std::string dir = ctx.opts.services_path();
    if (!g_file_test(dir.c_str(), G_FILE_TEST_IS_DIR)) {
        ctx.report.error(name, "'" + dir + "' is no directory", kWritableDirFix);
        return;
    }
    if (!ctx.user_may_access(name, dir, W_OK | X_OK, kWritableDirFix))
        return;
    const std::string service_dir = dir + "/" + AWS_IOT_SERVICE;
    if (g_file_test(service_dir.c_str(), G_FILE_TEST_EXISTS) &&
        !ctx.user_may_access(name, service_dir, W_OK | X_OK, kWritableDirFix))
        return;
    const std::string marker = dir + "/_DISABLED";
    if (g_file_test(marker.c_str(), G_FILE_TEST_EXISTS)) {
        ctx.report.warning(name,
                           "'" + marker +
                               "' present: enrollment is switched off and the daemon sends "
                               "no request",
                           "start the daemon with --enable or set \"enabledByDefault\": true "
                           "in the branding file");
        return;
    }
    const std::string by = ctx.user_known ? " by " + ctx.user.name : "";
    ctx.report.ok(name, "'" + dir + "' writable" + by + ", no _DISABLED: enrollment is on");
}
