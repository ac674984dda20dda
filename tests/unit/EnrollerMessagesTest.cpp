#include <glib.h>
#include <gtest/gtest.h>
#include <json-glib/json-glib.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "EnrollerMessages.h"
#include "GLibPtr.h"
#include "LogCapture.h"

namespace {

// Re-serialises compactly, keeping member order, so texts compare regardless of layout.
std::string canonical(const std::string& text) {
    GLibPtr<JsonParser> parser(json_parser_new());
    if (text.empty() || !json_parser_load_from_data(parser.get(), text.c_str(), -1, nullptr))
        return "<not JSON: '" + text + "'>";
    std::unique_ptr<char, GFreeDeleter> compact(
        json_to_string(json_parser_get_root(parser.get()), FALSE));
    return compact.get();
}

std::string finished(JsonObjectOutput& out) {
    out.finish();
    return canonical(out);
}

std::string base64(const std::vector<unsigned char>& bytes) {
    std::unique_ptr<char, GFreeDeleter> text(g_base64_encode(bytes.data(), bytes.size()));
    return text.get();
}

std::vector<unsigned char> sequence(size_t length, unsigned char first = 0) {
    std::vector<unsigned char> bytes(length);
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<unsigned char>(first + i);
    return bytes;
}

// Bytes 0x00 to 0x1f and 0x00 to 0x0f, written out by hand.
const char* const kSeq32 = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8=";
const char* const kSeq16 = "AAECAwQFBgcICQoLDA0ODw==";

// A reader over `text`; the reader keeps its own copy of the document.
class Doc {
  public:
    explicit Doc(const std::string& text) : in(text.c_str(), static_cast<long>(text.size())) {}
    JsonObjectInput in;
};

const char* const kMinimalResponse = R"({"status": "CSRRequired", "cbData": "cb-1"})";

}  // namespace

// --- request bodies ---------------------------------------------------------------------

TEST(DeviceInfoWire, WritesNoAltSerialWhenAllAlternativesAreEmpty) {
    JsonObjectOutput out;
    out << DeviceInfo{"SN1", "", "Brand", "", "", "", ""};
    EXPECT_EQ(finished(out),
              canonical(R"({"device": {"serial": "SN1", "model": "", "brand": "Brand"}})"));
}

TEST(DeviceInfoWire, AltSerialHoldsOnlyTheSetSerials) {
    JsonObjectOutput chassisOnly;
    chassisOnly << DeviceInfo{"SN1", "M", "B", "", "", "", "CH"};
    EXPECT_EQ(finished(chassisOnly), canonical(R"({"device": {
        "serial": "SN1", "model": "M", "brand": "B", "altSerial": {"chassis": "CH"}}})"));

    JsonObjectOutput boardAndSystem;
    boardAndSystem << DeviceInfo{"SN1", "M", "B", "", "BO", "SY", ""};
    EXPECT_EQ(finished(boardAndSystem), canonical(R"({"device": {
        "serial": "SN1", "model": "M", "brand": "B",
        "altSerial": {"board": "BO", "system": "SY"}}})"));
}

TEST(DeviceInfoWire, AltSerialKeepsTheFixedOrder) {
    JsonObjectOutput out;
    out << DeviceInfo{"SN1", "M", "B", "U", "BO", "SY", "CH"};
    EXPECT_EQ(finished(out), canonical(R"({"device": {
        "serial": "SN1", "model": "M", "brand": "B",
        "altSerial": {"user": "U", "board": "BO", "system": "SY", "chassis": "CH"}}})"));
}

TEST(RequestWire, InitiateBodyComposesDeviceWithTheEngineMembers) {
    JsonObjectOutput out;
    out << DeviceInfo{"SN1", "M", "B", "U", "", "", ""};
    out.addProperty("firmwareVersion", "4.2");
    out.addArrayProperty("enrollmentProtocols");
    out.addValue("emmc-rpmb-csr");
    out.addValue("noauth-csr");
    out.finishArrayProperty();
    out.addProperty("publicKey", "PEM");
    out.addProperty("enrollService", "aws-iot");
    EXPECT_EQ(finished(out), canonical(R"({
        "device": {"serial": "SN1", "model": "M", "brand": "B", "altSerial": {"user": "U"}},
        "firmwareVersion": "4.2",
        "enrollmentProtocols": ["emmc-rpmb-csr", "noauth-csr"],
        "publicKey": "PEM",
        "enrollService": "aws-iot"})"));
}

