#pragma once

#include <glib.h>

#include <string>
#include <vector>

#include "GLibPtr.h"

// Runs a command with its time bounded; true when it exits with status 0. `out` gets its
// standard output followed by its standard error.
inline bool run(std::vector<std::string> args, std::string* out = nullptr) {
    args.insert(args.begin(), {"timeout", "60"});
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    char *std_out = nullptr, *std_err = nullptr;
    int status = 0;
    const bool ok = g_spawn_sync(nullptr, argv.data(), nullptr, G_SPAWN_SEARCH_PATH, nullptr,
                                 nullptr, &std_out, &std_err, &status, nullptr) &&
                    g_spawn_check_wait_status(status, nullptr);
    const GCharPtr held_out(std_out), held_err(std_err);
    if (out)
        *out = std::string(std_out ? std_out : "") + (std_err ? std_err : "");
    return ok;
}
