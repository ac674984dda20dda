#include <glib/gstdio.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "CliOpts.h"
#include "EnrollerInfo.h"
#include "GLibPtr.h"
#include "LogCapture.h"
#include "TempDir.h"

namespace {

// Parses `args` (without the program name) into `opts`; the GLib error text, if any, goes
// to `error`.
bool parse(CliOpts& opts, const std::vector<std::string>& args, std::string* error = nullptr) {
    std::vector<std::unique_ptr<char, GFreeDeleter>> storage;
    std::vector<char*> argv;
    storage.emplace_back(g_strdup("zelenrolld"));
    for (const std::string& arg : args)
        storage.emplace_back(g_strdup(arg.c_str()));
    for (const auto& arg : storage)
        argv.push_back(arg.get());
    argv.push_back(nullptr);

    int argc = static_cast<int>(storage.size());
    char** argvp = argv.data();
    GError* raw_error = nullptr;
    const bool ok = opts.parse(&argc, &argvp, &raw_error);
    const std::unique_ptr<GError, GErrorDeleter> parse_error(raw_error);
    if (error)
        *error = parse_error ? parse_error->message : "";
    return ok;
}

class CliOptsInfoTest : public ::testing::Test {
  protected:
    void SetUp() override {
        branding = write_branding(R"({"brand": "Acme", "model": "MP-100",
            "enrollProtocols": ["tpm2-authkey-csr", "noauth-csr"],
            "enrollRootUrl": "https://enroll.example.com/v1//", "enabledByDefault": true})");
    }
    std::string write_branding(const std::string& contents) {
        return tmp.write("branding-" + std::to_string(++written) + ".json", contents);
    }
    // Parses the options, with the system's identity sources replaced by options unless
    // the caller gives them, and runs init_info.
    bool init(std::vector<std::string> args, EnrollerInfo& info) {
        args.insert(args.begin(),
                    {"--branding=" + branding, "--serial=SN-1", "--fwver=4.7.2",
                     "--user-serial=", "--board-serial=", "--system-serial=", "--chassis-serial="});
        CliOpts opts;
        std::string error;
        EXPECT_TRUE(parse(opts, args, &error)) << error;
        return opts.init_info(info);
    }

    TempDir tmp;
    int written = 0;
    std::string branding;
    LogCapture log;
};

}  // namespace

TEST(CliOptsParse, DefaultsWhenNothingIsGiven) {
    CliOpts opts;
    ASSERT_TRUE(parse(opts, {}));
    EXPECT_EQ(opts.base_url, nullptr);
    EXPECT_EQ(opts.status_file, nullptr);
    EXPECT_EQ(opts.protocol, nullptr);
    EXPECT_EQ(opts.daemonize, 1);
    EXPECT_EQ(opts.kill, 0);
    EXPECT_EQ(opts.retry, 60);
    EXPECT_EQ(opts.timeout, 60);
    EXPECT_EQ(opts.disable, -1);
    EXPECT_EQ(opts.dump_http, 0);
    EXPECT_EQ(opts.no_switch_user, 0);
}

TEST(CliOptsParse, ShortNamesFlagsAndNumbers) {
    CliOpts opts;
    ASSERT_TRUE(parse(opts, {"-B", "http://x", "-R", "/tmp/sim", "-u", "nobody", "-k", "-r", "0",
                             "--timeout=7", "--no-daemon", "--dump-http=-1", "--debug",
                             "--no-switch-user", "--force-new-cert", "--use-session-bus"}));
    EXPECT_STREQ(opts.base_url, "http://x");
    EXPECT_STREQ(opts.rpmb, "/tmp/sim");
    EXPECT_STREQ(opts.user, "nobody");
    EXPECT_EQ(opts.kill, 1);
    EXPECT_EQ(opts.retry, 0);
    EXPECT_EQ(opts.timeout, 7);
    EXPECT_EQ(opts.daemonize, 0);
    EXPECT_EQ(opts.dump_http, -1);  // range checks are the caller's
    EXPECT_EQ(opts.debug, 1);
    EXPECT_EQ(opts.no_switch_user, 1);
    EXPECT_EQ(opts.force_new_cert, 1);
    EXPECT_EQ(opts.use_session_bus, 1);
}

TEST(CliOptsParse, EnableAndDisableShareOneSlotLastWins) {
    const std::vector<std::pair<std::vector<std::string>, int>> cases = {
        {{}, -1},
        {{"--disable"}, 1},
        {{"--enable"}, 0},
        {{"--enable", "--disable"}, 1},
        {{"--disable", "--enable"}, 0},
        {{"--disable", "--enable", "--disable"}, 1},
    };
    for (const auto& [args, expected] : cases) {
        CliOpts opts;
        ASSERT_TRUE(parse(opts, args));
        EXPECT_EQ(opts.disable, expected) << testing::PrintToString(args);
    }
}

