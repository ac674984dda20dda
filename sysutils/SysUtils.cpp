#include "SysUtils.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>

#include "GLibPtr.h"
#include "ScopedFd.h"

void hex_dump(FILE* stream, const unsigned char* data, size_t length, bool ascii) {
    constexpr size_t kRow = 16;
    for (size_t offset = 0; offset < length; offset += kRow) {
        // Never read past the buffer, even if a caller passes a partial last row.
        const size_t count = std::min(kRow, length - offset);
        fprintf(stream, "%04zx:", offset);
        for (size_t i = 0; i < count; ++i)
            fprintf(stream, " %02x", data[offset + i]);
        if (ascii) {
            fputs("    ", stream);
            for (size_t i = 0; i < count; ++i) {
                const unsigned char c = data[offset + i];
                fputc(isprint(c) ? c : ' ', stream);
            }
        }
        fputc('\n', stream);
    }
}

// GTimeVal is deprecated, but its ISO 8601 conversions define the status file's time stamp
// format, so they are kept on purpose.
G_GNUC_BEGIN_IGNORE_DEPRECATIONS

std::string unix_time_to_iso8601(time_t t) {
    GTimeVal tv = {};
    tv.tv_sec = static_cast<glong>(t);
    const GCharPtr text(g_time_val_to_iso8601(&tv));
    return text ? std::string(text.get()) : std::string();
}

time_t iso8601_to_unix_time(const char* text) {
    if (!text)
        return 0;
    GTimeVal tv = {};
    if (!g_time_val_from_iso8601(text, &tv))
        return 0;
    return static_cast<time_t>(tv.tv_sec);
}

G_GNUC_END_IGNORE_DEPRECATIONS

bool fsync_file(const char* path) {
    const ScopedFd fd(open(path, O_WRONLY | O_CLOEXEC));
    return fd && fsync(fd.get()) == 0;
}

bool fsync_directory(const char* path) {
    const ScopedFd fd(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd && fsync(fd.get()) == 0;
}

bool read_data_file(const char* path, unsigned char* buffer, size_t length, bool buffered) {
    if (!path || strcmp(path, "-") == 0)
        return fread(buffer, 1, length, stdin) == length;

    const CPtr<FILE, fclose> file(fopen(path, "rb"));
    if (!file)
        return false;
    if (!buffered && setvbuf(file.get(), nullptr, _IONBF, 0) != 0)
        return false;
    return fread(buffer, 1, length, file.get()) == length;
}

bool is_valid_base64(const char* text) {
    if (!text)
        return false;
    const size_t length = strlen(text);
    if (length % 4 != 0)
        return false;
    size_t padding = 0;
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = text[i];
        if (c == '=') {
            ++padding;
            continue;
        }
        // Padding may only close the text.
        if (padding > 0)
            return false;
        if (!g_ascii_isalnum(c) && c != '+' && c != '/')
            return false;
    }
    return padding <= 2;
}

bool read_data_base64(const char* text, unsigned char* buffer, size_t length) {
    if (!is_valid_base64(text))
        return false;
    gsize decoded_length = 0;
    const GFreePtr<guchar> decoded(g_base64_decode(text, &decoded_length));
    if (!decoded || decoded_length != length)
        return false;
    if (length > 0)
        memcpy(buffer, decoded.get(), length);
    return true;
}

bool is_dev(const char* path) {
    struct stat st = {};
    if (!path || stat(path, &st) != 0)
        return false;
    return S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode);
}
