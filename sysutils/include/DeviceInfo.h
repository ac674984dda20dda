#pragma once

#include <string>

// The identity of the device, as sent to the enrollment server and put into the CSR.
struct DeviceInfo {
    std::string serial;
    std::string model;
    std::string brand;
    std::string userSerial;
    std::string boardSerial;
    std::string systemSerial;
    std::string chassisSerial;
};
