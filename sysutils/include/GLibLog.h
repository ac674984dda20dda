#pragma once

#include <glib.h>

#include <cstdio>

// Replacement default handlers for GLib logging. Both drop debug-level messages unless the
// process-wide debug switch is on.

// Sends every message to syslog; the caller opens syslog first.
void set_glib_default_log_handler_to_syslog(bool debug);
// Writes every message with a local time stamp to `stream`, which is made line-buffered.
void set_glib_default_log_handler_to_file(FILE* stream, bool debug);
// Changes the debug switch only.
void glib_log_handler_set_debug(bool debug);

// The syslog priority of a GLib level (the recursion and fatal flags are ignored), or -1
// when the message is to be dropped: a debug message while the debug switch is off.
int glib_level_to_syslog_priority(GLogLevelFlags level);
