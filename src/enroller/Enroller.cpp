#include "Enroller.h"

#include <memory>
#include <vector>

#include "Certificate.h"
#include "CertificateSignRequest.h"
#include "ClassCallback.h"
#include "EnrollerMessages.h"
#include "JsonObjectInput.h"
#include "JsonObjectOutput.h"
#include "Key.h"
#include "RetryPolicy.h"
#include "SysUtils.h"

namespace {

const char* const AWS_IOT = "aws-iot";
const char* const PROTO_NOAUTH = "noauth-csr";
const char* const PROTO_RPMB = "emmc-rpmb-csr";
const char* const PROTO_TPM2 = "tpm2-authkey-csr";

const char* request_path(Enroller::Request kind) {
    switch (kind) {
        case Enroller::REQUEST_INITIATE:
            return "/initiate";
        case Enroller::REQUEST_DATA_AUTHENTICATE:
            return "/dataAuthenticate";
        case Enroller::REQUEST_DATA_VERIFY:
            return "/dataVerify";
        case Enroller::REQUEST_CSR_VERIFY:
            return "/CSRVerify";
        case Enroller::REQUEST_ACKNOWLEDGE:
            return "/acknowledge";
        case Enroller::REQUEST_NONE:
            break;
    }
    return nullptr;
}

using CharPtr = std::unique_ptr<char, GFreeDeleter>;
using ErrorPtr = std::unique_ptr<GError, GErrorDeleter>;

}  // namespace

// ---------------------------------------------------------------------------------------
// construction

Enroller::Enroller(const EnrollerInfo& info, const std::string& statusFile, SoupSession* session)
    : info(&info), status(statusFile), session(session) {
    GNetworkMonitor* monitor = g_network_monitor_get_default();
    if (!monitor) {
        g_critical("no network monitor available");
    } else {
        networkHandler = g_signal_connect(
            monitor, "notify::network-available",
            G_CALLBACK((class_callback<Enroller, &Enroller::on_network_changed>)), this);
        if (!networkHandler)
            g_critical("failed to connect to network monitor signal");
    }

    // the first attempt must not be held back by the spacing of requests
    requestStart = g_get_monotonic_time() - 60 * G_USEC_PER_SEC;

    if (!statusFile.empty())
        status.load(!info.disabled);
    g_message("current enrolled status: %s", status.enrolled ? "true" : "false");

    if (status.lastEnrollBaseURL != info.base_url) {
        if (status.enrolled) {
            g_warning("the enroll base URL has changed (was '%s'), forcing re-enrollment",
                      status.lastEnrollBaseURL.c_str());
            status.recordForcedEnroll();
        }
        status.lastEnrollBaseURL = info.base_url;
        status.save();
    }

    schedule_retry(1);
}

Enroller::~Enroller() {
    if (networkHandler)
        g_signal_handler_disconnect(g_network_monitor_get_default(), networkHandler);
    cancel_retry_timeout();
    enrolledCallback = nullptr;
}

// ---------------------------------------------------------------------------------------
// HTTP layer

void Enroller::send_request(Request kind, const std::string& body) {
    const char* path = request_path(kind);
    if (!path)
        g_return_if_reached();

    const std::string url = info->base_url + path;
    SoupMessage* msg = soup_message_new("POST", url.c_str());
    if (!msg) {
        g_warning("invalid enroll URL '%s'", url.c_str());
        return;
    }
    // POST requests are not redirected by the session itself; 307 and 308 keep the
    // method and body, so follow them explicitly
    for (guint code : {307u, 308u}) {
        soup_message_add_status_code_handler(
            msg, "got-body", code,
            G_CALLBACK((class_callback<Enroller, &Enroller::req_redirect_cb>)), this);
    }
    soup_message_set_request(msg, "application/json", SOUP_MEMORY_COPY, body.data(), body.size());

    received = 0;
    g_signal_connect(msg, "restarted",
                     G_CALLBACK((class_callback<Enroller, &Enroller::req_restarted_cb>)), this);
    g_signal_connect(msg, "got-chunk",
                     G_CALLBACK((class_callback<Enroller, &Enroller::req_got_chunk_cb>)), this);

    request = kind;
    requestStart = g_get_monotonic_time();
    soup_session_queue_message(session, msg, class_callback<Enroller, &Enroller::req_response_cb>,
                               this);
    g_message("sending %s request", path + 1);
}

