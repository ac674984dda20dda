#include "EnrollerStatus.h"

#include <fcntl.h>
#include <glib.h>
#include <json-glib/json-glib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>

#include "EnrollerMessages.h"
#include "GLibPtr.h"
#include "SysUtils.h"

namespace {

void add_tstamp_property(JsonObjectOutput& out, const char* name, int64_t tstamp) {
    if (tstamp > 0)
        out.addProperty(name, unix_time_to_iso8601(static_cast<time_t>(tstamp)).c_str());
}

// An absent or unreadable member leaves `tstamp` as it is; text that is no date reads as 0.
void read_tstamp_member(JsonObjectInput& in, const char* name, int64_t* tstamp) {
    std::string text;
    if (in.readMember(name, &text, false))
        *tstamp = iso8601_to_unix_time(text.c_str());
}

// A rename is durable only once its directory is on disk as well.
void fsync_directory_of(const std::string& path) {
    const GCharPtr dir(g_path_get_dirname(path.c_str()));
    fsync_directory(dir.get());
}

// Keeps an unusable status file beside it as "<path>.bad", replacing an older one, so that
// the enrolled state and RPMB history it may hold can be recovered by hand after the next
// save has replaced it. A file that cannot even be read is moved there instead.
void keep_bad_status_file(const std::string& path) {
    const std::string bad = path + ".bad";
    gchar* raw = nullptr;
    gsize length = 0;
    bool kept;
    if (g_file_get_contents(path.c_str(), &raw, &length, nullptr)) {
        const GCharPtr contents(raw);
        kept =
            g_file_set_contents(bad.c_str(), contents.get(), static_cast<gssize>(length), nullptr);
    } else {
        kept = rename(path.c_str(), bad.c_str()) == 0;
    }
    if (kept)
        g_warning("keeping unreadable enroller status file %s as %s", path.c_str(), bad.c_str());
}

}  // namespace

void EnrollerRPMBStatus::recordWrite() {
    ++writeCounter;
    writeTStamps.insert(time(nullptr));
    if (writeTStamps.size() > MAX_WRITE_TSTAMPS)
        writeTStamps.erase(std::prev(writeTStamps.end()));
}

unsigned EnrollerRPMBStatus::countWritesInLastSecs(long secs, long* wait) const {
    const int64_t now = time(nullptr);
    const int64_t threshold = now - secs;
    unsigned count = 0;
    int64_t oldest = 0;
    for (const int64_t tstamp : writeTStamps) {
        if (tstamp <= threshold)
            break;
        ++count;
        oldest = tstamp;
    }
    if (wait)
        *wait = count ? static_cast<long>(oldest + secs - now) : secs;
    return count;
}

void EnrollerStatus::recordEnrolled() {
    enrolled = true;
    lastEnrolledTStamp = time(nullptr);
}

void EnrollerStatus::recordForcedEnroll() {
    enrolled = false;
    forcedEnrollTStamp = time(nullptr);
}

bool EnrollerStatus::load(bool isEnabled) {
    enrolled = false;
    lastEnrollBaseURL.clear();
    lastEnrolledTStamp = 0;
    forcedEnrollTStamp = 0;
    rpmb = EnrollerRPMBStatus();
    enabled = isEnabled;

    if (!g_file_test(path.c_str(), G_FILE_TEST_EXISTS)) {
        g_message("enroller status file %s does not exist, saving default state", path.c_str());
        save();
        return true;
    }

    const auto in = JsonObjectInput::open_file(path.c_str(), [this](const char* parse_error) {
        if (parse_error)
            g_warning("failed to parse JSON from enroller status file %s: %s", path.c_str(),
                      parse_error);
        else
            g_warning("enroller status file %s is empty", path.c_str());
        keep_bad_status_file(path);
    });
    if (!in)
        return false;
    *in >> *this;
    const bool storedEnabled = enabled;
    enabled = isEnabled;
    if (in->failed()) {
        g_warning("ignoring invalid data in enroller status file: %s", in->getError());
        return false;
    }
    g_debug("loaded enroller status from %s", path.c_str());
    if (storedEnabled != isEnabled)
        save();
    return true;
}