TEST(RequestWire, DataAuthenticateBodyKeepsMemberOrder) {
    RPMBReadResult result;
    result.data = {'a', 'b', 'c'};
    const std::vector<unsigned char> mac = sequence(32);
    std::memcpy(result.hmac, mac.data(), mac.size());

    RPMBSignAuthRequest auth;
    auth.sdata = "-----BEGIN CERTIFICATE REQUEST-----";
    auth.writeCounter = 4000000000u;  // beyond the range of a signed 32-bit integer
    std::memcpy(auth.writeCounterHmac, mac.data(), mac.size());
    auth.startBlock = 1;

    JsonObjectOutput out;
    out.addProperty("cbData", "cb-7");
    out << result << auth;
    EXPECT_EQ(finished(out), canonical(std::string(R"({"cbData": "cb-7",
        "rpmbReadResult": {"data": "YWJj", "hmac": ")") +
                                       kSeq32 + R"("},
        "rpmbSignAuthRequest": {"sdata": "-----BEGIN CERTIFICATE REQUEST-----",
            "dataType": "CSR", "writeCounter": 4000000000, "writeCounterHmac": ")" +
                                       kSeq32 + R"(", "startBlock": 1}})"));
}

TEST(RequestWire, EmptyReadResultIsAnEmptyStringNotNull) {
    JsonObjectOutput out;
    out << RPMBReadResult{};
    EXPECT_EQ(finished(out), canonical(R"({"rpmbReadResult": {"data": "", "hmac": ")" +
                                       base64(std::vector<unsigned char>(32, 0)) + "\"}}"));
}

TEST(RequestWire, AcknowledgeMapsStatusesAndOmitsEmptyMessages) {
    LogCapture logs;
    JsonObjectOutput out;
    out.addProperty("cbData", "cb-9");
    out.addObjectProperty("acknowledgedServices");
    out << AcknowledgedService{"aws-iot", AcknowledgedService::Error, "bad certificate: x"}
        << AcknowledgedService{"other", AcknowledgedService::Unknown, ""}
        << AcknowledgedService{"third", AcknowledgedService::Saved, ""};
    out.finishObjectProperty();
    EXPECT_EQ(finished(out), canonical(R"({"cbData": "cb-9", "acknowledgedServices": {
        "aws-iot": {"status": "error", "message": "bad certificate: x"},
        "other": {"status": "unknown"},
        "third": {"status": "saved"}}})"));
    EXPECT_TRUE(logs.empty()) << logs.dump();
}

TEST(RequestWire, AcknowledgeOutOfRangeStatusWritesNoStatus) {
    LogCapture logs;
    JsonObjectOutput out;
    out << AcknowledgedService{"svc", static_cast<AcknowledgedService::Status>(3), "m"}
        << AcknowledgedService{"neg", static_cast<AcknowledgedService::Status>(-1), ""};
    EXPECT_EQ(finished(out), canonical(R"({"svc": {"message": "m"}, "neg": {}})"));
    const std::string signature =
        "JsonObjectOutput& operator<<(JsonObjectOutput&, const AcknowledgedService&)";
    EXPECT_TRUE(logs.logged(G_LOG_LEVEL_CRITICAL, signature + ": status value (3) out of range"))
        << logs.dump();
    EXPECT_TRUE(logs.logged(G_LOG_LEVEL_CRITICAL, signature + ": status value (-1) out of range"))
        << logs.dump();
}

// --- responses --------------------------------------------------------------------------

TEST(EnrollResponseRead, MinimalResponseHasNoOptionalParts) {
    Doc doc(kMinimalResponse);
    EnrollResponse response;
    doc.in >> response;
    ASSERT_FALSE(doc.in.failed()) << doc.in.getError();
    EXPECT_EQ(response.status, "CSRRequired");
    EXPECT_EQ(response.cbData, "cb-1");
    EXPECT_EQ(response.enrollmentProtocol, "");
    EXPECT_FALSE(response.rpmbReadRequest);
    EXPECT_FALSE(response.rpmbSignAuthorizer);
    EXPECT_FALSE(response.hmacRequest);
    EXPECT_FALSE(response.enrolledServices);
}

