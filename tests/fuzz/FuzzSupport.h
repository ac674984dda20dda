#pragma once

#include <fcntl.h>
#include <glib.h>
#include <glib/gstdio.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "GLibPtr.h"

// Shared by the fuzz targets: quiet logging that still stops on programming errors, and
// a scratch directory for readers that only take file names.
namespace fuzz {

// Our own messages are expected on hostile input and only slow the run down. A library
// warning or critical, or a failed precondition anywhere, means the input reached code
// with arguments it must never get: that is a finding, so it aborts with the message.
inline bool is_finding(const char* domain, GLogLevelFlags level, const char* message) {
    const GLogLevelFlags severity = static_cast<GLogLevelFlags>(level & G_LOG_LEVEL_MASK);
    if (severity & G_LOG_LEVEL_ERROR)
        return true;
    if (!(severity & (G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING)))
        return false;
    if (domain && *domain)
        return true;
    return severity == G_LOG_LEVEL_CRITICAL && message && strstr(message, "assertion '");
}

inline void report(const char* domain, GLogLevelFlags level, const char* message) {
    if (!is_finding(domain, level, message))
        return;
    fprintf(stderr, "unexpected log message: %s: %s\n", domain ? domain : "(none)",
            message ? message : "(null)");
    abort();
}

inline void log_handler(const char* domain, GLogLevelFlags level, const char* message, void*) {
    report(domain, level, message);
}

inline GLogWriterOutput log_writer(GLogLevelFlags level, const GLogField* fields, size_t count,
                                   void*) {
    const char* domain = nullptr;
    const char* message = nullptr;
    for (size_t i = 0; i < count; ++i) {
        if (strcmp(fields[i].key, "GLIB_DOMAIN") == 0)
            domain = static_cast<const char*>(fields[i].value);
        else if (strcmp(fields[i].key, "MESSAGE") == 0)
            message = static_cast<const char*>(fields[i].value);
    }
    report(domain, level, message);
    return G_LOG_WRITER_HANDLED;
}

// Call once, from LLVMFuzzerInitialize.
inline void quiet_logging() {
    g_log_set_default_handler(log_handler, nullptr);
    g_log_set_writer_func(log_writer, nullptr, nullptr);
}

// A private directory that lives as long as the process. A crashing run leaves it behind
// in the temporary directory, next to the crash input that explains it.
class Scratch {
  public:
    Scratch() {
        const GCharPtr dir(g_dir_make_tmp("zelfuzz-XXXXXX", nullptr));
        if (!dir)
            abort();
        path = dir.get();
    }
    ~Scratch() {
        if (GDir* const entries = g_dir_open(path.c_str(), 0, nullptr)) {
            while (const char* name = g_dir_read_name(entries))
                g_unlink(file(name).c_str());
            g_dir_close(entries);
        }
        g_rmdir(path.c_str());
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    std::string file(const std::string& name) const { return path + "/" + name; }

    // Replaces file `name` with the bytes and returns its path.
    std::string write(const std::string& name, const uint8_t* data, size_t size) const {
        const std::string target = file(name);
        const int fd = open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd < 0)
            abort();
        for (size_t done = 0; done < size;) {
            const ssize_t n = ::write(fd, data + done, size - done);
            if (n <= 0)
                abort();
            done += static_cast<size_t>(n);
        }
        close(fd);
        return target;
    }

  private:
    std::string path;
};

// The process's scratch directory, made on first use and removed on a normal exit.
inline const Scratch& scratch() {
    static const Scratch instance;
    return instance;
}

}  // namespace fuzz
