// The branding file.
#include "BrandingInfo.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    BrandingInfo().load(fuzz::write_file("branding.json", data, size).c_str());
    return 0;
}