TEST(EnrollResponseRead, EveryOptionalPartIsRead) {
    const std::string data = base64(sequence(256, 7));
    Doc doc(std::string(R"({"status": "dataAuthRequired", "enrollmentProtocol": "emmc-rpmb-csr",
        "cbData": "cb-2",
        "rpmbReadRequest": {"nonce": ")") +
            kSeq16 + R"(", "startBlock": 3, "nrBlocks": 2},
        "rpmbSignAuthorizer": {"data": ")" +
            data + R"(", "hmac": ")" + kSeq32 + R"("},
        "hmacRequest": {"nonce": "AQID", "rsaEncryptedKey":
            {"crypted": "BAUGBw==", "padding": "OAEP", "paddingHash": "SHA256"}},
        "enrolledServices": {"zeta": {}, "aws-iot": {"certificate": "CERT", "endpoint": "e"},
            "alpha": 1}})");
    EnrollResponse response;
    doc.in >> response;
    ASSERT_FALSE(doc.in.failed()) << doc.in.getError();
    EXPECT_EQ(response.enrollmentProtocol, "emmc-rpmb-csr");

    ASSERT_TRUE(response.rpmbReadRequest);
    EXPECT_EQ(std::vector<unsigned char>(response.rpmbReadRequest->nonce,
                                         response.rpmbReadRequest->nonce + 16),
              sequence(16));
    EXPECT_EQ(response.rpmbReadRequest->startBlock, 3u);
    EXPECT_EQ(response.rpmbReadRequest->nrBlocks, 2u);

    ASSERT_TRUE(response.rpmbSignAuthorizer);
    EXPECT_EQ(std::vector<unsigned char>(response.rpmbSignAuthorizer->data,
                                         response.rpmbSignAuthorizer->data + 256),
              sequence(256, 7));
    EXPECT_EQ(std::vector<unsigned char>(response.rpmbSignAuthorizer->hmac,
                                         response.rpmbSignAuthorizer->hmac + 32),
              sequence(32));

    ASSERT_TRUE(response.hmacRequest);
    EXPECT_EQ(response.hmacRequest->nonce, (std::vector<unsigned char>{1, 2, 3}));
    EXPECT_EQ(response.hmacRequest->rsaEncryptedKey.crypted,
              (std::vector<unsigned char>{4, 5, 6, 7}));
    EXPECT_EQ(response.hmacRequest->rsaEncryptedKey.padding, "OAEP");
    EXPECT_EQ(response.hmacRequest->rsaEncryptedKey.paddingHash, "SHA256");

    ASSERT_TRUE(response.enrolledServices);
    EXPECT_EQ(response.enrolledServices->names,
              (std::vector<std::string>{"alpha", "aws-iot", "zeta"}));
    ASSERT_TRUE(response.enrolledServices->awsIot);
    EXPECT_EQ(response.enrolledServices->awsIot->certificate, "CERT");
    // The kept node is the whole service object, unknown members included.
    ASSERT_TRUE(response.enrolledServices->awsIotNode);
    std::unique_ptr<char, GFreeDeleter> kept(
        json_to_string(response.enrolledServices->awsIotNode.get(), FALSE));
    EXPECT_EQ(canonical(kept.get()), canonical(R"({"certificate": "CERT", "endpoint": "e"})"));
}

