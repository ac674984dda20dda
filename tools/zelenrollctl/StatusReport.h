#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "StoredEnrollment.h"

// A Unix time as ISO 8601 text, or "never" for 0 and below.
std::string time_text(int64_t t);

// The daemon's state as far as its bus properties tell; `error` is set when it could not
// be asked.
struct DaemonState {
    bool enrolled = false;
    bool disabled = false;
    std::string error;
};

// The report of the status command: the daemon and the files it keeps, at `now`.
struct StatusReport {
    void print_text() const;
    void print_json() const;

    const DaemonState& daemon;
    const StoredEnrollment& stored;
    time_t now;
};
