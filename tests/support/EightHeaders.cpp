// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The functions of the eight headers of the TV's platform, over the fake seam. */
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "FakeSeam.h"

struct _rc_zone {
    int id = 0;
};

struct _rc_zone_list {
    std::vector<_rc_zone> zones;
    std::size_t next = 0;
};

namespace fake {

namespace {

/** Results as the host platform returns them: -1000 minus the errno. */
constexpr int NOT_FOUND = -1002;
constexpr int BAD_TEXT = -1022;
constexpr int NO_SUCH_ZONE = -26607612;

std::string Shown(int value) {
    return std::to_string(value);
}
std::string Shown(bool value) {
    return value ? "true" : "false";
}
std::string Shown(const char* value) {
    return value == nullptr ? "NULL" : '"' + std::string(value) + '"';
}

template <typename... Values>
std::string Arguments(Values... values) {
    std::string text;
    ((text += (text.empty() ? "" : ", ") + Shown(values)), ...);
    return text;
}

std::string Format(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<std::size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

}  // namespace

/** Helpers of the functions of the eight headers. */
class Seam {
public:
    /** A report to make after the call took effect and the fake's lock is released. */
    using PendingReport = std::function<void(FakeSeam&)>;

    /**
     * Makes one seam call: enters the journal, runs the hooks and fails if a test asked for that. Otherwise
     * runs `effect` under the lock, and then makes the report that `effect` set.
     */
    template <typename Effect>
    static auto Call(const char* name, const std::string& arguments, Effect effect) {
        using Result = std::invoke_result_t<Effect, TvState&, PendingReport&>;
        FakeSeam& fake = FakeSeam::Get();
        if (const auto failed = fake.Record(CallEntry(name, arguments))) {
            if constexpr (std::is_pointer_v<Result>) {
                return static_cast<Result>(nullptr);
            } else {
                return static_cast<Result>(*failed);
            }
        }
        PendingReport report;
        const Result result = fake.Change([&](TvState& state) {
            const Result made = effect(state, report);
            report = state.reportOwnChanges ? report : nullptr;
            return made;
        });
        if (report != nullptr) {
            report(fake);
        }
        return result;
    }

    template <typename Callback>
    static int Register(const char* name, RegisteredCallback<Callback> TvState::*registration,
                        Callback callback, void* data) {
        return Call(name, "", [&](TvState& state, PendingReport&) {
            state.*registration = {callback, data};
            return 0;
        });
    }

    template <typename Callback>
    static int Deregister(const char* name, RegisteredCallback<Callback> TvState::*registration) {
        return Call(name, "", [&](TvState& state, PendingReport&) {
            const bool set = (state.*registration).callback != nullptr;
            state.*registration = {};
            return set ? 0 : NOT_FOUND;
        });
    }

    static int GetGain(const char* name, Out out, int* gain) {
        return Call(name, "", [&](TvState& state, PendingReport&) {
            *gain = state.gain[static_cast<std::size_t>(out)];
            return 0;
        });
    }

    static int SetGain(const char* name, Out out, int gain) {
        return Call(name, Arguments(gain), [&](TvState& state, PendingReport&) {
            state.gain[static_cast<std::size_t>(out)] = gain;
            FakeSeam::Get().journal.Add(GainEntry(out, gain));
            return 0;
        });
    }

    static bool DropsLogLines() { return FakeSeam::Get().journal.DropsLogLines(); }

    static int Log(int priority, const char* tag, const std::string& raw) {
        FakeSeam::Get().Record(LogEntry(priority, tag, raw));
        return 0;
    }

    static int SetKey(const char* name, const char* key, const std::string& shown, const std::string& value) {
        return Call(name, Arguments(key) + ", " + shown, [&](TvState& state, PendingReport& report) {
            const auto [place, isNew] = state.settings.try_emplace(key, value);
            if (isNew || place->second != value) {
                place->second = value;
                report = [key = std::string(key), value](FakeSeam& fake) {
                    keynode_t node = NodeOf(key, value);
                    fake.FireNode(key, &node);
                };
            }
            return 0;
        });
    }

