#pragma once

#include <pwd.h>

#include <cstdlib>
#include <memory>

// Owner of a block allocated with malloc, such as the entry of get_passwd_entry().
struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};
using PasswdEntryPtr = std::unique_ptr<passwd, FreeDeleter>;

// The password-file entry of `user`: one malloc'ed block holding the entry and its strings,
// released with one free(). Null when the user does not exist (errno ESRCH) or on error.
passwd* get_passwd_entry(const char* user);

// Switches the process to `user`, its group and supplementary groups. With `keep` the
// permitted capabilities survive the switch. 0 on success, -1 after a logged failure.
int daemon_user_switch(const char* user, bool keep);
