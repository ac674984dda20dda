#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "JsonExact.h"

namespace {

// Empty when both texts parse and hold the same values; otherwise the reason.
std::string compare(const std::string& a, const std::string& b) {
    JsonExact first, second;
    std::string why;
    if (!json_exact_parse(a.data(), a.size(), &first, &why) ||
        !json_exact_parse(b.data(), b.size(), &second, &why) ||
        !json_exact_same(first, second, &why))
        return why.empty() ? "no reason" : why;
    return "";
}

}  // namespace

// The same values in other spellings are equal; what json-glib loses differs.
TEST(JsonExact, SameValuesOnly) {
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {R"([1.5, 1e2, "\u00e9\/\uD834\uDD1E", {"a": 1, "b": 2, "a": [3]}])",
         "\xef\xbb\xbf[1.50,100.0,\"\xc3\xa9/\xf0\x9d\x84\x9e\",{\"b\":2,\"a\":[3]}]", ""},
        {"0.1", "0.10000000000000001", ""},
        {"[-0, -0.0]", "[0, 0.0]", ""},
        {R"({"n": 100000000000000000000})", R"({"n": -1})",
         "$['n']: 100000000000000000000 against -1"},
        {R"(["a\u0000b"])", R"(["a"])", R"($[0]: "a\u0000b" against "a")"},
        {"[1e-400]", "[0.0]", "$[0]: 1e-400 against 0.0"},
        {"[1]", "[1.0]", "$[0]: 1 against 1.0"},
        {R"({"a": 1})", R"({"b": 1})", "$: member 'a' is not in both"},
        {"[1]", "[1, 2]", "$: length 1 against 2"},
        {"1", "1e+20.0", "unexpected text after the value at offset 5"},
        {"1", "inf.0", "invalid number at offset 0"},
        {"1", "{\"a\": 1,}", "member name expected at offset 8"},
        {"1", "['x']", "invalid number at offset 1"},
    };
    for (const auto& [a, b, why] : rows)
        EXPECT_EQ(compare(a, b), why) << b;
}
