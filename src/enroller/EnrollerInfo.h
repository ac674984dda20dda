#pragma once

#include <string>
#include <vector>

#include "DeviceInfo.h"

// The configuration of the enroller, merged from options, branding and system.
struct EnrollerInfo {
    std::string base_url;
    std::string firmware_version;
    std::string rpmb_path;
    std::string key_path;
    std::string services_dir;
    std::vector<std::string> protocols;
    int retry_interval = 60;
    bool disabled = false;
    bool force_new_cert = false;
    DeviceInfo device;

    bool hasProtocol(const std::string& name) const;
};
