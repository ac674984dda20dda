#include <gtest/gtest.h>

#include <string>

#include "DeviceIdentity.h"
#include "LogCapture.h"
#include "TempDir.h"

namespace {

class DeviceIdentityTest : public ::testing::Test {
  protected:
    std::string identifier(const std::string& contents, const char* key = "ZEL_SN") {
        return read_corvanta_identifier_from(tmp.write("identifiers", contents).c_str(), key);
    }

    TempDir tmp;
    LogCapture log;
};

}  // namespace

TEST_F(DeviceIdentityTest, IdentifiersAreShellValuesOfExactlyTheKey) {
    EXPECT_EQ(identifier("ZEL_SN='AB 12'\n"), "AB 12");
    EXPECT_EQ(identifier("ZEL_SN=AB\\ 12\n"), "AB 12");
    EXPECT_EQ(identifier("ZEL_SN_OLD=wrong\nZEL_SN=\nZEL_SN=123\nZEL_SN=456\n"), "123");
    EXPECT_EQ(identifier("ZEL_USER_SN =blank-before-separator\n", "ZEL_USER_SN"), "");
    EXPECT_EQ(read_corvanta_identifier_from(tmp.file("none").c_str(), "ZEL_SN"), "");  // silent
    EXPECT_TRUE(log.empty()) << log.dump();

    EXPECT_EQ(identifier("ZEL_SN='unclosed\nZEL_SN=later\n"), "");
    EXPECT_TRUE(
        log.loggedPrefix(G_LOG_LEVEL_CRITICAL, "error unquoting value in identifiers file: "))
        << log.dump();
}
