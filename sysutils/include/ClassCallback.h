#pragma once

#include <glib.h>

namespace detail {

template <typename Class, typename MemberFn, MemberFn fn>
struct ClassCallback;

template <typename Class, typename R, typename... Args, R (Class::*fn)(Args...)>
struct ClassCallback<Class, R (Class::*)(Args...), fn> {
    static R invoke(Args... args, gpointer object) {
        return (static_cast<Class*>(object)->*fn)(args...);
    }
};

template <typename Class, typename R, typename... Args, R (Class::*fn)(Args...) const>
struct ClassCallback<Class, R (Class::*)(Args...) const, fn> {
    static R invoke(Args... args, gpointer object) {
        return (static_cast<const Class*>(object)->*fn)(args...);
    }
};

}  // namespace detail

// The C trampoline of a member function: its signature is the member's arguments followed
// by the user-data pointer, which must be the object (no reference is taken). Usable for
// GLib sources, GObject and libsoup signals (through G_CALLBACK) and GDBus vtables.
template <typename Class, auto fn>
constexpr auto class_callback = &detail::ClassCallback<Class, decltype(fn), fn>::invoke;
