#include "EnrollerMessages.h"

#include <json-glib/json-glib.h>

#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "EnrollConstants.h"

namespace {

// An empty vector may have no storage; a null pointer would be written as JSON null.
void add_bytes_property(JsonObjectOutput& out, const char* name,
                        const std::vector<unsigned char>& bytes) {
    static const unsigned char none = 0;
    out.addProperty(name, bytes.empty() ? &none : bytes.data(), bytes.size());
}

void add_int_property(JsonObjectOutput& out, const char* name, long value) {
    out.setMemberName(name);
    out.addValue(value);
}

// Reads the optional object member `name` into a freshly zeroed record, replacing any held
// before; an absent member leaves `record` as it is.
template <typename T>
void read_optional_record(JsonObjectInput& in, const char* name, std::unique_ptr<T>& record) {
    if (!in.openMemberChild(name, false))
        return;
    record = std::make_unique<T>();
    in >> *record;
    in.closeMemberChild();
}

bool read_unsigned_member(JsonObjectInput& in, const char* name, unsigned long* out) {
    gint64 value = 0;
    if (!read_int_member(in, name, &value, true))
        return false;
    *out = static_cast<unsigned long>(value);
    return true;
}

const char* ack_status_name(AcknowledgedService::Status status) {
    switch (status) {
        case AcknowledgedService::Saved:
            return "saved";
        case AcknowledgedService::Error:
            return "error";
        case AcknowledgedService::Unknown:
            return "unknown";
    }
    return nullptr;
}

}  // namespace

JsonObjectOutput& operator<<(JsonObjectOutput& out, const DeviceInfo& device) {
    out.addObjectProperty("device");
    out.addProperty("serial", device.serial.c_str());
    out.addProperty("model", device.model.c_str());
    out.addProperty("brand", device.brand.c_str());

    const std::pair<const char*, const std::string*> alternatives[] = {
        {"user", &device.userSerial},
        {"board", &device.boardSerial},
        {"system", &device.systemSerial},
        {"chassis", &device.chassisSerial},
    };
    bool anyAlternative = false;
    for (const auto& alternative : alternatives)
        anyAlternative = anyAlternative || !alternative.second->empty();
    if (anyAlternative) {
        out.addObjectProperty("altSerial");
        for (const auto& [key, serial] : alternatives) {
            if (!serial->empty())
                out.addProperty(key, serial->c_str());
        }
        out.finishObjectProperty();
    }
    out.finishObjectProperty();
    return out;
}

JsonObjectOutput& operator<<(JsonObjectOutput& out, const RPMBReadResult& result) {
    out.addObjectProperty("rpmbReadResult");
    add_bytes_property(out, "data", result.data);
    out.addProperty("hmac", result.hmac, sizeof result.hmac);
    out.finishObjectProperty();
    return out;
}

JsonObjectOutput& operator<<(JsonObjectOutput& out, const RPMBSignAuthRequest& request) {
    out.addObjectProperty("rpmbSignAuthRequest");
    out.addProperty("sdata", request.sdata.c_str());
    out.addProperty("dataType", request.dataType.c_str());
    add_int_property(out, "writeCounter", static_cast<long>(request.writeCounter));
    out.addProperty("writeCounterHmac", request.writeCounterHmac, sizeof request.writeCounterHmac);
    add_int_property(out, "startBlock", static_cast<long>(request.startBlock));
    out.finishObjectProperty();
    return out;
}

JsonObjectOutput& operator<<(JsonObjectOutput& out, const AcknowledgedService& service) {
    out.addObjectProperty(service.name.c_str());
    if (const char* status = ack_status_name(service.status))
        out.addProperty("status", status);
    else
        g_critical("%s: status value (%i) out of range", G_STRFUNC,
                   static_cast<int>(service.status));
    if (!service.message.empty())
        out.addProperty("message", service.message.c_str());
    out.finishObjectProperty();
    return out;
}

JsonObjectInput& operator>>(JsonObjectInput& in, EnrollResponse& response) {
    in.readMember("status", &response.status, true);
    in.readMember("enrollmentProtocol", &response.enrollmentProtocol, false);
    in.readMember("cbData", &response.cbData, true);
    read_optional_record(in, "rpmbReadRequest", response.rpmbReadRequest);
    read_optional_record(in, "rpmbSignAuthorizer", response.rpmbSignAuthorizer);
    read_optional_record(in, "hmacRequest", response.hmacRequest);
    read_optional_record(in, "enrolledServices", response.enrolledServices);
    return in;
}

JsonObjectInput& operator>>(JsonObjectInput& in, RPMBReadRequest& request) {
    in.readMember("nonce", request.nonce, sizeof request.nonce, true);
    read_unsigned_member(in, "startBlock", &request.startBlock);
    read_unsigned_member(in, "nrBlocks", &request.nrBlocks);
    return in;
}

JsonObjectInput& operator>>(JsonObjectInput& in, RPMBSignAuthorizer& authorizer) {
    in.readMember("data", authorizer.data, sizeof authorizer.data, true);
    in.readMember("hmac", authorizer.hmac, sizeof authorizer.hmac, true);
    return in;
}

JsonObjectInput& operator>>(JsonObjectInput& in, RSAEncrpytedKey& key) {
    in.readMember("crypted", &key.crypted, true);
    in.readMember("padding", &key.padding, true);
    in.readMember("paddingHash", &key.paddingHash, false);
    return in;
}

JsonObjectInput& operator>>(JsonObjectInput& in, HMACRequest& request) {
    in.readMember("nonce", &request.nonce, true);
    if (in.openMemberChild("rsaEncryptedKey", true)) {
        in >> request.rsaEncryptedKey;
        in.closeMemberChild();
    }
    return in;
}

JsonObjectInput& operator>>(JsonObjectInput& in, AWSIoTService& service) {
    in.readMember("certificate", &service.certificate, true);
    return in;
}

JsonObjectInput& operator>>(JsonObjectInput& in, EnrolledServices& services) {
    // The member set is already sorted and unique.
    const std::set<std::string>& members = in.getMembers();
    services.names.assign(members.begin(), members.end());
    if (!in.checkHasMember(AWS_IOT_SERVICE, false))
        return in;
    in.readMember(AWS_IOT_SERVICE, services.awsIotNode, false);
    if (in.openMemberChild(AWS_IOT_SERVICE, false)) {
        services.awsIot = std::make_unique<AWSIoTService>();
        in >> *services.awsIot;
        in.closeMemberChild();
    }
    return in;
}

JsonObjectInput& operator>>(JsonObjectInput& in, ErrorResponse& response) {
    // Error bodies are only logged, so take whatever can be read from them.
    gint64 statusCode = 0;
    if (read_int_member(in, "statusCode", &statusCode, false))
        response.statusCode = static_cast<int32_t>(statusCode);
    in.readMember("code", &response.code, true);
    in.readMember("message", &response.message, true);
    in.readMember("time", &response.time, true);
    if (in.failed())
        g_debug("problem parsing error object: %s", in.getError());
    return in;
}