    static AudioControl* Glue() {
        static AudioControl control = [] {
            AudioControl functions = {};
            functions.get_main_out_gain2 = [](int* gain) {
                return GetGain("get_main_out_gain2", Out::MAIN, gain);
            };
            functions.set_main_out_gain2 = [](int gain) {
                return SetGain("set_main_out_gain2", Out::MAIN, gain);
            };
            functions.get_sub_out_gain2 = [](int* gain) {
                return GetGain("get_sub_out_gain2", Out::SUB, gain);
            };
            functions.set_sub_out_gain2 = [](int gain) {
                return SetGain("set_sub_out_gain2", Out::SUB, gain);
            };
            return functions;
        }();
        return Call("AudioControl_getInstance", "", [](TvState&, PendingReport&) { return &control; });
    }
};

}  // namespace fake

using fake::Arguments;
using fake::FakeSeam;
using fake::NOT_FOUND;
using fake::Seam;
using fake::TvState;
using PendingReport = Seam::PendingReport;

extern "C" {

// dlog.h

int __dlog_print(int priority, const char* tag, const char* fmt, ...) {
    if (Seam::DropsLogLines()) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, fmt);
    const std::string raw = fake::Format(fmt, arguments);
    va_end(arguments);
    return Seam::Log(priority, tag, raw);
}

// vconf.h

int vconf_get_int(const char* key, int* value) {
    return Seam::Call("vconf_get_int", Arguments(key), [&](TvState& state, PendingReport&) {
        const auto found = state.settings.find(key);
        if (found == state.settings.end()) {
            return NOT_FOUND;
        }
        const auto parsed = fake::ParseInt(found->second);
        *value = parsed.value_or(*value);
        return parsed ? 0 : fake::BAD_TEXT;
    });
}

int vconf_set_int(const char* key, int value) {
    return Seam::SetKey("vconf_set_int", key, Arguments(value), std::to_string(value));
}

char* vconf_get_str(const char* key) {
    return Seam::Call("vconf_get_str", Arguments(key), [&](TvState& state, PendingReport&) -> char* {
        const auto found = state.settings.find(key);
        return found == state.settings.end() ? nullptr : strdup(found->second.c_str());
    });
}

int vconf_set_str(const char* key, const char* value) {
    return Seam::SetKey("vconf_set_str", key, Arguments(value), value);
}

int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data) {
    return Seam::Call("vconf_notify_key_changed", Arguments(key), [&](TvState& state, PendingReport&) {
        auto& watches = state.watches[key];
        const auto found = std::ranges::find(watches, callback, &fake::KeyWatch::callback);
        if (found == watches.end()) {
            watches.push_back({callback, user_data});
        } else {
            found->data = user_data;
        }
        return 0;
    });
}

int vconf_ignore_key_changed(const char* key, vconf_callback_fn callback) {
    return Seam::Call("vconf_ignore_key_changed", Arguments(key), [&](TvState& state, PendingReport&) {
        const auto removed = std::erase_if(
            state.watches[key], [&](const fake::KeyWatch& watch) { return watch.callback == callback; });
        return removed > 0 ? 0 : NOT_FOUND;
    });
}

char* vconf_keynode_get_name(keynode_t* node) {
    return Seam::Call("vconf_keynode_get_name", "",
                      [&](TvState&, PendingReport&) { return node->name ? node->name->data() : nullptr; });
}

int vconf_keynode_get_int(keynode_t* node) {
    return Seam::Call("vconf_keynode_get_int", "", [&](TvState&, PendingReport&) { return node->number; });
}

char* vconf_keynode_get_str(keynode_t* node) {
    return Seam::Call("vconf_keynode_get_str", "",
                      [&](TvState&, PendingReport&) { return node->text ? node->text->data() : nullptr; });
}

// system_info.h

int system_info_get_custom_bool(const char* key, bool* value) {
    return Seam::Call("system_info_get_custom_bool", Arguments(key), [&](TvState& state, PendingReport&) {
        const auto found = state.features.find(key);
        if (found == state.features.end()) {
            return NOT_FOUND;
        }
        *value = found->second;
        return 0;
    });
}

// sound_manager.h

