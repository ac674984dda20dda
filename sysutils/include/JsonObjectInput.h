#pragma once

#include <json-glib/json-glib.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "GLibPtr.h"
#include "JsonParserChecked.h"

class JsonObjectInput;
// Why a document could not be opened: the parser's message, or null for a document
// without a value.
using JsonOpenFailure = std::function<void(const char* parse_error)>;

// Maps a JSON document onto records. Wraps a JsonReader and keeps a stack of reading
// contexts, one per entered object or array, with the member names or element count of
// each, and the first error met. Nothing throws: every failure returns false and records a
// message, and the caller decides from failed() whether the record can be trusted.
//
// Records are read with free functions `JsonObjectInput& operator>>(JsonObjectInput&, T&)`.
class JsonObjectInput {
  public:
    JsonObjectInput(const char* data, long length);
    explicit JsonObjectInput(const char* path);
    // Reads a copy of `jroot`; the caller keeps its node.
    explicit JsonObjectInput(JsonNode* jroot);
    // A reader on the root of a JSON file or buffer (length -1: up to the NUL), or null
    // after `fail` was told why there is none, in the caller's own words.
    static std::unique_ptr<JsonObjectInput> open_file(const char* path,
                                                      const JsonOpenFailure& fail);
    static std::unique_ptr<JsonObjectInput> open_data(const char* data, long length,
                                                      const JsonOpenFailure& fail);
    ~JsonObjectInput();
    JsonObjectInput(const JsonObjectInput&) = delete;
    JsonObjectInput& operator=(const JsonObjectInput&) = delete;

    bool checkIsObject();
    bool checkIsArray();
    bool checkHasMember(const char* name, bool required);
    bool checkHasElement(unsigned index, bool required);
    // Member names of the current object (empty, with an error, when it is none).
    const std::set<std::string>& getMembers();
    // Element count of the current array (0, with an error, when it is none).
    unsigned getArrayLength();

    bool failed() const { return error != nullptr; }
    // The first error message, or null while nothing failed.
    const char* getError() const { return error.get(); }
    // Records a GLib-allocated message, taking it over; only the first one is kept.
    void addError(char* message);

    // The underlying reader, positioned on the current node, for reads this class has no
    // overload for (integers). Every read must be balanced with its end call.
    JsonReader* getReader() const { return reader.get(); }

    bool readMember(const char* name, std::string* out, bool required);
    bool readMember(const char* name, bool* out, bool required);
    bool readMember(const char* name, std::vector<unsigned char>* out, bool required);
    // Base64 text that must decode to exactly `size` bytes.
    bool readMember(const char* name, unsigned char* out, unsigned long size, bool required);
    bool readMember(const char* name, GLibPtr<JsonNode>& out, bool required);

    bool readElement(unsigned index, std::string* out, bool required);
    bool readElement(unsigned index, GLibPtr<JsonNode>& out, bool required);

    // Enter a child object or array; every successful open must be followed by the
    // matching close, a failed one by none.
    bool openMemberChild(const char* name, bool required);
    bool openElementChild(unsigned index, bool required);
    void closeMemberChild();
    void closeElementChild();

  private:
    struct Unopened {};

  public:
    explicit JsonObjectInput(Unopened) {}

  private:
    // Parses a file (a null `data`) or a buffer; false with `fail` called when it gives no
    // root.
    bool load(const char* path, const char* data, long length, const JsonOpenFailure& fail);
    void start(JsonNode* parsed_root);
    void pushContext(const std::string& suffix);
    void popContext();
    const char* currentTypeName();
    bool enterMember(const char* name, bool required);
    bool enterElement(unsigned index, bool required);
    bool getRelativeNode(const std::string& suffix, GLibPtr<JsonNode>& out);

    GLibPtr<JsonReader> reader;
    GLibPtr<JsonNode> root;
    GCharPtr error;
    std::deque<std::set<std::string>> members;
    std::deque<uint32_t> lengths;
    std::deque<std::string> paths;
};

// Reads integer member `name` of the current object into `out`. Failures are recorded in
// `in` with the reader's own message texts; a missing member only when `required`.
bool read_int_member(JsonObjectInput& in, const char* name, gint64* out, bool required);
