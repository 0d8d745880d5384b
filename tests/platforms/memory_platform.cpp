// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "memory_platform.h"

#include <audio_control.h>
#include <audio_hal.h>
#include <dlog.h>
#include <lwipc.h>
#include <resource_center.h>
#include <sound_manager.h>
#include <system_info.h>
#include <unistd.h>
#include <vconf.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

using memory::ThePlatform;

namespace memory {

Platform& ThePlatform() {
    static Platform& platform = *[] {
        const char* const wrong = std::getenv("WRONG_PLATFORM");
        Platform* const made = wrong != nullptr ? MakeWrong(wrong) : std::make_unique<Platform>().release();
        if (made == nullptr) {
            std::abort();
        }
        return made;
    }();
    return platform;
}

// --- This process

std::optional<std::string> Platform::Present(const std::string& name) {
    const StateGuard guard(m_state);
    const auto found = m_values.find(name);
    return found != m_values.end() && !m_unreadable.contains(name) ? std::optional(found->second)
                                                                   : std::nullopt;
}

std::optional<std::string> Platform::Read(const std::string& name) {
    return Present(name);
}

void Platform::Write(const std::string& name, const std::string& text) {
    const StateGuard guard(m_state);
    m_values[name] = text;
}

int Platform::Set(const std::string& name, const std::string& text) {
    const Guard delivery(Lock(name));
    const bool isNews = Present(name) != text;
    Write(name, text);
    if (isNews) {
        Deliver(name, text);
    }
    return 0;
}

int Platform::SetVolume(int volume) {
    return volume >= 0 && volume <= 100 ? Set("volume", std::to_string(volume)) : WRONG;
}

std::vector<int> Platform::Zones() {
    const StateGuard guard(m_state);
    return {m_zones.begin(), m_zones.end()};
}

// --- Registrations

std::string Platform::TopicOf(const std::string& name) {
    return name.starts_with("zone/") ? "zones" : name;
}

int Platform::Add(const std::string& topic, const std::string& slot, const void* callback, Handler handler) {
    const Guard delivery(Lock(topic));
    Start();
    const bool isFirst = Registered(topic).empty();
    const StateGuard guard(m_state);
    if (isFirst) {
        for (const auto& [name, text] : m_values) {
            if (TopicOf(name) == topic) {
                m_known[name] = text;
            }
        }
    }
    m_registrations.push_back({++m_lastId, topic, slot, callback, std::move(handler)});
    return m_lastId;
}

int Platform::AddToSlot(const std::string& topic, const std::string& slot, Handler handler) {
    const Guard delivery(Lock(topic));
    const std::vector<Registration> before = Registered(topic);
    Add(topic, slot, nullptr, std::move(handler));
    for (const Registration& registration : before) {
        if (registration.slot == slot) {
            Erase(registration.id);
        }
    }
    return 0;
}

int Platform::AddForKey(const std::string& topic, const void* callback, Handler handler) {
    const Guard delivery(Lock(topic));
    {
        const StateGuard guard(m_state);
        for (Registration& registration : m_registrations) {
            if (registration.topic == topic && registration.callback == callback) {
                registration.handler = handler;
                return 0;
            }
        }
    }
    Add(topic, {}, callback, std::move(handler));
    return 0;
}

bool Platform::Remove(const std::string& topic, int id) {
    const Guard delivery(Lock(topic));
    const auto all = Registered(topic);
    if (std::none_of(all.begin(), all.end(), [&](const Registration& one) { return one.id == id; })) {
        return false;
    }
    Erase(id);
    return true;
}

bool Platform::RemoveSlot(const std::string& topic, const std::string& slot) {
    const Guard delivery(Lock(topic));
    for (const Registration& registration : Registered(topic)) {
        if (registration.slot == slot) {
            return Remove(topic, registration.id);
        }
    }
    return false;
}

bool Platform::RemoveForKey(const std::string& topic, const void* callback) {
    const Guard delivery(Lock(topic));
    for (const Registration& registration : Registered(topic)) {
        if (registration.callback == callback) {
            return Remove(topic, registration.id);
        }
    }
    return false;
}

std::vector<Registration> Platform::Registered(const std::string& topic) {
    const StateGuard guard(m_state);
    std::vector<Registration> found;
    std::copy_if(m_registrations.begin(), m_registrations.end(), std::back_inserter(found),
                 [&](const Registration& registration) { return registration.topic == topic; });
    return found;
}

bool Platform::IsRegistered(int id) {
    const StateGuard guard(m_state);
    return std::any_of(m_registrations.begin(), m_registrations.end(),
                       [&](const Registration& registration) { return registration.id == id; });
}

void Platform::Erase(int id) {
    const StateGuard guard(m_state);
    std::erase_if(m_registrations, [&](const Registration& registration) { return registration.id == id; });
}

// --- Reports

void Platform::Know(const std::string& name, const std::string& text) {
    const StateGuard guard(m_state);
    m_known[name] = text;
}

bool Platform::IsKnown(const std::string& name, const std::string& text) {
    const StateGuard guard(m_state);
    const auto found = m_known.find(name);
    return found != m_known.end() && found->second == text;
}

/** Calls the registrations of this moment that still exist. A newer report of the value ends this one. */
void Platform::Deliver(const std::string& name, const std::string& text) {
    Know(name, text);
    unsigned int number = 0;
    {
        const StateGuard guard(m_state);
        number = ++m_deliveries[name];
    }
    for (const Registration& registration : Registered(TopicOf(name))) {
        if (IsRegistered(registration.id)) {
            registration.handler(name, text);
        }
        const StateGuard guard(m_state);
        if (m_deliveries[name] != number) {
            return;
        }
    }
}

void Platform::Start() {
    const StateGuard guard(m_state);
    if (m_hasStarted) {
        return;
    }
    m_hasStarted = true;
    std::thread([this] {
        for (;;) {
            std::unique_lock lock(m_state);
            m_changed.wait(lock, [this] { return !m_pending.empty(); });
            const Pending pending = m_pending.front();
            m_pending.pop_front();
            lock.unlock();
            Handle(pending);
        }
    }).detach();
}

void Platform::Handle(const Pending& pending) {
    const Guard delivery(Lock(pending.name));
    const std::optional<std::string> present = Present(pending.name);
    if (present && !IsKnown(pending.name, *present)) {
        Deliver(pending.name, *present);
    }
}

void Platform::Queue(const Pending& pending) {
    const StateGuard guard(m_state);
    m_pending.push_back(pending);
    m_changed.notify_all();
}

// --- Somebody else

void Platform::Change(const std::string& name, const std::optional<std::string>& text) {
    {
        const StateGuard guard(m_state);
        if (!text) {
            m_values.erase(name);
            return;
        }
        m_values[name] = *text;
        m_unreadable.erase(name);
    }
    Queue({name, *text});
}

void Platform::SetZones(const std::set<int>& zones) {
    const StateGuard guard(m_state);
    for (const int zone : m_zones) {
        if (!zones.contains(zone)) {
            m_values.erase("zone/" + std::to_string(zone));
        }
    }
    m_zones = zones;
}

void Platform::SetReadable(const std::string& name, bool isReadable) {
    const StateGuard guard(m_state);
    if (isReadable) {
        m_unreadable.erase(name);
    } else {
        m_unreadable.insert(name);
    }
}

}  // namespace memory

