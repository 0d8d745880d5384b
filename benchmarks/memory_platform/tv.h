// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The platform in plain memory: a TV that only its own process can change. Behind the same eight headers as
 * the TV in a directory, it shows what the daemon costs without files.
 *
 * It holds what the comparison uses. Each setter reports a changed value on the calling thread before it
 * returns, as the seam promises; plain reads and gains take no lock.
 */
#ifndef KAVREL_MEMORY_TV_H
#define KAVREL_MEMORY_TV_H

#include <audio_hal.h>
#include <resource_center.h>
#include <sound_manager.h>
#include <vconf.h>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>

namespace memory {

inline constexpr int FAILURE = -1002;

template <typename Callback>
struct Slot {
    Callback callback = nullptr;
    void* data = nullptr;

    int Set(Callback newCallback, void* newData) {
        callback = newCallback;
        data = newData;
        return 0;
    }
    int Clear() {
        const bool wasSet = callback != nullptr;
        callback = nullptr;
        return wasSet ? 0 : FAILURE;
    }
    template <typename... Arguments>
    void Report(Arguments... arguments) const {
        if (callback != nullptr) {
            callback(arguments..., data);
        }
    }
};

struct Setting {
    std::string text;
    std::map<vconf_callback_fn, void*> watchers;  // to their user data
};

struct Tv {
    std::atomic<int> volume = 10;  // 0 to 100
    std::atomic<bool> mute = false;
    std::atomic<int> route = 0;
    std::atomic<int> mainGain = 100;  // percent
    std::atomic<int> subGain = 100;   // percent

    std::recursive_mutex lock;  // the delivery lock: held over a change and its reports; guards what follows
    Slot<audio_master_changed_cb> volumeSlot;
    Slot<audio_master_changed_cb> muteSlot;
    Slot<sound_manager_tv_master_mute_changed_cb> tvMuteSlot;
    Slot<sound_manager_speaker_changed_cb> routeSlot;
    Slot<sound_manager_multiview_speaker_selection_changed_cb> zoneRouteSlot;
    std::map<int, Slot<rc_audio_focus_changed_cb>> focusSlots;  // by id
    std::map<std::string, Setting> settings = {{"memory/multiscreen/info", {R"({"mode":"off"})", {}}}};
    std::set<std::string> events;  // those that are done
};

inline Tv& GetTv() {
    static Tv tv;
    return tv;
}

using Guard = std::lock_guard<std::recursive_mutex>;

}  // namespace memory

#endif
