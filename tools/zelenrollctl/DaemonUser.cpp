#include "DaemonUser.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "GLibPtr.h"
#include "UserSwitch.h"

namespace {

std::string user_name(uid_t uid) {
    const passwd* entry = getpwuid(uid);
    return entry ? entry->pw_name : std::to_string(uid);
}

const char* access_words(int mode) {
    if ((mode & (R_OK | W_OK)) == (R_OK | W_OK))
        return "read and write";
    if (mode & W_OK)
        return "write";
    if (mode & R_OK)
        return "read";
    return "enter";
}

}  // namespace

std::string group_name(gid_t gid) {
    const group* entry = getgrgid(gid);
    return entry ? entry->gr_name : std::to_string(gid);
}

std::string ownership_text(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        return std::string("cannot be examined: ") + g_strerror(errno);
    const GCharPtr mode(g_strdup_printf("%04o", st.st_mode & 07777));
    return "owner " + user_name(st.st_uid) + ", group " + group_name(st.st_gid) + ", mode " +
           mode.get();
}

bool DaemonUser::lookup(const std::string& user) {
    name = user;
    const PasswdEntryPtr entry(get_passwd_entry(user.c_str()));
    if (!entry) {
        error = errno == ESRCH ? "no such user"
                               : std::string("cannot look the user up: ") + g_strerror(errno);
        return false;
    }
    uid = entry->pw_uid;
    gid = entry->pw_gid;
    int count = 32;
    groups.assign(static_cast<size_t>(count), 0);
    if (getgrouplist(user.c_str(), gid, groups.data(), &count) < 0) {
        groups.assign(static_cast<size_t>(count), 0);
        getgrouplist(user.c_str(), gid, groups.data(), &count);
    }
    groups.resize(static_cast<size_t>(std::max(count, 0)));
    groups.erase(std::remove(groups.begin(), groups.end(), gid), groups.end());
    groups.insert(groups.begin(), gid);
    return true;
}

bool DaemonUser::in_group(gid_t group) const {
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

bool DaemonUser::may_access(const std::string& path, int mode, std::string* why) const {
    const GCharPtr absolute(g_canonicalize_filename(path.c_str(), nullptr));
    const std::string full = absolute.get();
    // Every directory on the way needs search permission, then the file itself `mode`.
    size_t next = 0;
    while (next != std::string::npos) {
        next = full.find('/', next + 1);
        const bool last = next == std::string::npos;
        const std::string part = last ? full : full.substr(0, std::max<size_t>(next, 1));
        const int wanted = last ? mode : X_OK;
        struct stat st {};
        if (stat(part.c_str(), &st) != 0) {
            *why = "'" + part + "': " + g_strerror(errno);
            return false;
        }
        const unsigned shift = st.st_uid == uid ? 6 : in_group(st.st_gid) ? 3 : 0;
        const unsigned bits = (st.st_mode >> shift) & 7;
        if ((bits & static_cast<unsigned>(wanted)) != static_cast<unsigned>(wanted)) {
            *why = "user '" + name + "' may not " + access_words(wanted) + " '" + part + "' (" +
                   ownership_text(part) + ")";
            return false;
        }
    }
    return true;
}

std::string DaemonUser::describe() const {
    std::string text = name + " (uid " + std::to_string(uid) + ", groups ";
    for (size_t i = 0; i < groups.size(); ++i)
        text += (i ? ", " : "") + group_name(groups[i]);
    return text + ")";
}