int sound_manager_get_speaker_selection(sound_tv_output_route_e* route) {
    return Seam::Call("sound_manager_get_speaker_selection", "", [&](TvState& state, PendingReport&) {
        *route = state.route;
        return 0;
    });
}

int sound_manager_set_speaker_selection(sound_tv_output_route_e route) {
    return Seam::Call(
        "sound_manager_set_speaker_selection", Arguments(route), [&](TvState& state, PendingReport& report) {
            if (std::exchange(state.route, route) != route) {
                report = [route](FakeSeam& fake) { fake::Report(fake.RouteRegistration(), route); };
            }
            return 0;
        });
}

int sound_manager_get_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e* route, int zone_id) {
    return Seam::Call("sound_manager_get_multiview_speaker_selection_with_zone_id", Arguments(zone_id),
                      [&](TvState& state, PendingReport&) {
                          const auto found = state.zones.find(zone_id);
                          if (found == state.zones.end()) {
                              return fake::NO_SUCH_ZONE;
                          }
                          *route = found->second;
                          return 0;
                      });
}

int sound_manager_set_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e route, int zone_id) {
    return Seam::Call("sound_manager_set_multiview_speaker_selection_with_zone_id", Arguments(route, zone_id),
                      [&](TvState& state, PendingReport& report) {
                          const auto found = state.zones.find(zone_id);
                          if (found == state.zones.end()) {
                              return fake::NO_SUCH_ZONE;
                          }
                          if (std::exchange(found->second, route) != route) {
                              report = [route, zone_id](FakeSeam& fake) {
                                  fake::Report(fake.ZoneRouteRegistration(), route, zone_id);
                              };
                          }
                          return 0;
                      });
}

int sound_manager_set_speaker_changed_cb(sound_manager_speaker_changed_cb callback, void* user_data) {
    return Seam::Register("sound_manager_set_speaker_changed_cb", &TvState::routeRegistration, callback,
                          user_data);
}

int sound_manager_unset_speaker_changed_cb(void) {
    return Seam::Deregister("sound_manager_unset_speaker_changed_cb", &TvState::routeRegistration);
}

int sound_manager_set_multiview_speaker_selection_changed_cb(
    sound_manager_multiview_speaker_selection_changed_cb callback, void* user_data) {
    return Seam::Register("sound_manager_set_multiview_speaker_selection_changed_cb",
                          &TvState::zoneRouteRegistration, callback, user_data);
}

int sound_manager_unset_multiview_speaker_selection_changed_cb(void) {
    return Seam::Deregister("sound_manager_unset_multiview_speaker_selection_changed_cb",
                            &TvState::zoneRouteRegistration);
}

int sound_manager_set_tv_master_mute_changed_cb(sound_manager_tv_master_mute_changed_cb callback,
                                                void* user_data) {
    return Seam::Register("sound_manager_set_tv_master_mute_changed_cb", &TvState::tvMasterMuteRegistration,
                          callback, user_data);
}

int sound_manager_unset_tv_master_mute_changed_cb(void) {
    return Seam::Deregister("sound_manager_unset_tv_master_mute_changed_cb",
                            &TvState::tvMasterMuteRegistration);
}

// audio_hal.h

int audio_get_master_volume(int* volume) {
    return Seam::Call("audio_get_master_volume", "", [&](TvState& state, PendingReport&) {
        *volume = state.volume;
        return 0;
    });
}

int audio_set_master_volume(int volume, int mode) {
    return Seam::Call("audio_set_master_volume", Arguments(volume, mode),
                      [&](TvState& state, PendingReport& report) {
                          if (std::exchange(state.volume, volume) != volume) {
                              report = [volume](FakeSeam& fake) {
                                  fake::Report(fake.VolumeRegistration(), static_cast<unsigned int>(volume));
                              };
                          }
                          return 0;
                      });
}

int audio_get_master_mute(bool* mute) {
    return Seam::Call("audio_get_master_mute", "", [&](TvState& state, PendingReport&) {
        *mute = state.mute;
        return 0;
    });
}

