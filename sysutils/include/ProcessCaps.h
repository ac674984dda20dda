#pragma once

#include <sys/capability.h>

#include <initializer_list>
#include <memory>
#include <type_traits>

#include "GLibPtr.h"

// Owner of a libcap state.
using CapStatePtr = CPtr<std::remove_pointer_t<cap_t>, cap_free>;

// Changes the capabilities of the calling process and can return to the state it found.
class ProcessCaps {
  public:
    ProcessCaps() = default;
    ProcessCaps(const ProcessCaps&) = delete;
    ProcessCaps& operator=(const ProcessCaps&) = delete;

    // Leaves only those of `caps` permitted that are permitted now; nothing effective or
    // inheritable. Capabilities not held are silently left out.
    static bool drop_all_except(std::initializer_list<int> caps);

    // Raises `caps` into the effective set, remembering the state from before.
    bool enable(std::initializer_list<int> caps);
    // Goes back to the state saved by the last successful enable().
    bool restore();

  private:
    CapStatePtr saved_caps;
};

// Raises capabilities for the lifetime of a scope, typically around one privileged call.
class AutoProcessCaps : public ProcessCaps {
  public:
    explicit AutoProcessCaps(std::initializer_list<int> caps);
    ~AutoProcessCaps();
};
