// The trust the daemon's HTTP session uses (glib-networking's default database, the system
// CA bundle) and, on request, a TLS handshake with the enrollment server through it.

#include <gio/gio.h>
#include <openssl/x509.h>
#include <unistd.h>

#include "Certificate.h"
#include "CertificateStore.h"
#include "Checks.h"
#include "ClassCallback.h"
#include "ProxyConfig.h"

namespace {

const char kDefaultBundle[] = "/etc/ssl/certs/ca-certificates.crt";
constexpr guint kConnectTimeoutSecs = 15;

// The file of the default TLS database, which libsoup uses unless told otherwise.
std::string default_anchors() {
    GTlsBackend* backend = g_tls_backend_get_default();
    const GLibPtr<GTlsDatabase> db(g_tls_backend_get_default_database(backend));
    if (!db || !G_IS_TLS_FILE_DATABASE(db.get()))
        return kDefaultBundle;
    gchar* anchors = nullptr;
    g_object_get(db.get(), "anchors", &anchors, nullptr);
    const GCharPtr owned(anchors);
    return anchors ? anchors : kDefaultBundle;
}

struct FlagText {
    GTlsCertificateFlags flag;
    const char* words;
    const char* fix;
};

const FlagText kFlagTexts[] = {
    {G_TLS_CERTIFICATE_NOT_ACTIVATED, "not valid yet", "set the clock right"},
    {G_TLS_CERTIFICATE_EXPIRED, "expired",
     "set the clock right, or renew the server's certificate"},
    {G_TLS_CERTIFICATE_UNKNOWN_CA, "not signed by a CA of the CA bundle",
     "add the server's CA to the bundle (/usr/local/share/ca-certificates and "
     "update-ca-certificates)"},
    {G_TLS_CERTIFICATE_BAD_IDENTITY, "issued for another host name",
     "use the host name of the server's certificate in the base URL"},
    {G_TLS_CERTIFICATE_REVOKED, "revoked", "have the server's certificate replaced"},
    {G_TLS_CERTIFICATE_INSECURE, "signed with an insecure algorithm",
     "have the server's certificate replaced"},
    {G_TLS_CERTIFICATE_GENERIC_ERROR, "not verifiable", "have the server's certificate checked"},
};

// One connection to the server as the daemon would make it, recording why TLS refused the
// server's certificate.
class TlsProbe {
  public:
    bool connect(const std::string& url, bool tls, GProxyResolver* resolver);

    std::string error;
    std::string peer;
    GTlsCertificateFlags refused = GTlsCertificateFlags(0);

  private:
    void on_event(GSocketClient*, GSocketClientEvent event, GSocketConnectable*,
                  GIOStream* connection);
    gboolean on_accept_certificate(GTlsConnection*, GTlsCertificate*, GTlsCertificateFlags errors);
};

bool TlsProbe::connect(const std::string& url, bool tls, GProxyResolver* resolver) {
    const GLibPtr<GSocketClient> client(g_socket_client_new());
    g_socket_client_set_tls(client.get(), tls);
    g_socket_client_set_timeout(client.get(), kConnectTimeoutSecs);
    g_socket_client_set_enable_proxy(client.get(), resolver != nullptr);
    if (resolver)
        g_socket_client_set_proxy_resolver(client.get(), resolver);
    g_signal_connect(client.get(), "event",
                     G_CALLBACK((class_callback<TlsProbe, &TlsProbe::on_event>)), this);
    GError* raw_error = nullptr;
    const GLibPtr<GSocketConnection> connection(g_socket_client_connect_to_uri(
        client.get(), url.c_str(), tls ? 443 : 80, nullptr, &raw_error));
    if (!connection) {
        const GErrorPtr err(raw_error);
        error = err->message;
        return false;
    }
    if (tls) {
        GTlsCertificate* cert =
            g_tls_connection_get_peer_certificate(G_TLS_CONNECTION(connection.get()));
        gchar* pem = nullptr;
        if (cert)
            g_object_get(cert, "certificate-pem", &pem, nullptr);
        const GCharPtr pem_owned(pem);
        Certificate parsed;
        if (pem && parsed.load_pem(pem))
            peer = x509_name_text(X509_get_subject_name(parsed.cert.get())) + ", issued by " +
                   x509_name_text(X509_get_issuer_name(parsed.cert.get()));
    }
    return true;
}

void TlsProbe::on_event(GSocketClient*, GSocketClientEvent event, GSocketConnectable*,
                        GIOStream* connection) {
    if (event == G_SOCKET_CLIENT_TLS_HANDSHAKING && G_IS_TLS_CONNECTION(connection))
        g_signal_connect(connection, "accept-certificate",
                         G_CALLBACK((class_callback<TlsProbe, &TlsProbe::on_accept_certificate>)),
                         this);
}

gboolean TlsProbe::on_accept_certificate(GTlsConnection*, GTlsCertificate*,
                                         GTlsCertificateFlags errors) {
    refused = errors;
    return FALSE;
}

}  // namespace

