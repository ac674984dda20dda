// The enroller status file. What a load keeps must also survive the next save and load:
// a status saved from a loaded file reads back to the same text when saved again.
#include <fstream>
#include <iterator>

#include "EnrollerStatus.h"
#include "FuzzSupport.h"

namespace {

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Loads `path` and saves what was read to `copy`; false when the load failed.
bool load_and_save(const std::string& path, bool enabled, const std::string& copy) {
    EnrollerStatus status(path);
    if (!status.load(enabled))
        return false;
    status.path = copy;
    status.save();
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = fuzz::write_file("status", data, size);
    // The configured flag differs from the stored one in about half of the inputs, which
    // makes the load rewrite the file.
    const bool enabled = size % 2;
    const std::string first = fuzz::scratch_file("first"), second = fuzz::scratch_file("second");
    if (!load_and_save(path, enabled, first))
        return 0;
    if (!load_and_save(first, enabled, second)) {
        fprintf(stderr, "a saved status does not load:\n%s\n", contents(first).c_str());
        abort();
    }
    if (contents(first) != contents(second)) {
        fprintf(stderr, "a saved status changes when loaded and saved again:\n%s\n%s\n",
                contents(first).c_str(), contents(second).c_str());
        abort();
    }
    return 0;
}
