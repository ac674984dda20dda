#include <glib/gstdio.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "JsonObjectInput.h"
#include "LogCapture.h"
#include "TempDir.h"

namespace {

std::string error_of(const JsonObjectInput& in) {
    return in.getError() ? in.getError() : "";
}

// A parsed tree that outlives the reader only as long as the test wants it to.
GLibPtr<JsonNode> parse(const char* text) {
    const GLibPtr<JsonParser> parser(json_parser_new());
    EXPECT_TRUE(json_parser_load_from_data(parser.get(), text, -1, nullptr)) << text;
    return GLibPtr<JsonNode>::ref(json_parser_get_root(parser.get()));
}

}  // namespace

TEST(JsonObjectInputConstruct, BufferParseFailureAndEmptyBuffer) {
    JsonObjectInput bad("{\"a\": ", -1);
    EXPECT_TRUE(bad.failed());
    EXPECT_EQ(error_of(bad).rfind("failed to parse JSON from data buffer: ", 0), 0u)
        << error_of(bad);
    std::string out = "kept";
    EXPECT_FALSE(bad.readMember("a", &out, true));
    EXPECT_EQ(out, "kept");
    // the parse message stays the only one
    EXPECT_EQ(error_of(bad).rfind("failed to parse JSON from data buffer: ", 0), 0u);

    JsonObjectInput empty("", 0);
    EXPECT_EQ(error_of(empty), "JSON data buffer is empty");
    EXPECT_FALSE(empty.readMember("a", &out, false));
    EXPECT_EQ(error_of(empty), "JSON data buffer is empty");

    // the length bounds the buffer: the text after it is not parsed
    JsonObjectInput cut("{\"a\":\"x\"} garbage", 9);
    EXPECT_FALSE(cut.failed()) << error_of(cut);
    EXPECT_TRUE(cut.readMember("a", &out, true));
    EXPECT_EQ(out, "x");
}

TEST(JsonObjectInputConstruct, FileConstructorMessages) {
    const TempDir tmp;
    const std::string missing = tmp.file("missing.json");
    JsonObjectInput none(missing.c_str());
    EXPECT_EQ(error_of(none).rfind("failed to parse JSON from file " + missing + ": ", 0), 0u)
        << error_of(none);

    const std::string empty = tmp.write("empty.json", "");
    JsonObjectInput blank(empty.c_str());
    EXPECT_EQ(error_of(blank), "JSON file " + empty + " is empty");

    const std::string good = tmp.write("good.json", "{\"k\": [\"v\"]}");
    JsonObjectInput in(good.c_str());
    std::string value;
    ASSERT_TRUE(in.openMemberChild("k", true));
    EXPECT_TRUE(in.readElement(0, &value, true));
    in.closeMemberChild();
    EXPECT_EQ(value, "v");
    EXPECT_FALSE(in.failed());
}

TEST(JsonObjectInputConstruct, NullRootIsAProgrammingError) {
    LogCapture log;
    JsonObjectInput in(static_cast<JsonNode*>(nullptr));
    EXPECT_TRUE(log.logged(G_LOG_LEVEL_CRITICAL,
                           "JsonObjectInput::JsonObjectInput(JsonNode*): assertion '!!jroot' "
                           "failed"))
        << log.dump();
    EXPECT_FALSE(in.failed());
    std::string out;
    EXPECT_FALSE(in.readMember("a", &out, false));
    EXPECT_EQ(error_of(in), "expected object in JSON but got no node");
}

TEST(JsonObjectInputConstruct, NodeConstructorCopiesTheCallersTree) {
    GLibPtr<JsonNode> root = parse("{\"a\": {\"b\": \"c\"}}");
    JsonObjectInput in(root.get());
    root.reset();  // the reader must not depend on the caller's nodes
    std::string out;
    ASSERT_TRUE(in.openMemberChild("a", true));
    EXPECT_TRUE(in.readMember("b", &out, true));
    in.closeMemberChild();
    EXPECT_EQ(out, "c");
}