TEST(CliOptsParse, ProtocolsAppendAndEmptyStringsCountAsGiven) {
    CliOpts opts;
    ASSERT_TRUE(parse(opts, {"--protocol=noauth-csr", "--protocol", "emmc-rpmb-csr",
                             "--protocol=noauth-csr", "--serial=", "--status-file="}));
    ASSERT_NE(opts.protocol, nullptr);
    ASSERT_EQ(g_strv_length(opts.protocol), 3u);
    EXPECT_STREQ(opts.protocol[0], "noauth-csr");
    EXPECT_STREQ(opts.protocol[1], "emmc-rpmb-csr");
    EXPECT_STREQ(opts.protocol[2], "noauth-csr");
    ASSERT_NE(opts.serial, nullptr);
    EXPECT_STREQ(opts.serial, "");
    ASSERT_NE(opts.status_file, nullptr);
    EXPECT_STREQ(opts.status_file, "");
}

TEST(CliOptsParse, BadCommandLinesAreRefused) {
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"--retry=soon"}, {"--bogus"}, {"--serial"}}) {
        CliOpts opts;
        std::string error;
        EXPECT_FALSE(parse(opts, args, &error)) << args[0];
        EXPECT_FALSE(error.empty()) << args[0];
    }
    CliOpts opts;
    std::string error;
    ASSERT_FALSE(parse(opts, {"--timeout=x"}, &error));
    EXPECT_EQ(error, "Cannot parse integer value “x” for --timeout");
}

TEST_F(CliOptsInfoTest, OptionsWinOverBrandingAndSystem) {
    EnrollerInfo info;
    ASSERT_TRUE(
        init({"--base-url=http://127.0.0.1:8080/api///", "--model=M2", "--brand=B2",
              "--serial=SN-2", "--fwver=9.9", "--rpmb=/tmp/sim", "--key=/tmp/k.pem",
              "--services-dir=/tmp/svc//", "--protocol=noauth-csr", "--retry=5", "--force-new-cert",
              "--user-serial=U", "--board-serial=BO", "--system-serial=SY", "--chassis-serial=CH"},
             info))
        << log.dump();
    EXPECT_EQ(info.base_url, "http://127.0.0.1:8080/api");
    EXPECT_EQ(info.firmware_version, "9.9");
    EXPECT_EQ(info.rpmb_path, "/tmp/sim");
    EXPECT_EQ(info.key_path, "/tmp/k.pem");
    EXPECT_EQ(info.services_dir, "/tmp/svc");
    EXPECT_EQ(info.protocols, std::vector<std::string>{"noauth-csr"});
    EXPECT_EQ(info.retry_interval, 5);
    EXPECT_FALSE(info.disabled);
    EXPECT_TRUE(info.force_new_cert);
    EXPECT_EQ(info.device.serial, "SN-2");
    EXPECT_EQ(info.device.model, "M2");
    EXPECT_EQ(info.device.brand, "B2");
    EXPECT_EQ(info.device.userSerial, "U");
    EXPECT_EQ(info.device.boardSerial, "BO");
    EXPECT_EQ(info.device.systemSerial, "SY");
    EXPECT_EQ(info.device.chassisSerial, "CH");
    EXPECT_TRUE(log.logged(G_LOG_LEVEL_MESSAGE,
                           "using non-default enroll base URL 'http://127.0.0.1:8080/api///'"))
        << log.dump();
    EXPECT_EQ(log.countLevel(G_LOG_LEVEL_WARNING), 0u) << log.dump();
}

TEST_F(CliOptsInfoTest, BrandingAndBuiltInDefaultsFillTheRest) {
    EnrollerInfo info;
    ASSERT_TRUE(init({}, info)) << log.dump();
    EXPECT_EQ(info.base_url, "https://enroll.example.com/v1");
    EXPECT_EQ(info.device.model, "MP-100");
    EXPECT_EQ(info.device.brand, "Acme");
    EXPECT_EQ(info.protocols, (std::vector<std::string>{"tpm2-authkey-csr", "noauth-csr"}));
    EXPECT_EQ(info.rpmb_path, "/dev/mmcblk0rpmb");
    EXPECT_EQ(info.key_path, "/etc/pki/zelenroll/private/device-private.key");
    EXPECT_EQ(info.services_dir, "/var/lib/zelenroll/services");
    EXPECT_EQ(info.retry_interval, 60);
    EXPECT_FALSE(info.disabled);  // enabledByDefault
    EXPECT_FALSE(info.force_new_cert);
    EXPECT_TRUE(log.logged(G_LOG_LEVEL_MESSAGE,
                           "using default enroll base URL 'https://enroll.example.com/v1//'"))
        << log.dump();
}

TEST_F(CliOptsInfoTest, TrailingSlashesAreAllRemoved) {
    EnrollerInfo info;
    ASSERT_TRUE(init({"--base-url=/", "--services-dir=///"}, info)) << log.dump();
    EXPECT_EQ(info.base_url, "");
    EXPECT_EQ(info.services_dir, "");

    EnrollerInfo inner;
    ASSERT_TRUE(init({"--base-url=http://h//a//", "--services-dir=/a//b/"}, inner));
    EXPECT_EQ(inner.base_url, "http://h//a");
    EXPECT_EQ(inner.services_dir, "/a//b");
}

