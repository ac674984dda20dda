#include "JsonObjectInput.h"

#include <cstring>

#include "SysUtils.h"

namespace {

// JsonReader steps back out of a member or element through the parent links of the nodes
// it passed, so every container node it reads must be linked to its parent node, and that
// parent must live as long as the reader. json_node_copy() shares the children, whose links
// still point at the original (maybe already freed) containers, and JsonBuilder links
// nothing; hence a tree of our own with fresh links.
JsonNode* copy_tree(JsonNode* node) {
    switch (JSON_NODE_TYPE(node)) {
        case JSON_NODE_OBJECT: {
            JsonNode* copy = json_node_new(JSON_NODE_OBJECT);
            JsonObject* object = json_object_new();
            json_node_take_object(copy, object);
            JsonObject* source = json_node_get_object(node);
            GList* names = json_object_get_members(source);
            for (GList* l = names; l; l = l->next) {
                const char* name = static_cast<const char*>(l->data);
                JsonNode* child = copy_tree(json_object_get_member(source, name));
                json_node_set_parent(child, copy);
                json_object_set_member(object, name, child);
            }
            g_list_free(names);
            return copy;
        }
        case JSON_NODE_ARRAY: {
            JsonNode* copy = json_node_new(JSON_NODE_ARRAY);
            JsonArray* source = json_node_get_array(node);
            const unsigned length = json_array_get_length(source);
            JsonArray* array = json_array_sized_new(length);
            json_node_take_array(copy, array);
            for (unsigned i = 0; i < length; ++i) {
                JsonNode* child = copy_tree(json_array_get_element(source, i));
                json_node_set_parent(child, copy);
                json_array_add_element(array, child);
            }
            return copy;
        }
        default:
            // values and null have no children
            return json_node_copy(node);
    }
}

// The text of the current node when it is a string value, else null. Asks only questions
// that do not put the reader into its error state.
const char* current_string(JsonReader* reader) {
    if (!json_reader_is_value(reader) || json_reader_get_null_value(reader))
        return nullptr;
    if (json_node_get_value_type(json_reader_get_value(reader)) != G_TYPE_STRING)
        return nullptr;
    return json_reader_get_string_value(reader);
}

std::string member_suffix(const char* name) {
    return std::string("['") + name + "']";
}

std::string element_suffix(unsigned index) {
    return "[" + std::to_string(index) + "]";
}

}  // namespace

JsonObjectInput::JsonObjectInput(const char* data, long length) {
    load(nullptr, data, length, [this](const char* parse_error) {
        addError(parse_error
                     ? g_strdup_printf("failed to parse JSON from data buffer: %s", parse_error)
                     : g_strdup("JSON data buffer is empty"));
    });
}

JsonObjectInput::JsonObjectInput(const char* path) {
    load(path, nullptr, 0, [this, path](const char* parse_error) {
        addError(parse_error
                     ? g_strdup_printf("failed to parse JSON from file %s: %s", path, parse_error)
                     : g_strdup_printf("JSON file %s is empty", path));
    });
}

std::unique_ptr<JsonObjectInput> JsonObjectInput::open_file(const char* path,
                                                            const JsonOpenFailure& fail) {
    auto in = std::make_unique<JsonObjectInput>(Unopened{});
    if (!in->load(path, nullptr, 0, fail))
        in.reset();
    return in;
}

std::unique_ptr<JsonObjectInput> JsonObjectInput::open_data(const char* data, long length,
                                                            const JsonOpenFailure& fail) {
    auto in = std::make_unique<JsonObjectInput>(Unopened{});
    if (!in->load(nullptr, data, length, fail))
        in.reset();
    return in;
}

bool JsonObjectInput::load(const char* path, const char* data, long length,
                           const JsonOpenFailure& fail) {
    const GLibPtr<JsonParser> parser(json_parser_new_immutable());
    GError* raw_error = nullptr;
    const bool parsed = path
                            ? json_parser_load_file_checked(parser.get(), path, &raw_error)
                            : json_parser_load_data_checked(parser.get(), data, length, &raw_error);
    const GErrorPtr parse_error(raw_error);
    JsonNode* const parsed_root = parsed ? json_parser_get_root(parser.get()) : nullptr;
    if (!parsed)
        fail(parse_error ? parse_error->message : "unknown error");
    else if (!parsed_root)
        fail(nullptr);
    start(parsed_root);
    return parsed_root != nullptr;
}

JsonObjectInput::JsonObjectInput(JsonNode* jroot) {
    if (jroot) {
        root.reset(copy_tree(jroot));
        json_node_seal(root.get());
    }
    reader.reset(json_reader_new(root.get()));
    pushContext("$");
    g_return_if_fail(!!jroot);
}

JsonObjectInput::~JsonObjectInput() {
    // Every constructor makes a reader; the members release everything else.
    JsonReader* jreader = reader.get();
    g_return_if_fail(jreader);
}

