#pragma once

#include <gio/gio.h>
#include <glib.h>

#include "GLibPtr.h"

class Enroller;

// Publishes the enrollment engine on D-Bus (two methods, two properties, one signal) and
// tells it when NetworkManager reports that the network has come up. Everything runs on
// the main loop; the object is the user data of every registration.
class EnrollerDBus {
  public:
    // Only stores the engine; all bus work is in init().
    explicit EnrollerDBus(Enroller& enroller);
    ~EnrollerDBus();
    EnrollerDBus(const EnrollerDBus&) = delete;
    EnrollerDBus& operator=(const EnrollerDBus&) = delete;

    // Connects, subscribes to NetworkManager on the system bus, registers the object and
    // requests the name on the system bus (`system_bus`) or the session bus. False only
    // when a bus cannot be reached.
    bool init(bool system_bus);

    // Emits signal "enrolled" with the name of the enrolled service.
    void emit_enrolled(const char* service);

  private:
    // The bus carrying the object and the name.
    GDBusConnection* registration_bus() const;

    void on_method_call(GDBusConnection* connection, const gchar* sender, const gchar* path,
                        const gchar* interface, const gchar* method, GVariant* parameters,
                        GDBusMethodInvocation* invocation);
    GVariant* on_property_get(GDBusConnection* connection, const gchar* sender, const gchar* path,
                              const gchar* interface, const gchar* property, GError** error);
    void on_signal(GDBusConnection* connection, const gchar* sender, const gchar* path,
                   const gchar* interface, const gchar* signal, GVariant* parameters);
    void on_name_acquired(GDBusConnection* connection, const gchar* name);
    void on_name_lost(GDBusConnection* connection, const gchar* name);

    Enroller& enroller;
    guint owner_id = 0;
    guint obj_reg_id = 0;
    guint sig_subs_id = 0;
    GLibPtr<GDBusConnection> sys_bus;
    GLibPtr<GDBusConnection> sess_bus;
    bool name_lost = false;
};
