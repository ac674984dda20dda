#include <gtest/gtest.h>

#include <string>

#include "BadEscapes.h"
#include "JsonObjectInput.h"

namespace {

std::string err(const JsonObjectInput& in) {
    return in.getError() ? in.getError() : "";
}

const std::string kParseError = "failed to parse JSON from data buffer: ";

}  // namespace

// (fixed-size members, wrong lengths included, are read through EnrollResponse's nonces)
TEST(JsonObjectInput, Base64Members) {
    JsonObjectInput in(R"({"v": "AAEC/w==", "bad": "AA=B"})", -1);
    std::vector<unsigned char> bytes(6, 9);
    EXPECT_TRUE(in.readMember("v", &bytes, true));
    EXPECT_EQ(bytes, (std::vector<unsigned char>{0, 1, 2, 255}));  // replaced, not appended
    EXPECT_FALSE(in.readMember("bad", &bytes, true));
    EXPECT_EQ(err(in), "member 'bad' is not valid base64");
}

TEST(JsonObjectInputNodes, KeptNodeOutlivesItsReader) {
    GLibPtr<JsonNode> kept;
    {
        JsonObjectInput in(R"({"svc": {"certificate": "PEM", "a": {"b": {"c": 1}}}})", -1);
        ASSERT_TRUE(in.readMember("svc", kept, true));
    }
    // A reader over it must not depend on the caller's node.
    JsonObjectInput in(kept.get());
    kept.reset();
    std::string out;
    ASSERT_TRUE(in.openMemberChild("a", true));
    in.closeMemberChild();
    EXPECT_TRUE(in.readMember("certificate", &out, true)) << err(in);
    EXPECT_EQ(out, "PEM");
}

TEST(JsonObjectInputHostile, OneTopLevelValueAndGoodEscapesOnly) {
    // json-glib's comments run from a slash to the next one: "/*/" is a whole comment
    for (const char* doc :
         {"{}{}", "{\"a\": 1} {\"b\": []}", "[1][2]", "1{}", "/*/{}{}", "/**?/[]{}"})
        EXPECT_EQ(err(JsonObjectInput(doc, -1)),
                  kParseError + "JSON document holds more than one top-level value")
            << doc;
    for (const char* doc : {"{} /* c */", "\xef\xbb\xbf{\"a\": \"}{\"}"})
        EXPECT_FALSE(JsonObjectInput(doc, -1).failed()) << doc;
    // bad "\u" escapes are refused before parsing
    const std::string pair = kParseError + "<data>" + kBadSurrogate;
    for (const char* doc : kBadSurrogateDocuments)
        EXPECT_EQ(err(JsonObjectInput(doc, -1)), pair) << doc;
    const std::string escape =
        kParseError + "<data>:1:3: Parse error: scanner: invalid unicode escape";
    for (const char* doc : {R"(["\u12x4"])", R"(["\u12)", R"(["\u)"})
        EXPECT_EQ(err(JsonObjectInput(doc, -1)), escape) << doc;
    // in a key, on a later line, after an escaped quote, late in a big document
    const std::string big = "{\"a\": \"" + std::string(100000, 'x') + "\",\n \"\\\"\\uDC00\": 1}";
    EXPECT_EQ(err(JsonObjectInput(big.c_str(), -1)),
              kParseError + "<data>:2:5: Parse error: scanner: malformed surrogate pair");

    std::string out;
    JsonObjectInput good(R"({"s": "\uD834\uDD1E\u00e9\\u", "\uDBFF\uDFFF": 'x\uD800'})", -1);
    EXPECT_TRUE(good.readMember("s", &out, true)) << err(good);
    EXPECT_EQ(out, "\U0001D11E\u00e9\\u");
    EXPECT_TRUE(good.checkHasMember("\U0010FFFF", true)) << err(good);
}
