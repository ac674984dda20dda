#include <glib.h>
#include <libdaemon/dfork.h>
#include <libdaemon/dlog.h>
#include <libdaemon/dpid.h>
#include <libsoup/soup.h>
#include <libxml/parser.h>
#include <sys/capability.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "CliOpts.h"
#include "EnrollConstants.h"
#include "Enroller.h"
#include "EnrollerDBus.h"
#include "EnrollerInfo.h"
#include "GLibLog.h"
#include "GLibPtr.h"
#include "MainContext.h"
#include "ProcessCaps.h"
#include "ProxyConfig.h"
#include "UserSwitch.h"

namespace {

const char kIdent[] = "zelenrolld";
const char kPidFile[] = "/var/run/zelenroll/zelenrolld.pid";
const char kDefaultUser[] = "zelenroll";
// The trailing blank makes libsoup append its own product token.
const char kUserAgent[] = "zelenrolld/1.0 ";
constexpr int kHttpLogBodyLimit = 10240;
constexpr int kForkStatusTimeout = 10;  // seconds the parent waits for the child's verdict
constexpr int kKillTimeout = 5;         // seconds --kill waits for the daemon to exit

CliOpts opts;

const char* pid_file_path() {
    return kPidFile;
}

void remove_pid_file() {
    daemon_pid_file_remove();
}

// OpenSSL 3 initialises and cleans up after itself, so only libxml2 and libdaemon need
// setting up.
void init_libraries() {
    xmlInitParser();
    xmlCheckVersion(20914);
    atexit(xmlCleanupParser);

    // libdaemon's own diagnostics go to syslog under our name, too.
    daemon_pid_file_ident = daemon_log_ident = kIdent;
    daemon_pid_file_proc = pid_file_path;
}

int kill_daemon() {
    if (daemon_pid_file_kill_wait(SIGTERM, kKillTimeout) < 0) {
        g_message("failed to kill daemon: %s", strerror(errno));
        return 1;
    }
    return 0;
}

bool check_options() {
    if (static_cast<unsigned>(opts.dump_http) > SOUP_LOGGER_LOG_BODY) {
        g_message("invalid level %i for HTTP dumping", opts.dump_http);
        return false;
    }
    if (opts.key && !g_file_test(opts.key, G_FILE_TEST_IS_REGULAR)) {
        g_message("key file '%s' does not exist or is not a file", opts.key);
        return false;
    }
    if (opts.retry < 0) {
        g_message("invalid retry timeout value %i", opts.retry);
        return false;
    }
    if (opts.timeout < 0) {
        g_message("invalid timeout value %i", opts.timeout);
        return false;
    }
    return true;
}

// Forks the daemon. Returns -1 in the daemon child, which goes on starting up; otherwise
// the exit code of this process, the parent, which waits for the child's verdict.
int fork_daemon() {
    // Until the child has started, messages are also copied to standard error.
    openlog(kIdent, LOG_PID | LOG_PERROR, LOG_DAEMON);
    set_glib_default_log_handler_to_syslog(opts.debug);

    if (daemon_reset_sigs(-1) < 0 || daemon_unblock_sigs(-1) < 0) {
        g_message("failed to reset and unblock signals: %s", strerror(errno));
        return 1;
    }
    const pid_t running = daemon_pid_file_is_running();
    if (running >= 0) {
        g_message("daemon already running with PID %u", static_cast<unsigned>(running));
        return 1;
    }
    if (daemon_retval_init() < 0) {
        g_message("failed to initialize for forking");
        return 1;
    }
    const pid_t pid = daemon_fork();
    if (pid < 0) {
        g_message("failed to fork: %s", strerror(errno));
        return 1;
    }
    if (pid == 0)
        return -1;

    const int verdict = daemon_retval_wait(kForkStatusTimeout);
    if (verdict == -1) {
        g_message("failed to receive status from forked daemon");
        return 1;
    }
    if (verdict != 0) {
        g_message("forked daemon failed (%i)", verdict);
        return verdict;
    }
    return 0;
}

bool prepare_daemon_child() {
    openlog(kIdent, LOG_PID, LOG_DAEMON);
    umask(022);
    if (daemon_close_all(-1) < 0) {
        g_message("failed to close unneeded file descriptors: %s", strerror(errno));
        return false;
    }
    if (daemon_pid_file_create() < 0) {
        g_message("could not create PID file: %s", strerror(errno));
        return false;
    }
    atexit(remove_pid_file);
    return true;
}

// Only CAP_SYS_RAWIO is kept, as a permitted capability, for the RPMB device commands.
bool drop_privileges() {
    if (!opts.no_switch_user && daemon_user_switch(opts.user ? opts.user : kDefaultUser, true) != 0)
        return false;
    return ProcessCaps::drop_all_except({CAP_SYS_RAWIO});
}

// A null resolver means no proxy at all rather than the system's default one.
SoupSession* new_http_session(GProxyResolver* resolver) {
    return soup_session_new_with_options("user-agent", kUserAgent, "timeout",
                                         static_cast<guint>(opts.timeout), "proxy-resolver",
                                         resolver, nullptr);
}

void add_http_logger(SoupSession* session, int level) {
    const GLibPtr<SoupLogger> logger(
        soup_logger_new(static_cast<SoupLoggerLogLevel>(level), kHttpLogBodyLimit));
    soup_session_add_feature(session, SOUP_SESSION_FEATURE(logger.get()));
}

// Everything from the configuration to the end of the main loop. A daemon child reports
// its start-up verdict to the waiting parent.
int run(bool daemon_child) {
    const auto failed = [daemon_child] {
        if (daemon_child)
            daemon_retval_send(1);
        return 1;
    };

    EnrollerInfo info;
    if (!opts.init_info(info))
        return failed();
    if (daemon_child && !prepare_daemon_child())
        return failed();
    if (!drop_privileges())
        return failed();
    if (!Enroller::update_fs_flags(info))
        return failed();
    if (daemon_child) {
        daemon_retval_send(0);
        g_message("%s started with PID %i", kIdent, static_cast<int>(getpid()));
    }

    ProxyConfig proxy;
    if (!proxy.load(opts.proxy))
        g_warning("failed loading proxy configuration");
    const GLibPtr<GProxyResolver> resolver = proxy.glib_proxy_resolver();

    MainContext context(new_http_session(resolver.get()));
    const std::string status_path = opts.status_file ? opts.status_file : DEFAULT_STATUS_FILE;
    if (opts.dump_http != 0)
        add_http_logger(context.get_session(), opts.dump_http);

    Enroller enroller(info, status_path, context.get_session());
    EnrollerDBus dbus(enroller);
    // An unreachable bus is fatal. A daemon child has released its parent already, so
    // there the failure only shows in the log and in the child's exit code.
    if (!dbus.init(!opts.use_session_bus))
        return 1;
    context.run();
    // Destruction runs in reverse: D-Bus object, engine, main context, proxy, configuration.
    return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    init_libraries();

    GError* raw_error = nullptr;
    if (!opts.parse(&argc, &argv, &raw_error)) {
        const GErrorPtr error(raw_error);
        g_message("failed parsing command line: %s", error->message);
        return 1;
    }
    if (opts.kill)
        return kill_daemon();
    if (!check_options())
        return 1;

    if (opts.daemonize) {
        const int exit_code = fork_daemon();
        if (exit_code >= 0)
            return exit_code;
    } else if (opts.debug) {
        setenv("G_MESSAGES_DEBUG", "all", 0);
    }
    return run(opts.daemonize);
}
