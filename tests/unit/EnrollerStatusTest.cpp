#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "BadEscapes.h"
#include "BrandingInfo.h"
#include "EnrollerStatus.h"
#include "SysUtils.h"
#include "TestSupport.h"

namespace {

class StatusFile : public ::testing::Test {
  protected:
    std::string contents() const {
        std::ifstream in(path);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    TempDir tmp;
    const std::string path = tmp.file("status");
};

// Sets the members to those of `version` and saves them.
void save_version(EnrollerStatus& status, uint32_t version) {
    status.lastEnrollBaseURL = "https://enroll.example/v" + std::to_string(version);
    status.rpmb = {version, {1600000000 + version, 1600000000}};
    status.save();
}

// The version of the complete file at `path`, or -1 when it is partial or inconsistent.
int64_t read_version(const std::string& path) {
    JsonObjectInput in(path.c_str());
    EnrollerStatus read(""), expected("");
    in >> read;
    save_version(expected, read.rpmb.writeCounter);  // nothing is saved with an empty path
    const bool complete = !in.failed() && read.lastEnrollBaseURL == expected.lastEnrollBaseURL &&
                          read.rpmb.writeTStamps == expected.rpmb.writeTStamps;
    return complete ? int64_t{read.rpmb.writeCounter} : -1;
}

}  // namespace

TEST_F(StatusFile, LoadAndSaveKeepTheDocumentedFormat) {
    const std::string text =
        R"({"enrolled":true,"enabled":false,"forcedEnrollTStamp":"2020-09-13T12:26:40Z",)"
        R"("lastEnrolledTStamp":"2023-11-14T22:13:20Z","lastEnrollBaseURL":"u","rpmb":)"
        R"({"writeCounter":7,"writeTStamps":["2023-11-14T22:15:00Z","soon",)"
        R"("2023-11-14T22:13:20Z"]}})";
    tmp.write("status", text);
    EnrollerStatus status(path);
    EXPECT_TRUE(status.load(false));
    EXPECT_EQ(contents(), text) << "an equal flag must not rewrite the file";
    EXPECT_TRUE(status.load(true));
    EXPECT_EQ(status.rpmb.writeTStamps.count(0), 1u) << "an unparsable stamp reads as 0";
    // Rewritten for the differing flag, pretty-printed, without the unparsable stamp.
    std::string rewritten = text;
    rewritten.replace(rewritten.find("false"), 5, "true");
    EXPECT_EQ(squeezed(contents()), rewritten.erase(rewritten.find(R"("soon",)"), 7));
    EXPECT_NE(contents().find("\n  \"enabled\""), std::string::npos) << "not pretty-printed";
    EXPECT_EQ(contents().back(), '\n');
}

// A hostile status or branding file must fail like any malformed one, and must not leak
// json-glib's scanner buffer on the way.
TEST_F(StatusFile, BadUnicodeEscapesAreParseFailures) {
    LogCapture log;
    const std::string detail = " file " + path + ": " + path + kBadSurrogate;
    for (const char* doc : kBadSurrogateDocuments) {
        tmp.write("status", doc);
        log.entries.clear();
        EXPECT_FALSE(EnrollerStatus(path).load(true));
        EXPECT_EQ(BrandingInfo().load(path.c_str()), 0);
        for (const std::string kind : {"enroller status", "branding"})
            EXPECT_TRUE(
                log.logged(G_LOG_LEVEL_WARNING, "failed to parse JSON from " + kind + detail))
                << log.dump();
    }
}

TEST(RPMBWriteHistory, KeepsTheLast250AndCountsWithinTheWindow) {
    EnrollerRPMBStatus rpmb;
    const int64_t now = time(nullptr);
    for (int64_t i = 0; i < 250; ++i)
        rpmb.writeTStamps.insert(now - 1000 - i);
    rpmb.recordWrite();  // one stamp too many: the oldest goes
    EXPECT_EQ(rpmb.writeTStamps.size(), 250u);
    EXPECT_EQ(*rpmb.writeTStamps.rbegin(), now - 1248);
    rpmb.writeTStamps = {now - 10, now - 60};  // one exactly 60 s old is out
    EXPECT_EQ(rpmb.countWritesInLastSecs(60, nullptr), 1u);
}

TEST_F(StatusFile, KilledWhileSavingLeavesACompleteVersion) {
    constexpr uint32_t kVersionsPerChild = 1000000;
    const gint64 deadline = g_get_monotonic_time() + 15 * G_USEC_PER_SEC;
    EnrollerStatus status(path);
    save_version(status, 0);

    int kills = 0, advanced = 0;
    for (int64_t last = 0; kills < 400 && g_get_monotonic_time() < deadline; ++kills) {
        const uint32_t first = static_cast<uint32_t>(kills + 1) * kVersionsPerChild;
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (uint32_t version = first; version < first + kVersionsPerChild; ++version)
                save_version(status, version);
            _exit(0);
        }
        g_usleep(static_cast<gulong>(g_random_int_range(0, 5000)));
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        // A complete version already written (-1 is none), never one older than seen before.
        const int64_t version = read_version(path);
        ASSERT_GE(version, last);
        ASSERT_LT(version, first + kVersionsPerChild);
        advanced += version >= first;
        last = version;
    }
    EXPECT_GE(kills, 200);
    EXPECT_GT(advanced, 0) << "the child never completed a save before being killed";
}
