#include <glib/gstdio.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "JsonObjectInput.h"
#include "JsonObjectOutput.h"
#include "LogCapture.h"
#include "TempDir.h"

namespace {

std::string text_of(const JsonObjectOutput& out) {
    const std::unique_ptr<char, GFreeDeleter> text(out.toString());
    return text ? text.get() : "<null>";
}

}  // namespace

TEST(JsonObjectOutput, EmptyRecordAndFinishingOnce) {
    JsonObjectOutput out;
    EXPECT_EQ(text_of(out), "<null>");  // not finished yet
    out.finish();
    EXPECT_EQ(text_of(out), "{}");
    out.finish();  // a second end_object would be refused and latch the failure
    EXPECT_FALSE(out.isFailed());
    EXPECT_EQ(std::string(out), "{}");
}

TEST(JsonObjectOutput, PrettyLayoutAndInsertionOrder) {
    JsonObjectOutput out;
    out.addProperty("zeta", "z");
    out.setMemberName("count");
    out.addValue(-5L);
    out.addProperty("flag", false);
    out.addArrayProperty("list");
    out.addValue("s");
    out.addObjectArrayElement();
    out.addProperty("inner", true);
    out.finishObjectArrayElement();
    out.finishArrayProperty();
    out.addObjectProperty("obj");
    out.finishObjectProperty();
    EXPECT_EQ(std::string(out.finish()),
              "{\n"
              "  \"zeta\" : \"z\",\n"
              "  \"count\" : -5,\n"
              "  \"flag\" : false,\n"
              "  \"list\" : [\n"
              "    \"s\",\n"
              "    {\n"
              "      \"inner\" : true\n"
              "    }\n"
              "  ],\n"
              "  \"obj\" : {  }\n"
              "}");
}

TEST(JsonObjectOutput, NullsAndBytes) {
    const unsigned char bytes[] = {0, 1, 2, 255};
    JsonObjectOutput out;
    out.addProperty("nothing", static_cast<const char*>(nullptr));
    out.addProperty("empty", bytes, 0);
    out.addProperty("none", static_cast<const unsigned char*>(nullptr), 4);
    out.addProperty("data", bytes, sizeof bytes);
    out.setMemberName("node");
    out.addValue(GLibPtr<JsonNode>(json_node_init_int(json_node_alloc(), 12)));
    out.finish();
    const std::string text = out;

    const GLibPtr<JsonParser> parser(json_parser_new());
    ASSERT_TRUE(json_parser_load_from_data(parser.get(), text.c_str(), -1, nullptr)) << text;
    JsonObject* object = json_node_get_object(json_parser_get_root(parser.get()));
    EXPECT_TRUE(json_object_get_null_member(object, "nothing"));
    EXPECT_STREQ(json_object_get_string_member(object, "empty"), "");
    EXPECT_TRUE(json_object_get_null_member(object, "none"));
    EXPECT_STREQ(json_object_get_string_member(object, "data"), "AAEC/w==");
    EXPECT_EQ(json_object_get_int_member(object, "node"), 12);
}

TEST(JsonObjectOutput, RefusedStepsLatchTheFailure) {
    LogCapture log;  // json-glib reports the refusals as criticals of its own
    {
        JsonObjectOutput out;
        out.finish();
        out.addProperty("late", "x");
        EXPECT_TRUE(out.isFailed());
        EXPECT_EQ(text_of(out), "<null>");
        EXPECT_FALSE(out.createGenerator());
    }
    {
        JsonObjectOutput out;
        out.addValue("value without a name");
        out.addProperty("fine", "y");
        out.finish();
        EXPECT_TRUE(out.isFailed());
        EXPECT_EQ(std::string(out), "");
    }
    {
        // an object property left open: finish() closes it instead of the top level
        JsonObjectOutput out;
        out.addObjectProperty("open");
        out.finish();
        EXPECT_EQ(text_of(out), "<null>");
    }
    {
        JsonObjectOutput out;
        out.addArrayProperty("open");
        out.finish();
        EXPECT_EQ(text_of(out), "<null>");
    }
}

TEST(JsonObjectOutput, SaveReportsBadStateAndWriteErrors) {
    const TempDir tmp;
    const std::string path = tmp.file("doc.json");

    JsonObjectOutput out;
    out.addProperty("k", "v");
    std::string error = "unchanged";
    EXPECT_FALSE(out.save(path.c_str(), &error));
    EXPECT_EQ(error, "bad JsonObjectOutput state");
    EXPECT_FALSE(out.save(path.c_str(), nullptr));
    EXPECT_FALSE(g_file_test(path.c_str(), G_FILE_TEST_EXISTS));

    out.finish();
    error.clear();
    EXPECT_TRUE(out.save(path.c_str(), &error));
    EXPECT_TRUE(error.empty());
    JsonObjectInput in(path.c_str());
    std::string value;
    EXPECT_TRUE(in.readMember("k", &value, true));
    EXPECT_EQ(value, "v");

    const std::string unwritable = tmp.file("missing/doc.json");
    EXPECT_FALSE(out.save(unwritable.c_str(), &error));
    EXPECT_FALSE(error.empty());
    EXPECT_NE(error, "bad JsonObjectOutput state");
}

TEST(JsonObjectOutput, StreamOutput) {
    JsonObjectOutput out;
    out.addProperty("k", "v");
    std::ostringstream unfinished;
    unfinished << out;
    EXPECT_TRUE(unfinished.bad());
    EXPECT_EQ(unfinished.str(), "\n");

    out.finish();
    std::ostringstream finished;
    finished << out;
    EXPECT_TRUE(finished.good());
    EXPECT_EQ(finished.str(), "{\n  \"k\" : \"v\"\n}\n");
}

TEST(JsonObjectOutput, RoundTripThroughTheReader) {
    const unsigned char key[32] = {1, 2, 3};
    JsonObjectOutput out;
    out.addProperty("name", "device \"one\"");
    out.addProperty("key", key, sizeof key);
    out.addArrayProperty("protocols");
    out.addValue("noauth-csr");
    out.addValue("tpm2-authkey-csr");
    out.finishArrayProperty();
    const std::string text = out.finish();

    JsonObjectInput in(text.c_str(), -1);
    std::string name;
    unsigned char read_key[32] = {};
    EXPECT_TRUE(in.readMember("name", &name, true));
    EXPECT_TRUE(in.readMember("key", read_key, sizeof read_key, true));
    ASSERT_TRUE(in.openMemberChild("protocols", true));
    std::string second;
    EXPECT_TRUE(in.readElement(1, &second, true));
    in.closeMemberChild();
    EXPECT_FALSE(in.failed()) << in.getError();
    EXPECT_EQ(name, "device \"one\"");
    EXPECT_EQ(memcmp(key, read_key, sizeof key), 0);
    EXPECT_EQ(second, "tpm2-authkey-csr");
}
