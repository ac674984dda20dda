#pragma once

#include <glib.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "DeviceInfo.h"
#include "GLibPtr.h"
#include "JsonObjectInput.h"
#include "JsonObjectOutput.h"

// Messages exchanged with the enrollment server. Responses are read with operator>>,
// request parts are written with operator<<; each maps its own record only.

// --- received -------------------------------------------------------------------------

struct RPMBReadRequest {
    unsigned char nonce[16] = {};
    unsigned long startBlock = 0;
    unsigned long nrBlocks = 0;
};

struct RPMBSignAuthorizer {
    unsigned char data[256] = {};
    unsigned char hmac[32] = {};
};

// The name is misspelled on purpose: other code knows the type by it.
struct RSAEncrpytedKey {
    std::vector<unsigned char> crypted;
    std::string padding;
    std::string paddingHash;
};

struct HMACRequest {
    std::vector<unsigned char> nonce;
    RSAEncrpytedKey rsaEncryptedKey;
};

struct AWSIoTService {
    std::string certificate;
};

struct EnrolledServices {
    std::vector<std::string> names;  // every member name, ascending, each once
    std::unique_ptr<AWSIoTService> awsIot;
    GLibPtr<JsonNode> awsIotNode;  // the "aws-iot" object as received, stored unchanged
};

struct EnrollResponse {
    std::string status;
    std::string enrollmentProtocol;
    std::string cbData;
    std::unique_ptr<RPMBReadRequest> rpmbReadRequest;
    std::unique_ptr<RPMBSignAuthorizer> rpmbSignAuthorizer;
    std::unique_ptr<HMACRequest> hmacRequest;
    std::unique_ptr<EnrolledServices> enrolledServices;
    std::string body;  // the text of the response, which a stored service must match
};

struct ErrorResponse {
    int32_t statusCode = 0;
    std::string code;
    std::string message;
    std::string time;
};

// --- sent -----------------------------------------------------------------------------

struct RPMBReadResult {
    std::vector<unsigned char> data;  // 256 bytes per block read
    unsigned char hmac[32] = {};      // MAC of the last frame read
};

struct RPMBSignAuthRequest {
    std::string sdata;  // the CSR in PEM form
    std::string dataType = "CSR";
    uint32_t writeCounter = 0;
    unsigned char writeCounterHmac[32] = {};
    unsigned long startBlock = 0;
};

struct AcknowledgedService {
    enum Status : int { Saved = 0, Error = 1, Unknown = 2 };

    std::string name;
    Status status = Unknown;
    std::string message;  // written only when not empty
};

JsonObjectOutput& operator<<(JsonObjectOutput& out, const DeviceInfo& device);
JsonObjectOutput& operator<<(JsonObjectOutput& out, const RPMBReadResult& result);
JsonObjectOutput& operator<<(JsonObjectOutput& out, const RPMBSignAuthRequest& request);
JsonObjectOutput& operator<<(JsonObjectOutput& out, const AcknowledgedService& service);

JsonObjectInput& operator>>(JsonObjectInput& in, EnrollResponse& response);
JsonObjectInput& operator>>(JsonObjectInput& in, RPMBReadRequest& request);
JsonObjectInput& operator>>(JsonObjectInput& in, RPMBSignAuthorizer& authorizer);
JsonObjectInput& operator>>(JsonObjectInput& in, RSAEncrpytedKey& key);
JsonObjectInput& operator>>(JsonObjectInput& in, HMACRequest& request);
JsonObjectInput& operator>>(JsonObjectInput& in, AWSIoTService& service);
JsonObjectInput& operator>>(JsonObjectInput& in, EnrolledServices& services);
JsonObjectInput& operator>>(JsonObjectInput& in, ErrorResponse& response);
