#include "CliOpts.h"

#include <string>

#include "BrandingInfo.h"
#include "DeviceIdentity.h"
#include "EnrollConstants.h"

// Continuation lines of a help text line up with the first one in the help output.
#define HELP_NL "\n                          "

namespace {

const char kDefaultBranding[] = "/usr/share/resources/default/zelenroll/branding.json";
const char* const kProtocols[] = {PROTO_EMMC_RPMB_CSR, PROTO_TPM2_AUTHKEY_CSR, PROTO_NOAUTH_CSR};

void strip_trailing_slashes(std::string& text) {
    while (!text.empty() && text.back() == '/')
        text.pop_back();
}

// The option value when it was given, else the fallback.
std::string value_or(const char* option, const char* fallback) {
    return option ? option : fallback;
}
std::string value_or(const char* option, const std::string& fallback) {
    return option ? option : fallback;
}

bool is_supported_protocol(const std::string& name) {
    for (const char* supported : kProtocols) {
        if (name == supported)
            return true;
    }
    return false;
}

}  // namespace

CliOpts::~CliOpts() {
    for (char* text :
         {base_url, serial, model, brand, user_serial, board_serial, system_serial, chassis_serial,
          fwver, rpmb, key, branding, status_file, services_dir, proxy, user})
        g_free(text);
    g_strfreev(protocol);
}

std::vector<GOptionEntry> CliOpts::option_entries() {
    return {
        {"base-url", 'B', 0, G_OPTION_ARG_STRING, &base_url,
         "The base URL for enrollment requests, default is" HELP_NL "read from branding file.",
         "URL"},
        {"serial", 0, 0, G_OPTION_ARG_STRING, &serial,
         "Set the device serial number; default is read from" HELP_NL "system.", "SN"},
        {"model", 0, 0, G_OPTION_ARG_STRING, &model,
         "Set the device model name; default is read from" HELP_NL "branding file.", "MODEL"},
        {"brand", 0, 0, G_OPTION_ARG_STRING, &brand,
         "Set the device brand name; default is read from" HELP_NL "branding file.", "BRAND"},
        {"fwver", 0, 0, G_OPTION_ARG_STRING, &fwver,
         "Set the firmware version string; default is read from" HELP_NL "system.", "VERSION"},
        {"rpmb", 'R', 0, G_OPTION_ARG_STRING, &rpmb,
         "The RPMB device to use, or base name of a simulated" HELP_NL
         "RPMB created with rpmbsim; default is" HELP_NL "/dev/mmcblk0rpmb",
         "RPMBPATH"},
        {"key", 0, 0, G_OPTION_ARG_STRING, &key,
         "The private/public key pair file to create the enroll" HELP_NL
         "certificate signing request; default is" HELP_NL
         "/etc/pki/zelenroll/private/device-private.key",
         "KEY"},
        {"branding", 0, 0, G_OPTION_ARG_STRING, &branding,
         "The branding file to use; default is" HELP_NL
         "/usr/share/resources/default/zelenroll/branding.json",
         "FILE"},
        {"user-serial", 0, 0, G_OPTION_ARG_STRING, &user_serial,
         "Set the device user serial number; default is read" HELP_NL "from system.", "SN"},
        {"board-serial", 0, 0, G_OPTION_ARG_STRING, &board_serial,
         "Set the device board serial number; default is read" HELP_NL "from system.", "SN"},
        {"system-serial", 0, 0, G_OPTION_ARG_STRING, &system_serial,
         "Set the device system serial number; default is read" HELP_NL "from system.", "SN"},
        {"chassis-serial", 0, 0, G_OPTION_ARG_STRING, &chassis_serial,
         "Set the device chassis serial number; default is read" HELP_NL "from system.", "SN"},
        {"status-file", 0, 0, G_OPTION_ARG_STRING, &status_file,
         "The file where to save status, use an empty string to" HELP_NL
         "disable; default is /var/lib/zelenroll/status",
         "FILE"},
        {"services-dir", 0, 0, G_OPTION_ARG_STRING, &services_dir,
         "The directory under which all received service" HELP_NL
         "configuration is stored; default is" HELP_NL "/var/lib/zelenroll/services",
         "DIR"},
        {"proxy", 0, 0, G_OPTION_ARG_STRING, &proxy,
         "The proxy configuration file, use an empty string or" HELP_NL
         "non-existent file to disable proxy; default is" HELP_NL "/etc/network/zelproxy.conf",
         "FILE"},
        {"no-daemon", 0, G_OPTION_FLAG_REVERSE, G_OPTION_ARG_NONE, &daemonize, "Do not daemonize.",
         nullptr},
        {"user", 'u', 0, G_OPTION_ARG_STRING, &user,
         "User to run as, default is zelenroll; its groups" HELP_NL "are used.", "USER"},
        {"kill", 'k', 0, G_OPTION_ARG_NONE, &kill, "Kill a running daemon and exit.", nullptr},
        {"use-session-bus", 0, 0, G_OPTION_ARG_NONE, &use_session_bus,
         "Use the D-Bus session bus to register objects instead" HELP_NL
         "of the system bus; useful for debug.",
         nullptr},
        {"retry", 'r', 0, G_OPTION_ARG_INT, &retry,
         "Sets the base retry interval, in seconds, used as the" HELP_NL
         "base for exponential backoff with jitter; default is" HELP_NL
         "60. Zero means no retries.",
         "TIMEOUT"},
        {"timeout", 0, 0, G_OPTION_ARG_INT, &timeout,
         "Sets the timeout, in seconds, for HTTP requests," HELP_NL
         "default is 60. Zero means no timeout.",
         "TIMEOUT"},
        {"disable", 0, 0, G_OPTION_ARG_NONE, &disable,
         "Disable enrollment, no enrollment request will be" HELP_NL
         "sent. Default depends on branding.",
         nullptr},
        {"force-new-cert", 0, 0, G_OPTION_ARG_NONE, &force_new_cert,
         "Force to obtain a new certificate, for testing only.\n", nullptr},
        {"protocol", 0, 0, G_OPTION_ARG_STRING_ARRAY, &protocol,
         "Add PROTO to the list of advertised protocols." HELP_NL
         "If this options is used the protocol list from the" HELP_NL "branding is ignored.",
         "PROTO"},
        // Shares the slot of --disable, so the last of the two wins.
        {"enable", 0, G_OPTION_FLAG_REVERSE, G_OPTION_ARG_NONE, &disable,
         "Enable enrollment, enrollment requests will be sent." HELP_NL
         "Default depends on branding.",
         nullptr},
        {"dump-http", 0, 0, G_OPTION_ARG_INT, &dump_http,
         "Dumps the HTTP traffic, LEVEL can be 0 (none)," HELP_NL
         "1 (minimal), 2 (headers), 3 (all).",
         "LEVEL"},
        {"debug", 0, 0, G_OPTION_ARG_NONE, &debug,
         "Enable debugging messages. When not daemonizing it" HELP_NL
         "sets G_MESSAGES_DEBUG to 'all', if not yet set.",
         nullptr},
        {"no-switch-user", 0, 0, G_OPTION_ARG_NONE, &no_switch_user,
         "Run as the current user, do not switch user.", nullptr},
        {},
    };
}