void Enroller::req_got_chunk_cb(SoupMessage* msg, SoupBuffer* chunk) {
    const uint64_t before = received;
    received += chunk->length;
    if (before <= MAX_RESPONSE_SIZE && received > MAX_RESPONSE_SIZE) {
        g_warning("response exceeds maximum size %i, aborting request",
                  static_cast<int>(MAX_RESPONSE_SIZE));
        soup_session_cancel_message(session, msg, SOUP_STATUS_CANCELLED);
    }
}

void Enroller::req_restarted_cb(SoupMessage*) {
    received = 0;
}

void Enroller::req_redirect_cb(SoupMessage* msg) {
    const guint code = msg->status_code;
    if (code != 307 && code != 308) {
        g_critical("redirect handler unexpectedly called on HTTP message with status code %i",
                   code);
        return;
    }
    g_debug("got a redirect with status code %i, following", code);
    if (!soup_session_redirect_message(session, msg))
        g_warning("got malformed HTTP redirect with status code %i", code);
}

void Enroller::req_response_cb(SoupSession*, SoupMessage* msg) {
    const Request kind = request;
    request = REQUEST_NONE;
    const guint code = msg->status_code;
    g_debug("received response with status code %u", code);

    if (code >= 1 && code <= 99) {
        g_warning("failed to connect (%i): %s", code, msg->reason_phrase);
        return;
    }
    if ((code >= 100 && code <= 199) || (code >= 300 && code <= 399)) {
        g_warning("unexpected HTTP status on response (%i): %s", code, msg->reason_phrase);
        return;
    }
    if (code >= 200 && code <= 299) {
        if (kind == REQUEST_ACKNOWLEDGE) {
            complete_acknowledge(msg);
            return;
        }
    } else {
        g_warning("request returned error %i: %s", code, msg->reason_phrase);
    }
    handle_body(msg);
}

void Enroller::complete_acknowledge(SoupMessage* msg) {
    if (msg->response_body->length > 0) {
        const char* type = soup_message_headers_get_content_type(msg->response_headers, nullptr);
        g_warning(
            "ignoring unexpected non-empty response to acknowledge request (status %u, length "
            "%li, content-type %s)",
            msg->status_code, static_cast<long>(msg->response_body->length),
            type ? type : "(null)");
    }
    if (!serviceSaved) {
        g_debug("enrollment process finished but service not saved");
        return;
    }
    status.recordEnrolled();
    status.save();
    g_message("enrollment completed successfully");
    if (enrolledCallback)
        enrolledCallback();
    cancel_retry_timeout();
}

void Enroller::handle_body(SoupMessage* msg) {
    const char* type = soup_message_headers_get_content_type(msg->response_headers, nullptr);
    if (!type || msg->response_body->length == 0) {
        g_warning("response has no content-type or no body");
        return;
    }
    if (g_ascii_strcasecmp(type, "application/json") != 0) {
        g_warning("response is not JSON but %s, ignoring", type);
        return;
    }

    const GLibPtr<JsonParser> parser(json_parser_new_immutable());
    GError* raw_error = nullptr;
    if (!json_parser_load_data_checked(parser.get(), msg->response_body->data,
                                       msg->response_body->length, &raw_error)) {
        const ErrorPtr error(raw_error);
        g_warning("parsing failed: %s", error->message);
        return;
    }
    JsonNode* root = json_parser_get_root(parser.get());
    if (!root) {
        g_warning("response is empty, ignoring");
        return;
    }

    JsonObjectInput json(root);
    if (SOUP_STATUS_IS_SUCCESSFUL(msg->status_code)) {
        EnrollResponse rsp;
        json >> rsp;
        if (json.failed()) {
            g_warning("failed parsing enrollment response: %s", json.getError());
            return;
        }
        handle_response(rsp);
        return;
    }

    g_return_if_fail(SOUP_STATUS_IS_CLIENT_ERROR(msg->status_code) ||
                     SOUP_STATUS_IS_SERVER_ERROR(msg->status_code));
    ErrorResponse err;
    json >> err;
    log(err);
    // the server has forgotten the state carried in "cbData": start over from "/initiate"
    if (err.code == "CallbackDataExpiredException")
        schedule_retry(0);
}

void Enroller::log(const ErrorResponse& err) const {
    g_warning("request failed with status code: %i, code: %s, server time: %s, msg: %s",
              err.statusCode, err.code.c_str(), err.time.c_str(), err.message.c_str());
}

