#pragma once

#include <glib.h>
#include <libsoup/soup.h>

#include <memory>

#include "GLibPtr.h"

// The main loop of the daemon together with the HTTP session it serves. SIGINT and SIGTERM
// abort all HTTP traffic and make run() return.
class MainContext {
  public:
    // Takes over the reference to `session`.
    explicit MainContext(SoupSession* session);
    MainContext(const MainContext&) = delete;
    MainContext& operator=(const MainContext&) = delete;

    void run();
    // The signal handler; acts on the first signal only. Returns G_SOURCE_REMOVE.
    int terminate();

    SoupSession* get_session() const { return session.get(); }
    bool is_terminating() const { return terminating; }

  private:
    // Declared before the session so that the session goes first.
    GMainLoopPtr loop;
    GLibPtr<SoupSession> session;
    bool terminating = false;
};
