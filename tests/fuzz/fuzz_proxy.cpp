// The proxy file, and the proxy URI and resolver made from what it names.

#include "FuzzSupport.h"
#include "ProxyConfig.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ProxyConfig config;
    if (config.load(fuzz::write_file("zelproxy.conf", data, size).c_str())) {
        config.uri();
        config.glib_proxy_resolver();
    }
    return 0;
}
