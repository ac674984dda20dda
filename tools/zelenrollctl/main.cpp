// zelenrollctl: asks the running zelenrolld and the files it keeps about the device's
// enrollment, triggers re-enrollment, and renews a certificate that is due.

#include <json-glib/json-glib.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "Checks.h"
#include "CtlOptions.h"
#include "EnrollConstants.h"
#include "EnrollerClient.h"
#include "StatusReport.h"
#include "StoredEnrollment.h"

namespace {

enum ExitCode {
    EXIT_OK = 0,
    EXIT_FAILED = 1,
    EXIT_USAGE = 2,
    EXIT_UNREACHABLE = 3,
    EXIT_TIMEOUT = 4
};

const char kSummary[] =
    "Commands:\n"
    "  status              enrollment state of the daemon and of its files\n"
    "  trigger             ask the daemon to enroll again\n"
    "  diagnose            the daemon's diagnosis\n"
    "  wait                wait until the device is enrolled\n"
    "  renew-if-due        re-enroll when the stored certificate is due for renewal\n"
    "  check               check everything enrollment needs, one line per check\n"
    "\n"
    "Exit status: 0 done, 1 failed or refused, 2 bad usage, 3 daemon not reachable,\n"
    "4 timed out.\n";

using Options = CtlOptions;

// A finite number making up the whole of `text`.
bool parse_number(const char* text, double* out) {
    char* end = nullptr;
    const double value = g_ascii_strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(value))
        return false;
    *out = value;
    return true;
}

int fail(int code, const std::string& text) {
    std::cerr << "zelenrollctl: " << text << "\n";
    return code;
}

int client_failure(const EnrollerClient& client) {
    return fail(client.unreachable ? EXIT_UNREACHABLE : EXIT_FAILED, client.error);
}

int cmd_status(const Options& opts) {
    EnrollerClient client(opts.session_bus);
    DaemonState daemon;
    if (!client.get_property("enrolled", &daemon.enrolled) ||
        !client.get_property("disabled", &daemon.disabled))
        daemon.error = client.error;

    StoredEnrollment stored;
    const bool status_ok = stored.load_status(opts.status_path());
    stored.load_certificate(opts.services_path(), opts.key_path());
    const time_t now = time(nullptr);
    const StatusReport report{daemon, stored, now};
    if (opts.json)
        report.print_json();
    else
        report.print_text();

    if (!daemon.error.empty())
        return fail(client.unreachable ? EXIT_UNREACHABLE : EXIT_FAILED, daemon.error);
    if (!status_ok)
        return fail(EXIT_FAILED,
                    "invalid status file " + stored.status_path + ": " + stored.status_error);
    return EXIT_OK;
}

int trigger(EnrollerClient& client) {
    bool accepted = false;
    if (!client.trigger(&accepted))
        return client_failure(client);
    if (!accepted)
        return fail(EXIT_FAILED, "trigger refused: an enrollment request is in progress");
    bool disabled = false;
    if (client.get_property("disabled", &disabled) && disabled)
        std::printf("re-enrollment triggered, but enrollment is disabled\n");
    else
        std::printf("re-enrollment triggered\n");
    return EXIT_OK;
}

int cmd_trigger(const Options& opts) {
    EnrollerClient client(opts.session_bus);
    return trigger(client);
}

void print_variant_text(const std::string& prefix, GVariant* dict) {
    GVariantIter iter;
    g_variant_iter_init(&iter, dict);
    const char* key = nullptr;
    GVariant* raw = nullptr;
    while (g_variant_iter_next(&iter, "{&sv}", &key, &raw)) {
        const GLibPtr<GVariant> value(raw);
        const std::string name = prefix + key;
        if (g_variant_is_of_type(value.get(), G_VARIANT_TYPE_VARDICT)) {
            print_variant_text(name + ".", value.get());
        } else if (g_variant_is_of_type(value.get(), G_VARIANT_TYPE_STRING)) {
            std::printf("%s: %s\n", name.c_str(), g_variant_get_string(value.get(), nullptr));
        } else {
            const GCharPtr text(g_variant_print(value.get(), FALSE));
            std::printf("%s: %s\n", name.c_str(), text.get());
        }
    }
}

