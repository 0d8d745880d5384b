// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Base of the tests of both speaker emulators: the peer that keeps the volume, and a listener. */
#ifndef KAVREL_TESTS_EMULATORPEER_H
#define KAVREL_TESTS_EMULATORPEER_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "FakeSeam.h"
#include "Gio.h"
#include "KVUtils.h"
#include "PrivateBus.h"

namespace fake {

inline constexpr const char* DAEMON_PATH = "/Org/Olvane/Kavrel";
inline constexpr const char* DAEMON_INTERFACE = "org.olvane.kavrel";
inline constexpr const char* SUBSCRIBE_CALL =
    "g_dbus_connection_signal_subscribe(*, org.olvane.kavrel, SpkVolumeChanged, /Org/Olvane/Kavrel, *, 0)";

class EmulatorTest : public testing::Test {
protected:
    EmulatorTest(const char* name, const char* path, const char* interface)
        : peer(name, path, interface,
               "<method name='GetSpkVolume'><arg direction='out' type='i'/><arg direction='out' type='i'/>"
               "<arg direction='out' type='i'/></method>"
               "<method name='SetSpkVolume'><arg direction='in' type='i'/><arg direction='out' type='i'/>"
               "<arg direction='out' type='i'/></method>",
               {{"GetSpkVolume",
                 [this](GVariant*) {
                     return refuses ? nullptr
                                    : g_variant_new("(iii)", first.load(), level.load(), result.load());
                 }},
                {"SetSpkVolume", [this](GVariant*) {
                     return refuses ? nullptr : g_variant_new("(ii)", first.load(), result.load());
                 }}}) {
        NKavrel::KVUtils::GetConnection();
        seam.Clear();
    }

    /** Removes the subscriptions that the test made: they point to a speaker that no longer exists. */
    ~EmulatorTest() override { gio::RemoveLeftovers(); }

    auto VolumeHandler() {
        return [this](int volume) { heard.push_back("volume " + std::to_string(volume)); };
    }
    auto MuteHandler() {
        return [this](int mute) { heard.push_back("mute " + std::to_string(mute)); };
    }

    /** This thread's calls, and the log lines of this source file. */
    Query By(const char* file) const { return journal.Here().By(file); }
    /** The source file and the function of each error line. */
    std::vector<std::string> Errors() const {
        std::vector<std::string> errors;
        for (const Entry& entry : journal.Here().Logs(DLOG_ERROR).Entries()) {
            errors.push_back(entry.site.file + ' ' + entry.site.function);
        }
        return errors;
    }

    /** Emits a change signal and dispatches it if it reached the daemon's connection. */
    void Announce(GVariant* body, const char* name = "SpkVolumeChanged", const char* path = DAEMON_PATH,
                  const char* interface = DAEMON_INTERFACE) {
        client.Emit(path, interface, name, body);
        RunMainContextUntilQuiet();
    }

    /** The values with which the peer answers. */
    std::atomic<int> first = 3;
    std::atomic<int> level = 17;
    std::atomic<int> result = 0;
    std::atomic<bool> refuses = false;

    FakeSeam& seam = FakeSeam::Get();
    fake::Journal& journal = seam.journal;
    std::vector<std::string> heard;
    BusPeer peer;
    BusClient client;
};

}  // namespace fake

#endif