TEST(EnrollResponseRead, RequiredMembersAreReported) {
    struct Case {
        const char* json;
        const char* error;
    } const cases[] = {
        {R"({"cbData": "c"})", "missing member 'status'"},
        {R"({"status": "enrolled"})", "missing member 'cbData'"},
        {R"({"status": 5, "cbData": "c"})", "member 'status' does not hold a string"},
        {R"({"status": "s", "cbData": "c", "rpmbReadRequest": {"nonce": "AAECAwQFBgcICQoLDA0ODw==",
             "startBlock": 1}})",
         "missing member 'nrBlocks'"},
        {R"({"status": "s", "cbData": "c", "rpmbReadRequest": {"nonce": "AAECAwQFBgcICQoLDA0ODw==",
             "startBlock": {}, "nrBlocks": 1}})",
         "member 'startBlock' does not hold a value"},
        {R"({"status": "s", "cbData": "c", "rpmbReadRequest": {"nonce": "AAECAwQFBgcICQoLDA0ODw==",
             "startBlock": null, "nrBlocks": 1}})",
         "member 'startBlock' does not hold a value"},
        {R"({"status": "s", "cbData": "c", "rpmbSignAuthorizer": {"hmac": "AA=="}})",
         "missing member 'data'"},
        {R"({"status": "s", "cbData": "c", "hmacRequest": {"nonce": "AQID"}})",
         "missing member 'rsaEncryptedKey'"},
        {R"({"status": "s", "cbData": "c", "hmacRequest": {"nonce": "AQID",
             "rsaEncryptedKey": {"crypted": "AQID"}}})",
         "missing member 'padding'"},
        {R"({"status": "s", "cbData": "c", "enrolledServices": {"aws-iot": {}}})",
         "missing member 'certificate'"},
        {R"([1, 2])", "expected object in JSON but got JsonArray"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.json);
        Doc doc(c.json);
        EnrollResponse response;
        doc.in >> response;
        ASSERT_TRUE(doc.in.failed());
        EXPECT_STREQ(doc.in.getError(), c.error);
    }
}

TEST(EnrollResponseRead, IntegerErrorLeavesTheReaderUsable) {
    // A null integer must not wedge the reader: members after it are still read.
    Doc doc(std::string(R"({"status": "s", "cbData": "c", "rpmbReadRequest": {"nonce": ")") +
            kSeq16 + R"(", "startBlock": null, "nrBlocks": 9}, "hmacRequest": {"nonce": "AQID",
            "rsaEncryptedKey": {"crypted": "AQID", "padding": "P"}}})");
    EnrollResponse response;
    doc.in >> response;
    ASSERT_TRUE(response.rpmbReadRequest);
    EXPECT_EQ(response.rpmbReadRequest->nrBlocks, 9u);
    ASSERT_TRUE(response.hmacRequest);
    EXPECT_EQ(response.hmacRequest->rsaEncryptedKey.padding, "P");
}

TEST(EnrollResponseRead, FixedSizeBytesMustHaveTheirExactSize) {
    for (const size_t length : {15u, 17u, 0u}) {
        SCOPED_TRACE(length);
        Doc doc(std::string(R"({"status": "s", "cbData": "c", "rpmbReadRequest": {"nonce": ")") +
                base64(sequence(length)) + R"(", "startBlock": 1, "nrBlocks": 1}})");
        EnrollResponse response;
        doc.in >> response;
        ASSERT_TRUE(doc.in.failed());
        EXPECT_STREQ(doc.in.getError(), "member 'nonce' is not valid base64 or has wrong length");
    }
    const struct {
        size_t data, hmac;
        const char* error;
    } authorizers[] = {
        {255, 32, "member 'data' is not valid base64 or has wrong length"},
        {256, 33, "member 'hmac' is not valid base64 or has wrong length"},
    };
    for (const auto& a : authorizers) {
        SCOPED_TRACE(a.error);
        Doc doc(R"({"status": "s", "cbData": "c", "rpmbSignAuthorizer": {"data": ")" +
                base64(sequence(a.data)) + R"(", "hmac": ")" + base64(sequence(a.hmac)) + R"("}})");
        EnrollResponse response;
        doc.in >> response;
        ASSERT_TRUE(doc.in.failed());
        EXPECT_STREQ(doc.in.getError(), a.error);
    }
}

TEST(EnrollResponseRead, HmacRequestNonceTakesAnyLength) {
    for (const size_t length : {0u, 15u, 16u, 17u, 64u}) {
        SCOPED_TRACE(length);
        Doc doc(std::string(R"({"status": "s", "cbData": "c", "hmacRequest": {"nonce": ")") +
                base64(sequence(length)) +
                R"(", "rsaEncryptedKey": {"crypted": "AQID", "padding": "P"}}})");
        EnrollResponse response;
        doc.in >> response;
        ASSERT_FALSE(doc.in.failed()) << doc.in.getError();
        ASSERT_TRUE(response.hmacRequest);
        EXPECT_EQ(response.hmacRequest->nonce, sequence(length));
        EXPECT_EQ(response.hmacRequest->rsaEncryptedKey.paddingHash, "");
    }
}