TEST(JsonObjectInputMembers, OptionalAndRequiredMissingMembers) {
    JsonObjectInput in("{\"present\": \"yes\"}", -1);
    std::string out = "untouched";
    EXPECT_FALSE(in.readMember("absent", &out, false));
    EXPECT_FALSE(in.failed());
    EXPECT_FALSE(in.checkHasMember("absent", false));
    EXPECT_FALSE(in.failed());
    EXPECT_FALSE(in.openMemberChild("absent", false));
    EXPECT_FALSE(in.failed());
    EXPECT_EQ(out, "untouched");

    EXPECT_FALSE(in.readMember("absent", &out, true));
    EXPECT_EQ(error_of(in), "missing member 'absent'");
    // reading goes on after the error
    EXPECT_TRUE(in.readMember("present", &out, true));
    EXPECT_EQ(out, "yes");
}

TEST(JsonObjectInputMembers, TypeErrorLeavesTheReaderOnTheParent) {
    JsonObjectInput in(R"({"n": null, "o": {"x": "y"}, "a": [1], "i": 3, "s": "text"})", -1);
    std::string out;
    EXPECT_FALSE(in.readMember("n", &out, true));
    EXPECT_EQ(error_of(in), "member 'n' does not hold a string");
    for (const char* name : {"o", "a", "i"})
        EXPECT_FALSE(in.readMember(name, &out, true)) << name;
    EXPECT_TRUE(in.readMember("s", &out, true));
    EXPECT_EQ(out, "text");
    EXPECT_TRUE(in.checkIsObject());
    EXPECT_EQ(in.getMembers().size(), 5u);
    EXPECT_EQ(error_of(in), "member 'n' does not hold a string");
}

TEST(JsonObjectInputMembers, BooleanConversions) {
    JsonObjectInput in(
        R"({"t": true, "f": false, "one": 1, "zero": 0, "str": "true", "nul": null,
            "obj": {}, "arr": [], "last": true})",
        -1);
    struct Case {
        const char* name;
        bool expected;
    };
    for (const Case& c : {Case{"t", true}, Case{"f", false}, Case{"one", true}, Case{"zero", false},
                          Case{"str", false}, Case{"nul", false}}) {
        bool value = !c.expected;
        EXPECT_TRUE(in.readMember(c.name, &value, true)) << c.name;
        EXPECT_EQ(value, c.expected) << c.name;
    }
    EXPECT_FALSE(in.failed()) << error_of(in);

    bool value = true;
    EXPECT_FALSE(in.readMember("obj", &value, true));
    EXPECT_EQ(error_of(in), "member 'obj' does not hold a value");
    EXPECT_FALSE(in.readMember("arr", &value, true));
    EXPECT_TRUE(value);
    // the null member did not leave the reader inside it
    EXPECT_TRUE(in.readMember("last", &value, true));
    EXPECT_EQ(error_of(in), "member 'obj' does not hold a value");
}

TEST(JsonObjectInputMembers, ByteVectors) {
    JsonObjectInput in(
        R"({"ok": "AAEC/w==", "empty": "", "bad": "AA=B", "chars": "AA!A", "num": 5})", -1);
    std::vector<unsigned char> bytes = {9, 9, 9, 9, 9, 9};
    EXPECT_TRUE(in.readMember("ok", &bytes, true));
    EXPECT_EQ(bytes, (std::vector<unsigned char>{0, 1, 2, 255}));  // replaced, not appended
    EXPECT_TRUE(in.readMember("empty", &bytes, true));
    EXPECT_TRUE(bytes.empty());
    EXPECT_FALSE(in.failed());

    bytes = {7};
    EXPECT_FALSE(in.readMember("bad", &bytes, true));
    EXPECT_EQ(error_of(in), "member 'bad' is not valid base64");
    EXPECT_FALSE(in.readMember("chars", &bytes, true));
    EXPECT_FALSE(in.readMember("num", &bytes, true));
    EXPECT_EQ(bytes, std::vector<unsigned char>{7});

    JsonObjectInput typed(R"({"num": 5})", -1);
    EXPECT_FALSE(typed.readMember("num", &bytes, true));
    EXPECT_EQ(error_of(typed), "member 'num' does not hold a string");
}

