#include "Enroller.h"

#include "JsonExact.h"
#include "SysUtils.h"

namespace {

GLibPtr<JsonGenerator> service_generator(JsonNode* node) {
    GLibPtr<JsonGenerator> generator(json_generator_new());
    json_generator_set_pretty(generator.get(), TRUE);
    json_generator_set_root(generator.get(), node);
    return generator;
}

}  // namespace

// json-glib keeps integers beyond 64 bits wrapped and strings only up to a NUL, and writes
// some doubles as text that no parser reads ("1e+20.0", "inf.0"). So what its generator
// makes of the node is read back without json-glib and compared with the server's text.
bool Enroller::service_config_faithful(const char* name, JsonNode* node, const std::string& body,
                                       std::string* error) {
    auto fail = [error](const std::string& reason) {
        if (error)
            *error = reason;
        return false;
    };
    std::string problem;
    JsonExact received;
    if (!json_exact_parse(body.data(), body.size(), &received, &problem))
        return fail("cannot check service configuration, response is not plain JSON: " + problem);
    const JsonExact* services = received.member("enrolledServices");
    const JsonExact* sent = services ? services->member(name) : nullptr;
    if (!sent)
        return fail(std::string("cannot find service '") + name + "' in response");

    gsize length = 0;
    const GCharPtr text(json_generator_to_data(service_generator(node).get(), &length));
    JsonExact stored;
    if (!json_exact_parse(text.get(), length, &stored, &problem))
        return fail("service configuration would not read back as JSON: " + problem);
    if (!json_exact_same(*sent, stored, &problem))
        return fail("service configuration cannot be stored as received: " + problem);
    return true;
}

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
    raw_error = nullptr;
    if (!json_generator_to_file(service_generator(node.get()).get(), path.get(), &raw_error)) {
        const GErrorPtr write_error(raw_error);
        return fail(write_error->message);
    }
    // The enrollment is acknowledged as saved only once the file is on storage, and with
    // it the entries of the file and of a new service directory.
    if (!fsync_file(path.get()) || !fsync_directory(dir.get()) ||
        !fsync_directory(info->services_dir.c_str()))
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
