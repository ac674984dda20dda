#include "ProxyConfig.h"

#include <libxml/parser.h>
#include <libxml/xpath.h>

#include <cmath>
#include <memory>

namespace {

void xml_free(xmlChar* text) {
    xmlFree(text);  // a function pointer that libxml2 sets at run time
}
using XmlDocPtr = CPtr<xmlDoc, xmlFreeDoc>;
using XPathContextPtr = CPtr<xmlXPathContext, xmlXPathFreeContext>;
using XPathObjectPtr = CPtr<xmlXPathObject, xmlXPathFreeObject>;

constexpr int kParseOptions = XML_PARSE_DTDATTR | XML_PARSE_NOWARNING | XML_PARSE_NOBLANKS |
                              XML_PARSE_NONET | XML_PARSE_NOCDATA;
static_assert(kParseOptions == 18760, "proxy file parser options");

// RFC 3986 sub-delims stay as they are in the user info and the host.
constexpr char kSubDelims[] = "!$&'()*+,;=";
constexpr char kSubDelimsAndColon[] = "!$&'()*+,;=:";

XPathObjectPtr evaluate(xmlXPathContext* ctx, const char* expression) {
    return XPathObjectPtr(xmlXPathEvalExpression(BAD_CAST expression, ctx));
}

std::string xpath_string(xmlXPathContext* ctx, const char* expression) {
    const XPathObjectPtr result = evaluate(ctx, expression);
    if (!result)
        return {};
    const CPtr<xmlChar, xml_free> text(xmlXPathCastToString(result.get()));
    return text ? reinterpret_cast<const char*>(text.get()) : "";
}

// The number truncated to an integer; 0 when it is none or does not fit.
uint32_t xpath_uint32(xmlXPathContext* ctx, const char* expression) {
    const XPathObjectPtr result = evaluate(ctx, expression);
    if (!result)
        return 0;
    const double number = xmlXPathCastToNumber(result.get());
    if (std::isnan(number) || number < 0 || number >= 4294967296.0)
        return 0;
    return static_cast<uint32_t>(number);
}

std::string escape(const std::string& text, const char* allowed) {
    const GCharPtr escaped(g_uri_escape_string(text.c_str(), allowed, FALSE));
    return escaped.get();
}

}  // namespace

bool ProxyConfig::load(const char* path) {
    *this = ProxyConfig();
    if (!path)
        path = default_path();

    if (!g_file_test(path, G_FILE_TEST_EXISTS)) {
        g_debug("no proxy configuration file '%s'", path);
        return true;
    }
    const XmlDocPtr doc(xmlReadFile(path, nullptr, kParseOptions));
    if (!doc) {
        g_warning("failed parsing proxy config file '%s'", path);
        return false;
    }
    const XPathContextPtr ctx(xmlXPathNewContext(doc.get()));
    g_return_val_if_fail(ctx, false);

    server = xpath_string(ctx.get(), "/proxyconf/proxy[last()]/@server");
    port = xpath_uint32(ctx.get(), "/proxyconf/proxy[last()]/@port");
    username = xpath_string(ctx.get(), "/proxyconf/proxy[last()]/@username");
    password = xpath_string(ctx.get(), "/proxyconf/proxy[last()]/@password");
    // Port 0 and 65535 are refused along with everything out of range.
    enabled = port - 1 < 65534u && !server.empty();

    g_debug("proxy: enabled %i, server '%s', port '%u', username '%s', password '%s'", enabled,
            server.c_str(), port, username.c_str(), password.c_str());
    return true;
}

std::string ProxyConfig::uri() const {
    if (!enabled)
        return "direct://";

    std::string result = "http://";
    if (!username.empty()) {
        // The colon is written even without a password.
        result += escape(username, kSubDelims) + ":";
        if (!password.empty())
            result += escape(password, kSubDelims);
        result += "@";
    }
    if (server.find(':') == std::string::npos) {
        result += escape(server, kSubDelims);
    } else {
        // An IPv6 literal, given with or without its brackets.
        std::string address = server;
        if (address.size() >= 2 && address.front() == '[' && address.back() == ']')
            address = address.substr(1, address.size() - 2);
        result += "[" + escape(address, kSubDelimsAndColon) + "]";
    }
    return result + ":" + std::to_string(port);
}

GLibPtr<GProxyResolver> ProxyConfig::glib_proxy_resolver() const {
    if (!enabled)
        return nullptr;
    static const char* const ignore_hosts[] = {"localhost", "127.0.0.1", "::1", "fe80::/10",
                                               nullptr};
    return GLibPtr<GProxyResolver>(
        g_simple_proxy_resolver_new(uri().c_str(), const_cast<char**>(ignore_hosts)));
}

const char* ProxyConfig::default_path() {
    return "/etc/network/zelproxy.conf";
}
