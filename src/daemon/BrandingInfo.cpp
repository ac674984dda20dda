#include "BrandingInfo.h"

#include <json-glib/json-glib.h>

#include <memory>

#include "GLibPtr.h"
#include "JsonObjectInput.h"

int BrandingInfo::load(const char* path) {
    *this = BrandingInfo();

    const auto in = JsonObjectInput::open_file(path, [path](const char* parse_error) {
        if (parse_error)
            g_warning("failed to parse JSON from branding file %s: %s", path, parse_error);
        else
            g_warning("branding file %s is empty", path);
    });
    if (!in)
        return 0;
    *in >> *this;
    if (in->failed()) {
        // The wording is historical: the file is not ignored, the load fails.
        g_warning("ignoring invalid data in branding file: %s", in->getError());
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
