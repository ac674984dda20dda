#include "JsonObjectOutput.h"

#include <memory>

JsonObjectOutput::JsonObjectOutput() : builder(json_builder_new()) {
    check(json_builder_begin_object(builder.get()));
}

void JsonObjectOutput::setMemberName(const char* name) {
    check(json_builder_set_member_name(builder.get(), name));
}

void JsonObjectOutput::addValue(const char* text) {
    if (text)
        check(json_builder_add_string_value(builder.get(), text));
    else
        check(json_builder_add_null_value(builder.get()));
}

void JsonObjectOutput::addValue(long number) {
    check(json_builder_add_int_value(builder.get(), number));
}

void JsonObjectOutput::addValue(bool flag) {
    check(json_builder_add_boolean_value(builder.get(), flag));
}

void JsonObjectOutput::addValue(GLibPtr<JsonNode> node) {
    // The builder takes over the node's reference.
    check(json_builder_add_value(builder.get(), node.release()));
}

void JsonObjectOutput::addValue(const unsigned char* data, unsigned long length) {
    if (!data) {
        check(json_builder_add_null_value(builder.get()));
        return;
    }
    const GCharPtr text(g_base64_encode(data, length));
    check(json_builder_add_string_value(builder.get(), text.get()));
}

void JsonObjectOutput::addProperty(const char* name, const char* text) {
    setMemberName(name);
    addValue(text);
}

void JsonObjectOutput::addProperty(const char* name, bool flag) {
    setMemberName(name);
    addValue(flag);
}

void JsonObjectOutput::addProperty(const char* name, const unsigned char* data,
                                   unsigned long length) {
    setMemberName(name);
    addValue(data, length);
}

void JsonObjectOutput::addObjectProperty(const char* name) {
    setMemberName(name);
    check(json_builder_begin_object(builder.get()));
}

void JsonObjectOutput::finishObjectProperty() {
    check(json_builder_end_object(builder.get()));
}

void JsonObjectOutput::addArrayProperty(const char* name) {
    setMemberName(name);
    check(json_builder_begin_array(builder.get()));
}

void JsonObjectOutput::finishArrayProperty() {
    check(json_builder_end_array(builder.get()));
}

void JsonObjectOutput::addObjectArrayElement() {
    check(json_builder_begin_object(builder.get()));
}

void JsonObjectOutput::finishObjectArrayElement() {
    check(json_builder_end_object(builder.get()));
}

JsonObjectOutput& JsonObjectOutput::finish() {
    if (!finished) {
        check(json_builder_end_object(builder.get()));
        finished = true;
    }
    return *this;
}

GLibPtr<JsonGenerator> JsonObjectOutput::createGenerator() const {
    if (failed || !finished)
        return nullptr;
    const GLibPtr<JsonNode> root(json_builder_get_root(builder.get()));
    if (!root)
        return nullptr;
    GLibPtr<JsonGenerator> generator(json_generator_new());
    json_generator_set_pretty(generator.get(), pretty);
    json_generator_set_root(generator.get(), root.get());  // takes its own copy
    return generator;
}

char* JsonObjectOutput::toString() const {
    const GLibPtr<JsonGenerator> generator = createGenerator();
    if (!generator)
        return nullptr;
    return json_generator_to_data(generator.get(), nullptr);
}

JsonObjectOutput::operator std::string() const {
    const GCharPtr text(toString());
    return text ? std::string(text.get()) : std::string();
}

bool JsonObjectOutput::save(const char* path, std::string* error) const {
    const GLibPtr<JsonGenerator> generator = createGenerator();
    if (!generator) {
        if (error)
            *error = "bad JsonObjectOutput state";
        return false;
    }
    GError* raw_error = nullptr;
    if (!json_generator_to_file(generator.get(), path, &raw_error)) {
        const GErrorPtr write_error(raw_error);
        if (error)
            *error = write_error ? write_error->message : "unknown error";
        return false;
    }
    return true;
}

std::ostream& operator<<(std::ostream& out, const JsonObjectOutput& doc) {
    const GCharPtr text(doc.toString());
    if (text)
        out << text.get();
    // The newline goes out before a failure is flagged, which would suppress it.
    if (doc.pretty)
        out << std::endl;
    if (!text)
        out.setstate(std::ios_base::badbit);
    return out;
}