TEST(JsonObjectInputMembers, FixedSizeBytesMustMatchExactly) {
    // 32 bytes, 31 bytes and 33 bytes of 0x41
    const std::string b32(reinterpret_cast<const char*>(
        std::unique_ptr<char, GFreeDeleter>(
            g_base64_encode(reinterpret_cast<const guchar*>(std::string(32, 'A').data()), 32))
            .get()));
    const std::unique_ptr<char, GFreeDeleter> b31(
        g_base64_encode(reinterpret_cast<const guchar*>(std::string(31, 'A').data()), 31));
    const std::unique_ptr<char, GFreeDeleter> b33(
        g_base64_encode(reinterpret_cast<const guchar*>(std::string(33, 'A').data()), 33));
    const std::string doc = std::string("{\"k32\": \"") + b32 + "\", \"k31\": \"" + b31.get() +
                            "\", \"k33\": \"" + b33.get() + "\", \"bad\": \"####\", \"n\": 1}";
    JsonObjectInput in(doc.c_str(), -1);

    unsigned char buffer[32];
    memset(buffer, 0x11, sizeof buffer);
    EXPECT_TRUE(in.readMember("k32", buffer, sizeof buffer, true));
    EXPECT_EQ(buffer[0], 'A');
    EXPECT_EQ(buffer[31], 'A');
    EXPECT_FALSE(in.failed());

    memset(buffer, 0x11, sizeof buffer);
    EXPECT_FALSE(in.readMember("k31", buffer, sizeof buffer, true));
    EXPECT_EQ(error_of(in), "member 'k31' is not valid base64 or has wrong length");
    EXPECT_FALSE(in.readMember("k33", buffer, sizeof buffer, true));
    EXPECT_FALSE(in.readMember("bad", buffer, sizeof buffer, true));
    for (unsigned char b : buffer)
        ASSERT_EQ(b, 0x11);  // untouched by every failed read

    JsonObjectInput typed(doc.c_str(), -1);
    EXPECT_FALSE(typed.readMember("n", buffer, sizeof buffer, true));
    EXPECT_EQ(error_of(typed), "member 'n' does not hold a string");
}

TEST(JsonObjectInputMembers, FirstErrorWinsAndAddErrorTakesOwnership) {
    JsonObjectInput in(R"({"a": 1})", -1);
    in.addError(g_strdup("first"));
    std::string out;
    EXPECT_FALSE(in.readMember("missing", &out, true));
    in.addError(g_strdup("third"));
    EXPECT_EQ(error_of(in), "first");
}

TEST(JsonObjectInputMembers, IntegersThroughTheRawReader) {
    JsonObjectInput in(R"({"count": 42, "name": "n"})", -1);
    JsonReader* reader = in.getReader();
    ASSERT_TRUE(json_reader_read_member(reader, "count"));
    EXPECT_EQ(json_reader_get_int_value(reader), 42);
    json_reader_end_member(reader);
    std::string name;
    EXPECT_TRUE(in.readMember("name", &name, true));
    EXPECT_EQ(name, "n");
}

