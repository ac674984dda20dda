// The branding file.
#include "BrandingInfo.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = fuzz::write_file("branding.json", data, size);
    BrandingInfo info;
    info.load(path.c_str());
    return 0;
}
