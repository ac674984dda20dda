// The proxy file, and the proxy URI and resolver made from what it names.

#include "FuzzSupport.h"
#include "ProxyConfig.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = fuzz::write_file("zelproxy.conf", data, size);
    ProxyConfig config;
    if (!config.load(path.c_str()))
        return 0;
    const std::string uri = config.uri();
    const GLibPtr<GProxyResolver> resolver = config.glib_proxy_resolver();
    return 0;
}