// Sends a body written by a handler; a failed writer is reported in the handler's name.
void Enroller::send_json(Request kind, JsonObjectOutput& out, const char* handler) {
    out.finish();
    if (out.isFailed()) {
        g_return_if_fail_warning(G_LOG_DOMAIN, handler, "! json.failed()");
        return;
    }
    send_request(kind, out);
}

// ---------------------------------------------------------------------------------------
// state machine

void Enroller::initiate() {
    if (info->hasProtocol(PROTO_RPMB) && !open_rpmb())
        return;
    if (info->hasProtocol(PROTO_TPM2) && !open_tpm2())
        return;

    // every enrollment makes a fresh CSR
    if (publicKeyPem.empty() && !info->key_path.empty())
        read_pubkey();
    if (!info->key_path.empty())
        csrPem.clear();

    JsonObjectOutput out;
    out << info->device;
    if (!info->firmware_version.empty())
        out.addProperty("firmwareVersion", info->firmware_version.c_str());
    std::string protocols;
    out.addArrayProperty("enrollmentProtocols");
    for (const std::string& protocol : info->protocols) {
        out.addValue(protocol.c_str());
        if (!protocols.empty())
            protocols += ", ";
        protocols += protocol;
    }
    out.finishArrayProperty();
    if (!publicKeyPem.empty() && !info->force_new_cert)
        out.addProperty("publicKey", publicKeyPem.c_str());
    out.addProperty("enrollService", AWS_IOT);
    out.finish();
    if (out.isFailed()) {
        g_return_if_fail_warning(G_LOG_DOMAIN, G_STRFUNC, "! json.failed()");
        return;
    }
    g_message("initiating enrollment with protocol(s): %s", protocols.c_str());
    send_request(REQUEST_INITIATE, out);
}

void Enroller::handle_response(const EnrollResponse& rsp) {
    const char* state = rsp.status.c_str();
    if (!rsp.enrollmentProtocol.empty()) {
        g_message("received '%s' response with protocol '%s'", state,
                  rsp.enrollmentProtocol.c_str());
        if (!info->hasProtocol(rsp.enrollmentProtocol)) {
            g_warning("enrollment server returned unexpected protocol '%s'",
                      rsp.enrollmentProtocol.c_str());
            return;
        }
    }
    if (rsp.status == "dataAuthRequired")
        handle_auth_req(rsp);
    else if (rsp.status == "dataVerifyRequired")
        handle_data_verify_req(rsp);
    else if (rsp.status == "CSRAuthRequired")
        handle_csr_auth_required_req(rsp);
    else if (rsp.status == "CSRRequired")
        handle_csr_required_req(rsp);
    else if (rsp.status == "enrolled")
        handle_enrolled_req(rsp);
    else
        g_warning("unknown status '%s' received in enroll response", state);
}

bool Enroller::check_protocol(const EnrollResponse& rsp, const char* expected) const {
    if (rsp.enrollmentProtocol == expected)
        return true;
    g_warning("enrollment server returned bad protocol '%s', expected '%s'",
              rsp.enrollmentProtocol.c_str(), expected);
    return false;
}

bool Enroller::ensure_csr() {
    return !csrPem.empty() || get_csr();
}

void Enroller::handle_csr_required_req(const EnrollResponse& rsp) {
    if (!check_protocol(rsp, PROTO_NOAUTH) || !ensure_csr())
        return;

    JsonObjectOutput out;
    out.addProperty("cbData", rsp.cbData.c_str());
    out.addProperty("CSR", csrPem.c_str());
    send_json(REQUEST_CSR_VERIFY, out, G_STRFUNC);
}

// The RPMB and TPM proofs are not part of this build: open_rpmb() and open_tpm2() never
// succeed, so these handlers stop at their preconditions.
void Enroller::handle_auth_req(const EnrollResponse& rsp) {
    if (!check_protocol(rsp, PROTO_RPMB))
        return;
    g_return_if_fail_warning(G_LOG_DOMAIN, G_STRFUNC, "rpmb");
}

void Enroller::handle_data_verify_req(const EnrollResponse&) {
    g_return_if_fail_warning(G_LOG_DOMAIN, G_STRFUNC, "rpmb");
}

