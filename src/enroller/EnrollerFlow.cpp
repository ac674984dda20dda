#include "Enroller.h"

#include <vector>

#include "Certificate.h"
#include "EnrollConstants.h"
#include "EnrollerMessages.h"
#include "JsonObjectOutput.h"
#include "Key.h"
#include "TPM2.h"

void Enroller::initiate() {
    if (info->hasProtocol(PROTO_EMMC_RPMB_CSR) && !rpmb && !open_rpmb())
        return;
    if (info->hasProtocol(PROTO_TPM2_AUTHKEY_CSR) && !open_tpm2())
        return;

    // every enrollment makes a fresh CSR
    if (!info->key_path.empty()) {
        if (publicKeyPem.empty())
            read_pubkey();
        else
            load_device_key(false);
        csrPem.clear();
    }

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
    out.addProperty("enrollService", AWS_IOT_SERVICE);
    if (!body_ok(out, G_STRFUNC))
        return;
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
    if (!check_protocol(rsp, PROTO_NOAUTH_CSR) || !ensure_csr())
        return;

    JsonObjectOutput out;
    out.addProperty("cbData", rsp.cbData.c_str());
    out.addProperty("CSR", csrPem.c_str());
    send_json(REQUEST_CSR_VERIFY, out, G_STRFUNC);
}

void Enroller::handle_auth_req(const EnrollResponse& rsp) {
    if (!check_protocol(rsp, PROTO_EMMC_RPMB_CSR))
        return;
    g_return_if_fail(rpmb);
    if (!ensure_csr())
        return;
    const char* state = rsp.status.c_str();
    const std::unique_ptr<RPMBReadResult> result = rpmb_read(rsp.rpmbReadRequest.get(), state);
    if (!result)
        return;
    std::unique_ptr<RPMBSignAuthRequest> sign =
        rpmb_read_write_counter(rsp.rpmbReadRequest.get(), state);
    if (!sign)
        return;
    sign->sdata = csrPem;
    sign->dataType = "CSR";
    sign->startBlock = 1;  // the block the server will authorise the write of

    if (status.rpmb.writeCounter > MAX_RPMB_WRITE_COUNTER - 1) {
        g_warning(
            "RPMB reached maximum allowed number of writes (%u >= %u), aborting data "
            "authenticate request",
            status.rpmb.writeCounter, MAX_RPMB_WRITE_COUNTER);
        schedule_retry(86400);
        return;
    }
    if (rpmb_rate_limit_reschedule())
        return;

    JsonObjectOutput out;
    out.addProperty("cbData", rsp.cbData.c_str());
    out << *result << *sign;
    send_json(REQUEST_DATA_AUTHENTICATE, out, G_STRFUNC);
}

void Enroller::handle_data_verify_req(const EnrollResponse& rsp) {
    g_return_if_fail(rpmb);
    // Checked before every write, not only when the attempt starts: a server that answers
    // each "/dataVerify" with another write would otherwise wear the RPMB past the table.
    if (rpmb_rate_limit_reschedule(true))
        return;
    const char* state = rsp.status.c_str();
    if (!rpmb_write(rsp.rpmbSignAuthorizer.get(), state))
        return;
    const std::unique_ptr<RPMBReadResult> result = rpmb_read(rsp.rpmbReadRequest.get(), state);
    if (!result)
        return;

    JsonObjectOutput out;
    out.addProperty("cbData", rsp.cbData.c_str());
    out << *result;
    send_json(REQUEST_DATA_VERIFY, out, G_STRFUNC);
}

void Enroller::handle_csr_auth_required_req(const EnrollResponse& rsp) {
    if (!check_protocol(rsp, PROTO_TPM2_AUTHKEY_CSR))
        return;
    if (!tpm2 || !tpm2->is_open()) {
        g_return_if_fail_warning(G_LOG_DOMAIN, G_STRFUNC, "tpm2.is_open()");
        return;
    }
    if (!ensure_csr())
        return;
    const std::vector<unsigned char> hmac =
        tpm2_auth_key_csr_hmac(rsp.hmacRequest.get(), rsp.status.c_str());
    if (hmac.empty())
        return;

    JsonObjectOutput out;
    out.addProperty("cbData", rsp.cbData.c_str());
    out.addProperty("CSR", csrPem.c_str());
    out.addProperty("hmac", hmac.data(), hmac.size());
    send_json(REQUEST_CSR_VERIFY, out, G_STRFUNC);
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
    const bool matches = cert.load_pem(services.awsIot->certificate) &&
                         (deviceKey ? cert.check_private_key(*deviceKey)
                                    : cert.check_private_key(info->key_path.c_str()));
    if (matches) {
        if (service_config_faithful(AWS_IOT_SERVICE, services.awsIotNode.get(), rsp.body, &error) &&
            save_service_config(AWS_IOT_SERVICE, services.awsIotNode, &error))
            serviceSaved = true;
        else
            g_warning("failed saving %s service confiuration: %s", AWS_IOT_SERVICE, error.c_str());
    } else {
        g_warning("received bad certificate for %s service: %s", AWS_IOT_SERVICE,
                  cert.error.c_str());
        error = "bad certificate: " + cert.error;
    }

    std::vector<AcknowledgedService> acks;
    acks.push_back({AWS_IOT_SERVICE,
                    serviceSaved ? AcknowledgedService::Saved : AcknowledgedService::Error,
                    serviceSaved ? std::string() : error});
    for (const std::string& name : services.names) {
        if (name != AWS_IOT_SERVICE)
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
