#pragma once

#include <glib.h>

#include <memory>
#include <vector>

#include "EnrollerInfo.h"
#include "GLibPtr.h"

// The command line options. Each slot keeps what GLib's option parser wrote into it: a
// string option is null until given (an empty string counts as given), the flags and
// numbers hold their defaults until given.
class CliOpts {
  public:
    CliOpts() = default;
    ~CliOpts();
    CliOpts(const CliOpts&) = delete;
    CliOpts& operator=(const CliOpts&) = delete;

    // A parsing context with the help header and the option table of this instance.
    GOptionContextPtr option_context();
    // Parses the command line into this instance, removing what it recognised from argv.
    bool parse(int* argc, char*** argv, GError** error);

    // Merges the options, the branding file and the system identity into `info`; false
    // after a logged message when the result is not usable.
    bool init_info(EnrollerInfo& info) const;

    char* base_url = nullptr;
    char* serial = nullptr;
    char* model = nullptr;
    char* brand = nullptr;
    char* user_serial = nullptr;
    char* board_serial = nullptr;
    char* system_serial = nullptr;
    char* chassis_serial = nullptr;
    char* fwver = nullptr;
    char* rpmb = nullptr;
    char* key = nullptr;
    char* branding = nullptr;
    char* status_file = nullptr;
    char* services_dir = nullptr;
    char* proxy = nullptr;
    char* user = nullptr;
    char** protocol = nullptr;
    int daemonize = 1;
    int kill = 0;
    int use_session_bus = 0;
    int retry = 60;
    int timeout = 60;
    int disable = -1;  // -1 neither --disable nor --enable, else the last one: 1 or 0
    int force_new_cert = 0;
    int dump_http = 0;
    int debug = 0;
    int no_switch_user = 0;

  private:
    // The option table, writing into this instance's slots, terminated by an empty entry.
    std::vector<GOptionEntry> option_entries();
};
