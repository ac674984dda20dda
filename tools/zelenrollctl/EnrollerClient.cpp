#include "EnrollerClient.h"

#include "ClassCallback.h"
#include "EnrollConstants.h"

namespace {

constexpr int kCallTimeoutMs = 10000;

// Errors meaning that nothing answered for the daemon, rather than the daemon refusing.
bool is_unreachable_error(const GError* err) {
    if (err->domain == G_IO_ERROR)
        return err->code == G_IO_ERROR_CLOSED || err->code == G_IO_ERROR_TIMED_OUT;
    if (err->domain != G_DBUS_ERROR)
        return false;
    switch (err->code) {
        case G_DBUS_ERROR_SERVICE_UNKNOWN:
        case G_DBUS_ERROR_NAME_HAS_NO_OWNER:
        case G_DBUS_ERROR_NO_REPLY:
        case G_DBUS_ERROR_TIMEOUT:
        case G_DBUS_ERROR_DISCONNECTED:
        case G_DBUS_ERROR_UNKNOWN_OBJECT:
        case G_DBUS_ERROR_UNKNOWN_INTERFACE:
            return true;
        default:
            return false;
    }
}

}  // namespace

bool EnrollerClient::connect() {
    GError* raw_error = nullptr;
    bus.reset(
        g_bus_get_sync(session_bus ? G_BUS_TYPE_SESSION : G_BUS_TYPE_SYSTEM, nullptr, &raw_error));
    if (!bus) {
        const GErrorPtr err(raw_error);
        error = std::string("cannot connect to the D-Bus ") + (session_bus ? "session" : "system") +
                " bus: " + err->message;
        unreachable = true;
        return false;
    }
    return true;
}

GLibPtr<GVariant> EnrollerClient::call(const char* interface, const char* method, GVariant* args,
                                       const char* reply_type) {
    if (!bus && !connect())
        return {};
    GError* raw_error = nullptr;
    GLibPtr<GVariant> reply(g_dbus_connection_call_sync(
        bus.get(), ENROLLER_DBUS_NAME, ENROLLER_DBUS_PATH, interface, method, args,
        G_VARIANT_TYPE(reply_type), G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallTimeoutMs, nullptr,
        &raw_error));
    if (!reply) {
        const GErrorPtr err(raw_error);
        unreachable = is_unreachable_error(err.get());
        GCharPtr remote(g_dbus_error_get_remote_error(err.get()));
        g_dbus_error_strip_remote_error(err.get());
        error = std::string(unreachable ? "daemon not reachable" : "daemon error") + " (" +
                (remote ? remote.get() : "D-Bus") + "): " + err->message;
    }
    return reply;
}

bool EnrollerClient::name_owner(std::string* owner, guint32* pid) {
    if (!bus && !connect())
        return false;
    GError* raw_error = nullptr;
    const GLibPtr<GVariant> reply(g_dbus_connection_call_sync(
        bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetNameOwner", g_variant_new("(s)", ENROLLER_DBUS_NAME), G_VARIANT_TYPE("(s)"),
        G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, &raw_error));
    if (!reply) {
        const GErrorPtr err(raw_error);
        unreachable = true;
        error = std::string("nobody owns ") + ENROLLER_DBUS_NAME + " on the " +
                (session_bus ? "session" : "system") + " bus";
        return false;
    }
    const gchar* unique = nullptr;
    g_variant_get(reply.get(), "(&s)", &unique);
    *owner = unique;
    const GLibPtr<GVariant> pid_reply(g_dbus_connection_call_sync(
        bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetConnectionUnixProcessID", g_variant_new("(s)", unique), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, nullptr));
    *pid = 0;
    if (pid_reply)
        g_variant_get(pid_reply.get(), "(u)", pid);
    return true;
}

bool EnrollerClient::get_property(const char* name, bool* value) {
    const GLibPtr<GVariant> reply =
        call("org.freedesktop.DBus.Properties", "Get",
             g_variant_new("(ss)", ENROLLER_DBUS_INTERFACE, name), "(v)");
    if (!reply)
        return false;
    GLibPtr<GVariant> inner(g_variant_get_child_value(reply.get(), 0));
    GLibPtr<GVariant> boxed(g_variant_get_variant(inner.get()));
    if (!g_variant_is_of_type(boxed.get(), G_VARIANT_TYPE_BOOLEAN)) {
        error = std::string("daemon property '") + name + "' is not a boolean";
        return false;
    }
    *value = g_variant_get_boolean(boxed.get());
    return true;
}

bool EnrollerClient::trigger(bool* accepted) {
    const GLibPtr<GVariant> reply = call(ENROLLER_DBUS_INTERFACE, "trigger", nullptr, "(b)");
    if (!reply)
        return false;
    gboolean flag = FALSE;
    g_variant_get(reply.get(), "(b)", &flag);
    *accepted = flag;
    return true;
}

bool EnrollerClient::diagnose(GLibPtr<GVariant>& dict) {
    const GLibPtr<GVariant> reply = call(ENROLLER_DBUS_INTERFACE, "diagnose", nullptr, "(a{sv})");
    if (!reply)
        return false;
    dict.reset(g_variant_get_child_value(reply.get(), 0));
    return true;
}

bool EnrollerClient::wait_enrolled(double timeout_secs) {
    if (!bus && !connect())
        return false;
    loop.reset(g_main_loop_new(nullptr, FALSE));
    // Subscribed before the first property read, so that no enrollment falls between them.
    // Only the name's owner is heard: anyone may send signals on the system bus.
    const guint subscription = g_dbus_connection_signal_subscribe(
        bus.get(), ENROLLER_DBUS_NAME, ENROLLER_DBUS_INTERFACE, "enrolled", ENROLLER_DBUS_PATH,
        nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
        class_callback<EnrollerClient, &EnrollerClient::on_enrolled_signal>, this, nullptr);
    timeout_source =
        g_timeout_add(static_cast<guint>(timeout_secs * 1000),
                      class_callback<EnrollerClient, &EnrollerClient::on_timeout>, this);
    const guint poll = g_timeout_add_seconds(
        1, class_callback<EnrollerClient, &EnrollerClient::poll_enrolled>, this);
    poll_enrolled();
    if (!enrolled && !refused)
        g_main_loop_run(loop.get());
    g_source_remove(poll);
    if (timeout_source)
        g_source_remove(timeout_source);
    g_dbus_connection_signal_unsubscribe(bus.get(), subscription);
    unreachable = !enrolled && !answered && !refused;
    return enrolled;
}

int EnrollerClient::poll_enrolled() {
    bool flag = false;
    if (get_property("enrolled", &flag)) {
        answered = true;
        if (flag) {
            enrolled = true;
            g_main_loop_quit(loop.get());
        }
    } else if (!unreachable) {
        refused = true;  // the daemon answers, with an error: waiting will not change that
        g_main_loop_quit(loop.get());
    }
    return G_SOURCE_CONTINUE;
}

void EnrollerClient::on_enrolled_signal(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                                        const gchar*, GVariant*) {
    enrolled = true;
    g_main_loop_quit(loop.get());
}

int EnrollerClient::on_timeout() {
    timeout_source = 0;
    g_main_loop_quit(loop.get());
    return G_SOURCE_REMOVE;
}
