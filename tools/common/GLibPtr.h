// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Owners of what GLib hands out. */
#ifndef KAVREL_TOOLS_GLIBPTR_H
#define KAVREL_TOOLS_GLIBPTR_H

#include <gio/gio.h>

#include <memory>

namespace tools {

struct GLibRelease {
    void operator()(char* text) const { g_free(text); }
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
    void operator()(GError* error) const { g_error_free(error); }
    void operator()(GSource* source) const {
        g_source_destroy(source);
        g_source_unref(source);
    }
    void operator()(GMainContext* context) const { g_main_context_unref(context); }
    void operator()(GDBusConnection* connection) const { g_object_unref(connection); }
    void operator()(GDBusMessage* message) const { g_object_unref(message); }
    void operator()(GCancellable* cancellable) const { g_object_unref(cancellable); }
};

template <typename T>
using GLibPtr = std::unique_ptr<T, GLibRelease>;
using Variant = GLibPtr<GVariant>;

/** The GError out-parameter of one call: `Failure error; f(..., error);`. */
class Failure {
public:
    Failure() = default;
    ~Failure() { g_clear_error(&m_error); }
    Failure(const Failure&) = delete;
    Failure& operator=(const Failure&) = delete;

    operator GError**() { return &m_error; }
    const GError* Get() const { return m_error; }
    explicit operator bool() const { return m_error != nullptr; }

private:
    GError* m_error = nullptr;
};

}  // namespace tools

#endif
