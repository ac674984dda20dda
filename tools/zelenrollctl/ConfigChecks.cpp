// The daemon's configuration files: branding and proxy.

#include <unistd.h>

#include "BrandingInfo.h"
#include "Checks.h"
#include "ProxyConfig.h"

namespace {

const char* const kKnownProtocols[] = {PROTO_EMMC_RPMB_CSR, PROTO_TPM2_AUTHKEY_CSR,
                                       PROTO_NOAUTH_CSR};

bool known_protocol(const std::string& name) {
    for (const char* known : kKnownProtocols) {
        if (name == known)
            return true;
    }
    return false;
}

std::string join(const std::vector<std::string>& items) {
    std::string text;
    for (const std::string& item : items)
        text += (text.empty() ? "" : ", ") + item;
    return text;
}

// Problems of the base URL the daemon would use: empty when it is https; `plain` is set
// for http, which works but leaves the exchange unprotected.
std::string url_problem(const std::string& url, bool* plain) {
    GError* raw_error = nullptr;
    GUri* raw_uri = g_uri_parse(url.c_str(), G_URI_FLAGS_NONE, &raw_error);
    if (!raw_uri) {
        const GErrorPtr err(raw_error);
        return "base URL '" + url + "' is not a URL: " + err->message;
    }
    const CPtr<GUri, g_uri_unref> uri(raw_uri);
    const std::string scheme = g_uri_get_scheme(uri.get());
    const char* host = g_uri_get_host(uri.get());
    if (scheme != "https" && scheme != "http")
        return "base URL '" + url + "' is not http or https";
    if (!host || !*host)
        return "base URL '" + url + "' has no host";
    *plain = scheme == "http";
    return "";
}

}  // namespace

void check_branding(CheckContext& ctx) {
    const char* name = "branding";
    const CtlOptions& opts = ctx.opts;
    const std::string path = opts.branding_path();
    BrandingInfo branding;
    ctx.log.take();
    const bool loaded = branding.load(path.c_str()) > 0;
    const std::string why = ctx.log.take();

    if (opts.protocols)
        ctx.protocols.assign(opts.protocols, opts.protocols + g_strv_length(opts.protocols));
    else if (loaded)
        ctx.protocols = branding.enrollProtocols;
    ctx.base_url = opts.base_url ? opts.base_url : branding.enrollRootUrl;
    while (!ctx.base_url.empty() && ctx.base_url.back() == '/')
        ctx.base_url.pop_back();

    const std::string fix_file =
        "install a valid branding file (see branding.json.example) or give the daemon's "
        "--branding here too";
    if (!g_file_test(path.c_str(), G_FILE_TEST_EXISTS)) {
        ctx.report.error(name, "'" + path + "' does not exist", fix_file);
        return;
    }
    if (!loaded) {
        ctx.report.error(name, why.empty() ? "'" + path + "' cannot be read" : why, fix_file);
        return;
    }
    if (branding.brand.empty() || branding.model.empty()) {
        ctx.report.error(name, "'" + path + "' has an empty brand or model", fix_file);
        return;
    }
    if (ctx.protocols.empty()) {
        ctx.report.error(name, "no enrollment protocols offered",
                         "list them in \"enrollProtocols\" of the branding file");
        return;
    }
    for (const std::string& protocol : ctx.protocols) {
        if (!known_protocol(protocol)) {
            ctx.report.error(name, "unknown protocol '" + protocol + "'",
                             "offer only emmc-rpmb-csr, tpm2-authkey-csr or noauth-csr");
            return;
        }
    }
    bool plain = false;
    const std::string problem = url_problem(ctx.base_url, &plain);
    if (!problem.empty()) {
        ctx.report.error(name, problem,
                         "set \"enrollRootUrl\" (or the daemon's --base-url) to the https URL of "
                         "the enrollment server");
        return;
    }
    const std::string found = "'" + path + "': " + branding.brand + " " + branding.model +
                              ", protocols " + join(ctx.protocols) + ", base URL " + ctx.base_url;
    if (plain)
        ctx.report.warning(name, found + " is plain http, unprotected on the network",
                           "use the server's https URL outside a test network");
    else
        ctx.report.ok(name, found);
}

void check_proxy(CheckContext& ctx) {
    const char* name = "proxy";
    const std::string path = ctx.opts.proxy ? ctx.opts.proxy : ProxyConfig::default_path();
    if (!g_file_test(path.c_str(), G_FILE_TEST_EXISTS)) {
        ctx.report.ok(name, path.empty() ? "none (disabled by an empty path)"
                                         : "none (no file '" + path + "'): connects directly");
        return;
    }
    // The daemon reads it after its user switch.
    if (!ctx.user_may_access(name, path, R_OK,
                             "make it readable by the daemon's user, or it connects directly"))
        return;
    ProxyConfig proxy;
    ctx.log.take();
    const bool parsed = proxy.load(path.c_str());
    ctx.log.take();
    if (!parsed) {
        ctx.report.error(
            name, "'" + path + "' is no well-formed XML: the daemon connects directly",
            "write it as <proxyconf><proxy server=\"HOST\" port=\"PORT\"/></proxyconf> "
            "or remove it");
        return;
    }
    if (!proxy.enabled) {
        ctx.report.warning(name,
                           "'" + path + "' names no usable proxy (server '" + proxy.server +
                               "', port " + std::to_string(proxy.port) +
                               "): the daemon connects directly",
                           "give the last <proxy> a server and a port from 1 to 65534, or "
                           "remove the file");
        return;
    }
    ProxyConfig shown = proxy;
    if (!shown.password.empty())
        shown.password = "***";
    ctx.report.ok(name, "'" + path + "': " + shown.uri());
}
