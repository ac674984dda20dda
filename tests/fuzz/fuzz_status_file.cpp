// The enroller status file, loaded with the configured flag differing from the stored one
// in about half of the inputs, which makes the load rewrite the file.
#include "EnrollerStatus.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    EnrollerStatus(fuzz::write_file("status", data, size)).load(size % 2);
    return 0;
}
