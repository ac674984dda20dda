#pragma once

#include <unistd.h>

#include <utility>

// Owns a file descriptor from open(); closes it when the holder goes.
class ScopedFd {
  public:
    explicit ScopedFd(int fd = -1) : fd(fd) {}
    ScopedFd(ScopedFd&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    ScopedFd& operator=(ScopedFd&& other) noexcept {
        reset(std::exchange(other.fd, -1));
        return *this;
    }
    ~ScopedFd() { reset(); }

    int get() const { return fd; }
    explicit operator bool() const { return fd >= 0; }
    void reset(int new_fd = -1) {
        if (fd >= 0)
            close(fd);
        fd = new_fd;
    }

  private:
    int fd;
};
