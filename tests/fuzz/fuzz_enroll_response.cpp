// Response bodies of the enrollment server, read as the engine reads them: the document
// first, then the enrollment response of a success or the error object of a failure, and
// the check of a delivered service against the text of the body.
#include "Enroller.h"
#include "EnrollerMessages.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)  // the engine refuses an empty body before parsing it
        return 0;
    const char* text = reinterpret_cast<const char*>(data);
    const long length = static_cast<long>(size);
    const auto ignore = [](const char*) {};
    if (const auto json = JsonObjectInput::open_data(text, length, ignore)) {
        EnrollResponse response;
        *json >> response;
        if (response.enrolledServices && response.enrolledServices->awsIotNode) {
            std::string error;
            Enroller::service_config_faithful("aws-iot",
                                              response.enrolledServices->awsIotNode.get(),
                                              std::string(text, size), &error);
        }
    }
    if (const auto json = JsonObjectInput::open_data(text, length, ignore)) {
        ErrorResponse error;
        *json >> error;
    }
    return 0;
}
