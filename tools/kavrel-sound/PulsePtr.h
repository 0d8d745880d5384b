// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_SOUND_PULSEPTR_H
#define KAVREL_SOUND_PULSEPTR_H

#include <pulse/glib-mainloop.h>
#include <pulse/pulseaudio.h>

#include <memory>

namespace sound {

struct PulseRelease {
    void operator()(pa_glib_mainloop* loop) const { pa_glib_mainloop_free(loop); }
    void operator()(pa_proplist* properties) const { pa_proplist_free(properties); }
    /** Its callbacks are not called again. */
    void operator()(pa_operation* operation) const {
        pa_operation_cancel(operation);
        pa_operation_unref(operation);
    }
    void operator()(pa_context* context) const {
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_set_subscribe_callback(context, nullptr, nullptr);
        pa_context_disconnect(context);
        pa_context_unref(context);
    }
    void operator()(pa_stream* stream) const {
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_set_read_callback(stream, nullptr, nullptr);
        pa_stream_set_write_callback(stream, nullptr, nullptr);
        pa_stream_disconnect(stream);
        pa_stream_unref(stream);
    }
};

/** Owns a value of libpulse. */
template <typename T>
using PulsePtr = std::unique_ptr<T, PulseRelease>;

}  // namespace sound

#endif
