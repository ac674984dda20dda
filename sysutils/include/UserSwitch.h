#pragma once

#include <pwd.h>

#include <cstdlib>
#include <memory>

#include "GLibPtr.h"

// The entry of get_passwd_entry(), one block allocated with malloc.
using PasswdEntryPtr = CPtr<passwd, std::free>;

// The password-file entry of `user`: one malloc'ed block holding the entry and its strings,
// released with one free(). Null when the user does not exist (errno ESRCH) or on error.
passwd* get_passwd_entry(const char* user);

// Switches the process to `user`, its group and supplementary groups. With `keep` the
// permitted capabilities survive the switch. 0 on success, -1 after a logged failure.
int daemon_user_switch(const char* user, bool keep);
