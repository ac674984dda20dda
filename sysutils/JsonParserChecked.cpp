#include "JsonParserChecked.h"

#include <cstring>

#include "GLibPtr.h"

namespace {

// No document of this system comes near these bounds; see kJsonMaxNesting. The bracket
// count caps the parser's recursion even where the scan below misjudges strings or
// comments, because no document can nest deeper than it has brackets.
constexpr size_t kJsonMaxBrackets = 8192;

// Scans the text the way json-glib's scanner splits it into strings ("..." with escapes,
// '...' without), comments (from a slash to the next one, across lines) and structure, and
// returns the text of the reason when the parser must not see it: brackets that could nest
// too deeply for its recursion, or an object or array after the top-level value, which
// json-glib accepts, ignores and leaks (other trailing values it refuses itself).
const char* structure_problem(const char* data, size_t length) {
    unsigned depth = 0;
    bool top_value_seen = false;
    for (size_t i = 0; i < length; ++i) {
        const char c = data[i];
        switch (c) {
            case '"':
                for (++i; i < length && data[i] != '"'; ++i) {
                    if (data[i] == '\\')
                        ++i;
                }
                top_value_seen = true;
                break;
            case '\'':
                for (++i; i < length && data[i] != '\''; ++i) {
                }
                top_value_seen = true;
                break;
            case '/':
                // json-glib knows no "/*...*/" comments: "/*/" is a whole one.
                for (++i; i < length && data[i] != '/'; ++i) {
                }
                break;
            case '[':
            case '{':
                if (depth == 0 && top_value_seen)
                    return "JSON document holds more than one top-level value";
                if (++depth > kJsonMaxNesting)
                    return "JSON values are nested too deeply";
                break;
            case ']':
            case '}':
                if (depth > 0 && --depth == 0)
                    top_value_seen = true;
                break;
            default:
                // The start of a number or a literal; a byte order mark is no value.
                if (g_ascii_isalnum(c) || c == '-')
                    top_value_seen = true;
                break;
        }
    }
    size_t brackets = 0;
    for (size_t i = 0; i < length; ++i) {
        if (data[i] == '[' || data[i] == '{')
            ++brackets;
    }
    return brackets > kJsonMaxBrackets ? "JSON document holds too many brackets" : nullptr;
}

bool check_structure(const char* data, size_t length, GError** error) {
    const char* problem = structure_problem(data, length);
    if (!problem)
        return true;
    g_set_error_literal(error, JSON_PARSER_ERROR, JSON_PARSER_ERROR_PARSE, problem);
    return false;
}

}  // namespace

bool json_parser_load_data_checked(JsonParser* parser, const char* data, long length,
                                   GError** error) {
    if (data && !check_structure(data, length < 0 ? strlen(data) : length, error))
        return false;
    return json_parser_load_from_data(parser, data, length, error);
}

bool json_parser_load_file_checked(JsonParser* parser, const char* path, GError** error) {
    char* raw = nullptr;
    gsize length = 0;
    // An unreadable file is left to the parser, which reports it in its own words.
    if (g_file_get_contents(path, &raw, &length, nullptr)) {
        const GCharPtr contents(raw);
        if (!check_structure(contents.get(), length, error))
            return false;
    }
    return json_parser_load_from_file(parser, path, error);
}
