#include <gtest/gtest.h>

#include <string>

#include "BadEscapes.h"
#include "BrandingInfo.h"
#include "TestSupport.h"

// A hostile branding file must fail like any malformed one, and must not leak json-glib's
// scanner buffer on the way.
TEST(BrandingInfoTest, BadUnicodeEscapesAreParseFailures) {
    const TempDir tmp;
    const LogCapture log;
    for (const char* doc : kBadSurrogateDocuments) {
        const std::string path = tmp.write("branding.json", doc);
        BrandingInfo info;
        EXPECT_EQ(info.load(path.c_str()), 0);
        EXPECT_TRUE(log.logged(G_LOG_LEVEL_WARNING, "failed to parse JSON from branding file " +
                                                        path + ": " + path + kBadSurrogate))
            << log.dump();
    }
}
