// The branding file.
#include "BrandingInfo.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_logging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = fuzz::scratch().write("branding.json", data, size);
    BrandingInfo info;
    info.load(path.c_str());
    return 0;
}