void Enroller::handle_csr_auth_required_req(const EnrollResponse& rsp) {
    if (!check_protocol(rsp, PROTO_TPM2))
        return;
    g_return_if_fail_warning(G_LOG_DOMAIN, G_STRFUNC, "tpm2.is_open()");
}

void Enroller::handle_enrolled_req(const EnrollResponse& rsp) {
    const char* state = rsp.status.c_str();
    if (!info->hasProtocol(rsp.enrollmentProtocol)) {
        g_warning("enrollment server returned bad protocol '%s'", rsp.enrollmentProtocol.c_str());
        return;
    }
    if (!rsp.enrolledServices) {
        g_warning("missing enrolledServices in %s enroll response", state);
        return;
    }
    const EnrolledServices& services = *rsp.enrolledServices;
    if (!services.awsIot) {
        g_warning("missing service in %s enroll response", state);
        return;
    }

    serviceSaved = false;
    std::string error;
    Certificate cert;
    if (cert.load_pem(services.awsIot->certificate) &&
        cert.check_private_key(info->key_path.c_str())) {
        if (save_service_config(AWS_IOT, services.awsIotNode, &error))
            serviceSaved = true;
        else
            g_warning("failed saving %s service confiuration: %s", AWS_IOT, error.c_str());
    } else {
        g_warning("received bad certificate for %s service: %s", AWS_IOT, cert.error.c_str());
        error = "bad certificate: " + cert.error;
    }

    std::vector<AcknowledgedService> acks;
    acks.push_back({AWS_IOT, serviceSaved ? AcknowledgedService::Saved : AcknowledgedService::Error,
                    serviceSaved ? std::string() : error});
    for (const std::string& name : services.names) {
        if (name != AWS_IOT)
            acks.push_back({name, AcknowledgedService::Unknown, std::string()});
    }

    JsonObjectOutput out;
    out.addProperty("cbData", rsp.cbData.c_str());
    out.addObjectProperty("acknowledgedServices");
    for (const AcknowledgedService& ack : acks)
        out << ack;
    out.finishObjectProperty();
    send_json(REQUEST_ACKNOWLEDGE, out, G_STRFUNC);
}

// ---------------------------------------------------------------------------------------
// hardware proofs

bool Enroller::open_rpmb() {
    g_warning("RPMB access is not supported by this build");
    return false;
}

bool Enroller::open_tpm2() {
    g_warning("TPM access is not supported by this build");
    return false;
}

// ---------------------------------------------------------------------------------------
// keys

void Enroller::read_pubkey() {
    Key key;
    if (!key.load_private_pem(info->key_path.c_str())) {
        g_warning("failed to read key from '%s': %s", info->key_path.c_str(), key.error.c_str());
        return;
    }
    std::string pem = key.get_public_pem();
    if (pem.empty()) {
        g_warning("failed to get public key PEM: %s", key.error.c_str());
        return;
    }
    publicKeyPem = std::move(pem);
}

bool Enroller::get_csr() {
    CertificateSignRequest csr;
    if (!csr.create(info->key_path.c_str(), info->device)) {
        g_warning("failed to create CSR: %s", csr.error.c_str());
        return false;
    }
    std::string pem = csr.get_pem();
    if (pem.empty()) {
        g_warning("failed to get CSR PEM: %s", csr.error.c_str());
        return false;
    }
    csrPem = std::move(pem);
    return true;
}

// ---------------------------------------------------------------------------------------
// retries, triggers and network

void Enroller::schedule_retry(unsigned int delay) {
    if (info->disabled) {
        g_message("enroller disabled, not scheduling retry");
        return;
    }
    const unsigned interval = RetryPolicy::spaced_delay(
        delay, static_cast<unsigned>(info->retry_interval), g_get_monotonic_time() - requestStart);
    cancel_retry_timeout();
    g_debug("scheduling a retry in %u secs", interval);
    auto callback = class_callback<Enroller, &Enroller::handle_retry_timeout>;
    retrySource = interval == 0 ? g_idle_add_full(G_PRIORITY_DEFAULT, callback, this, nullptr)
                                : g_timeout_add_seconds(interval, callback, this);
}

