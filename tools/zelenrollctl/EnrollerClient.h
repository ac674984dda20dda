#pragma once

#include <gio/gio.h>

#include <string>

#include "GLibPtr.h"

// A client of the running zelenrolld over D-Bus. Every call returns false after leaving a
// one-line reason in `error`; `unreachable` tells a daemon (or bus) that cannot be reached
// apart from one that answered with an error.
class EnrollerClient {
  public:
    explicit EnrollerClient(bool session_bus) : session_bus(session_bus) {}

    bool connect();
    // The unique bus name owning the daemon's name and that connection's process; false
    // when nobody owns it (with `unreachable` set) or the bus refuses to tell.
    bool name_owner(std::string* owner, guint32* pid);
    bool get_property(const char* name, bool* value);
    bool trigger(bool* accepted);
    // The daemon's diagnosis, a dictionary of type "a{sv}".
    bool diagnose(GLibPtr<GVariant>& dict);
    // Runs the main loop until the daemon reports being enrolled, by its "enrolled" signal
    // or its property (read at once and then every second), or `timeout_secs` passed.
    // False on timeout, with `unreachable` set when the daemon never answered, and at once
    // when the daemon answers with an error (`refused`).
    bool wait_enrolled(double timeout_secs);

    std::string error;
    bool unreachable = false;
    bool refused = false;

  private:
    GLibPtr<GVariant> call(const char* interface, const char* method, GVariant* args,
                           const char* reply_type);
    int poll_enrolled();
    void on_enrolled_signal(GDBusConnection* connection, const gchar* sender, const gchar* path,
                            const gchar* interface, const gchar* signal, GVariant* parameters);
    int on_timeout();

    bool session_bus;
    GLibPtr<GDBusConnection> bus;
    GMainLoopPtr loop;
    bool enrolled = false;
    bool answered = false;
    guint timeout_source = 0;
};