TEST(JsonObjectInputContexts, MembersLengthsAndTypeNames) {
    JsonObjectInput in(R"({"b": 1, "a": [10, 20, 30], "c": {"z": 1, "y": 2}})", -1);
    EXPECT_EQ(in.getMembers(), (std::set<std::string>{"a", "b", "c"}));
    EXPECT_EQ(in.getArrayLength(), 0u);
    EXPECT_EQ(error_of(in), "expected array in JSON but got JsonObject");

    JsonObjectInput arrays(R"({"a": [10, 20, 30], "s": "x"})", -1);
    ASSERT_TRUE(arrays.openMemberChild("a", true));
    EXPECT_EQ(arrays.getArrayLength(), 3u);
    EXPECT_TRUE(arrays.checkHasElement(2, true));
    EXPECT_FALSE(arrays.checkHasElement(3, false));
    EXPECT_FALSE(arrays.failed());
    EXPECT_TRUE(arrays.getMembers().empty());
    EXPECT_EQ(error_of(arrays), "expected object in JSON but got JsonArray");
    arrays.closeMemberChild();

    JsonObjectInput scalars(R"({"s": "x", "i": 1, "n": null})", -1);
    ASSERT_TRUE(scalars.openMemberChild("s", true));
    EXPECT_FALSE(scalars.checkIsObject());
    scalars.closeMemberChild();
    ASSERT_TRUE(scalars.openMemberChild("n", true));
    EXPECT_FALSE(scalars.checkIsArray());
    scalars.closeMemberChild();
    EXPECT_EQ(error_of(scalars), "expected object in JSON but got String");
    EXPECT_TRUE(scalars.checkIsObject());
}

TEST(JsonObjectInputContexts, ElementsAndNestedChildren) {
    JsonObjectInput in(R"({"list": ["a", 2, {"deep": {"deeper": ["x", "y"]}}], "after": "ok"})",
                       -1);
    ASSERT_TRUE(in.openMemberChild("list", true));
    std::string out;
    EXPECT_TRUE(in.readElement(0, &out, true));
    EXPECT_EQ(out, "a");
    EXPECT_FALSE(in.readElement(1, &out, true));
    EXPECT_EQ(error_of(in), "array element 1 does not hold a string");
    EXPECT_FALSE(in.readElement(9, &out, false));
    EXPECT_FALSE(in.openElementChild(9, false));
    ASSERT_TRUE(in.openElementChild(2, true));
    ASSERT_TRUE(in.openMemberChild("deep", true));
    ASSERT_TRUE(in.openMemberChild("deeper", true));
    EXPECT_TRUE(in.readElement(1, &out, true));
    EXPECT_EQ(out, "y");
    in.closeMemberChild();
    in.closeMemberChild();
    in.closeElementChild();
    EXPECT_EQ(in.getArrayLength(), 3u);
    in.closeMemberChild();
    // three levels down and back: the reader is on the root again
    EXPECT_TRUE(in.readMember("after", &out, true));
    EXPECT_EQ(out, "ok");
    EXPECT_EQ(error_of(in), "array element 1 does not hold a string");

    JsonObjectInput bounds(R"({"l": []})", -1);
    ASSERT_TRUE(bounds.openMemberChild("l", true));
    EXPECT_FALSE(bounds.readElement(0, &out, true));
    EXPECT_EQ(error_of(bounds), "array element 0 is out of bounds");
    bounds.closeMemberChild();
}

