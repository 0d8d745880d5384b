// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Base of the tests of the volume control object: an idle TV, the object, and its workers at rest. */
#ifndef KAVREL_TESTS_VOLUMECONTROLFIXTURE_H
#define KAVREL_TESTS_VOLUMECONTROLFIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "FakeSeam.h"
#include "GainFixture.h"
#include "KVDefine.h"
#include "KVUtils.h"
#include "VolumeControlImpl.h"

namespace fake {

inline constexpr const char* SPDIF_KEY = "memory/sysman/spdif";
inline constexpr const char* TV2MOBILE_KEY = "memory/menu/network/screenmirroring/smsrc_status";
inline constexpr const char* MULTIVIEW_KEY = "memory/multiscreen/info";
inline constexpr const char* SUB_BT_KEY = "memory/org.olvane.btapp/sub_audio_zoneid";
inline constexpr const char* HDMI_SUPPORT_KEY = "memory/menu/network/screenmirroring/volume_support_hdmi";

inline constexpr auto PLAYER = KVDefine::GAIN_SRC_PLAYER;
inline constexpr auto UNMUTE = KVDefine::GAIN_SRC_UNMUTE;

/** Holds the object's lock on another thread during its lifetime. */
class BusyOnAnotherThread {
public:
    explicit BusyOnAnotherThread(NKavrel::VolumeControlImpl& control)
        : m_thread([this, &control] {
              const auto lock = control.WaitForLock();
              m_held.set_value();
              m_released.get_future().wait();
          }) {
        m_held.get_future().wait();
    }
    ~BusyOnAnotherThread() {
        m_released.set_value();
        m_thread.join();
    }
    BusyOnAnotherThread(const BusyOnAnotherThread&) = delete;
    BusyOnAnotherThread& operator=(const BusyOnAnotherThread&) = delete;

private:
    std::promise<void> m_held;
    std::promise<void> m_released;
    std::thread m_thread;
};

class VolumeControlTest : public testing::Test {
protected:
    /**
     * Sets all settings that the object reads at its start: cable connected, no mirroring, single view, no
     * headset.
     */
    VolumeControlTest() {
        seam.SetInt(SPDIF_KEY, 1);
        seam.SetInt(TV2MOBILE_KEY, 0);
        seam.SetStr(MULTIVIEW_KEY, R"({"mode": "off"})");
        seam.SetInt(SUB_BT_KEY, -1);
    }

    /** Its workers finish the fades under way without their waits. */
    ~VolumeControlTest() override {
        SkipStepTimes(true);
        control.reset();
        SkipStepTimes(false);
    }

    /** Creates the object, waits until its workers rest, and empties the journal. */
    void Start() {
        Make();
        seam.Clear();
    }

    /** Does the same, but keeps the journal. */
    void Make() {
        control = std::make_unique<NKavrel::VolumeControlImpl>();
        ASSERT_TRUE(WorkersRest());
    }

    /** Starts in multi-view: zone 1 has the focus and plays on the TV speaker, zone 2 plays on HDMI. */
    void StartInMultiView() {
        seam.SetStr(MULTIVIEW_KEY, R"({"mode": "on"})");
        seam.SetZones({{1, 0}, {2, 2}});
        seam.SetFocus(1);
        Start();
    }

    /** Sets the unmute gain and waits until no worker will write it again. */
    void SetUnmuteGain(int gain) {
        constexpr const char* ROUND_OVER = "I Sleep AudioGainOut";
        const auto before = journal.With(ROUND_OVER).Count();
        ASSERT_EQ(control->ApplyAudioGain(UNMUTE, gain, 3, false), 0);
        ASSERT_TRUE(journal.With(ROUND_OVER).Wait(before + 1));
    }

    /** Registers a listener that records each change: "VOLUME_CHANGED 0xffff 30". */
    void Listen(const std::string& event) {
        control->SetEventHandler(event, [this, event](int support, int value) {
            char word[16];
            std::snprintf(word, sizeof word, "0x%04x", static_cast<unsigned int>(support));
            heard.push_back(event + ' ' + word + ' ' + std::to_string(value));
        });
    }

    void ListenToAll() {
        Listen("VOLUME_CHANGED");
        Listen("MUTE_CHANGED");
        Listen("SPEAKER_CHANGED");
    }

    FakeSeam& seam = FakeSeam::Get();
    fake::Journal& journal = seam.journal;
    std::vector<std::string> heard;
    std::unique_ptr<NKavrel::VolumeControlImpl> control;
};

}  // namespace fake

#endif
