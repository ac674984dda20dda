#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "EnrollerMessages.h"
#include "LogCapture.h"

namespace {

using Bytes = std::vector<unsigned char>;

std::string base64(const Bytes& bytes) {
    const GCharPtr text(g_base64_encode(bytes.data(), bytes.size()));
    return text.get();
}

// Reads `text` into `target` and returns the reader's error, empty when there is none.
template <typename T>
std::string read(const std::string& text, T& target) {
    JsonObjectInput in(text.c_str(), static_cast<long>(text.size()));
    in >> target;
    return in.failed() ? in.getError() : "";
}

std::string written(JsonObjectOutput& out) {  // without white space, to compare JSON texts
    std::string text = out.finish();
    text.erase(std::remove_if(text.begin(), text.end(), ::isspace), text.end());
    return text;
}

const std::string kHead = R"({"status": "s", "cbData": "c", )";

}  // namespace

TEST(EnrollResponseRead, OptionalPartsAreReadFullyOrLeftEmpty) {
    EnrollResponse r;
    ASSERT_EQ(read(R"({"status": "CSRRequired", "cbData": "cb-1"})", r), "");
    EXPECT_EQ(r.status + " " + r.cbData, "CSRRequired cb-1");
    EXPECT_FALSE(r.rpmbReadRequest || r.rpmbSignAuthorizer || r.hmacRequest || r.enrolledServices);

    const std::string full =
        kHead +
        R"("enrollmentProtocol":"p","hmacRequest":{"nonce":"AQID","rsaEncryptedKey":)"
        R"({"crypted":"BAUGBw==","padding":"OAEP","paddingHash":"SHA256"}},)"
        R"("enrolledServices":{"zeta":{},"aws-iot":{"certificate":"CERT"}},)"
        R"("rpmbReadRequest":{"startBlock":3,"nrBlocks":2,"nonce":")" +
        base64(Bytes(16, 1)) + R"("},"rpmbSignAuthorizer":{"hmac":")" + base64(Bytes(32, 3)) +
        R"(","data":")" + base64(Bytes(256, 2)) + "\"}}";
    ASSERT_EQ(read(full, r), "");
    ASSERT_TRUE(r.rpmbReadRequest && r.rpmbSignAuthorizer && r.hmacRequest && r.enrolledServices);
    EXPECT_EQ(r.enrollmentProtocol, "p");
    EXPECT_EQ(Bytes(r.rpmbReadRequest->nonce, r.rpmbReadRequest->nonce + 16), Bytes(16, 1));
    EXPECT_EQ(std::make_pair(r.rpmbReadRequest->startBlock, r.rpmbReadRequest->nrBlocks),
              std::make_pair(3ul, 2ul));
    EXPECT_EQ(Bytes(r.rpmbSignAuthorizer->data, r.rpmbSignAuthorizer->data + 256), Bytes(256, 2));
    EXPECT_EQ(Bytes(r.rpmbSignAuthorizer->hmac, r.rpmbSignAuthorizer->hmac + 32), Bytes(32, 3));
    const RSAEncrpytedKey& key = r.hmacRequest->rsaEncryptedKey;
    EXPECT_EQ(r.hmacRequest->nonce, (Bytes{1, 2, 3}));
    EXPECT_EQ(key.crypted, (Bytes{4, 5, 6, 7}));
    EXPECT_EQ(key.padding + " " + key.paddingHash, "OAEP SHA256");
    EXPECT_EQ(r.enrolledServices->names, (std::vector<std::string>{"aws-iot", "zeta"}));
    ASSERT_TRUE(r.enrolledServices->awsIot && r.enrolledServices->awsIotNode);
    EXPECT_EQ(r.enrolledServices->awsIot->certificate, "CERT");
    EnrollResponse other;
    ASSERT_EQ(read(kHead + R"("enrolledServices": {"other": {"x": 1}, "b-svc": {}}})", other), "");
    ASSERT_TRUE(other.enrolledServices);
    EXPECT_EQ(other.enrolledServices->names, (std::vector<std::string>{"b-svc", "other"}));
    EXPECT_FALSE(other.enrolledServices->awsIot || other.enrolledServices->awsIotNode);
}

