#include <gio/gio.h>

#include <memory>

#include "Enroller.h"
#include "GLibPtr.h"

bool Enroller::update_fs_flags(const EnrollerInfo& info) {
    std::unique_ptr<char, GFreeDeleter> path(
        g_build_filename(info.services_dir.c_str(), "_DISABLED", nullptr));
    GLibPtr<GFile> file(g_file_new_for_path(path.get()));
    GError* error = nullptr;
    if (info.disabled) {
        GLibPtr<GFileOutputStream> out(
            g_file_create(file.get(), G_FILE_CREATE_NONE, nullptr, &error));
        if (!out && !g_error_matches(error, G_IO_ERROR, G_IO_ERROR_EXISTS)) {
            g_critical("failed to create disabled services file: %s", error->message);
            g_error_free(error);
            return false;
        }
    } else if (!g_file_delete(file.get(), nullptr, &error) &&
               !g_error_matches(error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND)) {
        g_critical("failed to remove disabled services file: %s", error->message);
        g_error_free(error);
        return false;
    }
    g_clear_error(&error);
    return true;
}
