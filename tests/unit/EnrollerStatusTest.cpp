#include <glib.h>
#include <glib/gstdio.h>
#include <gtest/gtest.h>
#include <json-glib/json-glib.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "EnrollerStatus.h"
#include "GLibPtr.h"
#include "LogCapture.h"
#include "SysUtils.h"
#include "TempDir.h"

namespace {

std::string canonical(const std::string& text) {
    GLibPtr<JsonParser> parser(json_parser_new());
    if (text.empty() || !json_parser_load_from_data(parser.get(), text.c_str(), -1, nullptr))
        return "<not JSON: '" + text + "'>";
    std::unique_ptr<char, GFreeDeleter> compact(
        json_to_string(json_parser_get_root(parser.get()), FALSE));
    return compact.get();
}

// Runs `check` with the current second, retrying a few times when the clock ticked over
// while it ran, so that assertions about "now" do not flake at second boundaries.
template <typename F>
void at_stable_second(F check) {
    for (int attempt = 0; attempt < 5; ++attempt) {
        const time_t before = time(nullptr);
        const bool ok = check(static_cast<int64_t>(before));
        if (time(nullptr) == before) {
            EXPECT_TRUE(ok);
            return;
        }
    }
    FAIL() << "clock kept ticking over during the check";
}

class StatusFile : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = tmp.path;
        path = tmp.file("status");
    }

    std::string contents() const {
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    void write(const std::string& text) const { std::ofstream(path) << text; }
    bool exists(const std::string& name) const {
        return g_file_test(name.c_str(), G_FILE_TEST_EXISTS);
    }

    TempDir tmp;
    std::string dir;
    std::string path;
};

}  // namespace

// --- file format and loading ------------------------------------------------------------

TEST_F(StatusFile, SavedFileHasTheDocumentedFormatAndLoadsBack) {
    EnrollerStatus status(path);
    status.enrolled = true;
    status.enabled = true;
    status.lastEnrollBaseURL = "https://enroll.example/api";
    status.lastEnrolledTStamp = 1700000000;
    status.forcedEnrollTStamp = 1600000000;
    status.rpmb.writeCounter = 7;
    status.rpmb.writeTStamps = {1700000100, 1700000000, 0};
    status.save();

    const std::string text = contents();
    EXPECT_EQ(canonical(text), canonical(R"({"enrolled": true, "enabled": true,
        "forcedEnrollTStamp": "2020-09-13T12:26:40Z",
        "lastEnrolledTStamp": "2023-11-14T22:13:20Z",
        "lastEnrollBaseURL": "https://enroll.example/api",
        "rpmb": {"writeCounter": 7,
                 "writeTStamps": ["2023-11-14T22:15:00Z", "2023-11-14T22:13:20Z"]}})"));
    EXPECT_NE(text.find("\n  \"enabled\""), std::string::npos) << "not pretty-printed";
    EXPECT_EQ(text.back(), '\n');
    EXPECT_FALSE(exists(path + ".tmp"));

    EnrollerStatus loaded(path);
    EXPECT_TRUE(loaded.load(true));
    EXPECT_TRUE(loaded.enrolled);
    EXPECT_TRUE(loaded.enabled);
    EXPECT_EQ(loaded.lastEnrollBaseURL, status.lastEnrollBaseURL);
    EXPECT_EQ(loaded.lastEnrolledTStamp, 1700000000);
    EXPECT_EQ(loaded.forcedEnrollTStamp, 1600000000);
    EXPECT_EQ(loaded.rpmb.writeCounter, 7u);
    EXPECT_EQ(loaded.rpmb.writeTStamps,
              (std::set<int64_t, std::greater<>>{1700000100, 1700000000}));
    EXPECT_EQ(loaded.path, path);
}

TEST_F(StatusFile, MissingFileResetsToDefaultsAndWritesThem) {
    LogCapture logs;
    EnrollerStatus status(path);
    status.enrolled = true;
    status.lastEnrollBaseURL = "stale";
    status.lastEnrolledTStamp = 5;
    status.rpmb.writeCounter = 9;
    status.rpmb.writeTStamps = {5};
    EXPECT_TRUE(status.load(true));
    EXPECT_TRUE(logs.logged(G_LOG_LEVEL_MESSAGE, "enroller status file " + path +
                                                     " does not exist, saving default state"))
        << logs.dump();
    EXPECT_FALSE(status.enrolled);
    EXPECT_TRUE(status.enabled);
    EXPECT_EQ(status.lastEnrollBaseURL, "");
    EXPECT_EQ(status.lastEnrolledTStamp, 0);
    EXPECT_EQ(status.rpmb.writeCounter, 0u);
    EXPECT_TRUE(status.rpmb.writeTStamps.empty());
    EXPECT_EQ(status.path, path);
    EXPECT_EQ(canonical(contents()), canonical(R"({"enrolled": false, "enabled": true,
        "rpmb": {"writeCounter": 0, "writeTStamps": []}})"));
}

