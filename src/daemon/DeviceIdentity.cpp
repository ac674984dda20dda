#include "DeviceIdentity.h"

#include <glib.h>

#include <cstring>
#include <memory>

#include "GLibPtr.h"

namespace {

constexpr const char* kIdentifiersPath = "/etc/corvanta/identifiers";
constexpr const char* kCpuinfoPath = "/proc/cpuinfo";
constexpr const char* kOsReleasePath = "/etc/os-release";
constexpr const char* kFallbackOsReleasePath = "/usr/lib/os-release";

struct ChannelUnref {
    void operator()(GIOChannel* channel) const { g_io_channel_unref(channel); }
};
using ChannelPtr = std::unique_ptr<GIOChannel, ChannelUnref>;

ChannelPtr open_file(const char* path, GErrorPtr* error) {
    GError* raw_error = nullptr;
    ChannelPtr channel(g_io_channel_new_file(path, "r", &raw_error));
    error->reset(raw_error);
    return channel;
}

// Hands each line (with its terminator) to `handle` until it returns true, the file ends
// or reading fails; a failure is logged as critical after `what`.
template <typename Handler>
void for_each_line(GIOChannel* channel, const char* what, Handler handle) {
    for (;;) {
        char* raw_line = nullptr;
        GError* raw_error = nullptr;
        const GIOStatus status =
            g_io_channel_read_line(channel, &raw_line, nullptr, nullptr, &raw_error);
        const GCharPtr line(raw_line);
        const GErrorPtr error(raw_error);
        if (status == G_IO_STATUS_ERROR) {
            g_critical("%s: %s", what, error ? error->message : "unknown error");
            return;
        }
        // A blocking file channel never asks to try again; anything but a line ends it.
        if (status != G_IO_STATUS_NORMAL)
            return;
        if (line && handle(line.get()))
            return;
    }
}

// Splits at the first separator; null when the line has none.
GStrvPtr split_pair(const char* line, const char* separator, bool any_of) {
    GStrvPtr parts(any_of ? g_strsplit_set(line, separator, 2) : g_strsplit(line, separator, 2));
    if (!parts || !parts.get()[0] || !parts.get()[1])
        return nullptr;
    return parts;
}

}  // namespace

std::string read_corvanta_identifier_from(const char* path, const char* key) {
    GErrorPtr open_error;
    const ChannelPtr channel = open_file(path, &open_error);
    if (!channel) {
        // Devices without the file simply have no such identifiers.
        if (!g_error_matches(open_error.get(), G_FILE_ERROR, G_FILE_ERROR_NOENT))
            g_critical("error reading identifiers file: %s", open_error->message);
        return std::string();
    }
    std::string result;
    for_each_line(channel.get(), "error reading identifiers file", [&](char* line) {
        const GStrvPtr parts = split_pair(line, "=", false);
        if (!parts)
            return false;
        // Only leading blanks go: "KEY =value" is not KEY, as in the shell.
        if (strcmp(g_strchug(parts.get()[0]), key) != 0)
            return false;
        GError* raw_error = nullptr;
        const GCharPtr value(g_shell_unquote(g_strchomp(parts.get()[1]), &raw_error));
        const GErrorPtr error(raw_error);
        if (!value) {
            g_critical("error unquoting value in identifiers file: %s", error->message);
            result.clear();
            return true;
        }
        result = value.get();
        return !result.empty();
    });
    return result;
}

std::string read_cpuinfo_serial_nr_from(const char* path) {
    GErrorPtr open_error;
    const ChannelPtr channel = open_file(path, &open_error);
    if (!channel) {
        g_critical("error reading cpuinfo: %s", open_error->message);
        return std::string();
    }
    std::string result;
    for_each_line(channel.get(), "error reading cpuinfo", [&](char* line) {
        const GStrvPtr parts = split_pair(line, ":", true);
        if (!parts || strcmp(g_strchomp(parts.get()[0]), "Serial") != 0)
            return false;
        result = g_strstrip(parts.get()[1]);
        return !result.empty();
    });
    return result;
}

std::string read_serial_nr_from(const char* cpuinfo_path, const char* identifiers_path) {
    const std::string cpu_serial = read_cpuinfo_serial_nr_from(cpuinfo_path);
    if (!cpu_serial.empty())
        return cpu_serial;
    return read_corvanta_identifier_from(identifiers_path, "ZEL_SN");
}

std::string read_firmware_version_from(const char* etc_path, const char* usr_lib_path) {
    GErrorPtr open_error;
    ChannelPtr channel = open_file(etc_path, &open_error);
    if (!channel && g_error_matches(open_error.get(), G_FILE_ERROR, G_FILE_ERROR_NOENT))
        channel = open_file(usr_lib_path, &open_error);
    if (!channel) {
        g_message("error reading os-release: %s", open_error->message);
        return std::string();
    }
    std::string result;
    for_each_line(channel.get(), "error reading os-release", [&](char* line) {
        const GStrvPtr parts = split_pair(g_strchug(line), "=", false);
        if (!parts || strcmp(g_strchug(parts.get()[0]), "VERSION_ID") != 0)
            return false;
        // Quotes are dropped as characters, without the shell's rules.
        result = g_strstrip(g_strdelimit(parts.get()[1], "\"'", ' '));
        return !result.empty();
    });
    return result;
}

std::string read_corvanta_identifier(const char* key) {
    return read_corvanta_identifier_from(kIdentifiersPath, key);
}

std::string read_cpuinfo_serial_nr() {
    return read_cpuinfo_serial_nr_from(kCpuinfoPath);
}

std::string read_serial_nr() {
    return read_serial_nr_from(kCpuinfoPath, kIdentifiersPath);
}

std::string read_firmware_version() {
    return read_firmware_version_from(kOsReleasePath, kFallbackOsReleasePath);
}
