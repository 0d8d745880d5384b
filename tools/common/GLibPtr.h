// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Owners of GLib's values, for tools, tests and benchmarks. */
#ifndef KAVREL_TOOLS_GLIBPTR_H
#define KAVREL_TOOLS_GLIBPTR_H

#include <gio/gio.h>

#include <memory>
#include <string>

namespace tools {

struct GLibRelease {
    void operator()(char* text) const { g_free(text); }
    void operator()(char** texts) const { g_strfreev(texts); }
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
    void operator()(GBytes* bytes) const { g_bytes_unref(bytes); }
    void operator()(GError* error) const { g_error_free(error); }
    /** Removes the source from its context, too: its callback is not called again. */
    void operator()(GSource* source) const {
        g_source_destroy(source);
        g_source_unref(source);
    }
    void operator()(GMainContext* context) const { g_main_context_unref(context); }
    void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
    void operator()(GDBusNodeInfo* node) const { g_dbus_node_info_unref(node); }
    /** Every type that has no overload of its own is a GObject. */
    template <typename Object>
    void operator()(Object* object) const {
        g_object_unref(object);
    }
};

/** Owns one reference to a GLib value, or the memory of a `char*` or of a list of them. */
template <typename T>
using GLibPtr = std::unique_ptr<T, GLibRelease>;
using Variant = GLibPtr<GVariant>;

/** Receives and owns the error of one call: `GLibError error; if (!f(..., error)) { ... error->message ... }`. */
class GLibError {
public:
    GLibError() = default;
    ~GLibError() { g_clear_error(&m_error); }
    GLibError(const GLibError&) = delete;
    GLibError& operator=(const GLibError&) = delete;

    operator GError**() { return &m_error; }
    const GError* operator->() const { return m_error; }
    const GError* Get() const { return m_error; }
    /** Deleted, because `if (error)` would test the address that is handed out for the error; use Get(). */
    explicit operator bool() = delete;

private:
    GError* m_error = nullptr;
};

/** The value in GVariant's text format, without type annotations: "(30, 'HDMI')". */
inline std::string Printed(GVariant* value) {
    return GLibPtr<char>(g_variant_print(value, FALSE)).get();
}

}  // namespace tools

#endif
