#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// The user the daemon runs as after its user switch, with the groups it then holds.
// Access is judged from owner, group and mode bits as the kernel would for that user,
// without becoming it (ACLs are not considered). The daemon keeps no capability that
// bypasses file permissions, so they hold for root too.
class DaemonUser {
  public:
    // Looks the user up in the password and group databases; false leaves `error` set.
    bool lookup(const std::string& user);

    // True when the user may access `path` for `mode` (R_OK, W_OK, X_OK or'ed), including
    // search permission on every directory above it. Otherwise `why` tells which path
    // stops it and how that one is owned.
    bool may_access(const std::string& path, int mode, std::string* why) const;
    bool in_group(gid_t group) const;
    // "NAME (uid U, groups A, B)"
    std::string describe() const;

    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;  // the primary group first
    std::string error;
};

// "owner O, group G, mode 0MMM" of a file, or the reason it cannot be examined.
std::string ownership_text(const std::string& path);
std::string group_name(gid_t gid);
