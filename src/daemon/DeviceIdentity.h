#pragma once

#include <string>

// Readers of the device identity kept by the system. Each returns an empty string when
// nothing was found; failures are logged, never fatal.

// The value of `key` in "/etc/corvanta/identifiers" (shell-style KEY=value lines).
std::string read_corvanta_identifier(const char* key);
// The "Serial" line of "/proc/cpuinfo".
std::string read_cpuinfo_serial_nr();
// The CPU serial, else the identifier "ZEL_SN".
std::string read_serial_nr();
// "VERSION_ID" of "/etc/os-release", or of "/usr/lib/os-release" when the first is missing.
std::string read_firmware_version();

// The same readers on other files.
std::string read_corvanta_identifier_from(const char* path, const char* key);
std::string read_cpuinfo_serial_nr_from(const char* path);
std::string read_serial_nr_from(const char* cpuinfo_path, const char* identifiers_path);
std::string read_firmware_version_from(const char* etc_path, const char* usr_lib_path);
