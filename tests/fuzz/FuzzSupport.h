#pragma once

#include <glib.h>
#include <libxml/xmlerror.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "GLibPtr.h"

// Shared by the fuzz targets: quiet logging that still stops on programming errors, a
// scratch directory for readers that only take file names, and libFuzzer's set-up.
namespace fuzz {

// Our own messages are expected on hostile input and only slow the run down. A library
// warning or critical, or a failed precondition anywhere, means the input reached code
// with arguments it must never get: that is a finding, so it aborts with the message.
inline GLogWriterOutput log_writer(GLogLevelFlags level, const GLogField* fields, size_t count,
                                   void*) {
    const char *domain = nullptr, *message = nullptr;
    for (size_t i = 0; i < count; ++i)
        if (strcmp(fields[i].key, "GLIB_DOMAIN") == 0)
            domain = static_cast<const char*>(fields[i].value);
        else if (strcmp(fields[i].key, "MESSAGE") == 0)
            message = static_cast<const char*>(fields[i].value);
    const int severity = level & G_LOG_LEVEL_MASK;
    const bool library =
        domain && *domain && (severity & (G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    const bool failed_check =
        severity == G_LOG_LEVEL_CRITICAL && message && strstr(message, "assertion '");
    if (!(severity & G_LOG_LEVEL_ERROR) && !library && !failed_check)
        return G_LOG_WRITER_HANDLED;
    fprintf(stderr, "unexpected log message: %s: %s\n", domain ? domain : "(none)",
            message ? message : "(null)");
    abort();
}

// A path in the run's scratch directory, which is removed at exit.
inline std::string scratch_file(const std::string& name) {
    static const struct Dir {
        const GCharPtr path{g_dir_make_tmp("zelfuzz-XXXXXX", nullptr)};
        ~Dir() { std::filesystem::remove_all(path.get()); }
    } dir;
    if (!dir.path)
        abort();
    return std::string(dir.path.get()) + "/" + name;
}

inline std::string write_file(const std::string& name, const uint8_t* data, size_t size) {
    const std::string path = scratch_file(name);
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    return path;
}

// libxml2 prints every parse error of a broken file; the load's result is what counts.
inline void ignore_xml_error(void*, const char*, ...) {}

}  // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // g_log's default handler passes its messages on to the writer
    g_log_set_writer_func(fuzz::log_writer, nullptr, nullptr);
    xmlSetGenericErrorFunc(nullptr, fuzz::ignore_xml_error);
    return 0;
}
