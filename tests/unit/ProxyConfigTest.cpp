#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ProxyConfig.h"
#include "TestSupport.h"

namespace {

ProxyConfig proxy(const char* server, const char* username = "", const char* password = "") {
    return ProxyConfig{true, server, 8080, username, password};
}

// The first proxy the resolver names for `uri`.
std::string lookup(GProxyResolver* resolver, const char* uri) {
    const GStrvPtr proxies(g_proxy_resolver_lookup(resolver, uri, nullptr, nullptr));
    return proxies && proxies.get()[0] ? proxies.get()[0] : "lookup failed";
}

}  // namespace

// The last proxy element with a port from 1 to 65534 is loaded.
TEST(ProxyConfig, LoadedEscapedAndResolved) {
    const TempDir tmp;
    const LogCapture log;
    const auto load = [&](const std::string& proxies) {  // a file with these proxy elements
        ProxyConfig config;
        const std::string path = tmp.write("proxy.conf", "<proxyconf>" + proxies + "</proxyconf>");
        EXPECT_TRUE(config.load(path.c_str())) << log.dump();
        return config;
    };
    const ProxyConfig last = load(R"(<proxy server="old" port="1" username="old"/>
                                     <proxy server="h" port="65534" username="u" password="p"/>)");
    EXPECT_EQ(last.uri(), "http://u:p@h:65534");
    for (const char* port : {"0", "65535", "abc"}) {
        const ProxyConfig config = load(std::string(R"(<proxy server="h" port=")") + port + "\"/>");
        EXPECT_FALSE(config.enabled) << port;
        EXPECT_EQ(config.uri(), "direct://") << port;
    }

    // Hosts and user info are escaped in the URI; local destinations go direct; a server that
    // is no host gives no resolver.
    EXPECT_EQ(proxy("[fe80::1]").uri(), "http://[fe80::1]:8080");
    EXPECT_EQ(proxy("fe80::1").uri(), "http://[fe80::1]:8080");
    EXPECT_EQ(proxy("h", "a@b", "p:w").uri(), "http://a%40b:p%3Aw@h:8080");
    EXPECT_EQ(proxy("h", "u").uri(), "http://u:@h:8080");

    const GLibPtr<GProxyResolver> resolver = proxy("10.0.0.1").glib_proxy_resolver();
    ASSERT_TRUE(resolver);
    EXPECT_EQ(lookup(resolver.get(), "https://enroll.example.com/v1"), "http://10.0.0.1:8080");
    for (const char* local : {"http://localhost:8080/", "http://127.0.0.1/", "http://[::1]:80/",
                              "http://[fe80::1234]:80/"})
        EXPECT_EQ(lookup(resolver.get(), local), "direct://") << local;
    EXPECT_FALSE(proxy("[fe80>:1]").glib_proxy_resolver());
    EXPECT_TRUE(log.logged(G_LOG_LEVEL_WARNING,
                           "proxy server '[fe80>:1]' is not a valid host name or address, not "
                           "using a proxy"))
        << log.dump();
}
