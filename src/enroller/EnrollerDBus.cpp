#include "EnrollerDBus.h"

#include "ClassCallback.h"
#include "EnrollConstants.h"
#include "Enroller.h"

namespace {

const char NM_INTERFACE[] = "org.freedesktop.NetworkManager";
const char NM_STATE_CHANGED[] = "StateChanged";
// NetworkManager's NM_STATE_CONNECTED_SITE and NM_STATE_CONNECTED_GLOBAL
constexpr guint32 NM_STATE_CONNECTED_SITE = 60;
constexpr guint32 NM_STATE_CONNECTED_GLOBAL = 70;

// GDBus declares its introspection strings mutable but never writes them.
constexpr gchar* str(const char* s) {
    return const_cast<gchar*>(s);
}

// Static introspection data: a reference count of -1 marks it as never freed.
GDBusArgInfo triggered_arg = {-1, str("triggered"), str("b"), nullptr};
GDBusArgInfo* trigger_out[] = {&triggered_arg, nullptr};
GDBusMethodInfo trigger_method = {-1, str("trigger"), nullptr, trigger_out, nullptr};

GDBusArgInfo diagnostic_arg = {-1, str("diagnositic"), str("a{sv}"), nullptr};
GDBusArgInfo* diagnose_out[] = {&diagnostic_arg, nullptr};
GDBusMethodInfo diagnose_method = {-1, str("diagnose"), nullptr, diagnose_out, nullptr};

GDBusMethodInfo* methods[] = {&trigger_method, &diagnose_method, nullptr};

GDBusArgInfo service_arg = {-1, str("service"), str("s"), nullptr};
GDBusArgInfo* enrolled_args[] = {&service_arg, nullptr};
GDBusSignalInfo enrolled_signal = {-1, str("enrolled"), enrolled_args, nullptr};

GDBusSignalInfo* signals[] = {&enrolled_signal, nullptr};

GDBusPropertyInfo enrolled_property = {-1, str("enrolled"), str("b"),
                                       G_DBUS_PROPERTY_INFO_FLAGS_READABLE, nullptr};
GDBusPropertyInfo disabled_property = {-1, str("disabled"), str("b"),
                                       G_DBUS_PROPERTY_INFO_FLAGS_READABLE, nullptr};

GDBusPropertyInfo* properties[] = {&enrolled_property, &disabled_property, nullptr};

GDBusInterfaceInfo interface_info = {
    -1, str(ENROLLER_DBUS_INTERFACE), methods, signals, properties, nullptr};

}  // namespace

EnrollerDBus::EnrollerDBus(Enroller& enroller) : enroller(enroller) {}

EnrollerDBus::~EnrollerDBus() {
    if (sig_subs_id)
        g_dbus_connection_signal_unsubscribe(sys_bus.get(), sig_subs_id);
    if (obj_reg_id && !g_dbus_connection_unregister_object(registration_bus(), obj_reg_id))
        g_critical("failed removing D-Bus object registration");
    if (owner_id)
        g_bus_unown_name(owner_id);
    sess_bus.reset();
    sys_bus.reset();
}

GDBusConnection* EnrollerDBus::registration_bus() const {
    return sess_bus ? sess_bus.get() : sys_bus.get();
}

bool EnrollerDBus::init(bool system_bus) {
    g_return_val_if_fail(owner_id == 0, false);
    g_return_val_if_fail(obj_reg_id == 0, false);
    g_return_val_if_fail(sig_subs_id == 0, false);
    // The expressions are the text of the warnings: keep their spelling.
    // clang-format off
    g_return_val_if_fail(! sys_bus, false);
    g_return_val_if_fail(! sess_bus, false);
    // clang-format on

    GError* raw_error = nullptr;
    sys_bus.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &raw_error));
    if (!sys_bus) {
        const GErrorPtr error(raw_error);
        g_critical("failed to connect to D-Bus system bus: %s", error->message);
        return false;
    }
    if (!system_bus) {
        sess_bus.reset(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &raw_error));
        if (!sess_bus) {
            const GErrorPtr error(raw_error);
            g_critical("failed to connect to D-Bus session bus: %s", error->message);
            sys_bus.reset();
            return false;
        }
    }

    sig_subs_id = g_dbus_connection_signal_subscribe(
        sys_bus.get(), nullptr, NM_INTERFACE, nullptr, nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
        class_callback<EnrollerDBus, &EnrollerDBus::on_signal>, this, nullptr);

    // No setter: the interface has no writable property.
    static const GDBusInterfaceVTable vtable = {
        class_callback<EnrollerDBus, &EnrollerDBus::on_method_call>,
        class_callback<EnrollerDBus, &EnrollerDBus::on_property_get>,
        nullptr,
        {}};
    obj_reg_id =
        g_dbus_connection_register_object(registration_bus(), ENROLLER_DBUS_PATH, &interface_info,
                                          &vtable, this, nullptr, &raw_error);
    if (!obj_reg_id) {
        // Without the object the daemon still enrolls, so start-up goes on.
        const GErrorPtr error(raw_error);
        g_critical("failed to register %s object in D-Bus: %s", ENROLLER_DBUS_PATH, error->message);
    }

    owner_id = g_bus_own_name_on_connection(
        registration_bus(), ENROLLER_DBUS_NAME, G_BUS_NAME_OWNER_FLAGS_NONE,
        class_callback<EnrollerDBus, &EnrollerDBus::on_name_acquired>,
        class_callback<EnrollerDBus, &EnrollerDBus::on_name_lost>, this, nullptr);

    enroller.register_enrolled_cb([this] { emit_enrolled(AWS_IOT_SERVICE); });
    return true;
}

