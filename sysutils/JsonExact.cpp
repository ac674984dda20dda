#include "JsonExact.h"

#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "JsonParserChecked.h"

namespace {

constexpr size_t kShownMax = 40;

std::string shorten(std::string text) {
    if (text.size() > kShownMax)
        text = text.substr(0, kShownMax) + "...";
    return text;
}

// A recursive-descent reader of strict JSON; `fail` keeps the first error with its offset.
class ExactReader {
  public:
    ExactReader(const char* text, size_t length) : p(text), begin(text), end(text + length) {}

    bool document(JsonExact* out, std::string* error) {
        if (end - p >= 3 && memcmp(p, "\xef\xbb\xbf", 3) == 0)  // a byte order mark
            p += 3;
        const bool read = value(out, 0);
        skip_space();
        if (read && p != end)
            fail("unexpected text after the value");
        if (!problem.empty() && error)
            *error = problem;
        return problem.empty();
    }

  private:
    bool fail(const char* what) {
        if (problem.empty())
            problem = std::string(what) + " at offset " + std::to_string(p - begin);
        return false;
    }

    void skip_space() {
        while (p != end && (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r'))
            ++p;
    }

    bool literal(const char* word) {
        const size_t size = strlen(word);
        if (static_cast<size_t>(end - p) < size || strncmp(p, word, size) != 0)
            return fail("invalid literal");
        p += size;
        return true;
    }

    bool value(JsonExact* out, unsigned depth) {
        skip_space();
        if (p == end)
            return fail("value expected");
        const char* const start = p;
        switch (*p) {
            case '{':
            case '[':
                if (depth >= kJsonMaxNesting)
                    return fail("values nested too deeply");
                return *p == '{' ? object(out, depth + 1) : array(out, depth + 1);
            case '"':
                out->kind = JsonExact::Kind::String;
                if (!string(&out->value))
                    return false;
                break;
            case 't':
            case 'f':
            case 'n':
                out->kind = *p == 'n' ? JsonExact::Kind::Null : JsonExact::Kind::Boolean;
                if (!literal(*p == 't' ? "true" : *p == 'f' ? "false" : "null"))
                    return false;
                out->value.assign(start, p);
                break;
            default:
                out->kind = JsonExact::Kind::Number;
                if (!number(&out->value))
                    return false;
                break;
        }
        out->shown = shorten(std::string(start, p));
        return true;
    }

    bool object(JsonExact* out, unsigned depth) {
        out->kind = JsonExact::Kind::Object;
        ++p;
        skip_space();
        if (p != end && *p == '}') {
            ++p;
            return true;
        }
        for (;;) {
            skip_space();
            std::string name;
            if (p == end || *p != '"')
                return fail("member name expected");
            if (!string(&name))
                return false;
            skip_space();
            if (p == end || *p != ':')
                return fail("':' expected");
            ++p;
            out->members.emplace_back(std::move(name), JsonExact());
            if (!value(&out->members.back().second, depth))
                return false;
            skip_space();
            if (p != end && *p == ',') {
                ++p;
                continue;
            }
            if (p == end || *p != '}')
                return fail("',' or '}' expected");
            ++p;
            break;
        }
        // By name, each name once with its last value.
        auto& members = out->members;
        std::stable_sort(members.begin(), members.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        std::vector<std::pair<std::string, JsonExact>> unique;
        for (size_t i = 0; i < members.size(); ++i) {
            if (i + 1 == members.size() || members[i].first != members[i + 1].first)
                unique.push_back(std::move(members[i]));
        }
        members = std::move(unique);
        return true;
    }

    bool array(JsonExact* out, unsigned depth) {
        out->kind = JsonExact::Kind::Array;
        ++p;
        skip_space();
        if (p != end && *p == ']') {
            ++p;
            return true;
        }
        for (;;) {
            out->items.emplace_back();
            if (!value(&out->items.back(), depth))
                return false;
            skip_space();
            if (p != end && *p == ',') {
                ++p;
                continue;
            }
            if (p == end || *p != ']')
                return fail("',' or ']' expected");
            ++p;
            return true;
        }
    }

    long hex4() {
        if (end - p < 4)
            return -1;
        long unit = 0;
        for (int i = 0; i < 4; ++i) {
            const int digit = g_ascii_xdigit_value(p[i]);
            if (digit < 0)
                return -1;
            unit = unit * 16 + digit;
        }
        p += 4;
        return unit;
    }

    // After "\u": one code point, from a surrogate pair where it takes two escapes.
    bool unicode_escape(std::string* out) {
        long unit = hex4();
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            long low = -1;
            if (end - p >= 2 && p[0] == '\\' && p[1] == 'u') {
                p += 2;
                low = hex4();
            }
            if (low < 0xDC00 || low > 0xDFFF)
                return fail("malformed surrogate pair");
            unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
        } else if (unit < 0 || (unit >= 0xDC00 && unit <= 0xDFFF)) {
            return fail("invalid unicode escape");
        }
        char utf8[8];
        out->append(utf8, g_unichar_to_utf8(static_cast<gunichar>(unit), utf8));
        return true;
    }

    bool string(std::string* out) {
        ++p;
        while (p != end && *p != '"') {
            const char c = *p++;
            if (static_cast<unsigned char>(c) < 0x20)
                return fail("control character in string");
            if (c != '\\') {
                out->push_back(c);
                continue;
            }
            if (p == end)
                break;
            const char escaped = *p++;
            static const char kFrom[] = "\"\\/bfnrt", kTo[] = "\"\\/\b\f\n\r\t";
            if (escaped == 'u') {
                if (!unicode_escape(out))
                    return false;
            } else if (const char* known = strchr(kFrom, escaped); known && escaped) {
                out->push_back(kTo[known - kFrom]);
            } else {
                return fail("invalid escape");
            }
        }
        if (p == end)
            return fail("unterminated string");
        ++p;
        return true;
    }

    size_t digits() {
        const char* const start = p;
        while (p != end && g_ascii_isdigit(*p))
            ++p;
        return static_cast<size_t>(p - start);
    }

    // Integers keep all their digits; other numbers become the double they name, and one
    // that no double holds (overflowing, or underflowing to zero) keeps its text, which
    // nothing written by a JSON generator can match.
    bool number(std::string* out) {
        const char* const start = p;
        if (p != end && *p == '-')
            ++p;
        const char* const integer = p;
        const size_t int_digits = digits();
        if (int_digits == 0 || (int_digits > 1 && *integer == '0'))
            return fail("invalid number");
        bool fraction_or_exponent = false;
        if (p != end && *p == '.') {
            ++p;
            if (digits() == 0)
                return fail("invalid number");
            fraction_or_exponent = true;
        }
        if (p != end && (*p == 'e' || *p == 'E')) {
            ++p;
            if (p != end && (*p == '+' || *p == '-'))
                ++p;
            if (digits() == 0)
                return fail("invalid number");
            fraction_or_exponent = true;
        }
        const std::string text(start, p);
        if (!fraction_or_exponent) {
            const bool zero = int_digits == 1 && *integer == '0';
            *out = "i" + (zero ? std::string("0") : text);
            return true;
        }
        errno = 0;
        const double number = g_ascii_strtod(text.c_str(), nullptr);
        const bool nonzero_digits = text.find_first_of("123456789") < text.find_first_of("eE");
        if (!std::isfinite(number) || (number == 0 && nonzero_digits)) {
            *out = "x" + text;
            return true;
        }
        char buffer[G_ASCII_DTOSTR_BUF_SIZE];
        *out = std::string("d") + g_ascii_dtostr(buffer, sizeof buffer, number == 0 ? 0 : number);
        return true;
    }

    const char* p;
    const char* const begin;
    const char* const end;
    std::string problem;
};

const char* kind_name(JsonExact::Kind kind) {
    static const char* const names[] = {"null", "boolean", "number", "string", "array", "object"};
    return names[static_cast<int>(kind)];
}

bool same(const JsonExact& a, const JsonExact& b, const std::string& path, std::string* where) {
    auto differ = [&](const std::string& what) {
        if (where)
            *where = path + ": " + what;
        return false;
    };
    if (a.kind != b.kind)
        return differ(std::string(kind_name(a.kind)) + " against " + kind_name(b.kind));
    if (a.value != b.value)
        return differ(a.shown + " against " + b.shown);
    if (a.items.size() != b.items.size())
        return differ("length " + std::to_string(a.items.size()) + " against " +
                      std::to_string(b.items.size()));
    for (size_t i = 0; i < a.items.size(); ++i) {
        if (!same(a.items[i], b.items[i], path + "[" + std::to_string(i) + "]", where))
            return false;
    }
    for (size_t i = 0; i < std::max(a.members.size(), b.members.size()); ++i) {
        const bool in_both = i < a.members.size() && i < b.members.size() &&
                             a.members[i].first == b.members[i].first;
        if (!in_both) {
            const auto& name = i < a.members.size() ? a.members[i].first : b.members[i].first;
            return differ("member '" + shorten(name) + "' is not in both");
        }
        if (!same(a.members[i].second, b.members[i].second,
                  path + "['" + shorten(a.members[i].first) + "']", where))
            return false;
    }
    return true;
}

}  // namespace

const JsonExact* JsonExact::member(const std::string& name) const {
    if (kind != Kind::Object)
        return nullptr;
    const auto found = std::lower_bound(
        members.begin(), members.end(), name,
        [](const auto& entry, const std::string& key) { return entry.first < key; });
    return found != members.end() && found->first == name ? &found->second : nullptr;
}

bool json_exact_parse(const char* text, size_t length, JsonExact* out, std::string* error) {
    *out = JsonExact();
    return ExactReader(text, length).document(out, error);
}

bool json_exact_same(const JsonExact& a, const JsonExact& b, std::string* where) {
    return same(a, b, "$", where);
}
