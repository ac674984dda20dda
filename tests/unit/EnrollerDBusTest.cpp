#include <gio/gio.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "Enroller.h"
#include "EnrollerDBus.h"
#include "GLibPtr.h"
#include "LogCapture.h"

namespace {

// A private dbus-daemon standing in for the system bus, and a disabled engine that never
// sends anything.
class EnrollerDBusTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        bus = g_test_dbus_new(G_TEST_DBUS_NONE);
        g_test_dbus_up(bus);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", g_test_dbus_get_bus_address(bus), 1);
    }
    static void TearDownTestSuite() {
        g_test_dbus_down(bus);
        g_object_unref(bus);
    }

    EnrollerDBusTest() { info.disabled = true; }

    static GTestDBus* bus;
    EnrollerInfo info;
    Enroller enroller{info, "", nullptr};
    LogCapture logs;
};

GTestDBus* EnrollerDBusTest::bus = nullptr;

TEST_F(EnrollerDBusTest, InitRunsOnce) {
    EnrollerDBus dbus(enroller);
    ASSERT_TRUE(dbus.init(true)) << logs.dump();
    EXPECT_FALSE(dbus.init(true));
    EXPECT_TRUE(logs.logged(G_LOG_LEVEL_CRITICAL,
                            "bool EnrollerDBus::init(bool): assertion 'owner_id == 0' failed"))
        << logs.dump();
}

TEST_F(EnrollerDBusTest, NoSignalBeforeInit) {
    EnrollerDBus dbus(enroller);
    dbus.emit_enrolled("aws-iot");
    EXPECT_TRUE(logs.logged(
        G_LOG_LEVEL_CRITICAL,
        "void EnrollerDBus::emit_enrolled(const char*): assertion 'reg_bus != nullptr' failed"))
        << logs.dump();
}

}  // namespace
