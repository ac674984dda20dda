#pragma once

#include "RPMB.h"

// The RPMB partition of a real eMMC, reached through the kernel's RPMB character device.
// Each operation goes to the card as one uninterrupted multi-command ioctl.
class RPMBDevice : public RPMB {
  public:
    RPMBDevice() = default;
    // Does not close an open descriptor: owners call close() before dropping the object.
    ~RPMBDevice() override;

    bool open(const char* path);
    bool close();

    int do_op(const Frame* req, unsigned long nreq, Frame* rsp, unsigned long nrsp) override;

    int fd = -1;
};
