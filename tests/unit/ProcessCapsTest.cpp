#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <string>

#include "LogCapture.h"
#include "ProcessCaps.h"
#include "UserSwitch.h"

namespace {

// The capability sets of this process in libcap's text form, such as "cap_sys_rawio=p".
std::string caps() {
    const CapStatePtr state(cap_get_proc());
    const CPtr<char, cap_free> text(cap_to_text(state.get(), nullptr));
    return text ? text.get() : "unreadable";
}

// Prints what raising, restoring and dropping capabilities did; exits with 0 if all went right.
void raise_restore_and_drop() {
    ProcessCaps::drop_all_except({CAP_SYS_RAWIO, CAP_NET_ADMIN});
    ProcessCaps process_caps;
    std::ostringstream out;
    out << process_caps.enable({CAP_SYS_RAWIO}) << ' ' << caps() << ' ';
    out << process_caps.restore() << ' ' << caps() << ' ';
    {
        AutoProcessCaps raised({CAP_NET_ADMIN});
        out << caps() << ' ';
    }
    out << caps() << ' ' << ProcessCaps::drop_all_except({}) << ' ' << caps();
    fprintf(stderr, "%s\n", out.str().c_str());
    _exit(out.str() !=
          "1 cap_sys_rawio=ep cap_net_admin+p 1 cap_net_admin,cap_sys_rawio=p "
          "cap_net_admin=ep cap_sys_rawio+p cap_net_admin,cap_sys_rawio=p 1 =");
}

}  // namespace

TEST(ProcessCaps, RaiseRestoreAndDrop) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root";
    // In a child, so that the test process keeps its capabilities.
    EXPECT_EXIT(raise_restore_and_drop(), testing::ExitedWithCode(0), "");
}

TEST(ProcessCaps, RestoreWithoutASavedStateIsAPreconditionFailure) {
    LogCapture log;
    ProcessCaps process_caps;
    EXPECT_FALSE(process_caps.restore());
    EXPECT_TRUE(log.logged(G_LOG_LEVEL_CRITICAL,
                           "bool ProcessCaps::restore(): assertion '!! saved_caps' failed"))
        << log.dump();
}

TEST(UserSwitch, MissingUserFails) {
    LogCapture log;
    EXPECT_EQ(daemon_user_switch("no-such-user-zel", false), -1);
    EXPECT_TRUE(log.logged(G_LOG_LEVEL_CRITICAL,
                           "failed switching to user 'no-such-user-zel': no such user"))
        << log.dump();
}
