/*
 * Owning handles for the GLib objects that the host platform keeps: each frees
 * its object with the matching GLib call when it goes out of scope.
 */
#ifndef TILVANE_PLATFORM_GLIB_PTR_H
#define TILVANE_PLATFORM_GLIB_PTR_H

#include <gio/gio.h>

#include <memory>

namespace tilvane {
namespace host {

struct GObjectUnref {
    void operator()(gpointer object) const
    {
        if (object != nullptr) {
            g_object_unref(object);
        }
    }
};
/* Unrefs an object of type T with `unref`, unless it is null. */
template <typename T, void (*unref)(T*)>
struct GUnref {
    void operator()(T* object) const
    {
        if (object != nullptr) {
            unref(object);
        }
    }
};
using GVariantUnref = GUnref<GVariant, g_variant_unref>;
using GMainContextUnref = GUnref<GMainContext, g_main_context_unref>;
using GMainLoopUnref = GUnref<GMainLoop, g_main_loop_unref>;
struct GFree {
    void operator()(gpointer memory) const { g_free(memory); }
};

using GDBusConnectionPtr = std::unique_ptr<GDBusConnection, GObjectUnref>;
using GVariantPtr = std::unique_ptr<GVariant, GVariantUnref>;
using GMainContextPtr = std::unique_ptr<GMainContext, GMainContextUnref>;
using GMainLoopPtr = std::unique_ptr<GMainLoop, GMainLoopUnref>;
using GCharPtr = std::unique_ptr<gchar, GFree>;

/* A GError that a call may fill; freed at the end of the scope. */
class ScopedError {
public:
    ScopedError() = default;
    ~ScopedError() { Clear(); }
    ScopedError(const ScopedError&) = delete;
    ScopedError& operator=(const ScopedError&) = delete;

    GError** Out()
    {
        Clear();
        return &error_;
    }
    GError* Get() const { return error_; }
    explicit operator bool() const { return error_ != nullptr; }
    const char* Message() const { return error_ != nullptr ? error_->message : ""; }
    void Clear()
    {
        if (error_ != nullptr) {
            g_error_free(error_);
            error_ = nullptr;
        }
    }

private:
    GError* error_ = nullptr;
};

}  // namespace host
}  // namespace tilvane

#endif