void EnrollerDBus::emit_enrolled(const char* service) {
    GDBusConnection* const reg_bus = registration_bus();
    g_return_if_fail(reg_bus != nullptr);

    GError* raw_error = nullptr;
    if (!g_dbus_connection_emit_signal(reg_bus, nullptr, ENROLLER_DBUS_PATH,
                                       ENROLLER_DBUS_INTERFACE, "enrolled",
                                       g_variant_new("(s)", service), &raw_error)) {
        const GErrorPtr error(raw_error);
        g_critical("failed to emit enrolled signal");
    }
}

void EnrollerDBus::on_method_call(GDBusConnection* connection, const gchar* sender,
                                  const gchar* path, const gchar* interface, const gchar* method,
                                  GVariant*, GDBusMethodInvocation* invocation) {
    g_debug("%s(%p, %s, %s, %s, %s)", G_STRFUNC, static_cast<void*>(connection), sender, path,
            interface, method);
    if (g_strcmp0(method, "trigger") == 0) {
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(b)", enroller.trigger()));
    } else if (g_strcmp0(method, "diagnose") == 0) {
        const GLibPtr<GVariant> diagnostic = enroller.diagnose();
        g_dbus_method_invocation_return_value(invocation, diagnostic.get());
    } else {
        // GDBus refuses methods missing from the interface data before calling us.
        g_return_if_reached();
    }
}

GVariant* EnrollerDBus::on_property_get(GDBusConnection* connection, const gchar* sender,
                                        const gchar* path, const gchar* interface,
                                        const gchar* property, GError** error) {
    g_debug("%s(%p, %s, %s, %s, %s)", G_STRFUNC, static_cast<void*>(connection), sender, path,
            interface, property);
    if (g_strcmp0(property, "enrolled") == 0)
        return g_variant_new_boolean(enroller.get_status().enrolled);
    if (g_strcmp0(property, "disabled") == 0)
        return g_variant_new_boolean(enroller.get_info().disabled);
    // GDBus insists on an error with a missing value.
    g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_PROPERTY, "no property '%s'", property);
    g_return_val_if_reached(nullptr);
}

void EnrollerDBus::on_signal(GDBusConnection* connection, const gchar* sender, const gchar* path,
                             const gchar* interface, const gchar* signal, GVariant* parameters) {
    g_debug("%s(%p, %s, %s, %s, %s)", G_STRFUNC, static_cast<void*>(connection), sender, path,
            interface, signal);
    if (g_strcmp0(interface, NM_INTERFACE) != 0) {
        // the subscription only delivers NetworkManager's interface
        g_return_if_reached();
    }
    if (g_strcmp0(signal, NM_STATE_CHANGED) != 0)
        return;
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(u)"))) {
        g_critical("ignoring %s.%s with badly typed arguments %s", interface, signal,
                   g_variant_get_type_string(parameters));
        return;
    }
    guint32 state = 0;
    g_variant_get(parameters, "(u)", &state);
    g_debug("%s got %s.%s(%u)", G_STRFUNC, interface, signal, state);
    // Only the connected states matter; a disconnection is not reported to the engine.
    if (state == NM_STATE_CONNECTED_GLOBAL || state == NM_STATE_CONNECTED_SITE)
        enroller.network_available();
}

void EnrollerDBus::on_name_acquired(GDBusConnection* connection, const gchar* name) {
    g_debug("%s(%p, %s)", G_STRFUNC, static_cast<void*>(connection), name);
    // The first acquisition after start-up only shows in the trace.
    if (name_lost)
        g_message("acquired D-Bus name %s", name);
    name_lost = false;
}

void EnrollerDBus::on_name_lost(GDBusConnection* connection, const gchar* name) {
    g_debug("%s(%p, %s)", G_STRFUNC, static_cast<void*>(connection), name);
    g_critical("D-Bus name %s cannot be acquired or lost", name);
    name_lost = true;
}
