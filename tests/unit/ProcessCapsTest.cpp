#include <gtest/gtest.h>
#include <sys/capability.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>

#include "LogCapture.h"
#include "ProcessCaps.h"
#include "UserSwitch.h"

namespace {

// Runs `body` in a forked child and returns what it reported, so that capability and user
// changes never reach the test process. The child's report ends with its log.
std::string in_child(const std::function<std::string()>& body) {
    int fds[2];
    if (pipe(fds) != 0)
        return "pipe failed";
    const pid_t pid = fork();
    if (pid < 0)
        return "fork failed";
    if (pid == 0) {
        close(fds[0]);
        std::string report;
        {
            LogCapture log;
            report = body();
            report += "\n" + log.dump();
        }
        const ssize_t written = write(fds[1], report.data(), report.size());
        _exit(written == static_cast<ssize_t>(report.size()) ? 0 : 1);
    }
    close(fds[1]);
    std::string report;
    char buffer[512];
    ssize_t n;
    while ((n = read(fds[0], buffer, sizeof buffer)) > 0)
        report.append(buffer, n);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        report += "\nchild failed";
    return report;
}

// The capability sets of this process in libcap's text form, such as "cap_sys_rawio=p".
std::string caps() {
    const CapStatePtr state(cap_get_proc());
    if (!state)
        return "cap_get_proc failed";
    const std::unique_ptr<char, CapFreeDeleter> text(cap_to_text(state.get(), nullptr));
    return text ? text.get() : "cap_to_text failed";
}

std::string result(bool ok) {
    return ok ? "true " : "false ";
}

// The result of a call followed by the capabilities it left (in that order: the operands
// of + are not sequenced).
std::string result_and_caps(bool ok) {
    std::string report = result(ok);
    return report + caps();
}

class PrivilegedTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs root";
    }
};

using ProcessCapsTest = PrivilegedTest;
using UserSwitchTest = PrivilegedTest;

}  // namespace

TEST_F(ProcessCapsTest, DropKeepsOnlyTheListedPermittedCapabilities) {
    EXPECT_EQ(
        in_child([] { return result_and_caps(ProcessCaps::drop_all_except({CAP_SYS_RAWIO})); }),
        "true cap_sys_rawio=p\n");
    EXPECT_EQ(in_child([] { return result_and_caps(ProcessCaps::drop_all_except({})); }),
              "true =\n");
}

TEST_F(ProcessCapsTest, DropSilentlyLeavesOutCapabilitiesNotHeld) {
    EXPECT_EQ(
        in_child([] {
            ProcessCaps::drop_all_except({CAP_NET_ADMIN});
            return result_and_caps(ProcessCaps::drop_all_except({CAP_SYS_RAWIO, CAP_NET_ADMIN}));
        }),
        "true cap_net_admin=p\n");
}

TEST_F(ProcessCapsTest, EnableRaisesAndRestoreReturns) {
    EXPECT_EQ(in_child([] {
                  ProcessCaps::drop_all_except({CAP_SYS_RAWIO, CAP_NET_ADMIN});
                  ProcessCaps process_caps;
                  std::string report = result_and_caps(process_caps.enable({CAP_SYS_RAWIO}));
                  report += " " + result_and_caps(process_caps.restore());
                  return report;
              }),
              "true cap_sys_rawio=ep cap_net_admin+p true "
              "cap_net_admin,cap_sys_rawio=p\n");
}

TEST_F(ProcessCapsTest, EnableOfACapabilityNotPermittedFailsAndSavesNothing) {
    const std::string report = in_child([] {
        ProcessCaps::drop_all_except({CAP_SYS_RAWIO});
        ProcessCaps process_caps;
        std::string report = result_and_caps(process_caps.enable({CAP_NET_ADMIN}));
        report += " " + result(process_caps.restore());
        return report;
    });
    EXPECT_EQ(report,
              "false cap_sys_rawio=p false \n"
              "critical: bool ProcessCaps::restore(): assertion '!! saved_caps' failed\n");
}