TEST_F(StatusFile, EnabledFlagFromConfigurationRewritesOnlyADifferingFile) {
    const std::string compact =
        R"({"enrolled":true,"enabled":false,"rpmb":{"writeCounter":3,"writeTStamps":[]}})";
    write(compact);
    LogCapture logs;
    EnrollerStatus status(path);
    EXPECT_TRUE(status.load(false));
    EXPECT_EQ(contents(), compact);
    EXPECT_TRUE(logs.logged(G_LOG_LEVEL_DEBUG, "loaded enroller status from " + path))
        << logs.dump();

    EXPECT_TRUE(status.load(true));
    EXPECT_TRUE(status.enabled);
    EXPECT_EQ(canonical(contents()), canonical(R"({"enrolled": true, "enabled": true,
        "rpmb": {"writeCounter": 3, "writeTStamps": []}})"));
}

TEST_F(StatusFile, MissingWriteCounterIsReportedAndTheFileKept) {
    const std::string compact =
        R"({"enrolled":true,"enabled":false,"lastEnrolledTStamp":"2023-11-14T22:13:20Z",)"
        R"("rpmb":{"writeTStamps":["2023-11-14T22:15:00Z"]}})";
    write(compact);
    LogCapture logs;
    EnrollerStatus status(path);
    EXPECT_FALSE(status.load(true));
    EXPECT_TRUE(logs.logged(G_LOG_LEVEL_WARNING,
                            "ignoring invalid data in enroller status file: missing member "
                            "'writeCounter'"))
        << logs.dump();
    // What was read stays, the configured flag wins, and nothing is written back although
    // the flag differs.
    EXPECT_TRUE(status.enrolled);
    EXPECT_TRUE(status.enabled);
    EXPECT_EQ(status.lastEnrolledTStamp, 1700000000);
    EXPECT_EQ(status.rpmb.writeTStamps, (std::set<int64_t, std::greater<>>{1700000100}));
    EXPECT_EQ(contents(), compact);
}

TEST_F(StatusFile, UnparsableTimestampsReadAsZeroAndAreNotWrittenBack) {
    const int64_t recent = time(nullptr) - 5;
    write(R"({"enrolled": false, "enabled": true, "lastEnrolledTStamp": "yesterday",
        "forcedEnrollTStamp": "2020-09-13T12:26:40Z",
        "rpmb": {"writeCounter": 1, "writeTStamps": ["soon", ")" +
          unix_time_to_iso8601(recent) + R"(", ")" + unix_time_to_iso8601(recent) + R"("]}})");
    EnrollerStatus status(path);
    status.lastEnrolledTStamp = 42;
    ASSERT_TRUE(status.load(true));
    EXPECT_EQ(status.lastEnrolledTStamp, 0);
    EXPECT_EQ(status.forcedEnrollTStamp, 1600000000);
    // The bad entry holds a place as 0, the duplicate collapses.
    EXPECT_EQ(status.rpmb.writeTStamps, (std::set<int64_t, std::greater<>>{recent, 0}));
    EXPECT_EQ(status.rpmb.countWritesInLastSecs(3600, nullptr), 1u);

    status.save();
    EXPECT_EQ(canonical(contents()), canonical(R"({"enrolled": false, "enabled": true,
        "forcedEnrollTStamp": "2020-09-13T12:26:40Z",
        "rpmb": {"writeCounter": 1, "writeTStamps": [")" +
                                               unix_time_to_iso8601(recent) + R"("]}})"));
}

