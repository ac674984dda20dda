// The files the device identity is read from: identifiers, cpuinfo and os-release, each
// reader given the same bytes.
#include "DeviceIdentity.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = fuzz::write_file("identity", data, size);
    read_corvanta_identifier_from(path.c_str(), "ZEL_SN");
    read_cpuinfo_serial_nr_from(path.c_str());
    read_firmware_version_from(path.c_str(), path.c_str());
    return 0;
}
