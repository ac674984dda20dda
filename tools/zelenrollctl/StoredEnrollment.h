#pragma once

#include <ctime>
#include <string>

#include "EnrollerStatus.h"
#include "OpenSSLUtils.h"

// An X.509 name in RFC 2253 form ("CN=...,O=...").
std::string x509_name_text(const X509_NAME* name);

// What the daemon keeps on disk: its status file and the certificate of the enrolled
// "aws-iot" service, read without changing anything. Unreadable parts leave their reason
// in the matching error text.
class StoredEnrollment {
  public:
    // Reads the status file. A missing file is no error: the device never enrolled.
    bool load_status(const std::string& path);
    // Reads the certificate from the service's "service.json" under `services_dir` and
    // checks it against the device key at `key_path`.
    bool load_certificate(const std::string& services_dir, const std::string& key_path);

    // Share of the certificate's validity that has passed at `now` (above 1 once expired).
    double used_fraction(time_t now) const;
    long days_left(time_t now) const { return static_cast<long>((not_after - now) / 86400); }

    std::string status_path;
    bool status_present = false;
    std::string status_error;
    EnrollerStatus status{""};

    std::string service_file;
    bool cert_loaded = false;
    std::string cert_error;
    std::string subject;
    std::string issuer;
    time_t not_before = 0;
    time_t not_after = 0;
    bool key_matches = false;
    std::string key_error;
};
