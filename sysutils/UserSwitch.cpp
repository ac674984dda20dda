#include "UserSwitch.h"

#include <glib.h>
#include <grp.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

passwd* get_passwd_entry(const char* user) {
    if (!user) {
        // Reported under the plain function name, like the other C-level helpers.
        g_return_if_fail_warning(nullptr, __func__, "user");
        return nullptr;
    }
    const long buffer_size = sysconf(_SC_GETPW_R_SIZE_MAX);
    if (buffer_size < 0)
        return nullptr;

    PasswdEntryPtr block(static_cast<passwd*>(std::malloc(sizeof(passwd) + buffer_size)));
    if (!block)
        return nullptr;
    char* const buffer = reinterpret_cast<char*>(block.get() + 1);
    passwd* found = nullptr;
    const int error = getpwnam_r(user, block.get(), buffer, buffer_size, &found);
    if (error != 0) {
        errno = error;
        return nullptr;
    }
    if (!found) {
        errno = ESRCH;
        return nullptr;
    }
    return block.release();
}

int daemon_user_switch(const char* user, bool keep) {
    if (!user) {
        g_return_if_fail_warning(nullptr, __func__, "user");
        return -1;
    }
    if (keep && prctl(PR_SET_KEEPCAPS, 1) != 0) {
        const int error = errno;
        g_critical("failed to keep capabilities");
        g_critical("failed switching to user '%s': %s", user, strerror(error));
        return -1;
    }

    const PasswdEntryPtr entry(get_passwd_entry(user));
    if (!entry) {
        g_critical("failed switching to user '%s': no such user", user);
        return -1;
    }
    if (initgroups(entry->pw_name, entry->pw_gid) != 0 || setgid(entry->pw_gid) != 0 ||
        setuid(entry->pw_uid) != 0) {
        g_critical("failed switching to user '%s': %s", user, strerror(errno));
        return -1;
    }
    g_debug("switched to user '%s' and its groups", user);

    if (keep && prctl(PR_SET_KEEPCAPS, 0) != 0) {
        const int error = errno;
        g_critical("failed to reset the 'keep capabilities' process flag");
        g_critical("failed switching to user '%s': %s", user, strerror(error));
        return -1;
    }
    return 0;
}
