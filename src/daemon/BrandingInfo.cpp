#include "BrandingInfo.h"

#include <json-glib/json-glib.h>

#include <memory>

#include "GLibPtr.h"
#include "JsonObjectInput.h"

int BrandingInfo::load(const char* path) {
    *this = BrandingInfo();

    const GLibPtr<JsonParser> parser(json_parser_new_immutable());
    GError* raw_error = nullptr;
    if (!json_parser_load_file_checked(parser.get(), path, &raw_error)) {
        const GErrorPtr error(raw_error);
        g_warning("failed to parse JSON from branding file %s: %s", path,
                  error ? error->message : "unknown error");
        return 0;
    }
    JsonNode* root = json_parser_get_root(parser.get());
    if (!root) {
        g_warning("branding file %s is empty", path);
        return 0;
    }

    JsonObjectInput in(root);
    in >> *this;
    if (in.failed()) {
        // The wording is historical: the file is not ignored, the load fails.
        g_warning("ignoring invalid data in branding file: %s", in.getError());
        return 0;
    }
    g_debug("loaded branding from %s", path);
    return 1;
}

JsonObjectInput& operator>>(JsonObjectInput& in, BrandingInfo& info) {
    in.readMember("brand", &info.brand, true);
    in.readMember("model", &info.model, true);
    if (in.openMemberChild("enrollProtocols", true)) {
        const unsigned count = in.getArrayLength();
        for (unsigned i = 0; i < count; ++i) {
            std::string protocol;
            if (in.readElement(i, &protocol, true))
                info.enrollProtocols.push_back(std::move(protocol));
        }
        in.closeMemberChild();
    }
    in.readMember("enrollRootUrl", &info.enrollRootUrl, true);
    in.readMember("enabledByDefault", &info.enabledByDefault, false);
    return in;
}