TEST_F(ProcessCapsTest, AutoProcessCapsHoldsForItsScope) {
    EXPECT_EQ(in_child([] {
                  ProcessCaps::drop_all_except({CAP_SYS_RAWIO});
                  std::string report;
                  {
                      AutoProcessCaps raised({CAP_SYS_RAWIO});
                      report = caps();
                  }
                  return report + " " + caps();
              }),
              "cap_sys_rawio=ep cap_sys_rawio=p\n");

    const std::string report = in_child([] {
        ProcessCaps::drop_all_except({CAP_SYS_RAWIO});
        { AutoProcessCaps refused({CAP_NET_ADMIN}); }
        return caps();
    });
    EXPECT_EQ(
        report.rfind("cap_sys_rawio=p\n"
                     "critical: AutoProcessCaps::AutoProcessCaps(std::initializer_list<int>): "
                     "failed (Operation not permitted)\n",
                     0),
        0u)
        << report;
    EXPECT_NE(report.find("critical: AutoProcessCaps::~AutoProcessCaps(): failed ("),
              std::string::npos)
        << report;
}

TEST(ProcessCapsRestore, WithoutASavedStateIsAPreconditionFailure) {
    LogCapture log;
    ProcessCaps process_caps;
    EXPECT_FALSE(process_caps.restore());
    EXPECT_TRUE(log.logged(G_LOG_LEVEL_CRITICAL,
                           "bool ProcessCaps::restore(): assertion '!! saved_caps' failed"))
        << log.dump();
}

TEST(PasswdEntry, LooksUpUsers) {
    LogCapture log;
    const PasswdEntryPtr root(get_passwd_entry("root"));
    ASSERT_TRUE(root);
    EXPECT_STREQ(root->pw_name, "root");
    EXPECT_EQ(root->pw_uid, 0u);

    errno = 0;
    EXPECT_EQ(get_passwd_entry("no-such-user-zel"), nullptr);
    EXPECT_EQ(errno, ESRCH);

    EXPECT_EQ(get_passwd_entry(nullptr), nullptr);
    EXPECT_TRUE(log.logged(G_LOG_LEVEL_CRITICAL, "get_passwd_entry: assertion 'user' failed"))
        << log.dump();
}

TEST(UserSwitch, NullUserIsAPreconditionFailure) {
    LogCapture log;
    EXPECT_EQ(daemon_user_switch(nullptr, true), -1);
    EXPECT_TRUE(log.logged(G_LOG_LEVEL_CRITICAL, "daemon_user_switch: assertion 'user' failed"))
        << log.dump();
}

TEST_F(UserSwitchTest, KeepingCapabilitiesThenDroppingToRawIo) {
    const std::string report = in_child([] {
        const int rc = daemon_user_switch("nobody", true);
        std::string report = "rc " + std::to_string(rc) + " uid " + std::to_string(getuid()) +
                             " euid " + std::to_string(geteuid()) + " gid " +
                             std::to_string(getgid()) + " keepcaps " +
                             std::to_string(prctl(PR_GET_KEEPCAPS)) + " ";
        const CapStatePtr state(cap_get_proc());
        cap_flag_value_t permitted = CAP_CLEAR, effective = CAP_SET;
        cap_get_flag(state.get(), CAP_SYS_RAWIO, CAP_PERMITTED, &permitted);
        cap_get_flag(state.get(), CAP_SYS_RAWIO, CAP_EFFECTIVE, &effective);
        report += std::string(permitted == CAP_SET ? "permitted " : "lost ") +
                  (effective == CAP_SET ? "effective " : "ineffective ");
        return report + result_and_caps(ProcessCaps::drop_all_except({CAP_SYS_RAWIO}));
    });
    EXPECT_EQ(report,
              "rc 0 uid 65534 euid 65534 gid 65534 keepcaps 0 permitted ineffective "
              "true cap_sys_rawio=p\n"
              "debug: switched to user 'nobody' and its groups\n");
}

TEST_F(UserSwitchTest, WithoutKeepingCapabilitiesAreLost) {
    EXPECT_EQ(in_child([] {
                  prctl(PR_SET_KEEPCAPS, 0);
                  const int rc = daemon_user_switch("nobody", false);
                  return "rc " + std::to_string(rc) + " " + caps();
              }),
              "rc 0 =\n"
              "debug: switched to user 'nobody' and its groups\n");
}

TEST_F(UserSwitchTest, MissingUserFailsWithoutTouchingTheKeepFlag) {
    EXPECT_EQ(in_child([] {
                  prctl(PR_SET_KEEPCAPS, 1);
                  const int rc = daemon_user_switch("no-such-user-zel", false);
                  return "rc " + std::to_string(rc) + " uid " + std::to_string(getuid()) +
                         " keepcaps " + std::to_string(prctl(PR_GET_KEEPCAPS));
              }),
              "rc -1 uid 0 keepcaps 1\n"
              "critical: failed switching to user 'no-such-user-zel': no such user\n");
}