TEST_F(StatusFile, BadDocumentsAreReported) {
    const struct {
        const char* text;
        std::string warning;
    } cases[] = {
        {"", "enroller status file " + path + " is empty"},
        {R"({"enrolled": true, "rpmb": {"writeCounter": 1, "writeTStamps": [1, "x"]}})",
         "ignoring invalid data in enroller status file: array element 0 does not hold a string"},
        {R"({"rpmb": {"writeCounter": {}}})",
         "ignoring invalid data in enroller status file: member 'writeCounter' does not hold a "
         "value"},
        {R"(["enrolled"])",
         "ignoring invalid data in enroller status file: expected object in JSON but got "
         "JsonArray"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        write(c.text);
        LogCapture logs;
        EnrollerStatus status(path);
        EXPECT_FALSE(status.load(false));
        EXPECT_TRUE(logs.logged(G_LOG_LEVEL_WARNING, c.warning)) << logs.dump();
        EXPECT_EQ(contents(), c.text);
    }

    write("{\"enrolled\": ");
    LogCapture logs;
    EnrollerStatus status(path);
    EXPECT_FALSE(status.load(false));
    EXPECT_TRUE(logs.loggedPrefix(G_LOG_LEVEL_WARNING,
                                  "failed to parse JSON from enroller status file " + path + ": "))
        << logs.dump();
}

TEST_F(StatusFile, WrongTypedOptionalPartsAreIgnoredQuietly) {
    write(R"({"enrolled": true, "enabled": true, "rpmb": 5})");
    EnrollerStatus status(path);
    EXPECT_TRUE(status.load(true));
    EXPECT_TRUE(status.enrolled);

    write(R"({"enabled": true, "rpmb": {"writeCounter": 4, "writeTStamps": "x"}})");
    EXPECT_TRUE(status.load(true));
    EXPECT_EQ(status.rpmb.writeCounter, 4u);
    EXPECT_TRUE(status.rpmb.writeTStamps.empty());
}

// --- saving -----------------------------------------------------------------------------

TEST_F(StatusFile, SaveResultsAndMessages) {
    // The results are odd but relied upon as they are: false after success.
    LogCapture logs;
    EnrollerStatus status(path);
    EXPECT_FALSE(status.save());
    EXPECT_TRUE(logs.logged(G_LOG_LEVEL_DEBUG, "saved enroller status to " + path)) << logs.dump();
    EXPECT_TRUE(exists(path));

    EnrollerStatus nowhere(dir + "/missing/status");
    EXPECT_FALSE(nowhere.save());
    EXPECT_TRUE(logs.logged(
        G_LOG_LEVEL_WARNING,
        "could not open temporary file to save enroller status at " + dir + "/missing/status"))
        << logs.dump();

    // A non-empty directory in the way makes the rename fail; it must survive untouched.
    const std::string blocked = dir + "/blocked";
    ASSERT_EQ(g_mkdir(blocked.c_str(), 0700), 0);
    std::ofstream(blocked + "/keep") << "x";
    EnrollerStatus renameFails(blocked);
    EXPECT_TRUE(renameFails.save());
    EXPECT_TRUE(
        logs.logged(G_LOG_LEVEL_WARNING, "failed saving new enroller status to file " + blocked))
        << logs.dump();
    EXPECT_TRUE(exists(blocked + "/keep"));
    g_remove((blocked + "/keep").c_str());
    g_remove((blocked + ".tmp").c_str());
    g_rmdir(blocked.c_str());
}

TEST_F(StatusFile, EmptyPathKeepsTheStatusInMemoryOnly) {
    LogCapture logs;
    EnrollerStatus status("");
    status.enrolled = true;
    EXPECT_TRUE(status.save());
    EXPECT_TRUE(status.load(true));
    EXPECT_FALSE(status.enrolled);
    EXPECT_TRUE(logs.logged(G_LOG_LEVEL_MESSAGE,
                            "enroller status file  does not exist, saving default state"))
        << logs.dump();
    EXPECT_EQ(logs.countLevel(G_LOG_LEVEL_WARNING), 0u) << logs.dump();
    EXPECT_FALSE(exists(".tmp"));
}

// --- records ----------------------------------------------------------------------------

TEST(StatusRecords, EnrolledAndForcedEnrollStampNow) {
    EnrollerStatus status("");
    const int64_t before = time(nullptr);
    status.recordEnrolled();
    EXPECT_TRUE(status.enrolled);
    EXPECT_GE(status.lastEnrolledTStamp, before);
    EXPECT_LE(status.lastEnrolledTStamp, static_cast<int64_t>(time(nullptr)));

    status.recordForcedEnroll();
    EXPECT_FALSE(status.enrolled);
    EXPECT_GE(status.forcedEnrollTStamp, before);
    EXPECT_LE(status.forcedEnrollTStamp, static_cast<int64_t>(time(nullptr)));
}

TEST(RPMBWriteHistory, WritesInTheSameSecondShareOneStamp) {
    at_stable_second([](int64_t now) {
        EnrollerRPMBStatus rpmb;
        rpmb.writeCounter = 10;
        rpmb.recordWrite();
        rpmb.recordWrite();
        return rpmb.writeCounter == 12u &&
               rpmb.writeTStamps == std::set<int64_t, std::greater<>>{now};
    });
}

TEST(RPMBWriteHistory, TheStampBeyond250EvictsTheOldest) {
    at_stable_second([](int64_t now) {
        EnrollerRPMBStatus rpmb;
        for (int64_t i = 0; i < 250; ++i)
            rpmb.writeTStamps.insert(now - 1000 - i);
        rpmb.recordWrite();
        return rpmb.writeTStamps.size() == 250u && rpmb.writeCounter == 1u &&
               *rpmb.writeTStamps.begin() == now && rpmb.writeTStamps.count(now - 1249) == 0 &&
               *rpmb.writeTStamps.rbegin() == now - 1248;
    });
}

TEST(RPMBWriteHistory, CountsWritesInTheSpanAndTheWaitForASlot) {
    at_stable_second([](int64_t now) {
        EnrollerRPMBStatus rpmb;
        rpmb.writeTStamps = {now - 10, now - 30};
        long wait = -1;
        const unsigned count = rpmb.countWritesInLastSecs(60, &wait);
        return count == 2u && wait == 30;
    });
    at_stable_second([](int64_t now) {
        // An entry exactly `secs` old is out of the span, and so is everything older.
        EnrollerRPMBStatus rpmb;
        rpmb.writeTStamps = {now - 5, now - 60, now - 90, 0};
        long wait = -1;
        const unsigned count = rpmb.countWritesInLastSecs(60, &wait);
        return count == 1u && wait == 55 && rpmb.countWritesInLastSecs(61, nullptr) == 2u;
    });

    EnrollerRPMBStatus empty;
    long wait = -1;
    EXPECT_EQ(empty.countWritesInLastSecs(60, &wait), 0u);
    EXPECT_EQ(wait, 60);
}

// --- crash consistency ------------------------------------------------------------------

namespace {

constexpr int64_t kStampBase = 1600000000;

std::string version_url(uint32_t version) {
    return "https://enroll.example/v" + std::to_string(version);
}

void set_version(EnrollerStatus& status, uint32_t version) {
    status.enrolled = version % 2 == 1;
    status.enabled = true;
    status.lastEnrollBaseURL = version_url(version);
    status.lastEnrolledTStamp = kStampBase + version;
    status.rpmb.writeCounter = version;
    status.rpmb.writeTStamps = {kStampBase + version, kStampBase};
}

// The version of the complete file at `path`, or -1 when it is partial or inconsistent.
int64_t read_version(const std::string& path) {
    GLibPtr<JsonParser> parser(json_parser_new_immutable());
    if (!json_parser_load_from_file(parser.get(), path.c_str(), nullptr) ||
        !json_parser_get_root(parser.get()))
        return -1;
    JsonObjectInput in(json_parser_get_root(parser.get()));
    EnrollerStatus status("");
    in >> status;
    const uint32_t version = status.rpmb.writeCounter;
    EnrollerStatus expected("");
    set_version(expected, version);
    const bool consistent = !in.failed() && status.enrolled == expected.enrolled &&
                            status.enabled &&
                            status.lastEnrollBaseURL == expected.lastEnrollBaseURL &&
                            status.lastEnrolledTStamp == expected.lastEnrolledTStamp &&
                            status.rpmb.writeTStamps == expected.rpmb.writeTStamps;
    return consistent ? version : -1;
}

// Kills and reaps a child that a failed assertion left running.
class ChildGuard {
  public:
    explicit ChildGuard(pid_t pid) : pid(pid) {}
    ~ChildGuard() { stop(); }
    ChildGuard(const ChildGuard&) = delete;
    ChildGuard& operator=(const ChildGuard&) = delete;
    void stop() {
        if (pid <= 0)
            return;
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }

  private:
    pid_t pid;
};

}  // namespace

TEST_F(StatusFile, KilledWhileSavingLeavesACompleteVersion) {
    constexpr int kMinKills = 200;
    constexpr int kMaxKills = 400;
    constexpr uint32_t kVersionsPerChild = 1000000;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);

    EnrollerStatus initial(path);
    set_version(initial, 0);
    initial.save();
    ASSERT_EQ(read_version(path), 0);

    int kills = 0;
    int corruptions = 0;
    int regressions = 0;
    int advanced = 0;
    int64_t last = 0;
    while (kills < kMaxKills && std::chrono::steady_clock::now() < deadline) {
        const uint32_t first = static_cast<uint32_t>(kills + 1) * kVersionsPerChild;
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            EnrollerStatus status(path);
            for (uint32_t version = first; version < first + kVersionsPerChild; ++version) {
                set_version(status, version);
                status.save();
            }
            _exit(0);
        }
        ChildGuard child(pid);
        g_usleep(static_cast<gulong>(g_random_int_range(0, 5000)));
        child.stop();
        ++kills;

        const int64_t version = read_version(path);
        if (version < 0) {
            ++corruptions;
            continue;
        }
        // Only versions already written may appear, never an older one than seen before.
        if (version < last || version >= first + kVersionsPerChild)
            ++regressions;
        if (version >= first)
            ++advanced;
        last = version;
    }
    std::cout << "[ status   ] " << kills << " kills survived, " << corruptions << " corruptions, "
              << regressions << " out-of-order versions, " << advanced
              << " kills after a completed save\n";
    EXPECT_GE(kills, kMinKills);
    EXPECT_EQ(corruptions, 0);
    EXPECT_EQ(regressions, 0);
    EXPECT_GT(advanced, 0) << "the child never completed a save before being killed";
}
