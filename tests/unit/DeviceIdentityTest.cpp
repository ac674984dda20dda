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

TEST_F(DeviceIdentityTest, SerialFromCpuinfoElseFromIdentifiers) {
    const std::string ids = tmp.write("identifiers", "ZEL_SN=from-identifiers\n");
    const std::string cpuinfo = tmp.write("cpuinfo", "cpu : 0\nSerial\t\t: 00000000abcdef12\n");
    EXPECT_EQ(read_serial_nr_from(cpuinfo.c_str(), ids.c_str()), "00000000abcdef12");
    const std::string no_serial = tmp.write("cpuinfo", "cpu : 0\nSerial\t\t: \n");
    EXPECT_EQ(read_serial_nr_from(no_serial.c_str(), ids.c_str()), "from-identifiers");
}

TEST_F(DeviceIdentityTest, FirmwareVersionFromOsReleaseWithoutQuotes) {
    const std::string etc = tmp.write("etc", "VERSION_ID='1.0'\n");
    const std::string usr = tmp.write("usr", "NAME=\"Zel OS\"\nVERSION_ID=\"4.7.2\"\n");
    EXPECT_EQ(read_firmware_version_from(etc.c_str(), usr.c_str()), "1.0");
    EXPECT_EQ(read_firmware_version_from(tmp.file("none").c_str(), usr.c_str()), "4.7.2");
}
