#include "JsonParserChecked.h"

#include <cstring>

#include "GLibPtr.h"

namespace {

// No document of this system comes near these bounds; see kJsonMaxNesting. The bracket
// count caps the parser's recursion even where the scan below misjudges strings or
// comments, because no document can nest deeper than it has brackets.
constexpr size_t kJsonMaxBrackets = 8192;

// Where a document was refused and why, for a message in the parser's own words.
struct Problem {
    const char* text = nullptr;
    size_t offset = 0;  // of the refused character; only for `scanner` problems
    bool scanner = false;
};

// The code unit of the four hex digits at `at`, or -1 when the text ends or a digit is
// not hex.
long hex4(const char* data, size_t length, size_t at) {
    if (length < 4 || at > length - 4)
        return -1;
    long unit = 0;
    for (size_t i = at; i < at + 4; ++i) {
        const int digit = g_ascii_xdigit_value(data[i]);
        if (digit < 0)
            return -1;
        unit = unit * 16 + digit;
    }
    return unit;
}

bool is_high_surrogate(long unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool is_low_surrogate(long unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

// Checks the "\u" escape whose backslash is at `at` and returns the offset of its last
// character. json-glib's scanner leaks its string buffer on a malformed surrogate pair and
// reads a short or non-hex escape as something else, so both are refused here.
const char* unicode_escape_problem(const char* data, size_t length, size_t at, size_t* last) {
    const long unit = hex4(data, length, at + 2);
    if (unit < 0)
        return "invalid unicode escape";
    *last = at + 5;
    if (is_low_surrogate(unit))
        return "malformed surrogate pair";
    if (!is_high_surrogate(unit))
        return nullptr;
    const bool escaped = at + 7 < length && data[at + 6] == '\\' && data[at + 7] == 'u';
    if (!escaped || !is_low_surrogate(hex4(data, length, at + 8)))
        return "malformed surrogate pair";
    *last = at + 11;
    return nullptr;
}

// Scans a double-quoted string from its opening quote at `*i`, leaving `*i` on its closing
// quote (or at the end of the text).
Problem string_problem(const char* data, size_t length, size_t* i) {
    for (++*i; *i < length && data[*i] != '"'; ++*i) {
        if (data[*i] != '\\')
            continue;
        if (*i + 1 < length && data[*i + 1] == 'u') {
            size_t last = *i;
            if (const char* problem = unicode_escape_problem(data, length, *i, &last))
                return {problem, *i, true};
            *i = last;
        } else {
            ++*i;
        }
    }
    return {};
}

// Scans the text the way json-glib's scanner splits it into strings ("..." with escapes,
// '...' without), comments (from a slash to the next one, across lines) and structure, and
// returns the reason when the parser must not see it: brackets that could nest too deeply
// for its recursion, an object or array after the top-level value, which json-glib accepts,
// ignores and leaks (other trailing values it refuses itself), or a bad unicode escape.
Problem structure_problem(const char* data, size_t length) {
    unsigned depth = 0;
    bool top_value_seen = false;
    for (size_t i = 0; i < length; ++i) {
        const char c = data[i];
        switch (c) {
            case '"': {
                const Problem problem = string_problem(data, length, &i);
                if (problem.text)
                    return problem;
                top_value_seen = true;
                break;
            }
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
                    return {"JSON document holds more than one top-level value"};
                if (++depth > kJsonMaxNesting)
                    return {"JSON values are nested too deeply"};
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
    if (brackets > kJsonMaxBrackets)
        return {"JSON document holds too many brackets"};
    return {};
}

// Scanner problems carry the place as json-glib reports its own: "<data>" or the file
// name, then the line and the column (both from 1).
bool check_structure(const char* data, size_t length, const char* name, GError** error) {
    const Problem problem = structure_problem(data, length);
    if (!problem.text)
        return true;
    if (!problem.scanner) {
        g_set_error_literal(error, JSON_PARSER_ERROR, JSON_PARSER_ERROR_PARSE, problem.text);
        return false;
    }
    unsigned line = 1;
    size_t line_start = 0;
    for (size_t i = 0; i < problem.offset; ++i) {
        if (data[i] == '\n') {
            ++line;
            line_start = i + 1;
        }
    }
    g_set_error(error, JSON_PARSER_ERROR, JSON_PARSER_ERROR_INVALID_DATA,
                "%s:%u:%zu: Parse error: scanner: %s", name, line, problem.offset - line_start + 1,
                problem.text);
    return false;
}

}  // namespace

bool json_parser_load_data_checked(JsonParser* parser, const char* data, long length,
                                   GError** error) {
    if (data && !check_structure(data, length < 0 ? strlen(data) : length, "<data>", error))
        return false;
    return json_parser_load_from_data(parser, data, length, error);
}

bool json_parser_load_file_checked(JsonParser* parser, const char* path, GError** error) {
    char* raw = nullptr;
    gsize length = 0;
    // An unreadable file is left to the parser, which reports it in its own words.
    if (g_file_get_contents(path, &raw, &length, nullptr)) {
        const GCharPtr contents(raw);
        if (!check_structure(contents.get(), length, path, error))
            return false;
    }
    return json_parser_load_from_file(parser, path, error);
}
