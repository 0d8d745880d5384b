// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_SOUND_DEVICE_H
#define KAVREL_SOUND_DEVICE_H

#include <Platform.h>
#include <Routes.h>

#include <functional>
#include <optional>

#include "Agreement.h"
#include "SinkWriter.h"

namespace sound {

/** The outputs of one kind: keeps level and mute of their sink equal to those in the TV directory. */
class Device {
public:
    /** @param kind null: the TV's own outputs
     *  @param whenDue called when the answer to a request may be published */
    Device(tools::MainLoop& loop, SinkWriter& writer, const tv::DeviceKind* kind,
           std::function<void()> whenDue);

    const tv::DeviceKind* Kind() const { return m_kind; }

    /** Makes the TV directory and the sink agree.
     *  @param sink null: there is none, or no server; when it is back, the TV directory is right
     *  @param mayPublish false: another program plays the external outputs of this TV */
    void Follow(Sink* sink, bool mayPublish);

    /** Sets what a client asked the output for, and publishes all values a little later, equal ones too.
     *  @param sink null: there is none, and no answer */
    void Ask(Sink* sink, std::optional<int> level, std::optional<int> mute);

private:
    /** A value that both sides hold, and how to set the sink's. */
    struct Shared {
        host::Value file;
        Agreement agreement;
    };

    void Follow(Sink& sink, Shared& shared, int ofServer, int highest, const std::function<void(int)>& set);
    void Publish(const host::Value& file, int value, bool isAnswer);
    void Interrupt();

    tools::MainLoop& m_loop;
    SinkWriter& m_writer;
    const tv::DeviceKind* const m_kind;
    const std::function<void()> m_whenDue;
    Shared m_level;
    Shared m_mute;
    bool m_isAsked = false;
    tools::GLibPtr<GSource> m_answer;  // until it is due
};

}  // namespace sound

#endif
