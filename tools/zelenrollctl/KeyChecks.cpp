// The device key, the certificate stored for it, and the clock both are judged by.

#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

#include "Checks.h"
#include "Key.h"
#include "StatusReport.h"

#ifndef ZEL_BUILD_EPOCH
#error "ZEL_BUILD_EPOCH (the build time in Unix seconds) must be defined"
#endif

void check_device_key(CheckContext& ctx) {
    const char* name = "device key";
    const std::string path = ctx.opts.key_path();
    const std::string fix_missing =
        "generate it (openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out " + path +
        ") or give the daemon's --key here too";
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
        ctx.report.error(name, "'" + path + "': " + g_strerror(errno), fix_missing);
        return;
    }
    if (!S_ISREG(st.st_mode)) {
        ctx.report.error(name, "'" + path + "' is not a file", fix_missing);
        return;
    }
    // The daemon reads the key after its user switch, at every attempt.
    if (!ctx.user_may_access(name, path, R_OK,
                             "let the daemon's user read it (chgrp zelenroll and chmod 0640, as "
                             "the tmpfiles entry does)"))
        return;
    Key key;
    if (!key.load_private_pem(path.c_str())) {
        ctx.report.error(name, "'" + path + "' is no private key OpenSSL loads: " + key.error,
                         "replace it by an unencrypted PEM private key (and enroll again)");
        return;
    }
    ctx.key_ok = true;
    const std::string found = "'" + path + "': " + EVP_PKEY_get0_type_name(key.pkey.get()) + " " +
                              std::to_string(EVP_PKEY_get_bits(key.pkey.get())) +
                              "-bit private key";
    if (st.st_mode & S_IROTH)
        ctx.report.warning(name, found + ", readable by every user",
                           "take the others' read permission away (chmod o-r " + path + ")");
    else
        ctx.report.ok(name, found);
}

void check_certificate(CheckContext& ctx) {
    const char* name = "certificate";
    StoredEnrollment& stored = ctx.stored;
    ctx.cert_present = stored.load_certificate(ctx.opts.services_path(), ctx.opts.key_path());
    const std::string fix = "enroll again (zelenrollctl trigger, as root)";
    if (!ctx.cert_present) {
        if (!g_file_test(stored.service_file.c_str(), G_FILE_TEST_EXISTS))
            ctx.report.ok(name, "none stored yet (not enrolled)");
        else
            ctx.report.error(name, "'" + stored.service_file + "': " + stored.cert_error, fix);
        return;
    }
    const std::string found = stored.subject + ", issued by " + stored.issuer + ", valid " +
                              time_text(stored.not_before) + " to " + time_text(stored.not_after);
    if (!ctx.key_ok)
        ctx.report.ok(name, found + ", not compared with the device key");
    else if (!stored.key_matches)
        ctx.report.error(name, found + ", not for the device key", fix);
    else
        ctx.report.ok(name, found + ", for the device key");
}

void check_clock(CheckContext& ctx) {
    const char* name = "clock";
    const time_t now = time(nullptr);
    const time_t built = static_cast<time_t>(ZEL_BUILD_EPOCH);
    const std::string now_text = time_text(now);
    struct tm tm {};
    gmtime_r(&now, &tm);
    if (now < built) {
        std::string found =
            now_text + " is before this software was built (" + time_text(built) + ")";
        if (tm.tm_year + 1900 == 1970)
            found +=
                ": the clock was never set (no battery-backed clock and no time "
                "synchronisation yet), and TLS refuses every certificate as not yet valid";
        ctx.report.error(name, found,
                         "let time synchronisation (systemd-timesyncd or NTP) set the clock "
                         "before enrolling, or set it with timedatectl set-time");
        return;
    }
    const StoredEnrollment& stored = ctx.stored;
    if (ctx.cert_present && now < stored.not_before) {
        ctx.report.error(name,
                         now_text + " is before the stored certificate's validity, which starts " +
                             time_text(stored.not_before),
                         "set the clock right (time synchronisation or timedatectl set-time), as "
                         "TLS and the certificate fail until then");
        return;
    }
    if (ctx.cert_present && now > stored.not_after) {
        ctx.report.warning(name,
                           now_text + " is after the stored certificate expired (" +
                               time_text(stored.not_after) + ")",
                           "if the clock is right, renew it with zelenrollctl renew-if-due (as "
                           "root)");
        return;
    }
    ctx.report.ok(name,
                  now_text + ", after the build date" +
                      (ctx.cert_present ? " and within the stored certificate's validity" : ""));
}