TEST(JsonObjectInputContexts, NestedReadsOfBuiltAndCopiedTrees) {
    // Trees made by JsonBuilder have no parent links, and copies of subtrees keep links to
    // nodes that may be gone; both must read like parsed documents.
    const GLibPtr<JsonBuilder> builder(json_builder_new());
    json_builder_begin_object(builder.get());
    json_builder_set_member_name(builder.get(), "a");
    json_builder_begin_object(builder.get());
    json_builder_set_member_name(builder.get(), "b");
    json_builder_begin_object(builder.get());
    json_builder_set_member_name(builder.get(), "c");
    json_builder_add_string_value(builder.get(), "deep");
    json_builder_end_object(builder.get());
    json_builder_end_object(builder.get());
    json_builder_set_member_name(builder.get(), "z");
    json_builder_add_string_value(builder.get(), "top");
    json_builder_end_object(builder.get());
    const GLibPtr<JsonNode> built(json_builder_get_root(builder.get()));

    GLibPtr<JsonNode> subtree;
    {
        JsonObjectInput outer(R"({"wrap": {"a": {"b": {"c": "deep"}}, "z": "top"}})", -1);
        ASSERT_TRUE(outer.readMember("wrap", subtree, true));
    }
    for (JsonNode* node : {built.get(), subtree.get()}) {
        JsonObjectInput in(node);
        std::string out;
        ASSERT_TRUE(in.openMemberChild("a", true));
        ASSERT_TRUE(in.openMemberChild("b", true));
        EXPECT_TRUE(in.readMember("c", &out, true));
        in.closeMemberChild();
        in.closeMemberChild();
        EXPECT_TRUE(in.readMember("z", &out, true)) << error_of(in);
        EXPECT_EQ(out, "top");
        EXPECT_FALSE(in.failed()) << error_of(in);
    }
}

TEST(JsonObjectInputNodes, MemberAndElementNodes) {
    JsonObjectInput in(R"({"cfg": {"k": [1, 2]}, "list": [{"id": "x"}, null], "v": 7})", -1);
    GLibPtr<JsonNode> node;
    ASSERT_TRUE(in.readMember("cfg", node, true));
    ASSERT_TRUE(JSON_NODE_HOLDS_OBJECT(node.get()));
    EXPECT_TRUE(json_object_has_member(json_node_get_object(node.get()), "k"));
    ASSERT_TRUE(in.readMember("v", node, true));
    EXPECT_EQ(json_node_get_int(node.get()), 7);

    ASSERT_TRUE(in.openMemberChild("list", true));
    ASSERT_TRUE(in.readElement(1, node, true));
    EXPECT_TRUE(JSON_NODE_HOLDS_NULL(node.get()));
    ASSERT_TRUE(in.readElement(0, node, true));
    EXPECT_STREQ(json_object_get_string_member(json_node_get_object(node.get()), "id"), "x");
    EXPECT_FALSE(in.readElement(2, node, false));
    in.closeMemberChild();
    EXPECT_FALSE(in.readMember("gone", node, false));
    EXPECT_FALSE(in.failed()) << error_of(in);
    EXPECT_TRUE(JSON_NODE_HOLDS_OBJECT(node.get()));  // failed lookups keep the old node
}

TEST(JsonObjectInputNodes, KeptNodeOutlivesItsReader) {
    GLibPtr<JsonNode> kept;
    {
        JsonObjectInput in(R"({"svc": {"certificate": "PEM", "a": {"b": {"c": 1}}}})", -1);
        ASSERT_TRUE(in.readMember("svc", kept, true));
    }
    // A reader of the kept node steps back out through its own parent links.
    const GLibPtr<JsonReader> reader(json_reader_new(kept.get()));
    for (const char* name : {"a", "b", "c"})
        ASSERT_TRUE(json_reader_read_member(reader.get(), name)) << name;
    EXPECT_EQ(json_reader_get_int_value(reader.get()), 1);
    for (int i = 0; i < 3; ++i)
        json_reader_end_member(reader.get());
    ASSERT_TRUE(json_reader_read_member(reader.get(), "certificate"));
    EXPECT_STREQ(json_reader_get_string_value(reader.get()), "PEM");
}

