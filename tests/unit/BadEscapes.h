#pragma once

// Documents whose only fault is a bad "\u" escape, most of which json-glib's scanner leaks on.
// Each reader must refuse them as malformed: "<name>:1:3: Parse error: scanner: " + the reason.
constexpr const char* kBadSurrogateDocuments[] = {
    R"(["\uD888\u1234"])",   R"(["\uD800\uD800\n"])", R"(["\uDd1e\uD834"])",
    R"(["\uD800\u"])",       R"(["\uD800\u1"])",      R"(["\uD800\u1x"])",
    R"(["\uD800\uD800\x"])", R"(["\uD800"])",         R"(["\uD800x\uDC00"])"};
constexpr const char kBadSurrogate[] = ":1:3: Parse error: scanner: malformed surrogate pair";
