// The proxy file, and the proxy URI and resolver made from what it names.
#include <libxml/xmlerror.h>

#include "FuzzSupport.h"
#include "ProxyConfig.h"

namespace {

// libxml2 prints every parse error of a broken file; the load's result is what counts.
void ignore_xml_error(void*, const char*, ...) {}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_logging();
    xmlSetGenericErrorFunc(nullptr, ignore_xml_error);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = fuzz::scratch().write("zelproxy.conf", data, size);
    ProxyConfig config;
    if (!config.load(path.c_str()))
        return 0;
    const std::string uri = config.uri();
    const GLibPtr<GProxyResolver> resolver = config.glib_proxy_resolver();
    return 0;
}
