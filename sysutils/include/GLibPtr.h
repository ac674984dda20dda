#pragma once

#include <glib-object.h>
#include <json-glib/json-glib.h>

#include <cstddef>
#include <memory>
#include <utility>

// Reference policies of GLibPtr. The generic ones treat T as a GObject; JsonNode and
// GVariant have their own reference functions.
template <typename T>
struct GLibRef {
    void operator()(T* p) const { g_object_ref(p); }
};
template <typename T>
struct GLibUnref {
    void operator()(T* p) const { g_object_unref(p); }
};
template <typename T>
struct GLibSink {
    // A GInitiallyUnowned object comes with a floating reference that we take over.
    void operator()(T* p) const {
        if (g_object_is_floating(p))
            g_object_ref_sink(p);
    }
};

template <>
struct GLibRef<JsonNode> {
    void operator()(JsonNode* p) const { json_node_ref(p); }
};
template <>
struct GLibUnref<JsonNode> {
    void operator()(JsonNode* p) const { json_node_unref(p); }
};
template <>
struct GLibSink<JsonNode> {
    void operator()(JsonNode*) const {}  // a new node is adopted with the reference it has
};

template <>
struct GLibRef<GVariant> {
    void operator()(GVariant* p) const { g_variant_ref(p); }
};
template <>
struct GLibUnref<GVariant> {
    void operator()(GVariant* p) const { g_variant_unref(p); }
};
template <>
struct GLibSink<GVariant> {
    // Sinks a floating reference; a variant that is not floating is adopted as it is, so
    // that full-transfer results of GLib calls do not leak a reference.
    void operator()(GVariant* p) const { g_variant_take_ref(p); }
};

// Owns one reference to a reference-counted GLib-family object. Copying adds a
// reference, moving transfers it, a null pointer is valid.
template <typename T, typename Referencer = GLibRef<T>, typename Unreferencer = GLibUnref<T>,
          typename RefSink = GLibSink<T>>
class GLibPtr {
  public:
    GLibPtr() = default;
    GLibPtr(std::nullptr_t) {}
    // Adopts a newly created object: takes over its reference, sinking a floating one.
    explicit GLibPtr(T* p) : ptr(p) {
        if (ptr)
            RefSink()(ptr);
    }
    GLibPtr(const GLibPtr& other) : ptr(other.ptr) {
        if (ptr)
            Referencer()(ptr);
    }
    GLibPtr(GLibPtr&& other) noexcept : ptr(std::exchange(other.ptr, nullptr)) {}
    ~GLibPtr() { reset(); }

    GLibPtr& operator=(const GLibPtr& other) {
        GLibPtr(other).swap(*this);
        return *this;
    }
    GLibPtr& operator=(GLibPtr&& other) noexcept {
        GLibPtr(std::move(other)).swap(*this);
        return *this;
    }

    // Takes a new reference to an object owned elsewhere.
    static GLibPtr ref(T* p) {
        if (p)
            Referencer()(p);
        GLibPtr result;
        result.ptr = p;
        return result;
    }

    // Drops the held reference and adopts p.
    void reset(T* p = nullptr) {
        T* old = std::exchange(ptr, nullptr);
        if (old)
            Unreferencer()(old);
        if (p) {
            RefSink()(p);
            ptr = p;
        }
    }
    // Gives up ownership of the held reference to the caller.
    [[nodiscard]] T* release() { return std::exchange(ptr, nullptr); }
    void swap(GLibPtr& other) noexcept { std::swap(ptr, other.ptr); }

    T* get() const { return ptr; }
    T* operator->() const { return ptr; }
    explicit operator bool() const { return ptr != nullptr; }
    bool operator==(const GLibPtr& other) const { return ptr == other.ptr; }
    bool operator!=(const GLibPtr& other) const { return ptr != other.ptr; }

  private:
    T* ptr = nullptr;
};

// Frees with the C function `fn`. With it std::unique_ptr owns every C allocation that is
// not reference-counted: the one idiom for them (GLib's, libxml2's, libcap's, malloc's).
template <auto fn>
struct CFree {
    template <typename T>
    void operator()(T* p) const {
        fn(p);
    }
};
template <typename T, auto fn>
using CPtr = std::unique_ptr<T, CFree<fn>>;

template <typename T>
using GFreePtr = CPtr<T, g_free>;
using GCharPtr = GFreePtr<gchar>;
using GStrvPtr = CPtr<gchar*, g_strfreev>;
using GErrorPtr = CPtr<GError, g_error_free>;
using GMainLoopPtr = CPtr<GMainLoop, g_main_loop_unref>;
using GOptionContextPtr = CPtr<GOptionContext, g_option_context_free>;
using GChecksumPtr = CPtr<GChecksum, g_checksum_free>;
using GHmacPtr = CPtr<GHmac, g_hmac_unref>;
