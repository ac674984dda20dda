#include "ProcessCaps.h"

#include <glib.h>

#include <cerrno>
#include <cstring>

bool ProcessCaps::drop_all_except(std::initializer_list<int> caps) {
    const CapStatePtr current(cap_get_proc());
    const CapStatePtr wanted(cap_init());
    if (!current || !wanted)
        return false;

    for (const cap_value_t cap : caps) {
        cap_flag_value_t permitted = CAP_CLEAR;
        if (cap_get_flag(current.get(), cap, CAP_PERMITTED, &permitted) != 0)
            return false;
        if (permitted == CAP_SET &&
            cap_set_flag(wanted.get(), CAP_PERMITTED, 1, &cap, CAP_SET) != 0)
            return false;
    }
    return cap_set_proc(wanted.get()) == 0;
}

bool ProcessCaps::enable(std::initializer_list<int> caps) {
    CapStatePtr before(cap_get_proc());
    if (!before)
        return false;
    const CapStatePtr raised(cap_dup(before.get()));
    if (!raised)
        return false;

    for (const cap_value_t cap : caps) {
        if (cap_set_flag(raised.get(), CAP_EFFECTIVE, 1, &cap, CAP_SET) != 0)
            return false;
    }
    if (cap_set_proc(raised.get()) != 0)
        return false;
    saved_caps = std::move(before);
    return true;
}

bool ProcessCaps::restore() {
    // clang-format off
    g_return_val_if_fail(!! saved_caps, false);
    // clang-format on
    if (cap_set_proc(saved_caps.get()) != 0)
        return false;
    saved_caps.reset();
    return true;
}

AutoProcessCaps::AutoProcessCaps(std::initializer_list<int> caps) {
    if (!enable(caps))
        g_critical("%s: failed (%s)", G_STRFUNC, strerror(errno));
}

AutoProcessCaps::~AutoProcessCaps() {
    if (!restore())
        g_critical("%s: failed (%s)", G_STRFUNC, strerror(errno));
}
