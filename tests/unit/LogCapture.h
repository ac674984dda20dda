#pragma once

#include <glib.h>

#include <string>
#include <vector>

// Records the GLib log calls made while it lives, instead of printing them, so that tests
// can ask what was logged (g_test_expect_message needs g_test_init, which gtest does not
// call). Only messages that reach the default handler are seen.
class LogCapture {
  public:
    struct Entry {
        std::string domain;  // empty for messages without a log domain
        GLogLevelFlags level;
        std::string message;
    };

    LogCapture() { previousHandler = g_log_set_default_handler(&LogCapture::record, this); }
    ~LogCapture() { g_log_set_default_handler(previousHandler, nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Whether a message without a log domain was logged at `level` whose text is exactly
    // `text`, or starts with it when `prefix` is set.
    bool logged(GLogLevelFlags level, const std::string& text, bool prefix = false) const {
        for (const Entry& e : entries) {
            if (e.domain.empty() && e.level == level &&
                (prefix ? e.message.compare(0, text.size(), text) == 0 : e.message == text))
                return true;
        }
        return false;
    }
    bool loggedPrefix(GLogLevelFlags level, const std::string& text) const {
        return logged(level, text, true);
    }
    bool empty() const { return entries.empty(); }

    // Everything recorded, one line each (with the GLib level number), for failure messages.
    std::string dump() const {
        std::string out;
        for (const Entry& e : entries)
            out += std::to_string(e.level) + " " + e.domain + ": " + e.message + "\n";
        return out;
    }

    std::vector<Entry> entries;

  private:
    static void record(const char* domain, GLogLevelFlags level, const char* message,
                       gpointer self) {
        static_cast<LogCapture*>(self)->entries.push_back(
            {domain ? domain : "", static_cast<GLogLevelFlags>(level & G_LOG_LEVEL_MASK),
             message ? message : ""});
    }

    GLogFunc previousHandler = nullptr;
};
