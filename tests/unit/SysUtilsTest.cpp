#include <fcntl.h>
#include <glib/gstdio.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "GLibPtr.h"
#include "SysUtils.h"
#include "TempDir.h"

namespace {

class SysUtilsFiles : public ::testing::Test {
  protected:
    std::string write(const char* name, const std::string& contents) {
        return tmp.write(name, contents);
    }
    TempDir tmp;
    const std::string& dir = tmp.path;
};

std::string dump(const unsigned char* data, size_t length, bool ascii) {
    char* text = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&text, &size);
    hex_dump(stream, data, length, ascii);
    fclose(stream);
    std::string result(text, size);
    free(text);
    return result;
}

}  // namespace

TEST(HexDump, RowsOfSixteenWithOptionalCharacters) {
    unsigned char data[32];
    for (unsigned i = 0; i < sizeof data; ++i)
        data[i] = static_cast<unsigned char>(0x3a + i);
    data[0] = 0x00;
    data[17] = 0x7f;
    EXPECT_EQ(dump(data, sizeof data, false),
              "0000: 00 3b 3c 3d 3e 3f 40 41 42 43 44 45 46 47 48 49\n"
              "0010: 4a 7f 4c 4d 4e 4f 50 51 52 53 54 55 56 57 58 59\n");
    EXPECT_EQ(dump(data, sizeof data, true),
              "0000: 00 3b 3c 3d 3e 3f 40 41 42 43 44 45 46 47 48 49     ;<=>?@ABCDEFGHI\n"
              "0010: 4a 7f 4c 4d 4e 4f 50 51 52 53 54 55 56 57 58 59    J LMNOPQRSTUVWXY\n");
    EXPECT_EQ(dump(data, 0, true), "");
}

TEST(Iso8601, ConversionsBothWays) {
    EXPECT_EQ(unix_time_to_iso8601(0), "1970-01-01T00:00:00Z");
    EXPECT_EQ(unix_time_to_iso8601(1700000000), "2023-11-14T22:13:20Z");
    EXPECT_EQ(iso8601_to_unix_time("2023-11-14T22:13:20Z"), 1700000000);
    EXPECT_EQ(iso8601_to_unix_time("2023-11-15T00:13:20+02:00"), 1700000000);
    EXPECT_EQ(iso8601_to_unix_time(unix_time_to_iso8601(4102444800).c_str()), 4102444800);
    EXPECT_EQ(iso8601_to_unix_time("not a date"), 0);
    EXPECT_EQ(iso8601_to_unix_time(""), 0);
    EXPECT_EQ(iso8601_to_unix_time(nullptr), 0);
}

TEST(Base64, ExactLengthOnly) {
    unsigned char buffer[4];
    memset(buffer, 0xee, sizeof buffer);
    EXPECT_TRUE(read_data_base64("AAEC/w==", buffer, sizeof buffer));
    EXPECT_EQ(memcmp(buffer, "\x00\x01\x02\xff", 4), 0);

    memset(buffer, 0xee, sizeof buffer);
    for (const char* text : {"AAEC", "AAECAwQ=", "AAEC/w=", "AA=C/w==", "AAEC/w=A",
                             "AAE*/w==", "AAEC/w===", "AAEC /w=="}) {
        EXPECT_FALSE(read_data_base64(text, buffer, sizeof buffer)) << text;
    }
    EXPECT_FALSE(read_data_base64(nullptr, buffer, sizeof buffer));
    for (unsigned char b : buffer)
        EXPECT_EQ(b, 0xee);

    // 31 bytes do not fill a 32-byte buffer
    unsigned char key[32];
    memset(key, 0x5a, sizeof key);
    const std::string source(31, '\x01');
    const std::unique_ptr<char, GFreeDeleter> b31(
        g_base64_encode(reinterpret_cast<const guchar*>(source.data()), source.size()));
    EXPECT_FALSE(read_data_base64(b31.get(), key, sizeof key));
    for (unsigned char b : key)
        EXPECT_EQ(b, 0x5a);

    EXPECT_TRUE(read_data_base64("", buffer, 0));
    EXPECT_TRUE(is_valid_base64(""));
    EXPECT_TRUE(is_valid_base64("QQ=="));
    EXPECT_FALSE(is_valid_base64("Q==="));
}

TEST_F(SysUtilsFiles, ReadDataFileNeedsAllBytes) {
    const std::string b31 = write("b31", std::string(31, 'x'));
    const std::string b40 = write("b40", std::string(32, 'y') + std::string(8, 'z'));
    unsigned char buffer[32] = {};
    EXPECT_FALSE(read_data_file(b31.c_str(), buffer, sizeof buffer, true));
    EXPECT_TRUE(read_data_file(b40.c_str(), buffer, sizeof buffer, false));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), sizeof buffer), std::string(32, 'y'));
    EXPECT_TRUE(read_data_file(b40.c_str(), buffer, sizeof buffer, true));
    EXPECT_FALSE(read_data_file((dir + "/missing").c_str(), buffer, sizeof buffer, true));
}

TEST_F(SysUtilsFiles, ReadDataFileFromStandardInput) {
    const std::string input = write("input", "0123456789abcdefXYZ");
    const int saved = dup(STDIN_FILENO);
    ASSERT_GE(saved, 0);
    const int fd = open(input.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(dup2(fd, STDIN_FILENO), STDIN_FILENO);
    close(fd);
    clearerr(stdin);

    unsigned char first[10] = {};
    unsigned char second[6] = {};
    unsigned char rest[4] = {};
    EXPECT_TRUE(read_data_file("-", first, sizeof first, true));
    EXPECT_TRUE(read_data_file(nullptr, second, sizeof second, true));
    EXPECT_FALSE(read_data_file("-", rest, sizeof rest, true));  // only 3 bytes left

    dup2(saved, STDIN_FILENO);
    close(saved);
    clearerr(stdin);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(first), sizeof first), "0123456789");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(second), sizeof second), "abcdef");
}

TEST_F(SysUtilsFiles, FsyncAndDeviceTests) {
    const std::string file = write("file", "data");
    EXPECT_TRUE(fsync_file(file.c_str()));
    EXPECT_FALSE(fsync_file(dir.c_str()));
    EXPECT_FALSE(fsync_file((dir + "/missing").c_str()));

    EXPECT_TRUE(is_dev("/dev/null"));
    EXPECT_FALSE(is_dev(file.c_str()));
    EXPECT_FALSE(is_dev(dir.c_str()));
    EXPECT_FALSE(is_dev((dir + "/missing").c_str()));
    EXPECT_FALSE(is_dev(nullptr));
}
