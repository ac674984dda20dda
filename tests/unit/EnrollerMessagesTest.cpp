#include <gtest/gtest.h>

#include <cstring>

#include "EnrollerMessages.h"
#include "TestSupport.h"

namespace {

using Bytes = std::vector<unsigned char>;

std::string base64(const Bytes& bytes) {
    const GCharPtr text(g_base64_encode(bytes.data(), bytes.size()));
    return text.get();
}

const std::string kHead = R"({"status": "s", "cbData": "c", )";

}  // namespace

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
        JsonObjectInput in(json.c_str(), static_cast<long>(json.size()));
        EnrollResponse response;
        in >> response;
        EXPECT_EQ(std::string(in.failed() ? in.getError() : ""), error) << json;
    }
}

TEST(RequestWire, DataAuthenticateBodyTakesACounterBeyondInt32) {
    RPMBReadResult result;
    result.data = {'a', 'b', 'c'};
    RPMBSignAuthRequest auth{"PEM", "CSR", 4000000000u, {}, 1};  // counter beyond int32_t
    std::memset(result.hmac, 1, 32);
    std::memset(auth.writeCounterHmac, 2, 32);
    JsonObjectOutput out;
    out.addProperty("cbData", "cb-7");
    out << result << auth;
    EXPECT_EQ(squeezed(out.finish()),
              R"({"cbData":"cb-7","rpmbReadResult":{"data":"YWJj","hmac":")" +
                  base64(Bytes(32, 1)) +
                  R"("},"rpmbSignAuthRequest":{"sdata":"PEM","dataType":"CSR",)"
                  R"("writeCounter":4000000000,"writeCounterHmac":")" +
                  base64(Bytes(32, 2)) + R"(","startBlock":1}})");
}
