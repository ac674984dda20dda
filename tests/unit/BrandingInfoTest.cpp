#include <gtest/gtest.h>

#include <string>

#include "BadEscapes.h"
#include "BrandingInfo.h"
#include "LogCapture.h"
#include "TempDir.h"

namespace {

class BrandingInfoTest : public ::testing::Test {
  protected:
    int load(const std::string& contents) {
        path = tmp.write("branding.json", contents);
        return info.load(path.c_str());
    }
    bool warned(const std::string& message) const {
        return log.logged(G_LOG_LEVEL_WARNING, message);
    }

    TempDir tmp;
    std::string path;
    BrandingInfo info;
    LogCapture log;
};

const char* const kInvalid = "ignoring invalid data in branding file: ";

}  // namespace

TEST_F(BrandingInfoTest, InvalidFilesFailWithAWarning) {
    EXPECT_EQ(load("{}"), 0);
    EXPECT_TRUE(warned(kInvalid + std::string("missing member 'brand'"))) << log.dump();
    EXPECT_EQ(load(""), 0);
    EXPECT_TRUE(warned("branding file " + path + " is empty")) << log.dump();
    EXPECT_EQ(load(R"({"brand": "B", "model": "M", "enrollProtocols": ["a", 5, "b"],
                       "enrollRootUrl": "u", "enabledByDefault": true})"),
              0);
    EXPECT_TRUE(warned(kInvalid + std::string("array element 1 does not hold a string")))
        << log.dump();
    for (const char* doc : kBadSurrogateDocuments) {
        EXPECT_EQ(load(doc), 0);
        EXPECT_TRUE(
            warned("failed to parse JSON from branding file " + path + ": " + path + kBadSurrogate))
            << log.dump();
    }
}
