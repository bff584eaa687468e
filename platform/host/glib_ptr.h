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
struct GVariantUnref {
    void operator()(GVariant* value) const
    {
        if (value != nullptr) {
            g_variant_unref(value);
        }
    }
};
struct GMainContextUnref {
    void operator()(GMainContext* context) const
    {
        if (context != nullptr) {
            g_main_context_unref(context);
        }
    }
};
struct GMainLoopUnref {
    void operator()(GMainLoop* loop) const
    {
        if (loop != nullptr) {
            g_main_loop_unref(loop);
        }
    }
};
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
