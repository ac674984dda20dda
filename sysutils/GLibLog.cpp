#include "GLibLog.h"

#include <syslog.h>

#include <memory>
#include <string>

#include "GLibPtr.h"

namespace {

// Set once at start-up; the program is single-threaded.
bool debug_enabled = false;

bool has_domain(const char* domain) {
    return domain && *domain;
}

bool dropped(GLogLevelFlags level) {
    return (level & G_LOG_LEVEL_MASK) == G_LOG_LEVEL_DEBUG && !debug_enabled;
}

void syslog_handler(const char* domain, GLogLevelFlags level, const char* message, gpointer) {
    const int priority = glib_level_to_syslog_priority(level);
    if (priority < 0)
        return;
    if (has_domain(domain))
        syslog(priority, "%s: %s", domain, message);
    else
        syslog(priority, "%s", message);
}

// "2024-05-01 12:00:00.042" in local time, or an empty string when the clock or the
// formatting fails.
std::string time_stamp() {
    GDateTime* raw_now = g_date_time_new_now_local();
    if (!raw_now)
        return std::string();
    const std::unique_ptr<GDateTime, void (*)(GDateTime*)> now(raw_now, g_date_time_unref);
    const GCharPtr seconds(g_date_time_format(now.get(), "%F %T"));
    if (!seconds)
        return std::string();
    const GCharPtr stamp(
        g_strdup_printf("%s.%03i", seconds.get(), g_date_time_get_microsecond(now.get()) / 1000));
    return stamp.get();
}

void file_handler(const char* domain, GLogLevelFlags level, const char* message, gpointer stream) {
    if (dropped(level))
        return;
    FILE* out = static_cast<FILE*>(stream);
    const std::string stamp = time_stamp();
    if (has_domain(domain))
        fprintf(out, "%s %s: %s\n", stamp.c_str(), domain, message);
    else
        fprintf(out, "%s %s\n", stamp.c_str(), message);
}

}  // namespace

int glib_level_to_syslog_priority(GLogLevelFlags level) {
    switch (level & G_LOG_LEVEL_MASK) {
        case G_LOG_LEVEL_ERROR:
            return LOG_CRIT;
        case G_LOG_LEVEL_CRITICAL:
            return LOG_ERR;
        case G_LOG_LEVEL_WARNING:
            return LOG_WARNING;
        case G_LOG_LEVEL_MESSAGE:
            return LOG_NOTICE;
        case G_LOG_LEVEL_INFO:
            return LOG_INFO;
        case G_LOG_LEVEL_DEBUG:
            return debug_enabled ? LOG_DEBUG : -1;
        default:
            return LOG_INFO;
    }
}

void set_glib_default_log_handler_to_syslog(bool debug) {
    debug_enabled = debug;
    g_log_set_default_handler(syslog_handler, nullptr);
}

void set_glib_default_log_handler_to_file(FILE* stream, bool debug) {
    debug_enabled = debug;
    setvbuf(stream, nullptr, _IOLBF, 8192);
    g_log_set_default_handler(file_handler, stream);
}

void glib_log_handler_set_debug(bool debug) {
    debug_enabled = debug;
}