TEST(EnrollResponseRead, PresentPartReplacesAHeldRecord) {
    EnrollResponse response;
    response.hmacRequest = std::make_unique<HMACRequest>();
    response.hmacRequest->rsaEncryptedKey.paddingHash = "stale";
    Doc doc(R"({"status": "s", "cbData": "c", "hmacRequest": {"nonce": "AQID",
        "rsaEncryptedKey": {"crypted": "AQID", "padding": "P"}}})");
    doc.in >> response;
    ASSERT_FALSE(doc.in.failed()) << doc.in.getError();
    ASSERT_TRUE(response.hmacRequest);
    EXPECT_EQ(response.hmacRequest->rsaEncryptedKey.paddingHash, "");
}

TEST(EnrolledServicesRead, WithoutAwsIotYieldsNamesOnly) {
    Doc doc(R"({"status": "enrolled", "cbData": "c",
        "enrolledServices": {"other": {"x": 1}, "b-svc": {}}})");
    EnrollResponse response;
    doc.in >> response;
    ASSERT_FALSE(doc.in.failed()) << doc.in.getError();
    ASSERT_TRUE(response.enrolledServices);
    EXPECT_EQ(response.enrolledServices->names, (std::vector<std::string>{"b-svc", "other"}));
    EXPECT_FALSE(response.enrolledServices->awsIot);
    EXPECT_FALSE(response.enrolledServices->awsIotNode);
}

TEST(EnrolledServicesRead, NamesAreReplacedAndInByteOrder) {
    EnrolledServices services;
    services.names = {"stale"};
    Doc doc(R"({"b": 1, "B": 2, "a": 3, "_": 4})");
    doc.in >> services;
    ASSERT_FALSE(doc.in.failed()) << doc.in.getError();
    EXPECT_EQ(services.names, (std::vector<std::string>{"B", "_", "a", "b"}));
}

// --- error responses --------------------------------------------------------------------

TEST(ErrorResponseRead, ReadsAllMembersWithoutComplaint) {
    LogCapture logs;
    Doc doc(R"({"statusCode": 410, "code": "CallbackDataExpiredException",
        "message": "gone", "time": "2024-01-01T00:00:00Z"})");
    ErrorResponse error;
    doc.in >> error;
    EXPECT_FALSE(doc.in.failed());
    EXPECT_EQ(error.statusCode, 410);
    EXPECT_EQ(error.code, "CallbackDataExpiredException");
    EXPECT_EQ(error.message, "gone");
    EXPECT_EQ(error.time, "2024-01-01T00:00:00Z");
    EXPECT_EQ(logs.countLevel(G_LOG_LEVEL_DEBUG), 0u) << logs.dump();
}

TEST(ErrorResponseRead, NonObjectGivesStatusZeroAndADebugLine) {
    LogCapture logs;
    Doc doc(R"(["not", "an", "object"])");
    ErrorResponse error;
    doc.in >> error;
    EXPECT_EQ(error.statusCode, 0);
    EXPECT_EQ(error.code, "");
    EXPECT_EQ(error.message, "");
    EXPECT_TRUE(logs.logged(G_LOG_LEVEL_DEBUG,
                            "problem parsing error object: expected object in JSON but got "
                            "JsonArray"))
        << logs.dump();
}

TEST(ErrorResponseRead, PartialObjectIsUsedAsFarAsItGoes) {
    LogCapture logs;
    Doc doc(R"({"statusCode": {}, "code": "C", "time": "T"})");
    ErrorResponse error;
    doc.in >> error;
    EXPECT_EQ(error.statusCode, 0);
    EXPECT_EQ(error.code, "C");
    EXPECT_EQ(error.time, "T");
    EXPECT_TRUE(logs.logged(G_LOG_LEVEL_DEBUG,
                            "problem parsing error object: member 'statusCode' does not hold a "
                            "value"))
        << logs.dump();

    // Without "statusCode" the code stays 0 and only the missing string is reported.
    logs.clear();
    Doc noCode(R"({"code": "C", "message": "M"})");
    ErrorResponse second;
    noCode.in >> second;
    EXPECT_EQ(second.statusCode, 0);
    EXPECT_EQ(second.message, "M");
    EXPECT_TRUE(
        logs.logged(G_LOG_LEVEL_DEBUG, "problem parsing error object: missing member 'time'"))
        << logs.dump();
}