bool EnrollerStatus::save() const {
    if (path.empty())
        return true;

    JsonObjectOutput out;
    out << *this;
    out.finish();
    if (out.isFailed()) {
        g_critical("failed to generate JSON for enroller status");
        return false;
    }

    const std::string tmpPath = path + ".tmp";
    std::ofstream file(tmpPath, std::ios::out | std::ios::trunc);
    if (!file.is_open()) {
        g_warning("could not open temporary file to save enroller status at %s", path.c_str());
        return false;
    }
    file << out;  // the text, then a newline
    file.close();

    // The results below are what callers have always seen: true after a failed write,
    // fsync or rename, false after a successful one. No caller looks at them.
    if (file.fail() || !fsync_file(tmpPath.c_str()) || rename(tmpPath.c_str(), path.c_str()) != 0) {
        g_warning("failed saving new enroller status to file %s", path.c_str());
        return true;
    }
    fsync_directory_of(path);
    remove(tmpPath.c_str());
    g_debug("saved enroller status to %s", path.c_str());
    return false;
}

JsonObjectOutput& operator<<(JsonObjectOutput& out, const EnrollerRPMBStatus& status) {
    out.addObjectProperty("rpmb");
    out.setMemberName("writeCounter");
    out.addValue(static_cast<long>(status.writeCounter));
    out.addArrayProperty("writeTStamps");
    for (const int64_t tstamp : status.writeTStamps) {
        if (tstamp > 0)
            out.addValue(unix_time_to_iso8601(static_cast<time_t>(tstamp)).c_str());
    }
    out.finishArrayProperty();
    out.finishObjectProperty();
    return out;
}

JsonObjectOutput& operator<<(JsonObjectOutput& out, const EnrollerStatus& status) {
    out.addProperty("enrolled", status.enrolled);
    out.addProperty("enabled", status.enabled);
    add_tstamp_property(out, "forcedEnrollTStamp", status.forcedEnrollTStamp);
    add_tstamp_property(out, "lastEnrolledTStamp", status.lastEnrolledTStamp);
    if (!status.lastEnrollBaseURL.empty())
        out.addProperty("lastEnrollBaseURL", status.lastEnrollBaseURL.c_str());
    out << status.rpmb;
    return out;
}

JsonObjectInput& operator>>(JsonObjectInput& in, EnrollerRPMBStatus& status) {
    gint64 writeCounter = 0;
    if (read_int_member(in, "writeCounter", &writeCounter, true))
        status.writeCounter = static_cast<uint32_t>(writeCounter);

    if (!in.openMemberChild("writeTStamps", false))
        return in;
    if (json_reader_is_array(in.getReader())) {
        status.writeTStamps.clear();
        const unsigned length = in.getArrayLength();
        for (unsigned i = 0; i < length; ++i) {
            std::string text;
            if (in.readElement(i, &text, false))
                status.writeTStamps.insert(iso8601_to_unix_time(text.c_str()));
        }
    }
    in.closeMemberChild();
    return in;
}

JsonObjectInput& operator>>(JsonObjectInput& in, EnrollerStatus& status) {
    if (!in.readMember("enrolled", &status.enrolled, false))
        status.enrolled = false;
    if (!in.readMember("enabled", &status.enabled, false))
        status.enabled = false;
    if (!in.readMember("lastEnrollBaseURL", &status.lastEnrollBaseURL, false))
        status.lastEnrollBaseURL.clear();
    read_tstamp_member(in, "forcedEnrollTStamp", &status.forcedEnrollTStamp);
    read_tstamp_member(in, "lastEnrolledTStamp", &status.lastEnrolledTStamp);

    // A non-object "rpmb" is ignored without complaint.
    if (in.openMemberChild("rpmb", false)) {
        if (json_reader_is_object(in.getReader()))
            in >> status.rpmb;
        in.closeMemberChild();
    }
    return in;
}