TEST(JsonObjectInputNodes, OddMemberNamesFailThePathLookup) {
    for (const char* doc : {R"({"it's": 1})", R"({"a']b": 1})", R"({"x']['y": 1})"}) {
        LogCapture log;
        JsonObjectInput in(doc, -1);
        const std::string name = *in.getMembers().begin();
        GLibPtr<JsonNode> node(json_node_new(JSON_NODE_NULL));
        JsonNode* before = node.get();
        EXPECT_FALSE(in.readMember(name.c_str(), node, true)) << doc;
        EXPECT_EQ(node.get(), before);
        EXPECT_EQ(error_of(in).rfind("internal error: ", 0), 0u) << error_of(in);
        const bool none = log.logged(G_LOG_LEVEL_CRITICAL,
                                     "JSON path lookup unexpectedly returned multiple or no "
                                     "results");
        const bool broken =
            log.loggedPrefix(G_LOG_LEVEL_CRITICAL, "unexpected JSON path lookup failure: ");
        EXPECT_TRUE(none || broken) << log.dump();
        // the plain reads do not go by path and still work
        bool flag = false;
        EXPECT_TRUE(in.readMember(name.c_str(), &flag, true));
        EXPECT_TRUE(flag);
    }
}

TEST(JsonObjectInputHostile, DeepNestingIsRefusedWithoutCrashing) {
    for (const char* unit : {"[", "{\"a\":", "[{\"a\":"}) {
        std::string doc;
        for (int i = 0; i < 100000; ++i)
            doc += unit;
        JsonObjectInput in(doc.c_str(), static_cast<long>(doc.size()));
        EXPECT_TRUE(in.failed());
        EXPECT_EQ(error_of(in).rfind("failed to parse JSON from data buffer: ", 0), 0u);
    }
    // brackets hidden in strings and comments are no nesting; closers there do not count
    std::string decoy = "{\"s\": \"";
    decoy += std::string(2000, ']') + "\", \"t\": '" + std::string(2000, '[') + "'}";
    JsonObjectInput strings(decoy.c_str(), -1);
    EXPECT_FALSE(strings.failed()) << error_of(strings);

    std::string sneaky = "[\"" + std::string(600, ']') + "\"";
    for (int i = 0; i < 600; ++i)
        sneaky += ",[";
    JsonObjectInput refused(sneaky.c_str(), -1);
    EXPECT_TRUE(refused.failed());

    // moderate nesting is fine
    std::string ok;
    for (int i = 0; i < 100; ++i)
        ok += "{\"a\":";
    ok += "1" + std::string(100, '}');
    JsonObjectInput fine(ok.c_str(), -1);
    EXPECT_FALSE(fine.failed()) << error_of(fine);
}

TEST(JsonObjectInputHostile, OnlyOneTopLevelValue) {
    // json-glib would take the first value, drop the rest and leak it.
    for (const char* doc : {"{}{}", "{\"a\": 1} {\"b\": []}", "[1][2]", "\"x\"{}", "1{}"}) {
        JsonObjectInput in(doc, -1);
        EXPECT_EQ(error_of(in),
                  "failed to parse JSON from data buffer: JSON document holds more "
                  "than one top-level value")
            << doc;
    }
    for (const char* doc :
         {"{} /* trailing comment */", "\xef\xbb\xbf{\"a\": \"}{\"}", " [ {} ] "}) {
        JsonObjectInput in(doc, -1);
        EXPECT_FALSE(in.failed()) << doc << ": " << error_of(in);
    }
}

TEST(JsonObjectInputHostile, HugeArraysAndWrongShapes) {
    std::string doc = "{\"l\": [";
    for (int i = 0; i < 200000; ++i)
        doc += i ? ",1" : "1";
    doc += "]}";
    JsonObjectInput in(doc.c_str(), -1);
    ASSERT_TRUE(in.openMemberChild("l", true));
    EXPECT_EQ(in.getArrayLength(), 200000u);
    std::string out;
    EXPECT_FALSE(in.readElement(199999, &out, true));
    EXPECT_EQ(error_of(in), "array element 199999 does not hold a string");
    in.closeMemberChild();

    for (const char* root : {"[]", "\"text\"", "42", "null"}) {
        JsonObjectInput shape(root, -1);
        EXPECT_FALSE(shape.readMember("a", &out, false)) << root;
        EXPECT_EQ(error_of(shape).rfind("expected object in JSON but got ", 0), 0u) << root;
    }
}
