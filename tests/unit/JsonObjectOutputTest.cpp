#include <gtest/gtest.h>

#include <string>

#include "JsonObjectOutput.h"
#include "LogCapture.h"
#include "TempDir.h"

TEST(JsonObjectOutput, NoOutputUnlessFinishedWithoutFailure) {
    LogCapture log;  // json-glib reports the refused steps as criticals of its own
    JsonObjectOutput unfinished, refused, open;
    unfinished.addProperty("k", "v");
    refused.addValue("value without a name");
    refused.addProperty("fine", "y");  // accepted, but the failure stays latched
    refused.finish();
    open.addObjectProperty("open");
    open.finish();  // closes the open property instead of the top level
    EXPECT_TRUE(refused.isFailed());

    const TempDir tmp;
    for (const JsonObjectOutput* out : {&unfinished, &refused, &open}) {
        std::string error;
        EXPECT_FALSE((GCharPtr(out->toString())));
        EXPECT_EQ(std::string(*out), "");
        EXPECT_FALSE(out->save(tmp.file("doc.json").c_str(), &error));
        EXPECT_EQ(error, "bad JsonObjectOutput state");
    }
    EXPECT_FALSE(g_file_test(tmp.file("doc.json").c_str(), G_FILE_TEST_EXISTS));
}

TEST(JsonObjectOutput, NullTextAndBytes) {
    const unsigned char bytes[] = {0, 1, 2, 255};
    JsonObjectOutput out;
    out.addProperty("nothing", static_cast<const char*>(nullptr));
    out.addProperty("empty", bytes, 0);
    out.addProperty("none", static_cast<const unsigned char*>(nullptr), 4);
    out.addProperty("data", bytes, sizeof bytes);
    EXPECT_EQ(std::string(out.finish()),
              "{\n  \"nothing\" : null,\n  \"empty\" : \"\",\n  \"none\" : null,\n"
              "  \"data\" : \"AAEC/w==\"\n}");
}