int Enroller::handle_retry_timeout() {
    retrySource = 0;
    if (status.enrolled) {
        g_debug("already enrolled, not retrying enrollment");
        return G_SOURCE_REMOVE;
    }
    const unsigned base = static_cast<unsigned>(info->retry_interval);
    if (base != 0) {
        const unsigned next =
            RetryPolicy::backoff_delay(base, g_random_double_range(0, base * retryMultiplier));
        g_debug("retrying enroll (multiplier %.0f), next retry in %u secs", retryMultiplier, next);
        retryMultiplier *= 2;
        schedule_retry(next);
    }
    if (request == REQUEST_NONE)
        initiate();
    return G_SOURCE_REMOVE;
}

void Enroller::cancel_retry_timeout() {
    if (retrySource)
        g_source_remove(retrySource);
    retrySource = 0;
}

void Enroller::register_enrolled_cb(std::function<void()> cb) {
    enrolledCallback = std::move(cb);
}

bool Enroller::trigger() {
    if (request != REQUEST_NONE) {
        g_message("received trigger call but enrollment is ongoing");
        return false;
    }
    status.recordForcedEnroll();
    status.save();
    retryMultiplier = 1.0;
    g_message("received trigger call, enrolled status reset and scheduled a retry");
    schedule_retry(0);
    return true;
}

void Enroller::restart_soon() {
    retryMultiplier = 1.0;
    schedule_retry(0);
    g_message("received network available notification, scheduled a retry");
}

void Enroller::network_available() {
    if (request == REQUEST_NONE)
        restart_soon();
}

void Enroller::on_network_changed(GObject* monitor, GParamSpec*) {
    const bool available = g_network_monitor_get_network_available(G_NETWORK_MONITOR(monitor));
    g_debug("network changed status: available = %i", available);
    if (available && request == REQUEST_NONE)
        restart_soon();
}

bool Enroller::rpmb_rate_limit_reschedule() {
    RetryPolicy::RateLimit hit{};
    if (!RetryPolicy::rpmb_rate_limited(status.rpmb, &hit))
        return false;
    g_warning(
        "reached RPMB write limit (%u >= %u) over last %li seconds, one slot will free in %li "
        "seconds",
        hit.count, hit.limit, hit.window, hit.wait);
    schedule_retry(hit.wait > 0 ? static_cast<unsigned>(hit.wait) : 0);
    return true;
}

// ---------------------------------------------------------------------------------------
// service store

bool Enroller::save_service_config(const char* name, GLibPtr<JsonNode> node, std::string* error) {
    auto fail = [error](const char* reason) {
        if (error)
            *error = reason;
        return false;
    };

    const CharPtr dir(g_build_filename(info->services_dir.c_str(), name, nullptr));
    const GLibPtr<GFile> dirFile(g_file_new_for_path(dir.get()));
    GError* raw_error = nullptr;
    if (!g_file_make_directory(dirFile.get(), nullptr, &raw_error)) {
        const ErrorPtr error(raw_error);
        if (!g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_EXISTS))
            return fail(error->message);
    }

    const CharPtr path(g_build_filename(dir.get(), "service.json", nullptr));
    const GLibPtr<JsonGenerator> generator(json_generator_new());
    json_generator_set_pretty(generator.get(), TRUE);
    json_generator_set_root(generator.get(), node.get());
    raw_error = nullptr;
    if (!json_generator_to_file(generator.get(), path.get(), &raw_error)) {
        const ErrorPtr error(raw_error);
        return fail(error->message);
    }
    // the enrollment is acknowledged as saved only once the file is on storage
    if (!fsync_file(path.get()))
        return fail("failed fsync");
    return true;
}

bool Enroller::update_fs_flags(const EnrollerInfo& info) {
    const CharPtr path(g_build_filename(info.services_dir.c_str(), "_DISABLED", nullptr));
    const GLibPtr<GFile> file(g_file_new_for_path(path.get()));
    GError* raw_error = nullptr;
    if (info.disabled) {
        const GLibPtr<GFileOutputStream> out(
            g_file_create(file.get(), G_FILE_CREATE_NONE, nullptr, &raw_error));
        const ErrorPtr error(raw_error);
        if (!out && !g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_EXISTS)) {
            g_critical("failed to create disabled services file: %s", error->message);
            return false;
        }
        return true;
    }
    const bool deleted = g_file_delete(file.get(), nullptr, &raw_error);
    const ErrorPtr error(raw_error);
    if (!deleted && !g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_NOT_FOUND)) {
        g_critical("failed to remove disabled services file: %s", error->message);
        return false;
    }
    return true;
}