int cmd_diagnose(const Options& opts) {
    EnrollerClient client(opts.session_bus);
    GLibPtr<GVariant> dict;
    if (!client.diagnose(dict))
        return client_failure(client);
    if (!opts.json) {
        print_variant_text("", dict.get());
        return EXIT_OK;
    }
    const GLibPtr<JsonGenerator> generator(json_generator_new());
    JsonNode* node = json_gvariant_serialize(dict.get());
    json_generator_set_root(generator.get(), node);
    json_node_unref(node);
    json_generator_set_pretty(generator.get(), TRUE);
    const GCharPtr text(json_generator_to_data(generator.get(), nullptr));
    std::printf("%s\n", text.get());
    return EXIT_OK;
}

int cmd_wait(const Options& opts) {
    EnrollerClient client(opts.session_bus);
    const double timeout = opts.timeout;
    if (client.wait_enrolled(timeout)) {
        std::printf("enrolled\n");
        return EXIT_OK;
    }
    if (client.unreachable || client.refused)
        return client_failure(client);
    const GCharPtr text(g_strdup_printf("not enrolled within %g s", timeout));
    return fail(EXIT_TIMEOUT, text.get());
}

int cmd_renew(const Options& opts) {
    const double fraction = opts.fraction;
    EnrollerClient client(opts.session_bus);
    bool enrolled = false;
    bool disabled = false;
    if (!client.get_property("enrolled", &enrolled) || !client.get_property("disabled", &disabled))
        return client_failure(client);
    if (disabled || !enrolled) {
        std::printf("nothing to do: %s\n",
                    disabled ? "enrollment is disabled" : "the daemon is enrolling already");
        return EXIT_OK;
    }
    StoredEnrollment stored;
    const time_t now = time(nullptr);
    std::string reason;
    if (!stored.load_certificate(opts.services_path(), opts.key_path()))
        reason = stored.cert_error;
    else if (!stored.key_matches)
        reason = "certificate does not match the device key: " + stored.key_error;
    else if (now >= stored.not_after)
        reason = "certificate expired " + time_text(stored.not_after);
    else if (stored.used_fraction(now) >= fraction)
        reason = "certificate passed " + std::to_string(std::lround(fraction * 100)) +
                 "% of its validity, expires " + time_text(stored.not_after);
    if (reason.empty()) {
        const time_t due = stored.not_before +
                           static_cast<time_t>(fraction * (stored.not_after - stored.not_before));
        std::printf("nothing to do: certificate valid until %s, renewal due %s\n",
                    time_text(stored.not_after).c_str(), time_text(due).c_str());
        return EXIT_OK;
    }
    std::printf("renewing: %s\n", reason.c_str());
    return trigger(client);
}

struct Command {
    const char* name;
    int (*run)(const Options&);
    bool json;
    bool timeout;
    bool fraction;
    bool check;  // takes the daemon's configuration options
};

const Command kCommands[] = {
    {"status", cmd_status, true, false, false, false},
    {"trigger", cmd_trigger, false, false, false, false},
    {"diagnose", cmd_diagnose, true, false, false, false},
    {"wait", cmd_wait, false, true, false, false},
    {"renew-if-due", cmd_renew, false, false, true, false},
    {"check", run_checks, true, false, false, true},
};

}  // namespace