int audio_set_master_mute(bool mute) {
    return Seam::Call("audio_set_master_mute", Arguments(mute), [&](TvState& state, PendingReport& report) {
        if (std::exchange(state.mute, mute) != mute) {
            report = [mute](FakeSeam& fake) {
                fake::Report(fake.MuteRegistration(), static_cast<unsigned int>(mute));
                fake::Report(fake.TvMasterMuteRegistration(), static_cast<unsigned int>(mute));
            };
        }
        return 0;
    });
}

int audio_register_master_volume_changed_cb(audio_master_changed_cb callback, void* user_data) {
    return Seam::Register("audio_register_master_volume_changed_cb", &TvState::volumeRegistration, callback,
                          user_data);
}

int audio_register_master_mute_changed_cb(audio_master_changed_cb callback, void* user_data) {
    return Seam::Register("audio_register_master_mute_changed_cb", &TvState::muteRegistration, callback,
                          user_data);
}

int audio_unregister_master_volume_changed_cb(void) {
    return Seam::Deregister("audio_unregister_master_volume_changed_cb", &TvState::volumeRegistration);
}

int audio_unregister_master_mute_changed_cb(void) {
    return Seam::Deregister("audio_unregister_master_mute_changed_cb", &TvState::muteRegistration);
}

// resource_center.h

int rc_get_zone_list(rc_zone_list_h* list) {
    return Seam::Call("rc_get_zone_list", "", [&](TvState& state, PendingReport&) {
        auto zones = std::make_unique<_rc_zone_list>();
        for (const auto& [id, route] : state.zones) {
            zones->zones.push_back({id});
        }
        *list = zones.release();
        return 0;
    });
}

int rc_get_next_zone(rc_zone_list_h list, rc_zone_h* zone) {
    return Seam::Call("rc_get_next_zone", "", [&](TvState&, PendingReport&) {
        if (list->next == list->zones.size()) {
            return NOT_FOUND;
        }
        *zone = &list->zones[list->next++];
        return 0;
    });
}

int rc_get_zone_id(rc_zone_h zone, int* zone_id) {
    return Seam::Call("rc_get_zone_id", "", [&](TvState&, PendingReport&) {
        *zone_id = zone->id;
        return 0;
    });
}

int rc_free_zone_list(rc_zone_list_h list) {
    // Also when the call fails: nobody can free the list afterwards.
    const std::unique_ptr<_rc_zone_list> freed(list);
    return Seam::Call("rc_free_zone_list", "", [](TvState&, PendingReport&) { return 0; });
}

int rc_get_audio_focus(int* zone_id) {
    return Seam::Call("rc_get_audio_focus", "", [&](TvState& state, PendingReport&) {
        *zone_id = state.focus.value_or(*zone_id);
        return state.focus ? 0 : NOT_FOUND;
    });
}

int rc_register_audio_focus_changed_callback(rc_audio_focus_changed_cb callback, void* user_data) {
    return Seam::Call("rc_register_audio_focus_changed_callback", "", [&](TvState& state, PendingReport&) {
        state.focusRegistrations[++state.lastFocusId] = {callback, user_data};
        return state.lastFocusId;
    });
}

int rc_unregister_audio_focus_changed_callback(int callback_id) {
    return Seam::Call("rc_unregister_audio_focus_changed_callback", Arguments(callback_id),
                      [&](TvState& state, PendingReport&) {
                          return state.focusRegistrations.erase(callback_id) > 0 ? 0 : NOT_FOUND;
                      });
}

// audio_control.h

AudioControl* AudioControl_getInstance(void) {
    return Seam::Glue();
}

// lwipc.h

int LwipcEventDone(const char* event) {
    return Seam::Call("LwipcEventDone", Arguments(event), [&](TvState& state, PendingReport&) {
        state.events[event] = true;
        return 0;
    });
}

int LwipcResetEvent(const char* event) {
    return Seam::Call("LwipcResetEvent", Arguments(event), [&](TvState& state, PendingReport&) {
        state.events[event] = false;
        return 0;
    });
}

int LwipcIsDone(const char* event) {
    return Seam::Call("LwipcIsDone", Arguments(event),
                      [&](TvState& state, PendingReport&) { return state.events[event] ? 1 : 0; });
}

}  // extern "C"