// --- The seam

struct _keynode_t {
    std::string name;  // with "setting/"
    std::string text;
};

struct _rc_zone {
    int id;
};

struct _rc_zone_list {
    std::vector<_rc_zone> zones;
    std::size_t next = 0;
};

namespace {

constexpr std::string_view SETTING = "setting/";
constexpr std::size_t LONGEST_TEXT = 1024U * 1024;

bool Parse(const std::string& text, int& value) {
    int parsed = 0;
    const char* const end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, parsed);
    if (error != std::errc() || at != end) {
        return false;
    }
    value = parsed;
    return true;
}

int GetInteger(const std::string& name, int* value) {
    const auto text = ThePlatform().Read(name);
    if (value == nullptr || !text || !Parse(*text, *value)) {
        return memory::NOT_THERE;
    }
    return 0;
}

int ToInteger(const std::string& text) {
    int value = -1;
    Parse(text, value);
    return value;
}

bool IsKey(const char* key) {
    const std::string_view text = key != nullptr ? key : "";
    bool isPartBegin = true;
    for (const char letter : text) {
        if (isPartBegin && (letter == '/' || letter == '.')) {
            return false;
        }
        isPartBegin = letter == '/';
    }
    return !isPartBegin;
}

std::string NameOf(const char* key) {
    return std::string(SETTING) + key;
}

/** For a callback of an unsigned or a signed integer. */
template <typename Number>
int AddToSlot(const char* topic, const char* slot, void (*callback)(Number, void*), void* user_data) {
    return ThePlatform().AddToSlot(topic, slot, [=](const std::string&, const std::string& text) {
        callback(static_cast<Number>(ToInteger(text)), user_data);
    });
}

