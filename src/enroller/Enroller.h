#pragma once

#include <glib.h>
#include <libsoup/soup.h>

#include <string>

#include "EnrollerInfo.h"

class Enroller {
  public:
    Enroller(const EnrollerInfo& info, const std::string& statusFile, SoupSession* session);
    ~Enroller();
    Enroller(const Enroller&) = delete;
    Enroller& operator=(const Enroller&) = delete;

    // Brings the "_DISABLED" marker of the services directory in line with the
    // configuration; false after a logged failure.
    static bool update_fs_flags(const EnrollerInfo& info);
};