void JsonObjectInput::start(JsonNode* parsed_root) {
    // The immutable parser's root is already sealed. Holding it, rather than a copy, keeps
    // the parent links of its children valid for the reader.
    if (parsed_root)
        root = GLibPtr<JsonNode>::ref(parsed_root);
    reader.reset(json_reader_new(root.get()));
    pushContext("$");
}

void JsonObjectInput::pushContext(const std::string& suffix) {
    JsonReader* jreader = reader.get();
    std::set<std::string> names;
    uint32_t length = 0;
    if (json_reader_is_object(jreader)) {
        const GStrvPtr list(json_reader_list_members(jreader));
        for (char** name = list.get(); name && *name; ++name)
            names.insert(*name);
    } else if (json_reader_is_array(jreader)) {
        const int count = json_reader_count_elements(jreader);
        length = count > 0 ? static_cast<uint32_t>(count) : 0;
    }
    paths.push_back(paths.empty() ? suffix : paths.back() + suffix);
    members.push_back(std::move(names));
    lengths.push_back(length);
}

void JsonObjectInput::popContext() {
    // The root context stays.
    g_return_if_fail(paths.size() > 1);
    paths.pop_back();
    members.pop_back();
    lengths.pop_back();
}

// json_node_type_name() of the current node; the reader hands out only value nodes, so the
// names of the container and null types are spelled out as json-glib spells them.
const char* JsonObjectInput::currentTypeName() {
    JsonReader* jreader = reader.get();
    if (json_reader_is_object(jreader))
        return "JsonObject";
    if (json_reader_is_array(jreader))
        return "JsonArray";
    if (!json_reader_is_value(jreader))
        return "no node";
    if (json_reader_get_null_value(jreader))
        return "NULL";
    return json_node_type_name(json_reader_get_value(jreader));
}

void JsonObjectInput::addError(char* message) {
    g_return_if_fail(message);
    if (error)
        g_free(message);
    else
        error.reset(message);
}

bool JsonObjectInput::checkIsObject() {
    if (json_reader_is_object(reader.get()))
        return true;
    addError(g_strdup_printf("expected object in JSON but got %s", currentTypeName()));
    return false;
}

bool JsonObjectInput::checkIsArray() {
    if (json_reader_is_array(reader.get()))
        return true;
    addError(g_strdup_printf("expected array in JSON but got %s", currentTypeName()));
    return false;
}

bool JsonObjectInput::checkHasMember(const char* name, bool required) {
    g_return_val_if_fail(name, false);
    if (members.back().count(name) > 0)
        return true;
    if (required)
        addError(g_strdup_printf("missing member '%s'", name));
    return false;
}

bool JsonObjectInput::checkHasElement(unsigned index, bool required) {
    if (index < lengths.back())
        return true;
    if (required)
        addError(g_strdup_printf("array element %u is out of bounds", index));
    return false;
}

const std::set<std::string>& JsonObjectInput::getMembers() {
    checkIsObject();
    return members.back();
}

unsigned JsonObjectInput::getArrayLength() {
    if (!checkIsArray())
        return 0;
    return lengths.back();
}

// Steps the reader into a member after the checks that keep it out of its error state.
bool JsonObjectInput::enterMember(const char* name, bool required) {
    if (!checkIsObject() || !checkHasMember(name, required))
        return false;
    if (!json_reader_read_member(reader.get(), name)) {
        const GError* reader_error = json_reader_get_error(reader.get());
        addError(g_strdup_printf("failed reading member '%s': %s", name,
                                 reader_error ? reader_error->message : "no error"));
        return false;
    }
    return true;
}

bool JsonObjectInput::enterElement(unsigned index, bool required) {
    if (!checkIsArray() || !checkHasElement(index, required))
        return false;
    if (!json_reader_read_element(reader.get(), index)) {
        const GError* reader_error = json_reader_get_error(reader.get());
        addError(g_strdup_printf("failed reading element %u: %s", index,
                                 reader_error ? reader_error->message : "no error"));
        return false;
    }
    return true;
}

bool JsonObjectInput::readMember(const char* name, std::string* out, bool required) {
    if (!enterMember(name, required))
        return false;
    const char* text = current_string(reader.get());
    if (text)
        *out = text;
    else
        addError(g_strdup_printf("member '%s' does not hold a string", name));
    json_reader_end_member(reader.get());
    return text != nullptr;
}

bool JsonObjectInput::readMember(const char* name, bool* out, bool required) {
    if (!enterMember(name, required))
        return false;
    JsonReader* jreader = reader.get();
    const bool is_value = json_reader_is_value(jreader);
    if (!is_value) {
        addError(g_strdup_printf("member '%s' does not hold a value", name));
    } else if (json_reader_get_null_value(jreader)) {
        // json-glib converts null to false, but its reader would flag the request as an
        // error and then refuse to step back out of the member.
        *out = false;
    } else {
        *out = json_reader_get_boolean_value(jreader) != FALSE;
    }
    json_reader_end_member(jreader);
    return is_value;
}

