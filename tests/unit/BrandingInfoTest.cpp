#include <glib/gstdio.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "BrandingInfo.h"
#include "JsonObjectInput.h"
#include "LogCapture.h"
#include "TempDir.h"

namespace {

class BrandingInfoTest : public ::testing::Test {
  protected:
    // Writes `contents` to a new file of the test's directory.
    std::string write(const std::string& contents) {
        return tmp.write("file-" + std::to_string(++written), contents);
    }

    TempDir tmp;
    int written = 0;
    LogCapture log;
};

const char* const kValidTail =
    R"("enrollRootUrl": "https://enroll.example.com", "enabledByDefault": false})";

}  // namespace

TEST_F(BrandingInfoTest, LoadsTheShippedExample) {
    BrandingInfo info;
    ASSERT_EQ(info.load(TEST_DATA_DIR "/branding-acme.json"), 1) << log.dump();
    EXPECT_EQ(info.brand, "Acme");
    EXPECT_EQ(info.model, "MP-100");
    EXPECT_EQ(info.enrollProtocols, (std::vector<std::string>{"tpm2-authkey-csr", "noauth-csr"}));
    EXPECT_EQ(info.enrollRootUrl, "https://enroll.example.com/v1/");
    EXPECT_TRUE(info.enabledByDefault);
    EXPECT_TRUE(
        log.logged(G_LOG_LEVEL_DEBUG, "loaded branding from " TEST_DATA_DIR "/branding-acme.json"))
        << log.dump();
}

TEST_F(BrandingInfoTest, OptionalFlagAndEmptyProtocolList) {
    BrandingInfo info;
    info.enabledByDefault = true;
    info.enrollProtocols = {"stale"};
    ASSERT_EQ(info.load(write(R"({"brand": "B", "model": "M", "enrollProtocols": [],
                                  "enrollRootUrl": "https://x"})")
                            .c_str()),
              1)
        << log.dump();
    EXPECT_FALSE(info.enabledByDefault);  // absent means disabled
    EXPECT_TRUE(info.enrollProtocols.empty());
    EXPECT_EQ(log.countLevel(G_LOG_LEVEL_WARNING), 0u);
}

TEST_F(BrandingInfoTest, InvalidContentsFailWithTheReadersFirstError) {
    struct Case {
        std::string contents;
        std::string error;
    };
    const std::vector<Case> cases = {
        {"{}", "missing member 'brand'"},
        {R"({"brand": 1, "model": 2})", "member 'brand' does not hold a string"},
        {std::string(R"({"brand": "B", "model": "M", "enrollProtocols": {"a": "b"}, )") +
             kValidTail,
         "expected array in JSON but got JsonObject"},
        {R"({"brand": "B", "model": "M", "enrollProtocols": ["a"]})",
         "missing member 'enrollRootUrl'"},
        {std::string(R"({"brand": "B", "model": "M", "enrollProtocols": ["a"], )") +
             R"("enrollRootUrl": "u", "enabledByDefault": [true]})",
         "member 'enabledByDefault' does not hold a value"},
        {"[]", "expected object in JSON but got JsonArray"},
    };
    for (const Case& c : cases) {
        log.clear();
        BrandingInfo info;
        EXPECT_EQ(info.load(write(c.contents).c_str()), 0) << c.contents;
        EXPECT_TRUE(
            log.logged(G_LOG_LEVEL_WARNING, "ignoring invalid data in branding file: " + c.error))
            << c.contents << "\n"
            << log.dump();
    }
}

TEST_F(BrandingInfoTest, BadProtocolElementsAreSkippedButFailTheLoad) {
    BrandingInfo info;
    const std::string path = write(
        std::string(R"({"brand": "B", "model": "M", "enrollProtocols": ["a", 5, null, "b"], )") +
        kValidTail);
    EXPECT_EQ(info.load(path.c_str()), 0);
    EXPECT_TRUE(log.logged(G_LOG_LEVEL_WARNING,
                           "ignoring invalid data in branding file: array "
                           "element 1 does not hold a string"))
        << log.dump();
    // what was read stays
    EXPECT_EQ(info.enrollProtocols, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(info.enrollRootUrl, "https://enroll.example.com");
}

TEST_F(BrandingInfoTest, UnparsableEmptyAndMissingFiles) {
    BrandingInfo info;
    const std::string empty = write("");
    EXPECT_EQ(info.load(empty.c_str()), 0);
    EXPECT_TRUE(log.logged(G_LOG_LEVEL_WARNING, "branding file " + empty + " is empty"))
        << log.dump();

    const std::string broken = write("{\"brand\": ");
    EXPECT_EQ(info.load(broken.c_str()), 0);
    EXPECT_TRUE(log.loggedPrefix(G_LOG_LEVEL_WARNING,
                                 "failed to parse JSON from branding file " + broken + ": "))
        << log.dump();

    const std::string missing = tmp.file("missing.json");
    EXPECT_EQ(info.load(missing.c_str()), 0);
    EXPECT_TRUE(log.loggedPrefix(G_LOG_LEVEL_WARNING,
                                 "failed to parse JSON from branding file " + missing + ": "));

    const std::string deep = write(std::string(100000, '['));
    EXPECT_EQ(info.load(deep.c_str()), 0);
    EXPECT_TRUE(log.loggedPrefix(G_LOG_LEVEL_WARNING,
                                 "failed to parse JSON from branding file " + deep + ": "));
}

TEST_F(BrandingInfoTest, LoadResetsEveryField) {
    BrandingInfo info;
    ASSERT_EQ(info.load(TEST_DATA_DIR "/branding-acme.json"), 1);
    EXPECT_EQ(info.load(write(R"({"model": "Only"})").c_str()), 0);
    EXPECT_EQ(info.brand, "");
    EXPECT_EQ(info.model, "Only");
    EXPECT_TRUE(info.enrollProtocols.empty());
    EXPECT_EQ(info.enrollRootUrl, "");
    EXPECT_FALSE(info.enabledByDefault);
}

TEST(BrandingInfoReader, StreamsFromAnyReaderContext) {
    JsonObjectInput in(R"({"branding": {"brand": "B", "model": "M", "enrollProtocols": ["p"],
                           "enrollRootUrl": "u", "enabledByDefault": 1}})",
                       -1);
    BrandingInfo info;
    ASSERT_TRUE(in.openMemberChild("branding", true));
    in >> info;
    in.closeMemberChild();
    EXPECT_FALSE(in.failed()) << in.getError();
    EXPECT_EQ(info.enrollProtocols, std::vector<std::string>{"p"});
    EXPECT_TRUE(info.enabledByDefault);
}