TEST_F(CliOptsInfoTest, DisabledFollowsTheOptionsElseTheBranding) {
    const std::string off_by_default = write_branding(
        R"({"brand": "B", "model": "M", "enrollProtocols": ["noauth-csr"], "enrollRootUrl": ""})");
    struct Case {
        std::vector<std::string> args;
        bool disabled;
    };
    const std::vector<Case> cases = {
        {{}, false},
        {{"--disable"}, true},
        {{"--enable", "--disable"}, true},
        {{"--disable", "--enable"}, false},
        {{"--branding=" + off_by_default}, true},
        {{"--branding=" + off_by_default, "--enable"}, false},
        {{"--branding=" + off_by_default, "--enable", "--disable"}, true},
    };
    for (const Case& c : cases) {
        EnrollerInfo info;
        ASSERT_TRUE(init(c.args, info)) << log.dump();
        EXPECT_EQ(info.disabled, c.disabled) << testing::PrintToString(c.args);
    }
}

TEST_F(CliOptsInfoTest, ProtocolOptionsReplaceTheBrandingList) {
    EnrollerInfo info;
    ASSERT_TRUE(
        init({"--protocol=noauth-csr", "--protocol=emmc-rpmb-csr", "--protocol=noauth-csr"}, info));
    EXPECT_EQ(info.protocols,
              (std::vector<std::string>{"noauth-csr", "emmc-rpmb-csr", "noauth-csr"}));
}

TEST_F(CliOptsInfoTest, UnusableConfigurationsAreRefusedInOrder) {
    const std::string no_protocols = write_branding(
        R"({"brand": "B", "model": "M", "enrollProtocols": [], "enrollRootUrl": "http://h"})");
    const std::string supported =
        "only 'emmc-rpmb-csr', 'tpm2-authkey-csr' and 'noauth-csr' enrollment protocols are "
        "supported";
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{"--serial="}, "no device serial number available"},
        {{"--serial=", "--model=", "--brand="}, "no device serial number available"},
        {{"--model="}, "no device model available"},
        {{"--model=", "--brand="}, "no device model available"},
        {{"--brand="}, "no device brand available"},
        {{"--brand=", "--branding=" + no_protocols}, "no device brand available"},
        {{"--branding=" + no_protocols}, "no enrollment protocols"},
        {{"--protocol=foo"}, supported},
        {{"--protocol=noauth-csr", "--protocol=NOAUTH-CSR"}, supported},
        {{"--protocol="}, supported},
    };
    for (const Case& c : cases) {
        log.clear();
        EnrollerInfo info;
        EXPECT_FALSE(init(c.args, info)) << testing::PrintToString(c.args);
        EXPECT_EQ(log.countLevel(G_LOG_LEVEL_MESSAGE), 2u) << log.dump();  // URL, then refusal
        EXPECT_TRUE(log.logged(G_LOG_LEVEL_MESSAGE, c.message)) << log.dump();
    }

    // An offered protocol list without branding ones is fine.
    EnrollerInfo info;
    EXPECT_TRUE(init({"--branding=" + no_protocols, "--protocol=tpm2-authkey-csr"}, info))
        << log.dump();
}

TEST_F(CliOptsInfoTest, MissingFirmwareVersionIsOnlyAWarning) {
    EnrollerInfo info;
    ASSERT_TRUE(init({"--fwver="}, info)) << log.dump();
    EXPECT_EQ(info.firmware_version, "");
    EXPECT_TRUE(log.logged(G_LOG_LEVEL_WARNING, "no firmware version available"));

    // It is reported even when a later check fails.
    log.clear();
    EnrollerInfo refused;
    EXPECT_FALSE(init({"--fwver=", "--serial="}, refused));
    ASSERT_GE(log.entries.size(), 2u) << log.dump();
    const size_t last = log.entries.size() - 1;
    EXPECT_EQ(log.entries[last - 1].message, "no firmware version available") << log.dump();
    EXPECT_EQ(log.entries[last].message, "no device serial number available") << log.dump();
}

TEST_F(CliOptsInfoTest, InvalidBrandingStopsEverything) {
    for (const std::string& path : {write_branding("{}"), tmp.file("missing.json")}) {
        log.clear();
        EnrollerInfo info;
        EXPECT_FALSE(init({"--branding=" + path, "--base-url=http://h"}, info));
        EXPECT_TRUE(log.logged(G_LOG_LEVEL_MESSAGE, "branding file is invalid")) << log.dump();
        // Nothing after the branding is looked at.
        EXPECT_FALSE(log.loggedPrefix(G_LOG_LEVEL_MESSAGE, "using ")) << log.dump();
        EXPECT_EQ(info.base_url, "");
    }
}
