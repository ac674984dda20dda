#include "MainContext.h"

#include <glib-unix.h>

#include <csignal>

#include "ClassCallback.h"

MainContext::MainContext(SoupSession* session)
    : loop(g_main_loop_new(nullptr, FALSE)), session(session) {
    g_unix_signal_add(SIGINT, class_callback<MainContext, &MainContext::terminate>, this);
    g_unix_signal_add(SIGTERM, class_callback<MainContext, &MainContext::terminate>, this);
}

void MainContext::run() {
    g_main_loop_run(loop.get());
}

int MainContext::terminate() {
    if (terminating)
        return G_SOURCE_REMOVE;
    g_message("terminating on signal");
    terminating = true;
    soup_session_abort(session.get());
    g_main_loop_quit(loop.get());
    return G_SOURCE_REMOVE;
}
