#pragma once

#include <glib.h>

#include <string>
#include <vector>

// Records the GLib log calls made while it lives, instead of printing them, so that tests
// can ask what was logged (g_test_expect_message needs g_test_init, which gtest does not
// call). Only messages that reach the default handler are seen, which is every message
// without a handler of its own. Not meant to be nested with another capture.
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
        return count(level, text, prefix) > 0;
    }
    bool loggedPrefix(GLogLevelFlags level, const std::string& text) const {
        return logged(level, text, true);
    }
    size_t count(GLogLevelFlags level, const std::string& text, bool prefix = false) const {
        size_t n = 0;
        for (const Entry& e : entries) {
            if (!e.domain.empty() || e.level != level)
                continue;
            if (prefix ? e.message.compare(0, text.size(), text) == 0 : e.message == text)
                ++n;
        }
        return n;
    }
    // Number of messages at `level`, from any domain.
    size_t countLevel(GLogLevelFlags level) const {
        size_t n = 0;
        for (const Entry& e : entries)
            n += e.level == level ? 1 : 0;
        return n;
    }
    bool empty() const { return entries.empty(); }
    void clear() { entries.clear(); }

    // Everything recorded, one line each, for failure messages.
    std::string dump() const {
        std::string out;
        for (const Entry& e : entries) {
            out += levelName(e.level);
            out += e.domain.empty() ? std::string() : " [" + e.domain + "]";
            out += ": " + e.message + "\n";
        }
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
    static const char* levelName(GLogLevelFlags level) {
        switch (level) {
            case G_LOG_LEVEL_ERROR:
                return "error";
            case G_LOG_LEVEL_CRITICAL:
                return "critical";
            case G_LOG_LEVEL_WARNING:
                return "warning";
            case G_LOG_LEVEL_MESSAGE:
                return "message";
            case G_LOG_LEVEL_INFO:
                return "info";
            case G_LOG_LEVEL_DEBUG:
                return "debug";
            default:
                return "other";
        }
    }

    GLogFunc previousHandler = nullptr;
};