int RemoveSlot(const char* topic, const char* slot) {
    return ThePlatform().RemoveSlot(topic, slot) ? 0 : memory::NOT_THERE;
}

std::string ZoneName(int zone) {
    return "zone/" + std::to_string(zone);
}

bool HasZone(int zone) {
    const std::vector<int> zones = ThePlatform().Zones();
    return std::find(zones.begin(), zones.end(), zone) != zones.end();
}

}  // namespace

int memory::Platform::GetVolume(int* volume) {
    return GetInteger("volume", volume);
}

const char* memory::Platform::NodeText(const std::string& /*name*/, const std::string& text) {
    return text.c_str();
}

int memory::Platform::Log(int priority, const char* text) {
    std::signal(SIGPIPE, SIG_IGN);  // a reader that has gone must not end the process
    return WriteLine(priority, text);
}

int memory::Platform::WriteLine(int priority, const char* text) {
    const std::string line = std::to_string(priority) + ' ' + text;
    return write(STDERR_FILENO, line.data(), line.size()) == static_cast<ssize_t>(line.size()) ? 0 : WRONG;
}

int audio_get_master_volume(int* volume) {
    return ThePlatform().GetVolume(volume);
}
int audio_set_master_volume(int volume, int /*mode*/) {
    return ThePlatform().SetVolume(volume);
}
int audio_get_master_mute(bool* mute) {
    int value = 0;
    const int result = GetInteger("mute", &value);
    if (result == 0) {
        *mute = value == 1;
    }
    return result;
}
int audio_set_master_mute(bool mute) {
    return ThePlatform().Set("mute", mute ? "1" : "0");
}
int audio_register_master_volume_changed_cb(audio_master_changed_cb callback, void* user_data) {
    return AddToSlot("volume", "volume", callback, user_data);
}
int audio_register_master_mute_changed_cb(audio_master_changed_cb callback, void* user_data) {
    return AddToSlot("mute", "hal", callback, user_data);
}
int audio_unregister_master_volume_changed_cb(void) {
    return RemoveSlot("volume", "volume");
}
int audio_unregister_master_mute_changed_cb(void) {
    return RemoveSlot("mute", "hal");
}

int sound_manager_get_speaker_selection(sound_tv_output_route_e* route) {
    return GetInteger("route", route);
}
int sound_manager_set_speaker_selection(sound_tv_output_route_e route) {
    return ThePlatform().Set("route", std::to_string(route));
}
int sound_manager_get_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e* route, int zone_id) {
    return HasZone(zone_id) ? GetInteger(ZoneName(zone_id), route) : ThePlatform().NoSuchZone();
}
int sound_manager_set_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e route, int zone_id) {
    return HasZone(zone_id) ? ThePlatform().Set(ZoneName(zone_id), std::to_string(route))
                            : ThePlatform().NoSuchZone();
}
int sound_manager_set_speaker_changed_cb(sound_manager_speaker_changed_cb callback, void* user_data) {
    return AddToSlot("route", "route", callback, user_data);
}
int sound_manager_unset_speaker_changed_cb(void) {
    return RemoveSlot("route", "route");
}
int sound_manager_set_multiview_speaker_selection_changed_cb(
    sound_manager_multiview_speaker_selection_changed_cb callback, void* user_data) {
    return ThePlatform().AddToSlot("zones", "zones", [=](const std::string& name, const std::string& text) {
        callback(ToInteger(text), ToInteger(name.substr(5)), user_data);
    });
}
int sound_manager_unset_multiview_speaker_selection_changed_cb(void) {
    return RemoveSlot("zones", "zones");
}
int sound_manager_set_tv_master_mute_changed_cb(sound_manager_tv_master_mute_changed_cb callback,
                                                void* user_data) {
    return AddToSlot("mute", "manager", callback, user_data);
}
int sound_manager_unset_tv_master_mute_changed_cb(void) {
    return RemoveSlot("mute", "manager");
}

