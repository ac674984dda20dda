// Response bodies of the enrollment server, read as the engine reads them: the document
// first, then the enrollment response of a success or the error object of a failure.
#include "EnrollerMessages.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_logging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)  // the engine refuses an empty body before parsing it
        return 0;
    const GLibPtr<JsonNode> root =
        parse_response_body(reinterpret_cast<const char*>(data), static_cast<long>(size));
    if (!root)
        return 0;
    {
        JsonObjectInput json(root.get());
        EnrollResponse response;
        json >> response;
    }
    {
        JsonObjectInput json(root.get());
        ErrorResponse error;
        json >> error;
    }
    return 0;
}
