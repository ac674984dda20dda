#pragma once

#include <json-glib/json-glib.h>

// json-glib's parser recurses once per nesting level and overflows the stack on hostile
// input, so documents nested deeper than this are refused before they are parsed.
constexpr unsigned kJsonMaxNesting = 512;

// Drop-in replacements for json_parser_load_from_data / json_parser_load_from_file that
// first refuse (with a JSON_PARSER_ERROR) documents nested deeper than kJsonMaxNesting,
// documents with more than one top-level value, which json-glib would partly ignore, and
// strings with a "\u" escape that is cut short, not hex, or half of a surrogate pair, on
// which json-glib's scanner leaks or misreads.
bool json_parser_load_data_checked(JsonParser* parser, const char* data, long length,
                                   GError** error);
bool json_parser_load_file_checked(JsonParser* parser, const char* path, GError** error);
