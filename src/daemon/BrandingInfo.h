#pragma once

#include <string>
#include <vector>

class JsonObjectInput;

// The branding file shipped with the device software: brand, model, the default
// enrollment server and protocols, and whether enrollment is on by default.
struct BrandingInfo {
    std::string brand;
    std::string model;
    std::vector<std::string> enrollProtocols;
    std::string enrollRootUrl;
    bool enabledByDefault = false;

    // 1 when the file was read completely and correctly, else 0 after a warning. Values
    // read before an error stay in the fields.
    int load(const char* path);
};

JsonObjectInput& operator>>(JsonObjectInput& in, BrandingInfo& info);
