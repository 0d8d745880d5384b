// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Implements the eight headers of the TV's platform in memory, for tests.
 *
 * It is made of a journal (Journal.h), a TV (FakeTv.h), interference with calls (Interference.h) and the
 * functions of the headers (EightHeaders.cpp). A test presets values, makes calls fail, runs code inside a
 * call, fires reports of the platform, and checks the journal.
 *
 * All functions may be called from any thread. The fake holds none of its locks while it runs code of others.
 */
#ifndef KAVREL_TESTS_FAKESEAM_H
#define KAVREL_TESTS_FAKESEAM_H

#include <audio_control.h>
#include <audio_hal.h>
#include <dlog.h>
#include <lwipc.h>
#include <resource_center.h>
#include <sound_manager.h>
#include <system_info.h>
#include <vconf.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "FakeTv.h"
#include "Interference.h"
#include "Journal.h"

namespace fake {

class FakeSeam : public FakeTv, public Interference {
public:
    static FakeSeam& Get();

    Journal journal;

    /**
     * Restores the default TV: internal speaker, multi-view supported but off, no projector, route 0, volume
     * 10, unmuted, no zones and no focus, no settings, no registrations, both gains 100. Drops all planned
     * failures and hooks, and empties the journal.
     */
    void Reset();
    /** Empties the journal, but keeps values, planned failures and registrations. */
    void Clear() { journal.Clear(); }
    /**
     * Records a call of a function outside the seam, which the test program defines in place of a library's.
     * @return the result with which the call must fail, if any
     */
    std::optional<int> Enter(const std::string& name, const std::string& arguments);
    /** Whether the calling thread runs the code of a hook. */
    static bool IsInsideHook();

private:
    friend class Seam;

    FakeSeam() = default;

    /**
     * Adds the entry to the journal and runs the hooks on it.
     * @return the result with which the call must fail, if any
     */
    std::optional<int> Record(Entry entry);
};

/** Runs `action` on another thread, as a platform reports, and waits until it returns. */
void OnPlatformThread(const std::function<void()>& action);

}  // namespace fake

#endif