GOptionContextPtr CliOpts::option_context() {
    GOptionContextPtr context(g_option_context_new("ZEL device enroller"));
    const std::vector<GOptionEntry> entries = option_entries();
    // GLib copies the table; the texts and slots it points at outlive the context.
    g_option_context_add_main_entries(context.get(), entries.data(), nullptr);
    return context;
}

bool CliOpts::parse(int* argc, char*** argv, GError** error) {
    return g_option_context_parse(option_context().get(), argc, argv, error);
}

bool CliOpts::init_info(EnrollerInfo& info) const {
    BrandingInfo branding_info;
    if (branding_info.load(value_or(branding, kDefaultBranding).c_str()) <= 0) {
        g_message("branding file is invalid");
        return false;
    }

    if (base_url) {
        g_message("using non-default enroll base URL '%s'", base_url);
        info.base_url = base_url;
    } else {
        g_message("using default enroll base URL '%s'", branding_info.enrollRootUrl.c_str());
        info.base_url = branding_info.enrollRootUrl;
    }
    strip_trailing_slashes(info.base_url);

    info.retry_interval = retry;
    info.disabled = disable >= 0 ? disable >= 1 : !branding_info.enabledByDefault;
    info.force_new_cert = force_new_cert;
    info.firmware_version = fwver ? fwver : read_firmware_version();
    info.rpmb_path = value_or(rpmb, DEFAULT_RPMB_DEVICE);
    info.key_path = value_or(key, DEFAULT_KEY_FILE);
    info.services_dir = value_or(services_dir, DEFAULT_SERVICES_DIR);
    strip_trailing_slashes(info.services_dir);

    if (protocol && *protocol)
        info.protocols.assign(protocol, protocol + g_strv_length(protocol));
    else
        info.protocols = branding_info.enrollProtocols;

    DeviceInfo& device = info.device;
    device.serial = serial ? serial : read_serial_nr();
    device.model = value_or(model, branding_info.model);
    device.brand = value_or(brand, branding_info.brand);
    device.userSerial = user_serial ? user_serial : read_corvanta_identifier("ZEL_USER_SN");
    device.boardSerial = board_serial ? board_serial : read_corvanta_identifier("ZEL_BOARD_SN");
    device.systemSerial = system_serial ? system_serial : read_corvanta_identifier("ZEL_SYSTEM_SN");
    device.chassisSerial =
        chassis_serial ? chassis_serial : read_corvanta_identifier("ZEL_CHASSIS_SN");

    if (info.firmware_version.empty())
        g_warning("no firmware version available");
    if (device.serial.empty()) {
        g_message("no device serial number available");
        return false;
    }
    if (device.model.empty()) {
        g_message("no device model available");
        return false;
    }
    if (device.brand.empty()) {
        g_message("no device brand available");
        return false;
    }
    if (info.protocols.empty()) {
        g_message("no enrollment protocols");
        return false;
    }
    for (const std::string& name : info.protocols) {
        if (!is_supported_protocol(name)) {
            g_message("only '%s', '%s' and '%s' enrollment protocols are supported", kProtocols[0],
                      kProtocols[1], kProtocols[2]);
            return false;
        }
    }
    return true;
}
