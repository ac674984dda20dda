#pragma once

#include <gio/gio.h>
#include <glib.h>
#include <json-glib/json-glib.h>
#include <libsoup/soup.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "EnrollerInfo.h"
#include "EnrollerStatus.h"
#include "GLibPtr.h"

class JsonObjectOutput;
class Key;
class RPMB;
class TPM2;
struct EnrollResponse;
struct ErrorResponse;
struct HMACRequest;
struct RPMBReadRequest;
struct RPMBReadResult;
struct RPMBSignAuthRequest;
struct RPMBSignAuthorizer;

// The enrollment engine: talks to the enrollment server one request at a time, answers
// each response status with the matching request, stores the delivered service and keeps
// retrying until the device is enrolled. Everything runs on the main loop.
class Enroller {
  public:
    enum Request : int32_t {
        REQUEST_NONE = 0,
        REQUEST_INITIATE = 1,
        REQUEST_DATA_AUTHENTICATE = 2,
        REQUEST_DATA_VERIFY = 3,
        REQUEST_CSR_VERIFY = 4,
        REQUEST_ACKNOWLEDGE = 5,
    };

    static constexpr uint64_t MAX_RESPONSE_SIZE = 131072;
    // The RPMB write counter can never be reset: the highest value at which the daemon may
    // still write.
    static constexpr uint32_t MAX_RPMB_WRITE_COUNTER = 500;

    Enroller(const EnrollerInfo& info, const std::string& statusFile, SoupSession* session);
    ~Enroller();
    Enroller(const Enroller&) = delete;
    Enroller& operator=(const Enroller&) = delete;

    // Brings the "_DISABLED" marker of the services directory in line with the
    // configuration; false after a logged failure.
    static bool update_fs_flags(const EnrollerInfo& info);

    // Stores one service configuration as "<services dir>/<name>/service.json".
    bool save_service_config(const char* name, GLibPtr<JsonNode> node, std::string* error);
    // True when `node`, the service `name` of the "enrolledServices" of response `body`,
    // would be saved with the values `body` gives it; false with the reason otherwise.
    static bool service_config_faithful(const char* name, JsonNode* node, const std::string& body,
                                        std::string* error);

    // Forced re-enrollment; refused (false) while a request is in flight.
    bool trigger();
    // The network came back: start over at once unless a request is in flight.
    void network_available();
    // Called once per completed enrollment; a later call replaces the callback.
    void register_enrolled_cb(std::function<void()> cb);
    // The "diagnose" reply: a tuple of one dictionary describing the engine's state, its
    // floating reference sunk.
    GLibPtr<GVariant> diagnose();

    void log(const ErrorResponse& error) const;

    const EnrollerInfo& get_info() const { return *info; }
    const EnrollerStatus& get_status() const { return status; }
    Request get_request() const { return request; }

  private:
    // HTTP layer
    void send_request(Request kind, const std::string& body);
    bool body_ok(JsonObjectOutput& out, const char* handler);
    void send_json(Request kind, JsonObjectOutput& out, const char* handler);
    void req_response_cb(SoupSession* session, SoupMessage* msg);
    void req_got_chunk_cb(SoupMessage* msg, SoupBuffer* chunk);
    void req_restarted_cb(SoupMessage* msg);
    void req_redirect_cb(SoupMessage* msg);
    void arm_request_deadline(SoupMessage* msg);
    void clear_request_deadline();
    int request_deadline_cb();
    void complete_acknowledge(SoupMessage* msg);
    int release_resources();
    void handle_body(SoupMessage* msg, const char* caller);

    // state machine
    void initiate();
    void handle_response(const EnrollResponse& rsp);
    void handle_csr_required_req(const EnrollResponse& rsp);
    void handle_auth_req(const EnrollResponse& rsp);
    void handle_data_verify_req(const EnrollResponse& rsp);
    void handle_csr_auth_required_req(const EnrollResponse& rsp);
    void handle_enrolled_req(const EnrollResponse& rsp);
    bool check_protocol(const EnrollResponse& rsp, const char* expected) const;
    bool ensure_csr();

    // retries and triggers
    void schedule_retry(unsigned int delay);
    int handle_retry_timeout();
    void cancel_retry_timeout();
    void on_network_changed(GObject* monitor, GParamSpec* pspec);
    // `before_write`: right before an authorised write (see RetryPolicy::rpmb_rate_limited)
    bool rpmb_rate_limit_reschedule(bool before_write = false);

    // hardware proofs; `state` is the response's status, for messages
    bool open_rpmb();
    void close_rpmb();
    std::unique_ptr<RPMBReadResult> rpmb_read(const RPMBReadRequest* req, const char* state);
    std::unique_ptr<RPMBSignAuthRequest> rpmb_read_write_counter(const RPMBReadRequest* req,
                                                                 const char* state);
    bool rpmb_write(const RPMBSignAuthorizer* auth, const char* state);
    void diagnose_rpmb(GVariantBuilder* dict);
    bool open_tpm2();

    // keys
    void read_pubkey();
    void load_device_key(bool announce);
    bool get_csr();
    std::vector<unsigned char> tpm2_auth_key_csr_hmac(const HMACRequest* req, const char* status);

    Request request = REQUEST_NONE;
    uint64_t received = 0;
    const EnrollerInfo* info;
    EnrollerStatus status;
    SoupSession* session;
    std::unique_ptr<RPMB> rpmb;  // open while held
    std::unique_ptr<TPM2> tpm2;
    std::unique_ptr<Key> deviceKey;  // read once per enrollment
    std::string csrPem;
    std::string publicKeyPem;
    bool serviceSaved = false;
    guint retrySource = 0;
    guint releaseSource = 0;          // idle source of release_resources()
    guint deadlineSource = 0;         // timeout of the request in flight
    unsigned requestDeadline = 0;     // seconds
    SoupMessage* inFlight = nullptr;  // not owned: the session holds it while queued
    gulong networkHandler = 0;
    std::function<void()> enrolledCallback;
    gint64 requestStart = 0;
    double retryMultiplier = 1.0;
};
