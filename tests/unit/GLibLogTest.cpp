#include <gtest/gtest.h>
#include <syslog.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "GLibLog.h"

namespace {

// Puts GLib's own default handler and the debug switch back after each test.
class GLibLogTest : public ::testing::Test {
  protected:
    void TearDown() override {
        g_log_set_default_handler(g_log_default_handler, nullptr);
        glib_log_handler_set_debug(false);
    }
};

std::vector<std::string> lines_of(FILE* stream) {
    fflush(stream);
    rewind(stream);
    std::vector<std::string> lines;
    char line[1024];
    while (fgets(line, sizeof line, stream))
        lines.emplace_back(line);
    return lines;
}

}  // namespace

TEST_F(GLibLogTest, LevelMappingIgnoresTheFlagBits) {
    glib_log_handler_set_debug(false);
    struct Case {
        int level;
        int priority;
    };
    for (const Case& c :
         {Case{G_LOG_LEVEL_ERROR, LOG_CRIT}, Case{G_LOG_LEVEL_CRITICAL, LOG_ERR},
          Case{G_LOG_LEVEL_WARNING, LOG_WARNING}, Case{G_LOG_LEVEL_MESSAGE, LOG_NOTICE},
          Case{G_LOG_LEVEL_INFO, LOG_INFO}, Case{G_LOG_LEVEL_DEBUG, -1}}) {
        for (int flags : {0, int(G_LOG_FLAG_FATAL), int(G_LOG_FLAG_RECURSION),
                          int(G_LOG_FLAG_FATAL | G_LOG_FLAG_RECURSION)}) {
            EXPECT_EQ(glib_level_to_syslog_priority(GLogLevelFlags(c.level | flags)), c.priority)
                << "level " << c.level << " flags " << flags;
        }
    }
    // a combination of levels, or a user level, is no known level
    EXPECT_EQ(
        glib_level_to_syslog_priority(GLogLevelFlags(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL)),
        LOG_INFO);
    EXPECT_EQ(glib_level_to_syslog_priority(GLogLevelFlags(1 << G_LOG_LEVEL_USER_SHIFT)), LOG_INFO);
    EXPECT_EQ(
        glib_level_to_syslog_priority(GLogLevelFlags(G_LOG_LEVEL_DEBUG | G_LOG_LEVEL_MESSAGE)),
        LOG_INFO);
}

TEST_F(GLibLogTest, DebugReachesSyslogOnlyWhenSwitchedOn) {
    set_glib_default_log_handler_to_syslog(false);
    EXPECT_EQ(glib_level_to_syslog_priority(G_LOG_LEVEL_DEBUG), -1);
    set_glib_default_log_handler_to_syslog(true);
    EXPECT_EQ(glib_level_to_syslog_priority(G_LOG_LEVEL_DEBUG), LOG_DEBUG);
    glib_log_handler_set_debug(false);
    EXPECT_EQ(glib_level_to_syslog_priority(GLogLevelFlags(G_LOG_LEVEL_DEBUG | G_LOG_FLAG_FATAL)),
              -1);
}

TEST_F(GLibLogTest, FileHandlerFormatAndDebugSwitch) {
    FILE* stream = tmpfile();
    ASSERT_NE(stream, nullptr);
    set_glib_default_log_handler_to_file(stream, false);
    GDateTime* before = g_date_time_new_now_local();
    g_message("hello %d", 5);
    g_debug("hidden");
    g_log("Dom", G_LOG_LEVEL_WARNING, "from a domain");
    g_log("", G_LOG_LEVEL_INFO, "empty domain");
    glib_log_handler_set_debug(true);
    g_debug("shown");
    g_log_set_default_handler(g_log_default_handler, nullptr);

    const std::vector<std::string> lines = lines_of(stream);
    fclose(stream);
    ASSERT_EQ(lines.size(), 4u);
    const std::regex stamp(R"(^(\d{4})-(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)\.(\d{3}) )");
    const char* texts[] = {"hello 5\n", "Dom: from a domain\n", "empty domain\n", "shown\n"};
    for (size_t i = 0; i < lines.size(); ++i) {
        std::smatch match;
        ASSERT_TRUE(std::regex_search(lines[i], match, stamp)) << lines[i];
        EXPECT_EQ(match.suffix().str(), texts[i]);
        // local time, close to now
        GDateTime* logged = g_date_time_new_local(
            std::stoi(match[1]), std::stoi(match[2]), std::stoi(match[3]), std::stoi(match[4]),
            std::stoi(match[5]), std::stod(match[6]) + std::stod(match[7]) / 1000.0);
        ASSERT_NE(logged, nullptr);
        const GTimeSpan skew = g_date_time_difference(logged, before);
        EXPECT_GE(skew, -1000);  // the stamp is truncated to milliseconds
        EXPECT_LT(skew, 10 * G_TIME_SPAN_SECOND);
        g_date_time_unref(logged);
    }
    g_date_time_unref(before);
}