int main(int argc, char** argv) {
    Options opts;
    const GOptionEntry entries[] = {
        {"status-file", 0, 0, G_OPTION_ARG_FILENAME, &opts.status_file,
         "The daemon's status file; default is /var/lib/zelenroll/status", "FILE"},
        {"services-dir", 0, 0, G_OPTION_ARG_FILENAME, &opts.services_dir,
         "The daemon's services directory; default is /var/lib/zelenroll/services", "DIR"},
        {"key", 0, 0, G_OPTION_ARG_FILENAME, &opts.key,
         "The device key; default is /etc/pki/zelenroll/private/device-private.key", "KEY"},
        {"branding", 0, 0, G_OPTION_ARG_FILENAME, &opts.branding,
         "The branding file (check); default is the daemon's", "FILE"},
        {"proxy", 0, 0, G_OPTION_ARG_FILENAME, &opts.proxy,
         "The proxy file (check); default is /etc/network/zelproxy.conf", "FILE"},
        {"rpmb", 'R', 0, G_OPTION_ARG_FILENAME, &opts.rpmb,
         "The RPMB device or simulator base name (check); default is /dev/mmcblk0rpmb", "RPMBPATH"},
        {"user", 'u', 0, G_OPTION_ARG_STRING, &opts.user,
         "The daemon's user (check); default is zelenroll", "USER"},
        {"base-url", 'B', 0, G_OPTION_ARG_STRING, &opts.base_url,
         "The enroll base URL (check); default from the branding file", "URL"},
        {"protocol", 0, 0, G_OPTION_ARG_STRING_ARRAY, &opts.protocols,
         "An offered protocol (check; repeatable); default from the branding file", "PROTO"},
        {"connect", 0, 0, G_OPTION_ARG_NONE, &opts.connect,
         "Also connect to the enrollment server (check)", nullptr},
        {"session-bus", 0, 0, G_OPTION_ARG_NONE, &opts.session_bus,
         "Reach the daemon on the session bus instead of the system bus", nullptr},
        {"json", 0, 0, G_OPTION_ARG_NONE, &opts.json, "JSON output (status, diagnose, check)",
         nullptr},
        {"timeout", 0, 0, G_OPTION_ARG_STRING, &opts.timeout_text,
         "Seconds to wait (wait; default 300)", "SECONDS"},
        {"fraction", 0, 0, G_OPTION_ARG_STRING, &opts.fraction_text,
         "Share of the certificate's validity after which it is renewed (renew-if-due; "
         "default 0.66)",
         "F"},
        {},
    };
    const GOptionContextPtr context(g_option_context_new("COMMAND"));
    g_option_context_add_main_entries(context.get(), entries, nullptr);
    g_option_context_set_summary(context.get(), "Query and control the ZEL device enroller.");
    g_option_context_set_description(context.get(), kSummary);
    GError* raw_error = nullptr;
    if (!g_option_context_parse(context.get(), &argc, &argv, &raw_error)) {
        const GErrorPtr err(raw_error);
        return fail(EXIT_USAGE, err->message);
    }
    if (argc != 2)
        return fail(EXIT_USAGE, argc < 2 ? "no command given (see --help)"
                                         : std::string("unexpected argument '") + argv[2] + "'");
    const Command* command = nullptr;
    for (const Command& candidate : kCommands) {
        if (std::strcmp(argv[1], candidate.name) == 0)
            command = &candidate;
    }
    if (!command)
        return fail(EXIT_USAGE, std::string("unknown command '") + argv[1] + "' (see --help)");
    const bool check_options = opts.branding || opts.proxy || opts.rpmb || opts.user ||
                               opts.base_url || opts.protocols || opts.connect;
    if ((opts.json && !command->json) || (opts.timeout_text && !command->timeout) ||
        (opts.fraction_text && !command->fraction) || (check_options && !command->check))
        return fail(EXIT_USAGE, std::string("option not valid with command '") + argv[1] + "'");
    if (opts.timeout_text && !(parse_number(opts.timeout_text, &opts.timeout) &&
                               opts.timeout >= 0 && opts.timeout <= 1e6))
        return fail(EXIT_USAGE, "--timeout must be a number of seconds from 0 to 1000000");
    if (opts.fraction_text && !(parse_number(opts.fraction_text, &opts.fraction) &&
                                opts.fraction > 0 && opts.fraction <= 1))
        return fail(EXIT_USAGE, "--fraction must be a number above 0 and at most 1");
    return command->run(opts);
}