bool JsonObjectInput::readMember(const char* name, std::vector<unsigned char>* out, bool required) {
    if (!enterMember(name, required))
        return false;
    const char* text = current_string(reader.get());
    bool stored = false;
    if (!text) {
        addError(g_strdup_printf("member '%s' does not hold a string", name));
    } else if (!is_valid_base64(text)) {
        addError(g_strdup_printf("member '%s' is not valid base64", name));
    } else {
        gsize length = 0;
        const GFreePtr<guchar> data(g_base64_decode(text, &length));
        out->assign(data.get(), data.get() + length);
        stored = true;
    }
    json_reader_end_member(reader.get());
    return stored;
}

bool JsonObjectInput::readMember(const char* name, unsigned char* out, unsigned long size,
                                 bool required) {
    if (!enterMember(name, required))
        return false;
    const char* text = current_string(reader.get());
    bool stored = false;
    if (!text)
        addError(g_strdup_printf("member '%s' does not hold a string", name));
    else if (!(stored = read_data_base64(text, out, size)))
        addError(g_strdup_printf("member '%s' is not valid base64 or has wrong length", name));
    json_reader_end_member(reader.get());
    return stored;
}

bool JsonObjectInput::readMember(const char* name, GLibPtr<JsonNode>& out, bool required) {
    if (!checkIsObject() || !checkHasMember(name, required))
        return false;
    return getRelativeNode(member_suffix(name), out);
}

bool JsonObjectInput::readElement(unsigned index, std::string* out, bool required) {
    if (!enterElement(index, required))
        return false;
    const char* text = current_string(reader.get());
    if (text)
        *out = text;
    else
        addError(g_strdup_printf("array element %u does not hold a string", index));
    json_reader_end_element(reader.get());
    return text != nullptr;
}

bool JsonObjectInput::readElement(unsigned index, GLibPtr<JsonNode>& out, bool required) {
    if (!checkIsArray() || !checkHasElement(index, required))
        return false;
    return getRelativeNode(element_suffix(index), out);
}

bool JsonObjectInput::openMemberChild(const char* name, bool required) {
    if (!enterMember(name, required))
        return false;
    pushContext(member_suffix(name));
    return true;
}

bool JsonObjectInput::openElementChild(unsigned index, bool required) {
    if (!enterElement(index, required))
        return false;
    pushContext(element_suffix(index));
    return true;
}

void JsonObjectInput::closeMemberChild() {
    g_return_if_fail(paths.size() > 1);
    json_reader_end_member(reader.get());
    popContext();
}

void JsonObjectInput::closeElementChild() {
    g_return_if_fail(paths.size() > 1);
    json_reader_end_element(reader.get());
    popContext();
}

// Node values are looked up by path from the root rather than through the reader, which
// can only hand out scalar values.
bool JsonObjectInput::getRelativeNode(const std::string& suffix, GLibPtr<JsonNode>& out) {
    GError* raw_error = nullptr;
    const GLibPtr<JsonNode> result(
        json_path_query((paths.back() + suffix).c_str(), root.get(), &raw_error));
    const GErrorPtr query_error(raw_error);
    if (!query_error && result && JSON_NODE_HOLDS_ARRAY(result.get())) {
        JsonArray* matches = json_node_get_array(result.get());
        if (json_array_get_length(matches) == 1) {
            // A deep copy: a shallow one would share children whose parent links lead into
            // this reader's tree, which goes with the reader.
            out.reset(copy_tree(json_array_get_element(matches, 0)));
            return true;
        }
        addError(g_strdup("internal error: multiple or no results"));
        g_critical("JSON path lookup unexpectedly returned multiple or no results");
        return false;
    }
    const char* text = query_error ? query_error->message : "unknown";
    addError(g_strdup_printf("internal error: %s", text));
    g_critical("unexpected JSON path lookup failure: %s", text);
    return false;
}

bool read_int_member(JsonObjectInput& in, const char* name, gint64* out, bool required) {
    // Same order of checks as the reader's own member reads, so that a missing member never
    // reaches json_reader_read_member and its sticky error state.
    if (!in.checkIsObject() || !in.checkHasMember(name, required))
        return false;
    JsonReader* reader = in.getReader();
    if (!json_reader_read_member(reader, name)) {
        const GError* error = json_reader_get_error(reader);
        in.addError(g_strdup_printf("failed reading member '%s': %s", name,
                                    error ? error->message : "no error"));
        return false;
    }
    // json-glib counts null as a value, but reading an integer from it puts the reader into
    // an error state that json_reader_end_member does not leave.
    const bool isValue = json_reader_is_value(reader) && !json_reader_get_null_value(reader);
    if (isValue)
        *out = json_reader_get_int_value(reader);
    else
        in.addError(g_strdup_printf("member '%s' does not hold a value", name));
    json_reader_end_member(reader);
    return isValue;
}
