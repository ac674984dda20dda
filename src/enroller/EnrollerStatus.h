#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <set>
#include <string>
#include <utility>

#include "JsonObjectInput.h"
#include "JsonObjectOutput.h"

// The history of authenticated RPMB writes, which feeds the engine's write-rate limit.
struct EnrollerRPMBStatus {
    static constexpr size_t MAX_WRITE_TSTAMPS = 250;

    uint32_t writeCounter = 0;
    std::set<int64_t, std::greater<>> writeTStamps;  // Unix times, newest first

    // Counts one write now; writes within the same second share one time stamp.
    void recordWrite();
    // Writes in the last `secs` seconds. `wait`, if given, receives the seconds until the
    // oldest of them leaves that span, or `secs` when there is none.
    unsigned countWritesInLastSecs(long secs, long* wait) const;
};

// What the enroller remembers across restarts. The file at `path` is only ever replaced
// whole; an empty path keeps the status in memory only.
struct EnrollerStatus {
    explicit EnrollerStatus(std::string path) : path(std::move(path)) {}

    // Resets and reads the file at `path`. `enabled` comes from the configuration and wins
    // over the stored flag; a file that disagrees is rewritten. Failures are logged and
    // leave whatever could be read.
    bool load(bool enabled);
    // Writes the file atomically. The result is not meaningful (see the implementation).
    bool save() const;

    void recordEnrolled();
    void recordForcedEnroll();

    bool enrolled = false;
    bool enabled = false;
    std::string lastEnrollBaseURL;
    int64_t lastEnrolledTStamp = 0;  // 0 or less: never
    int64_t forcedEnrollTStamp = 0;  // 0 or less: never
    EnrollerRPMBStatus rpmb;
    std::string path;
};

JsonObjectOutput& operator<<(JsonObjectOutput& out, const EnrollerRPMBStatus& status);
JsonObjectOutput& operator<<(JsonObjectOutput& out, const EnrollerStatus& status);
JsonObjectInput& operator>>(JsonObjectInput& in, EnrollerRPMBStatus& status);
JsonObjectInput& operator>>(JsonObjectInput& in, EnrollerStatus& status);
