#pragma once

#include <gtest/gtest.h>

#include <glib.h>
#include <glib/gstdio.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "GLibPtr.h"
#include "TempDir.h"

// Runs a command with its time bounded; returns true when it exits with status 0.
inline bool run_command(std::initializer_list<std::string> args, std::string* out = nullptr,
                        std::string* err_out = nullptr) {
    std::vector<const char*> argv = {"timeout", "60"};
    for (const std::string& arg : args)
        argv.push_back(arg.c_str());
    argv.push_back(nullptr);

    char* std_out = nullptr;
    char* std_err = nullptr;
    int status = 0;
    GError* err = nullptr;
    const bool spawned =
        g_spawn_sync(nullptr, const_cast<char**>(argv.data()), nullptr, G_SPAWN_SEARCH_PATH,
                     nullptr, nullptr, &std_out, &std_err, &status, &err);
    const std::unique_ptr<char, GFreeDeleter> owned_out(std_out), owned_err(std_err);
    const std::unique_ptr<GError, GErrorDeleter> owned_error(err);
    if (!spawned) {
        ADD_FAILURE() << "cannot run " << *args.begin() << ": " << err->message;
        return false;
    }
    if (out)
        *out = std_out ? std_out : "";
    if (err_out)
        *err_out = std_err ? std_err : "";
    if (!g_spawn_check_wait_status(status, nullptr)) {
        ADD_FAILURE() << *args.begin() << " failed: " << (std_err ? std_err : "");
        return false;
    }
    return true;
}

inline bool write_text_file(const std::string& path, const std::string& text) {
    return g_file_set_contents(path.c_str(), text.data(), static_cast<gssize>(text.size()),
                               nullptr);
}

inline std::string read_text_file(const std::string& path) {
    char* contents = nullptr;
    gsize len = 0;
    if (!g_file_get_contents(path.c_str(), &contents, &len, nullptr))
        return {};
    const std::unique_ptr<char, GFreeDeleter> owned(contents);
    return std::string(contents, len);
}

inline bool make_rsa_key(const std::string& path) {
    return run_command({"openssl", "genpkey", "-algorithm", "RSA", "-pkeyopt",
                        "rsa_keygen_bits:2048", "-out", path});
}

inline bool make_ec_key(const std::string& path) {
    return run_command({"openssl", "genpkey", "-algorithm", "EC", "-pkeyopt",
                        "ec_paramgen_curve:P-256", "-out", path});
}

// A self-signed certificate for the key.
inline bool make_certificate(const std::string& key_path, const std::string& cert_path,
                             const std::string& common_name) {
    return run_command({"openssl", "req", "-x509", "-new", "-key", key_path, "-subj",
                        "/CN=" + common_name, "-days", "1", "-out", cert_path});
}
