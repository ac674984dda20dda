#include "Enroller.h"

#include "SysUtils.h"

bool Enroller::save_service_config(const char* name, GLibPtr<JsonNode> node, std::string* error) {
    auto fail = [error](const char* reason) {
        if (error)
            *error = reason;
        return false;
    };

    const GCharPtr dir(g_build_filename(info->services_dir.c_str(), name, nullptr));
    const GLibPtr<GFile> dirFile(g_file_new_for_path(dir.get()));
    GError* raw_error = nullptr;
    if (!g_file_make_directory(dirFile.get(), nullptr, &raw_error)) {
        const GErrorPtr mkdir_error(raw_error);
        if (!g_error_matches(mkdir_error.get(), G_IO_ERROR, G_IO_ERROR_EXISTS))
            return fail(mkdir_error->message);
    }

    const GCharPtr path(g_build_filename(dir.get(), "service.json", nullptr));
    const GLibPtr<JsonGenerator> generator(json_generator_new());
    json_generator_set_pretty(generator.get(), TRUE);
    json_generator_set_root(generator.get(), node.get());
    raw_error = nullptr;
    if (!json_generator_to_file(generator.get(), path.get(), &raw_error)) {
        const GErrorPtr write_error(raw_error);
        return fail(write_error->message);
    }
    // the enrollment is acknowledged as saved only once the file is on storage
    if (!fsync_file(path.get()))
        return fail("failed fsync");
    return true;
}

bool Enroller::update_fs_flags(const EnrollerInfo& info) {
    const GCharPtr path(g_build_filename(info.services_dir.c_str(), "_DISABLED", nullptr));
    const GLibPtr<GFile> file(g_file_new_for_path(path.get()));
    GError* raw_error = nullptr;
    if (info.disabled) {
        const GLibPtr<GFileOutputStream> out(
            g_file_create(file.get(), G_FILE_CREATE_NONE, nullptr, &raw_error));
        const GErrorPtr error(raw_error);
        if (!out && !g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_EXISTS)) {
            g_critical("failed to create disabled services file: %s", error->message);
            return false;
        }
        return true;
    }
    const bool deleted = g_file_delete(file.get(), nullptr, &raw_error);
    const GErrorPtr error(raw_error);
    if (!deleted && !g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_NOT_FOUND)) {
        g_critical("failed to remove disabled services file: %s", error->message);
        return false;
    }
    return true;
}
