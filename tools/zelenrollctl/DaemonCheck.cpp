// The running daemon, as the bus and its "diagnose" method show it.

#include "Checks.h"
#include "EnrollerClient.h"

namespace {

// What the daemon tells about itself: from "diagnose" (root only) or else its properties.
struct DaemonView {
    bool enrolled = false;
    bool disabled = false;
    bool diagnosed = false;
    bool attempted = false;  // it has read the device's public key for an "/initiate"
    std::string base_url;

    void read_diagnosis(GVariant* dict) {
        diagnosed = true;
        gboolean flag = FALSE;
        enrolled = g_variant_lookup(dict, "enrolled", "b", &flag) && flag;
        disabled = g_variant_lookup(dict, "disabled", "b", &flag) && flag;
        const gchar* url = nullptr;
        if (g_variant_lookup(dict, "base_url", "&s", &url))
            base_url = url;
        const GLibPtr<GVariant> pubkey(
            g_variant_lookup_value(dict, "pubkey", G_VARIANT_TYPE_STRING));
        attempted = static_cast<bool>(pubkey);
    }
};

}  // namespace

void check_daemon(CheckContext& ctx) {
    const char* name = "daemon";
    EnrollerClient client(ctx.opts.session_bus);
    std::string owner;
    guint32 pid = 0;
    if (!client.name_owner(&owner, &pid)) {
        ctx.report.error(name, "not running: " + client.error,
                         "start it (systemctl start zelenrolld) and read why it stopped in its "
                         "log (journalctl -u zelenrolld)");
        return;
    }
    std::string found = "running (pid " + std::to_string(pid) + ", " + owner + ")";
    DaemonView view;
    GLibPtr<GVariant> dict;
    if (client.diagnose(dict)) {
        view.read_diagnosis(dict.get());
    } else if (!client.get_property("enrolled", &view.enrolled) ||
               !client.get_property("disabled", &view.disabled)) {
        ctx.report.error(name, found + " but does not answer: " + client.error,
                         "restart it (systemctl restart zelenrolld)");
        return;
    }
    if (!view.base_url.empty() && view.base_url != ctx.base_url)
        found += ", base URL " + view.base_url;
    if (view.disabled) {
        ctx.report.warning(name, found + ", enrollment disabled: it sends no request",
                           "start the daemon with --enable or set \"enabledByDefault\": true in "
                           "the branding file");
        return;
    }
    if (view.enrolled) {
        ctx.report.ok(name, found + ", enrolled");
        return;
    }
    const std::string progress = !view.diagnosed  ? " (run as root for its diagnosis)"
                                 : view.attempted ? ", attempts have run"
                                                  : ", no attempt yet";
    ctx.report.warning(name, found + ", not enrolled" + progress,
                       "read the daemon's log for the step that fails (journalctl -u "
                       "zelenrolld)");
}
