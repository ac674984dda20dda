#pragma once

#include <json-glib/json-glib.h>

#include <ostream>
#include <string>

#include "GLibPtr.h"

// Builds one JSON object document and turns it into text, a file or a stream. Builder
// calls are not checked one by one: any refused step latches a failure, and a failed or
// unfinished document then produces no output at all.
//
// Records are written with free functions
// `JsonObjectOutput& operator<<(JsonObjectOutput&, const T&)`; the caller then calls
// finish() and converts.
class JsonObjectOutput {
  public:
    JsonObjectOutput();
    ~JsonObjectOutput() = default;
    JsonObjectOutput(const JsonObjectOutput&) = delete;
    JsonObjectOutput& operator=(const JsonObjectOutput&) = delete;

    void setMemberName(const char* name);
    // A null text is written as JSON null.
    void addValue(const char* text);
    void addValue(long number);
    void addValue(bool flag);
    void addValue(GLibPtr<JsonNode> node);
    // Standard base64 text of the bytes; null data is written as JSON null.
    void addValue(const unsigned char* data, unsigned long length);
    // Spelled out so that int arguments neither convert to bool nor become ambiguous.
    void addValue(int number) { addValue(static_cast<long>(number)); }

    void addProperty(const char* name, const char* text);
    void addProperty(const char* name, bool flag);
    void addProperty(const char* name, const unsigned char* data, unsigned long length);

    void addObjectProperty(const char* name);
    void finishObjectProperty();
    void addArrayProperty(const char* name);
    void finishArrayProperty();
    void addObjectArrayElement();
    void finishObjectArrayElement();

    // Closes the top-level object; only the first call does anything.
    JsonObjectOutput& finish();

    bool isFailed() const { return failed; }
    bool isFinished() const { return finished; }

    // A generator over the finished document, or null when it failed or is unfinished.
    GLibPtr<JsonGenerator> createGenerator() const;
    // The text, to be freed with g_free(), or null.
    char* toString() const;
    // The text, or an empty string.
    operator std::string() const;
    // Writes the document to `path`. On failure sets *error (when not null) and returns
    // false.
    bool save(const char* path, std::string* error) const;

    friend std::ostream& operator<<(std::ostream& out, const JsonObjectOutput& doc);

  private:
    // Latches the failure when a builder call refused its step.
    void check(JsonBuilder* result) {
        if (!result)
            failed = true;
    }

    GLibPtr<JsonBuilder> builder;
    bool failed = false;
    bool finished = false;
    bool pretty = true;
};

std::ostream& operator<<(std::ostream& out, const JsonObjectOutput& doc);
