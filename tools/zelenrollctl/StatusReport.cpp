#include "StatusReport.h"

#include <cstdio>
#include <iostream>
#include <iterator>

#include "Enroller.h"
#include "JsonObjectOutput.h"
#include "RetryPolicy.h"
#include "SysUtils.h"

namespace {

void add_number(JsonObjectOutput& out, const char* name, long value) {
    out.setMemberName(name);
    out.addValue(value);
}

}  // namespace

std::string time_text(int64_t t) {
    return t > 0 ? unix_time_to_iso8601(static_cast<time_t>(t)) : "never";
}

void StatusReport::print_text() const {
    std::printf("daemon:              %s\n", !daemon.error.empty()
                                                 ? ("not running (" + daemon.error + ")").c_str()
                                             : daemon.disabled ? "running, enrollment disabled"
                                             : daemon.enrolled ? "running, enrolled"
                                                               : "running, not enrolled");
    std::printf("status file:         %s\n", stored.status_path.c_str());
    if (!stored.status_present) {
        std::printf("  absent (never enrolled)\n");
    } else if (!stored.status_error.empty()) {
        std::printf("  invalid: %s\n", stored.status_error.c_str());
    } else {
        const EnrollerStatus& st = stored.status;
        std::printf("  enrolled:          %s\n", st.enrolled ? "yes" : "no");
        std::printf("  enabled:           %s\n", st.enabled ? "yes" : "no");
        std::printf("  last enrollment:   %s\n", time_text(st.lastEnrolledTStamp).c_str());
        std::printf("  forced enrollment: %s\n", time_text(st.forcedEnrollTStamp).c_str());
        std::printf("  last base URL:     %s\n",
                    st.lastEnrollBaseURL.empty() ? "unknown" : st.lastEnrollBaseURL.c_str());
        std::printf("  RPMB writes:       counter %u of at most %u\n", st.rpmb.writeCounter,
                    Enroller::MAX_RPMB_WRITE_COUNTER);
        for (auto it = std::rbegin(RetryPolicy::RPMB_WRITE_RATES);
             it != std::rend(RetryPolicy::RPMB_WRITE_RATES); ++it)
            std::printf("    last %3ld days:   %u of at most %u\n", it->window / 86400,
                        st.rpmb.countWritesInLastSecs(it->window, nullptr), it->limit);
    }
    std::printf("certificate:         %s\n", stored.service_file.c_str());
    if (!stored.cert_loaded) {
        std::printf("  none: %s\n", stored.cert_error.c_str());
        return;
    }
    std::printf("  subject:           %s\n", stored.subject.c_str());
    std::printf("  issuer:            %s\n", stored.issuer.c_str());
    std::printf("  valid from:        %s\n", time_text(stored.not_before).c_str());
    std::printf("  valid until:       %s\n", time_text(stored.not_after).c_str());
    std::printf("  days left:         %ld\n", stored.days_left(now));
    std::printf("  matches key:       %s\n",
                stored.key_matches ? "yes" : ("no (" + stored.key_error + ")").c_str());
}

void StatusReport::print_json() const {
    JsonObjectOutput out;
    out.addObjectProperty("daemon");
    out.addProperty("running", daemon.error.empty());
    if (daemon.error.empty()) {
        out.addProperty("enrolled", daemon.enrolled);
        out.addProperty("disabled", daemon.disabled);
    } else {
        out.addProperty("error", daemon.error.c_str());
    }
    out.finishObjectProperty();

    out.addObjectProperty("statusFile");
    out.addProperty("path", stored.status_path.c_str());
    out.addProperty("present", stored.status_present);
    if (!stored.status_error.empty())
        out.addProperty("error", stored.status_error.c_str());
    if (stored.status_present && stored.status_error.empty()) {
        const EnrollerStatus& st = stored.status;
        out.addProperty("enrolled", st.enrolled);
        out.addProperty("enabled", st.enabled);
        out.addProperty("lastEnrolledTStamp", st.lastEnrolledTStamp > 0
                                                  ? time_text(st.lastEnrolledTStamp).c_str()
                                                  : nullptr);
        out.addProperty("forcedEnrollTStamp", st.forcedEnrollTStamp > 0
                                                  ? time_text(st.forcedEnrollTStamp).c_str()
                                                  : nullptr);
        out.addProperty("lastEnrollBaseURL", st.lastEnrollBaseURL.c_str());
        out.addObjectProperty("rpmb");
        add_number(out, "writeCounter", st.rpmb.writeCounter);
        add_number(out, "maxWriteCounter", Enroller::MAX_RPMB_WRITE_COUNTER);
        out.addArrayProperty("writes");
        for (auto it = std::rbegin(RetryPolicy::RPMB_WRITE_RATES);
             it != std::rend(RetryPolicy::RPMB_WRITE_RATES); ++it) {
            out.addObjectArrayElement();
            add_number(out, "days", it->window / 86400);
            add_number(out, "count", st.rpmb.countWritesInLastSecs(it->window, nullptr));
            add_number(out, "limit", it->limit);
            out.finishObjectArrayElement();
        }
        out.finishArrayProperty();
        out.finishObjectProperty();
    }
    out.finishObjectProperty();

    out.addObjectProperty("certificate");
    out.addProperty("path", stored.service_file.c_str());
    out.addProperty("present", stored.cert_loaded);
    if (!stored.cert_loaded) {
        out.addProperty("error", stored.cert_error.c_str());
    } else {
        out.addProperty("subject", stored.subject.c_str());
        out.addProperty("issuer", stored.issuer.c_str());
        out.addProperty("notBefore", time_text(stored.not_before).c_str());
        out.addProperty("notAfter", time_text(stored.not_after).c_str());
        add_number(out, "daysLeft", stored.days_left(now));
        out.addProperty("matchesKey", stored.key_matches);
        if (!stored.key_matches)
            out.addProperty("keyError", stored.key_error.c_str());
    }
    out.finishObjectProperty();
    std::cout << out.finish() << "\n";
}