int rc_get_zone_list(rc_zone_list_h* list) {
    auto made = std::make_unique<_rc_zone_list>();
    for (const int zone : ThePlatform().Zones()) {
        made->zones.push_back({zone});
    }
    *list = made.release();
    return 0;
}
int rc_get_next_zone(rc_zone_list_h list, rc_zone_h* zone) {
    if (list->next == list->zones.size()) {
        return memory::NOT_THERE;
    }
    *zone = &list->zones[list->next++];
    return 0;
}
int rc_get_zone_id(rc_zone_h zone, int* zone_id) {
    if (zone == nullptr || zone_id == nullptr) {
        return memory::WRONG;
    }
    *zone_id = zone->id;
    return 0;
}
int rc_free_zone_list(rc_zone_list_h list) {
    const std::unique_ptr<_rc_zone_list> owned(list);
    return 0;
}
int rc_get_audio_focus(int* zone_id) {
    return GetInteger("focus", zone_id);
}
int rc_register_audio_focus_changed_callback(rc_audio_focus_changed_cb callback, void* user_data) {
    return ThePlatform().Add("focus", {}, nullptr, [=](const std::string&, const std::string& text) {
        callback(ToInteger(text), user_data);
    });
}
int rc_unregister_audio_focus_changed_callback(int callback_id) {
    return ThePlatform().Remove("focus", callback_id) ? 0 : ThePlatform().UnknownId();
}

int vconf_get_int(const char* key, int* value) {
    return IsKey(key) ? GetInteger(NameOf(key), value) : memory::WRONG;
}
int vconf_set_int(const char* key, int value) {
    return IsKey(key) ? ThePlatform().SetInteger(NameOf(key), value) : memory::WRONG;
}
char* vconf_get_str(const char* key) {
    const auto text = IsKey(key) ? ThePlatform().Read(NameOf(key)) : std::nullopt;
    return text ? strdup(text->c_str()) : nullptr;
}
int vconf_set_str(const char* key, const char* value) {
    return IsKey(key) && std::strlen(value) <= LONGEST_TEXT ? ThePlatform().Set(NameOf(key), value)
                                                            : memory::WRONG;
}
int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data) {
    if (!IsKey(key)) {
        return memory::WRONG;
    }
    return ThePlatform().AddForKey(NameOf(key), reinterpret_cast<const void*>(callback),
                                   [=](const std::string& name, const std::string& text) {
                                       keynode_t node{name, text};
                                       callback(&node, user_data);
                                   });
}
int vconf_ignore_key_changed(const char* key, vconf_callback_fn callback) {
    const bool isRemoved =
        IsKey(key) && ThePlatform().RemoveForKey(NameOf(key), reinterpret_cast<const void*>(callback));
    return isRemoved ? 0 : memory::NOT_THERE;
}
char* vconf_keynode_get_name(keynode_t* node) {
    return node != nullptr ? node->name.data() + SETTING.size() : nullptr;
}
int vconf_keynode_get_int(keynode_t* node) {
    return node != nullptr ? ToInteger(node->text) : -1;
}
char* vconf_keynode_get_str(keynode_t* node) {
    return node != nullptr ? const_cast<char*>(ThePlatform().NodeText(node->name, node->text)) : nullptr;
}

int system_info_get_custom_bool(const char* key, bool* value) {
    const auto text = ThePlatform().Read(std::string("feature/") + key);
    if (!text) {
        return memory::NOT_THERE;
    }
    *value = *text == "true";
    return 0;
}

AudioControl* AudioControl_getInstance(void) {
    static AudioControl table = [] {
        AudioControl made{};
        made.get_main_out_gain2 = [](int* gain) { return GetInteger("gain/main", gain); };
        made.set_main_out_gain2 = [](int gain) {
            ThePlatform().Write("gain/main", std::to_string(gain));
            return 0;
        };
        made.get_sub_out_gain2 = [](int* gain) { return GetInteger("gain/sub", gain); };
        made.set_sub_out_gain2 = [](int gain) {
            ThePlatform().Write("gain/sub", std::to_string(gain));
            return 0;
        };
        return made;
    }();
    return &table;
}

int LwipcEventDone(const char* event) {
    if (*event == '\0') {
        return memory::WRONG;
    }
    ThePlatform().Write(std::string("event/") + event, "1");
    return 0;
}
int LwipcResetEvent(const char* event) {
    if (*event == '\0') {
        return memory::WRONG;
    }
    ThePlatform().Write(std::string("event/") + event, "0");
    return 0;
}
int LwipcIsDone(const char* event) {
    if (*event == '\0') {
        return memory::WRONG;
    }
    const auto text = ThePlatform().Read(std::string("event/") + event);
    return text == "1" ? 1 : 0;
}

int __dlog_print(int priority, const char* /*tag*/, const char* fmt, ...) {
    if (priority < ThePlatform().LowestPriority()) {
        return 0;
    }
    const int before = errno;
    char text[4096];
    va_list arguments;
    va_start(arguments, fmt);
    std::vsnprintf(text, sizeof(text), fmt, arguments);
    va_end(arguments);
    const int result = ThePlatform().Log(priority, text);
    errno = before;
    return result;
}
