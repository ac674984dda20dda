#include <gtest/gtest.h>
#include <syslog.h>

#include <cstring>
#include <string>
#include <utility>

#include "GLibLog.h"
#include "GLibPtr.h"
#include "SysUtils.h"
#include "TestSupport.h"

// Base64 of exactly the buffer's length, and files of at least its length.
TEST(SysUtils, ReadDataNeedsAllBytes) {
    unsigned char bytes[4] = {0xee, 0xee, 0xee, 0xee};
    for (const char* text : {"AAEC", "AAECAwQ=", "AAEC/w=", "AA=C/w==", "AAE*/w==", "AAEC/w==="})
        EXPECT_FALSE(read_data_base64(text, bytes, sizeof bytes)) << text;
    EXPECT_FALSE(read_data_base64(nullptr, bytes, sizeof bytes));
    EXPECT_EQ(memcmp(bytes, "\xee\xee\xee\xee", 4), 0);  // untouched by every failure
    EXPECT_TRUE(read_data_base64("AAEC/w==", bytes, sizeof bytes));
    EXPECT_EQ(memcmp(bytes, "\x00\x01\x02\xff", 4), 0);

    const TempDir tmp;
    const std::string b31 = tmp.write("b31", std::string(31, 'x'));
    const std::string b40 = tmp.write("b40", std::string(32, 'y') + "zzzzzzzz");
    unsigned char buffer[32] = {};
    for (bool buffered : {true, false}) {
        EXPECT_FALSE(read_data_file(b31.c_str(), buffer, sizeof buffer, buffered));
        EXPECT_TRUE(read_data_file(b40.c_str(), buffer, sizeof buffer, buffered));
        EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), 32), std::string(32, 'y'));
    }
}

TEST(GLibPtr, FloatingIsSunk) {
    // A floating variant is sunk, not given an extra reference: its data goes with it.
    bool freed = false;
    GBytes* data = g_bytes_new_with_free_func(
        "x", 2, [](gpointer f) { *static_cast<bool*>(f) = true; }, &freed);
    GLibPtr<GVariant> variant(g_variant_new_from_bytes(G_VARIANT_TYPE_STRING, data, TRUE));
    g_bytes_unref(data);
    EXPECT_FALSE(g_variant_is_floating(variant.get()));
    variant.reset();
    EXPECT_TRUE(freed);
}

TEST(GLibLog, SyslogPriorityIgnoresFlagsAndDropsDebugUnlessOn) {
    const std::pair<int, int> levels[] = {
        {G_LOG_LEVEL_ERROR, LOG_CRIT},      {G_LOG_LEVEL_CRITICAL, LOG_ERR},
        {G_LOG_LEVEL_WARNING, LOG_WARNING}, {G_LOG_LEVEL_MESSAGE, LOG_NOTICE},
        {G_LOG_LEVEL_INFO, LOG_INFO},       {G_LOG_LEVEL_DEBUG, LOG_DEBUG}};
    for (bool debug : {false, true}) {
        glib_log_handler_set_debug(debug);
        for (const auto& [level, priority] : levels)
            for (int flags : {0, int(G_LOG_FLAG_FATAL), int(G_LOG_FLAG_RECURSION)})
                EXPECT_EQ(glib_level_to_syslog_priority(GLogLevelFlags(level | flags)),
                          level == G_LOG_LEVEL_DEBUG && !debug ? -1 : priority)
                    << "level " << level << " flags " << flags << " debug " << debug;
    }
    glib_log_handler_set_debug(false);
}
