#include <glib/gstdio.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DeviceIdentity.h"
#include "LogCapture.h"
#include "TempDir.h"

namespace {

class DeviceIdentityTest : public ::testing::Test {
  protected:
    std::string write(const char* name, const std::string& contents) {
        return tmp.write(name, contents);
    }
    std::string missing(const char* name) const { return tmp.file(name); }

    std::string identifier(const std::string& contents, const char* key = "ZEL_SN") {
        const std::string path = write("identifiers", contents);
        return read_corvanta_identifier_from(path.c_str(), key);
    }

    TempDir tmp;
};

}  // namespace

TEST_F(DeviceIdentityTest, MissingIdentifiersFileIsSilent) {
    LogCapture log;
    const std::string path = missing("identifiers");
    for (const char* key : {"ZEL_SN", "ZEL_USER_SN", "ZEL_BOARD_SN", "ZEL_SYSTEM_SN"})
        EXPECT_EQ(read_corvanta_identifier_from(path.c_str(), key), "");
    EXPECT_TRUE(log.empty()) << log.dump();
}

TEST_F(DeviceIdentityTest, ShellUnquoting) {
    LogCapture log;
    EXPECT_EQ(identifier("ZEL_SN='AB 12'\n"), "AB 12");
    EXPECT_EQ(identifier("ZEL_SN=AB\\ 12\n"), "AB 12");
    EXPECT_EQ(identifier("ZEL_SN=\"AB \\\"12\\\"\"  \n"), "AB \"12\"");
    EXPECT_EQ(identifier("ZEL_SN=a=b"), "a=b");  // no final newline; later "=" are value
    EXPECT_TRUE(log.empty()) << log.dump();

    EXPECT_EQ(identifier("ZEL_SN='unclosed\nZEL_SN=later\n"), "");
    EXPECT_TRUE(
        log.loggedPrefix(G_LOG_LEVEL_CRITICAL, "error unquoting value in identifiers file: "))
        << log.dump();
}

TEST_F(DeviceIdentityTest, KeyMatchingAndFirstNonEmptyValue) {
    const std::string contents =
        "# comment line without the separator\n"
        "ZEL_SN=\n"
        "ZEL_SN_OLD=wrong\n"
        "ZEL_USER_SN =blank-before-separator\n"
        "\t  ZEL_USER_SN=indented\n"
        "ZEL_SN=123\n"
        "ZEL_SN=456\n"
        "ZEL_BOARD_SN=''\n";
    EXPECT_EQ(identifier(contents), "123");
    EXPECT_EQ(identifier(contents, "ZEL_USER_SN"), "indented");
    EXPECT_EQ(identifier(contents, "ZEL_BOARD_SN"), "");
    EXPECT_EQ(identifier(contents, "ZEL_CHASSIS_SN"), "");
}

TEST_F(DeviceIdentityTest, UnreadableFilesAreCritical) {
    LogCapture log;
    // a directory opens but cannot be read as lines
    EXPECT_EQ(read_corvanta_identifier_from(tmp.path.c_str(), "ZEL_SN"), "");
    EXPECT_TRUE(log.loggedPrefix(G_LOG_LEVEL_CRITICAL, "error reading identifiers file: "))
        << log.dump();

    log.clear();
    EXPECT_EQ(identifier("ZEL_SN=\nbad \xff\xfe line\nZEL_SN=789\n"), "");
    EXPECT_TRUE(log.loggedPrefix(G_LOG_LEVEL_CRITICAL, "error reading identifiers file: "))
        << log.dump();

    log.clear();
    EXPECT_EQ(read_cpuinfo_serial_nr_from(missing("cpuinfo").c_str()), "");
    EXPECT_TRUE(log.loggedPrefix(G_LOG_LEVEL_CRITICAL, "error reading cpuinfo: ")) << log.dump();
}

TEST_F(DeviceIdentityTest, CpuinfoSerialAndFallback) {
    const std::string with_serial = write("cpuinfo",
                                          "processor\t: 0\n"
                                          "model name\t: ARMv7 Processor rev 4 (v7l)\n"
                                          " Serial\t\t: indented-name-does-not-match\n"
                                          "Hardware\t: BCM2835\n"
                                          "Serial\t\t: 00000000abcdef12\n"
                                          "Serial\t\t: second\n");
    EXPECT_EQ(read_cpuinfo_serial_nr_from(with_serial.c_str()), "00000000abcdef12");

    const std::string identifiers = write("identifiers", "ZEL_SN=\"from-identifiers\"\n");
    const std::string empty_serial = write("cpuinfo-empty", "processor : 0\nSerial\t\t: \n");
    EXPECT_EQ(read_serial_nr_from(with_serial.c_str(), identifiers.c_str()), "00000000abcdef12");
    EXPECT_EQ(read_serial_nr_from(empty_serial.c_str(), identifiers.c_str()), "from-identifiers");

    LogCapture log;
    EXPECT_EQ(read_serial_nr_from(missing("cpuinfo-none").c_str(), identifiers.c_str()),
              "from-identifiers");
    EXPECT_TRUE(log.loggedPrefix(G_LOG_LEVEL_CRITICAL, "error reading cpuinfo: "));
}

TEST_F(DeviceIdentityTest, FirmwareVersionFromOsRelease) {
    const std::string etc = write("etc-os-release",
                                  "NAME=\"Zel OS\"\n"
                                  "VERSION_ID_LIKE=9\n"
                                  "VERSION_ID=\n"
                                  "   VERSION_ID=\"4.7.2\"\n");
    const std::string usr = write("usr-os-release", "VERSION_ID='1.0'\n");
    EXPECT_EQ(read_firmware_version_from(etc.c_str(), usr.c_str()), "4.7.2");
    EXPECT_EQ(read_firmware_version_from(missing("none").c_str(), usr.c_str()), "1.0");

    // an existing file without the key does not send the reader to the other one
    const std::string keyless = write("keyless", "NAME=x\nVERSION_ID =2\n");
    EXPECT_EQ(read_firmware_version_from(keyless.c_str(), usr.c_str()), "");

    // quotes become blanks, without shell rules
    const std::string odd = write("odd", "VERSION_ID=\"1\"2' \n");
    EXPECT_EQ(read_firmware_version_from(odd.c_str(), usr.c_str()), "1 2");

    LogCapture log;
    EXPECT_EQ(read_firmware_version_from(missing("a").c_str(), missing("b").c_str()), "");
    EXPECT_TRUE(log.loggedPrefix(G_LOG_LEVEL_MESSAGE, "error reading os-release: ")) << log.dump();
}

TEST_F(DeviceIdentityTest, SystemPathsDoNotCrash) {
    // The values depend on the machine; the readers must simply cope.
    LogCapture log;
    read_cpuinfo_serial_nr();
    read_serial_nr();
    read_firmware_version();
    read_corvanta_identifier("ZEL_USER_SN");
    EXPECT_EQ(log.countLevel(G_LOG_LEVEL_ERROR), 0u);
}