TEST(EnrollResponseRead, MemberErrorsAreReported) {
    const std::string rpmbRead = kHead + R"("rpmbReadRequest": {"nonce": ")";
    const std::string blocks = R"(", "startBlock": 1, "nrBlocks": 1}})";
    const std::string hmac = kHead + R"("hmacRequest": {"nonce": ")";
    const std::string key = R"("rsaEncryptedKey": {"crypted": "AQID")";
    const char* const badNonce = "member 'nonce' is not valid base64 or has wrong length";
    const std::pair<std::string, const char*> cases[] = {
        {R"({"cbData": "c"})", "missing member 'status'"},
        {rpmbRead + base64(Bytes(16)) + R"(", "startBlock": 1}})", "missing member 'nrBlocks'"},
        {rpmbRead + base64(Bytes(16)) + R"(", "startBlock": null, "nrBlocks": 1}})",
         "member 'startBlock' does not hold a value"},
        {rpmbRead + base64(Bytes(15)) + blocks, badNonce},
        {rpmbRead + base64(Bytes(17)) + blocks, badNonce},
        {hmac + base64(Bytes(17)) + "\", " + key + R"(, "padding": "P"}}})", ""},  // any size
        {hmac + "AQID\", " + key + "}}}", "missing member 'padding'"},
        {kHead + R"("rpmbReadRequest": {"startBlock": 1, "nrBlocks": 1}})",
         "missing member 'nonce'"},
        {kHead + R"("hmacRequest": {)" + key + R"(, "padding": "P"}}})", "missing member 'nonce'"},
        {kHead + R"("rpmbSignAuthorizer": {"hmac": "AA=="}})", "missing member 'data'"},
        {kHead + R"("enrolledServices": {"aws-iot": {}}})", "missing member 'certificate'"},
    };
    for (const auto& [json, error] : cases) {
        EnrollResponse response;
        EXPECT_EQ(read(json, response), error) << json;
    }
}

TEST(ErrorResponseRead, NonObjectGivesStatusZeroAndADebugLine) {
    LogCapture logs;
    ErrorResponse error;
    read("[1]", error);
    EXPECT_EQ(error.statusCode, 0);
    EXPECT_TRUE(logs.logged(G_LOG_LEVEL_DEBUG,
                            "problem parsing error object: expected object in JSON but got "
                            "JsonArray"))
        << logs.dump();
}

TEST(RequestWire, DataAuthenticateBodyAndBadAcknowledgeStatus) {
    RPMBReadResult result;
    result.data = {'a', 'b', 'c'};
    RPMBSignAuthRequest auth{"PEM", "CSR", 4000000000u, {}, 1};  // counter beyond int32_t
    std::memset(result.hmac, 1, 32);
    std::memset(auth.writeCounterHmac, 2, 32);
    JsonObjectOutput out;
    out.addProperty("cbData", "cb-7");
    out << result << auth;
    EXPECT_EQ(written(out), R"({"cbData":"cb-7","rpmbReadResult":{"data":"YWJj","hmac":")" +
                                base64(Bytes(32, 1)) +
                                R"("},"rpmbSignAuthRequest":{"sdata":"PEM","dataType":"CSR",)"
                                R"("writeCounter":4000000000,"writeCounterHmac":")" +
                                base64(Bytes(32, 2)) + R"(","startBlock":1}})");

    LogCapture logs;
    JsonObjectOutput ack;
    ack << AcknowledgedService{"svc", static_cast<AcknowledgedService::Status>(3), "m"};
    EXPECT_EQ(written(ack), R"({"svc":{"message":"m"}})");
    EXPECT_TRUE(logs.logged(G_LOG_LEVEL_CRITICAL,
                            "JsonObjectOutput& operator<<(JsonObjectOutput&, const "
                            "AcknowledgedService&): status value (3) out of range"))
        << logs.dump();
}