void check_ca_bundle(CheckContext& ctx) {
    const char* name = "CA bundle";
    if (!g_tls_backend_supports_tls(g_tls_backend_get_default())) {
        ctx.report.error(name, "GIO has no TLS backend: https cannot work",
                         "install glib-networking");
        return;
    }
    const std::string path = default_anchors();
    const std::string fix =
        "install the CA certificates (ca-certificates, update-ca-certificates) the enrollment "
        "server's certificate chains to";
    if (!g_file_test(path.c_str(), G_FILE_TEST_EXISTS)) {
        ctx.report.error(name, "'" + path + "' does not exist", fix);
        return;
    }
    // libsoup loads it at the first connection, long after the user switch.
    if (!ctx.user_may_access(name, path, R_OK, "make it readable by every user (chmod 0644)"))
        return;
    CertificateStore store;
    const bool loaded = store.load_pem_file(path.c_str());
    const int count =
        store.store ? sk_X509_OBJECT_num(X509_STORE_get0_objects(store.store.get())) : 0;
    if (!loaded || count <= 0) {
        ctx.report.error(
            name, "'" + path + "' holds no certificate" + (loaded ? "" : " (" + store.error + ")"),
            fix);
        return;
    }
    ctx.report.ok(name, "'" + path + "': " + std::to_string(count) +
                            (count == 1 ? " certificate" : " certificates"));
}

void check_server_tls(CheckContext& ctx) {
    if (!ctx.opts.connect)
        return;
    const char* name = "server";
    if (ctx.base_url.empty()) {
        ctx.report.error(name, "no base URL to connect to", "give a branding file or --base-url");
        return;
    }
    const bool tls = g_str_has_prefix(ctx.base_url.c_str(), "https:");
    const std::string proxy_path = ctx.opts.proxy ? ctx.opts.proxy : ProxyConfig::default_path();
    ProxyConfig proxy;
    ctx.log.take();
    proxy.load(proxy_path.c_str());
    ctx.log.take();
    const GLibPtr<GProxyResolver> resolver = proxy.glib_proxy_resolver();
    const std::string via = resolver ? " through the proxy" : "";

    TlsProbe probe;
    if (probe.connect(ctx.base_url, tls, resolver.get())) {
        ctx.report.ok(name, ctx.base_url + via + ": " +
                                (tls ? "TLS handshake done, server certificate " + probe.peer
                                     : std::string("connected (plain http, no TLS)")));
        return;
    }
    if (!probe.refused) {
        ctx.report.error(name, ctx.base_url + via + ": " + probe.error,
                         "check the network, the proxy file and that the server is up");
        return;
    }
    std::string words;
    const char* fix = nullptr;
    for (const FlagText& text : kFlagTexts) {
        if (!(probe.refused & text.flag))
            continue;
        words += (words.empty() ? "" : " and ") + std::string(text.words);
        if (!fix)
            fix = text.fix;
    }
    ctx.report.error(name, ctx.base_url + via + ": the server's certificate is " + words, fix);
}
