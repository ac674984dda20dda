#include "Enroller.h"

#include <malloc.h>

#include <algorithm>

#include "ClassCallback.h"
#include "EnrollConstants.h"
#include "EnrollerMessages.h"
#include "JsonObjectInput.h"
#include "JsonObjectOutput.h"

namespace {

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

// A redirect may stay on http or https, or go from http to https; never from https back
// to plain http, and never to another scheme.
bool redirect_target_allowed(SoupMessage* msg) {
    const char* location = soup_message_headers_get_one(msg->response_headers, "Location");
    if (!location)
        return false;
    SoupURI* uri = soup_message_get_uri(msg);
    const GCharPtr base(soup_uri_to_string(uri, FALSE));
    const GCharPtr target(g_uri_resolve_relative(base.get(), location, G_URI_FLAGS_NONE, nullptr));
    if (!target)
        return false;
    const GCharPtr scheme(g_uri_parse_scheme(target.get()));
    if (!scheme)
        return false;
    if (g_ascii_strcasecmp(scheme.get(), "https") == 0)
        return true;
    return g_ascii_strcasecmp(scheme.get(), "http") == 0 && uri->scheme == SOUP_URI_SCHEME_HTTP;
}

}  // namespace

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
    // Only 307 and 308 keep the method and body: follow those explicitly. The session's own
    // handling would turn a POST answered 301, 302 or 303 into a GET, and a "/acknowledge"
    // delivered as GET would record an enrollment the server never confirmed; such answers
    // must reach the completion callback as they are.
    //
    // Marked idempotent, the POSTs of one enrollment share one kept-alive connection: one
    // TCP (and TLS) handshake instead of three. The mark only lets the session pick an idle
    // connection; it re-sends on its own only requests of idempotent methods, never these.
    // A request whose kept-alive connection the server closed meanwhile fails like any
    // transport failure and the retry timer starts over. Were one re-sent anyway, that would
    // be harmless: a second "/initiate" starts a fresh enrollment; a second "/CSRVerify" has
    // the same CSR signed again, and the certificate is checked against the device key
    // before it is stored; a second "/acknowledge" carries the same statuses, and a server
    // that already closed the enrollment answers it as expired, which restarts enrolling
    // but never records an enrollment the server did not confirm.
    soup_message_set_flags(
        msg, static_cast<SoupMessageFlags>(SOUP_MESSAGE_NO_REDIRECT | SOUP_MESSAGE_IDEMPOTENT));
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
    arm_request_deadline(msg);
    soup_session_queue_message(session, msg, class_callback<Enroller, &Enroller::req_response_cb>,
                               this);
    g_message("sending %s request", path + 1);
}

void Enroller::arm_request_deadline(SoupMessage* msg) {
    guint timeout = 0;
    g_object_get(session, SOUP_SESSION_TIMEOUT, &timeout, nullptr);
    requestDeadline =
        timeout == 0 ? REQUEST_DEADLINE_NO_TIMEOUT
                     : static_cast<unsigned>(std::min<guint64>(
                           guint64{timeout} * REQUEST_DEADLINE_TIMEOUTS, REQUEST_DEADLINE_MAX));
    clear_request_deadline();
    inFlight = msg;
    deadlineSource = g_timeout_add_seconds(
        requestDeadline, class_callback<Enroller, &Enroller::request_deadline_cb>, this);
}

void Enroller::clear_request_deadline() {
    if (deadlineSource)
        g_source_remove(deadlineSource);
    deadlineSource = 0;
    inFlight = nullptr;
}

// Ends like the size cap: the completion callback logs the cancelled transport status and
// the armed retry takes over.
int Enroller::request_deadline_cb() {
    deadlineSource = 0;
    SoupMessage* msg = inFlight;
    inFlight = nullptr;
    g_warning("request not completed within %u seconds, aborting request", requestDeadline);
    soup_session_cancel_message(session, msg, SOUP_STATUS_CANCELLED);
    return G_SOURCE_REMOVE;
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
    if (!redirect_target_allowed(msg) || !soup_session_redirect_message(session, msg))
        g_warning("got malformed HTTP redirect with status code %i", code);
}

void Enroller::req_response_cb(SoupSession*, SoupMessage* msg) {
    const Request kind = request;
    request = REQUEST_NONE;
    clear_request_deadline();
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
    handle_body(msg, G_STRFUNC);
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
    // once this message is done with, an enrolled daemon keeps nothing it no longer needs
    if (!releaseSource)
        releaseSource = g_idle_add(class_callback<Enroller, &Enroller::release_resources>, this);
}

int Enroller::release_resources() {
    releaseSource = 0;
    // Closes the kept-alive connection; a request queued meanwhile keeps it.
    if (request == REQUEST_NONE)
        soup_session_abort(session);
    malloc_trim(0);
    return G_SOURCE_REMOVE;
}

// `caller` names the completion callback in the report of an impossible status.
void Enroller::handle_body(SoupMessage* msg, const char* caller) {
    const char* type = soup_message_headers_get_content_type(msg->response_headers, nullptr);
    if (!type || msg->response_body->length == 0) {
        g_warning("response has no content-type or no body");
        return;
    }
    if (g_ascii_strcasecmp(type, "application/json") != 0) {
        g_warning("response is not JSON but %s, ignoring", type);
        return;
    }

    const auto json = JsonObjectInput::open_data(
        msg->response_body->data, msg->response_body->length, [](const char* parse_error) {
            if (parse_error)
                g_warning("parsing failed: %s", parse_error);
            else
                g_warning("response is empty, ignoring");
        });
    if (!json)
        return;

    if (SOUP_STATUS_IS_SUCCESSFUL(msg->status_code)) {
        EnrollResponse rsp;
        *json >> rsp;
        rsp.body.assign(msg->response_body->data, msg->response_body->length);
        if (json->failed()) {
            g_warning("failed parsing enrollment response: %s", json->getError());
            return;
        }
        handle_response(rsp);
        return;
    }

    if (!SOUP_STATUS_IS_CLIENT_ERROR(msg->status_code) &&
        !SOUP_STATUS_IS_SERVER_ERROR(msg->status_code)) {
        g_return_if_fail_warning(G_LOG_DOMAIN, caller,
                                 "SOUP_STATUS_IS_CLIENT_ERROR(msg->status_code) || "
                                 "SOUP_STATUS_IS_SERVER_ERROR(msg->status_code)");
        return;
    }
    ErrorResponse err;
    *json >> err;
    log(err);
    // the server has forgotten the state carried in "cbData": start over from "/initiate"
    if (err.code == "CallbackDataExpiredException")
        schedule_retry(0);
}

void Enroller::log(const ErrorResponse& err) const {
    g_warning("request failed with status code: %i, code: %s, server time: %s, msg: %s",
              err.statusCode, err.code.c_str(), err.time.c_str(), err.message.c_str());
}

// A failed writer is reported as the failed precondition of the handler that wrote it.
bool Enroller::body_ok(JsonObjectOutput& out, const char* handler) {
    out.finish();
    if (!out.isFailed())
        return true;
    g_return_if_fail_warning(G_LOG_DOMAIN, handler, "! json.failed()");
    return false;
}

void Enroller::send_json(Request kind, JsonObjectOutput& out, const char* handler) {
    if (body_ok(out, handler))
        send_request(kind, out);
}
