#pragma once

#include <gio/gio.h>

#include <cstdint>
#include <string>

#include "GLibPtr.h"

// The one HTTP proxy of the device's network settings: the attributes of the last "proxy"
// element under "proxyconf" in a small XML file.
class ProxyConfig {
  public:
    // Reads `path`, or default_path() when null. A missing file means no proxy and is no
    // error; false only when the file cannot be parsed.
    bool load(const char* path);

    // "direct://" without a proxy, else "http://[user:[password]@]host:port".
    std::string uri() const;
    // A resolver sending everything but local destinations through the proxy; null
    // without a proxy.
    GLibPtr<GProxyResolver> glib_proxy_resolver() const;

    static const char* default_path();

    bool enabled = false;  // a server is set and the port is usable
    std::string server;
    uint32_t port = 0;
    std::string username;
    std::string password;
};
