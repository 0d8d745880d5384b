// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The state of the fake TV: its values, the registered callbacks, and reports to them.
 *
 * As on a TV, a setter that changes a value reports the change on the calling thread before it returns (see
 * ReportOwnChanges), and does not report an equal value. Each kind of callback has one registration, except
 * that many callbacks can watch a setting or the focus.
 */
#ifndef KAVREL_TESTS_FAKETV_H
#define KAVREL_TESTS_FAKETV_H

#include <audio_hal.h>
#include <resource_center.h>
#include <sound_manager.h>
#include <vconf.h>

#include <array>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/** A changed setting, as its watchers receive it. The getters return null for a missing name or text. */
struct _keynode_t {
    std::optional<std::string> name;
    int number = -1;
    std::optional<std::string> text;
};

namespace fake {

/** The number that a setting's text holds, if it is a number. */
std::optional<int> ParseInt(const std::string& text);
/** The node with which the watchers of a setting receive this text. */
keynode_t NodeOf(const std::string& key, const std::string& text);

template <typename Callback>
struct RegisteredCallback {
    Callback callback = nullptr;
    void* data = nullptr;
};

struct KeyWatch {
    vconf_callback_fn callback = nullptr;
    void* data = nullptr;
};

/** The values of a TV and the callbacks that are registered with it. A new one is the default TV. */
struct TvState {
    bool reportOwnChanges = true;

    std::map<std::string, std::string> settings;
    std::map<std::string, bool> features = {{"com.norvik/featureconf/internal_speaker_supported", true},
                                            {"com.norvik/featureconf/multiview.support", true},
                                            {"com.norvik/featureconf/projector_feature_support", false}};
    int route = 0;
    std::map<int, int> zones;
    std::optional<int> focus;
    int volume = 10;
    bool mute = false;
    /** By Out. */
    std::array<int, 2> gain = {100, 100};
    std::map<std::string, bool> events;

    std::map<std::string, std::vector<KeyWatch>> watches;
    RegisteredCallback<sound_manager_speaker_changed_cb> routeRegistration;
    RegisteredCallback<sound_manager_multiview_speaker_selection_changed_cb> zoneRouteRegistration;
    RegisteredCallback<sound_manager_tv_master_mute_changed_cb> tvMasterMuteRegistration;
    RegisteredCallback<audio_master_changed_cb> volumeRegistration;
    RegisteredCallback<audio_master_changed_cb> muteRegistration;
    std::map<int, RegisteredCallback<rc_audio_focus_changed_cb>> focusRegistrations;
    int lastFocusId = 0;
};

/** Any thread may call these functions. None holds a lock while it runs code of others. */
class FakeTv {
public:
    // Values. These functions neither report changes nor enter the journal.

    void SetInt(const std::string& key, int value);
    void SetStr(const std::string& key, const std::string& value);
    void RemoveKey(const std::string& key);
    std::optional<std::string> Value(const std::string& key) const;
    void SetFeature(const std::string& key, bool value);
    void SetRoute(int route);
    int Route() const;
    void SetZones(const std::map<int, int>& routeByZone);
    std::map<int, int> Zones() const;
    /** Without a zone, reading the focus fails. */
    void SetFocus(std::optional<int> zone);
    void SetVolume(int volume);
    int Volume() const;
    void SetMute(bool mute);
    bool Mute() const;
    void SetGain(int main, int sub);
    int MainGainValue() const;
    int SubGainValue() const;
    void SetEvent(const std::string& event, bool done);
    bool Event(const std::string& event) const;

    // Reports of changes that others made. Each function stores the value, calls the registered callbacks on the
    // calling thread, even for an equal value, and returns the number of callbacks that it called.

    int FireKey(const std::string& key, int value);
    int FireKey(const std::string& key, const std::string& value);
    /** Calls the watchers of `key` with any node, even null, and stores nothing. */
    int FireNode(const std::string& key, keynode_t* node);
    int FireRoute(int route);
    int FireZoneRoute(int route, int zone);
    int FireFocus(int zone);
    int FireVolume(unsigned int volume);
    int FireMute(unsigned int mute);
    int FireTvMasterMute(unsigned int mute);

    /** Makes setters report the changes that they make; true for a new TV. */
    void ReportOwnChanges(bool report);

    // Registrations, for tests that call a registered callback themselves.

    std::vector<KeyWatch> Watches(const std::string& key) const;
    RegisteredCallback<sound_manager_speaker_changed_cb> RouteRegistration() const;
    RegisteredCallback<sound_manager_multiview_speaker_selection_changed_cb> ZoneRouteRegistration() const;
    RegisteredCallback<sound_manager_tv_master_mute_changed_cb> TvMasterMuteRegistration() const;
    RegisteredCallback<audio_master_changed_cb> VolumeRegistration() const;
    RegisteredCallback<audio_master_changed_cb> MuteRegistration() const;
    std::map<int, RegisteredCallback<rc_audio_focus_changed_cb>> FocusRegistrations() const;

protected:
    void ResetTv();
    /** Runs `effect` on the state, under the lock of this class. */
    template <typename Effect>
    auto Change(Effect effect) {
        const std::lock_guard lock(m_mutex);
        return effect(m_state);
    }

private:
    /** Reads one thing of the state. */
    template <typename Thing>
    Thing Read(Thing TvState::*thing) const {
        const std::lock_guard lock(m_mutex);
        return m_state.*thing;
    }

    mutable std::mutex m_mutex;
    /** Guarded by m_mutex. */
    TvState m_state;
};

/** Calls the registered callback, if there is one. Returns the number of calls made, 0 or 1. */
template <typename Callback, typename... Values>
int Report(const RegisteredCallback<Callback>& registration, Values... values) {
    if (registration.callback == nullptr) {
        return 0;
    }
    registration.callback(values..., registration.data);
    return 1;
}

}  // namespace fake

#endif
