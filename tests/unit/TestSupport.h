#pragma once

#include <gtest/gtest.h>

#include <glib.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "GLibPtr.h"

// Records the GLib log calls made while it lives instead of printing them
// (g_test_expect_message needs g_test_init, which gtest does not call).
class LogCapture {
  public:
    LogCapture() { previous = g_log_set_default_handler(&LogCapture::record, this); }
    ~LogCapture() { g_log_set_default_handler(previous, nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // A message without log domain at `level` that is `text`, or starts with it (`prefix`).
    bool logged(GLogLevelFlags level, const std::string& text, bool prefix = false) const {
        for (const auto& [at, message] : entries)
            if (at == level && (prefix ? message.rfind(text, 0) == 0 : message == text))
                return true;
        return false;
    }
    std::string dump() const {  // for failure messages
        std::string out;
        for (const auto& [level, message] : entries)
            out += std::to_string(level) + " " + message + "\n";
        return out;
    }
    // messages with a log domain are prefixed by "domain: "
    std::vector<std::pair<GLogLevelFlags, std::string>> entries;

  private:
    static void record(const char* domain, GLogLevelFlags level, const char* message,
                       gpointer self) {
        const std::string prefix = domain && *domain ? std::string(domain) + ": " : "";
        static_cast<LogCapture*>(self)->entries.emplace_back(
            static_cast<GLogLevelFlags>(level & G_LOG_LEVEL_MASK),
            prefix + (message ? message : ""));
    }
    GLogFunc previous = nullptr;
};

// A private scratch directory, removed with everything in it when the object goes.
class TempDir {
  public:
    TempDir() : path(make()) {}
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string file(const std::string& name) const { return path + "/" + name; }
    std::string write(const std::string& name, const std::string& contents) const {
        const std::string target = file(name);
        EXPECT_TRUE(g_file_set_contents(target.c_str(), contents.data(),
                                        static_cast<gssize>(contents.size()), nullptr));
        return target;
    }
    const std::string path;

  private:
    static std::string make() {
        const GCharPtr dir(g_dir_make_tmp("zeltest-XXXXXX", nullptr));
        EXPECT_TRUE(dir) << "cannot make a temporary directory";
        return dir ? dir.get() : "/nonexistent";
    }
};

// `json` without white space, to compare JSON texts.
inline std::string squeezed(std::string json) {
    json.erase(std::remove_if(json.begin(), json.end(), ::isspace), json.end());
    return json;
}

// Runs a command for at most 60 s; true when it exits with 0. `out` gets its standard output
// followed by its standard error.
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
