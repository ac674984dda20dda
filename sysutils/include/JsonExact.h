#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

// A JSON value read from text without json-glib, keeping what json-glib loses: integers of
// any size, numbers that no double holds, and NUL characters in strings. Two documents
// hold the same values when their JsonExact trees are equal; that is how a document that
// went through json-glib is checked against the text it came from.
struct JsonExact {
    enum class Kind { Null, Boolean, Number, String, Array, Object };

    Kind kind = Kind::Null;
    // Scalars: the value in one canonical spelling, so that equal values compare equal
    // whatever their spelling in the text ("1.50" and "1.5e0", "\u00e9" and "é").
    std::string value;
    // Scalars: the text as it stood, for messages (cut short when long).
    std::string shown;
    std::vector<JsonExact> items;                            // arrays
    std::vector<std::pair<std::string, JsonExact>> members;  // objects, by name, each once

    // The member `name` of an object, or null.
    const JsonExact* member(const std::string& name) const;
};

// Reads one strict JSON document (RFC 8259 text: no comments, no single quotes; a leading
// byte order mark is skipped) of at most kJsonMaxNesting levels. A repeated member name
// keeps its last value, as json-glib does.
// On failure returns false and sets `error`.
bool json_exact_parse(const char* text, size_t length, JsonExact* out, std::string* error);

// True when `a` and `b` hold the same values; otherwise false with `where` set to the
// JSONPath of the first difference and what differs there.
bool json_exact_same(const JsonExact& a, const JsonExact& b, std::string* where);
