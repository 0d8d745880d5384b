// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "kit.h"

#include <audio_control.h>
#include <audio_hal.h>
#include <lwipc.h>
#include <resource_center.h>
#include <sound_manager.h>
#include <unistd.h>
#include <vconf.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <utility>

namespace kit {
namespace {

constexpr auto PATIENCE = std::chrono::seconds(10);
constexpr auto LITTLE_PATIENCE = std::chrono::seconds(1);  // once the rule is broken, or after MOST_MISSES
constexpr int MOST_MISSES = 2;  // the first may be due to another rule, so the wait after it is as patient
constexpr auto A_SHORT_TIME = std::chrono::milliseconds(100);
constexpr auto A_LOOK = std::chrono::milliseconds(1);
constexpr auto LONGEST_UNREST = std::chrono::seconds(10);
// Once the others have not rested for the longest time.
constexpr auto LITTLE_UNREST = std::chrono::seconds(1);
constexpr std::size_t MOST_ZONES = 1000;  // a longer list is one without an end
constexpr int LOOKS = 10;                 // a thread that is asleep in so many looks waits for something

constexpr const char* FAILED = "(failed)";  // in the place of a value that cannot be read

std::atomic<int> misses = 0;  // waits that ended without what they waited for
std::atomic<bool> isBroken = false;
std::atomic<bool> isUnmet = false;
std::atomic<bool> isCannot = false;
std::atomic<int> quiet = 0;
std::atomic<int> holds = 0;  // callbacks that Hold keeps from returning

std::chrono::milliseconds Patience() {
    return !isBroken && misses < MOST_MISSES ? PATIENCE : LITTLE_PATIENCE;
}

/** The thread's name in transcripts: one of ours, or the platform's. */
thread_local const char* threadName = "a thread of the platform";
[[maybe_unused]] const bool isMainNamed = [] {
    threadName = "the rule's main thread";
    return true;
}();

void Write(const std::string& line) {
    [[maybe_unused]] const auto written = write(STDOUT_FILENO, line.data(), line.size());
}

}  // namespace

// --- Words

void Rule(const std::string& sentence) {
    Write("Rule: " + sentence + '\n');
}

void Step(const std::string& text) {
    if (quiet == 0) {
        Write("  " + text + '\n');
    }
}

void SetQuiet(bool isQuiet) {
    quiet += isQuiet ? 1 : -1;
}

void Broken(const std::string& seen) {
    Write("BROKEN: " + seen + '\n');
    isBroken = true;
}

bool Check(bool isKept, const std::string& seen) {
    if (!isKept) {
        Broken(seen);
    }
    return isKept;
}

void Cannot(const std::string& what) {
    Write("NOT JUDGED: " + what + '\n');
    isCannot = true;
}

void Unmet(const std::string& what, const char* rule) {
    Write("NOT JUDGED, OTHER RULE: " + what + "; see " + rule + '\n');
    isUnmet = true;
}

int Outcome() {
    if (isBroken) {
        return BROKEN;
    }
    if (isUnmet) {
        return UNMET;
    }
    return isCannot ? CANNOT : KEPT;
}

void EndNow() {
    std::_Exit(Outcome());
}

std::string Quoted(std::string_view text) {
    constexpr std::size_t LONG = 60;
    return text.size() > LONG ? "a text of " + std::to_string(text.size()) + " bytes"
                              : '"' + std::string(text) + '"';
}

std::string List(const std::vector<std::string>& texts) {
    std::string list;
    for (const std::string& text : texts) {
        list += (list.empty() ? "" : ", ") + text;
    }
    return list.empty() ? "nothing" : list;
}

Limit::Limit(std::string what, const char* otherRule)
    : m_thread([this, what = std::move(what), otherRule] {
          threadName = "the kit's clock";
          std::unique_lock lock(m_mutex);
          if (m_changed.wait_for(lock, PATIENCE, [&] { return m_isOver; })) {
              return;
          }
          if (otherRule != nullptr) {
              Unmet(what + " does not return", otherRule);
          } else {
              Broken(what + " did not return within 10 seconds");
          }
          EndNow();
      }) {}

Limit::~Limit() {
    {
        const std::lock_guard guard(m_mutex);
        m_isOver = true;
        m_changed.notify_all();
    }
    m_thread.join();
}

// --- The rest of the TV

namespace {

/** The threads that are inside a callback, each with its depth. Never destroyed: the platform may call at the end. */
struct Callbacks {
    std::mutex mutex;
    std::map<std::thread::id, int> running;         // guarded by mutex
    std::chrono::steady_clock::time_point lastEnd;  // guarded by mutex
    std::atomic<bool> haveOverlapped = false;
};

Callbacks& TheCallbacks() {
    static Callbacks& callbacks = *std::make_unique<Callbacks>().release();
    return callbacks;
}

/** Whether a callback runs, on whatever thread. */
bool DoesCallbackRun() {
    Callbacks& all = TheCallbacks();
    const std::lock_guard guard(all.mutex);
    return !all.running.empty();
}

/** Waits a moment after a callback has returned: the platform may still be busy with its report. */
void AwaitEndOfCallbacks() {
    Callbacks& all = TheCallbacks();
    const auto isOver = [&] {
        const std::lock_guard guard(all.mutex);
        return all.running.contains(std::this_thread::get_id()) ||
               (all.running.empty() && std::chrono::steady_clock::now() - all.lastEnd > A_LOOK);
    };
    for (int look = 0; look < 100 && holds == 0 && !isOver(); ++look) {
        std::this_thread::sleep_for(A_LOOK);
    }
}

std::string Read(int result, int value) {
    return result == 0 ? std::to_string(value) : FAILED;
}

std::string GetInteger(int (*get)(int*)) {
    int value = 0;
    const int result = get != nullptr ? get(&value) : -1;
    return Read(result, value);
}

std::string GetMute() {
    bool mute = false;
    const int result = audio_get_master_mute(&mute);
    return Read(result, mute ? 1 : 0);
}

std::string GetZoneRoute(int zone) {
    int route = 0;
    const int result = sound_manager_get_multiview_speaker_selection_with_zone_id(&route, zone);
    return Read(result, route);
}

std::string GetSetting(const char* key) {
    const std::unique_ptr<char, decltype(&std::free)> text(vconf_get_str(key), &std::free);
    return text ? text.get() : FAILED;
}

/** The value as its getter gives it, or FAILED. */
std::string Get(const kit_value& value) {
    AudioControl* const control = AudioControl_getInstance();
    switch (value.kind) {
        case KIT_MASTER_VOLUME:
            return GetInteger(audio_get_master_volume);
        case KIT_MASTER_MUTE:
            return GetMute();
        case KIT_ROUTE:
            return GetInteger(sound_manager_get_speaker_selection);
        case KIT_ZONE_ROUTE:
            return GetZoneRoute(value.zone);
        case KIT_FOCUS:
            return GetInteger(rc_get_audio_focus);
        case KIT_MAIN_OUT_GAIN:
            return GetInteger(control != nullptr ? control->get_main_out_gain2 : nullptr);
        case KIT_SUB_OUT_GAIN:
            return GetInteger(control != nullptr ? control->get_sub_out_gain2 : nullptr);
        case KIT_SETTING:
            return GetSetting(value.key);
        case KIT_EVENT:
            return std::to_string(LwipcIsDone(value.key));
        case KIT_FEATURE:  // set before the first call of the seam
            break;
    }
    return {};
}

/** Waits until a change is in force: the adapter may have it made by another program. */
void AwaitInForce(const std::function<bool()>& isInForce) {
    static std::atomic<bool> isWorthWaiting = true;
    if (isWorthWaiting && !DoesCallbackRun()) {
        isWorthWaiting = Await([&] { return isInForce() || DoesCallbackRun(); });
    }
}

/** Waits until the getter of the value fails, or until it no longer does. */
void AwaitFailure(const kit_value& value, bool isFailure) {
    if (value.kind != KIT_FEATURE && value.kind != KIT_EVENT) {
        AwaitInForce([&] { return (Get(value) == FAILED) == isFailure; });
    }
}

std::string NameOf(const kit_value& value) {
    switch (value.kind) {
        case KIT_MASTER_VOLUME:
            return "the master volume";
        case KIT_MASTER_MUTE:
            return "the master mute";
        case KIT_ROUTE:
            return "the route";
        case KIT_ZONE_ROUTE:
            return "the route of zone " + std::to_string(value.zone);
        case KIT_FOCUS:
            return "the audio focus";
        case KIT_MAIN_OUT_GAIN:
            return "the main output's gain";
        case KIT_SUB_OUT_GAIN:
            return "the sub output's gain";
        case KIT_SETTING:
            return std::string("the setting ") + value.key;
        case KIT_FEATURE:
            return std::string("the feature flag ") + value.key;
        case KIT_EVENT:
            return std::string("the event ") + value.key;
    }
    return {};
}

/** Calls the adapter: one call at a time. */
int Adapt(const std::function<int()>& call) {
    static std::mutex& mutex = *std::make_unique<std::mutex>().release();
    const std::lock_guard guard(mutex);
    return call();
}

bool Adapt(const std::string& what, const std::function<int()>& call) {
    Step("somebody else: " + what);
    const int answer = Adapt(call);
    if (answer == KIT_CANNOT) {
        Cannot("the adapter cannot play this: somebody else " + what);
    } else if (answer != KIT_DONE) {
        Broken("the adapter failed, which says nothing of the platform: " + what + " gave " +
               std::to_string(answer));
    }
    return answer == KIT_DONE;
}

}  // namespace

bool SomebodySets(const kit_value& value, const std::string& text) {
    AwaitEndOfCallbacks();
    if (!Adapt("sets " + NameOf(value) + " to " + Quoted(text),
               [&] { return kit_set(&value, text.c_str()); })) {
        return false;
    }
    if (value.kind != KIT_FEATURE) {
        AwaitInForce([&] { return Get(value) == text; });
    }
    return true;
}

bool SomebodySetsQuietly(const kit_value& value, const std::string& text) {
    return Adapt([&] { return kit_set(&value, text.c_str()); }) == KIT_DONE;
}

bool SomebodyRemoves(const kit_value& value) {
    if (!Adapt("takes " + NameOf(value) + " away", [&] { return kit_remove(&value); })) {
        return false;
    }
    AwaitFailure(value, true);
    return true;
}

bool MakeUnreadable(const kit_value& value) {
    if (!Adapt("makes " + NameOf(value) + " unreadable", [&] { return kit_make_unreadable(&value); })) {
        return false;
    }
    AwaitFailure(value, true);
    return true;
}

bool MakeReadable(const kit_value& value) {
    if (!Adapt("makes " + NameOf(value) + " readable again", [&] { return kit_make_readable(&value); })) {
        return false;
    }
    AwaitFailure(value, false);
    return true;
}

bool SomebodySetsZones(const std::vector<int>& zones) {
    std::vector<std::string> names;
    names.reserve(zones.size());
    for (const int zone : zones) {
        names.push_back(std::to_string(zone));
    }
    if (!Adapt("arranges these zones: " + List(names),
               [&] { return kit_set_zones(zones.data(), static_cast<int>(zones.size())); })) {
        return false;
    }
    AwaitInForce([expected = std::set<int>(zones.begin(), zones.end())] {
        int result = 0;
        const std::vector<int> now = ZonesNow(result);
        return result == 0 && std::set<int>(now.begin(), now.end()) == expected;
    });
    return true;
}

std::vector<int> ZonesNow(int& result) {
    std::vector<int> ids;
    rc_zone_list_h list = nullptr;
    result = rc_get_zone_list(&list);
    if (result != 0) {
        return ids;
    }
    rc_zone_h zone = nullptr;
    while (ids.size() < MOST_ZONES && rc_get_next_zone(list, &zone) == 0) {
        int id = UNTOUCHED;
        rc_get_zone_id(zone, &id);
        ids.push_back(id);
    }
    rc_free_zone_list(list);
    return ids;
}

// --- Ears

namespace {

class InCallback {
public:
    InCallback() {
        Callbacks& all = TheCallbacks();
        const std::lock_guard guard(all.mutex);
        ++all.running[std::this_thread::get_id()];
        if (all.running.size() > 1) {
            all.haveOverlapped = true;
        }
    }
    ~InCallback() {
        Callbacks& all = TheCallbacks();
        const std::lock_guard guard(all.mutex);
        const auto found = all.running.find(std::this_thread::get_id());
        if (--found->second == 0) {
            all.running.erase(found);
            all.lastEnd = std::chrono::steady_clock::now();
        }
    }
    InCallback(const InCallback&) = delete;
    InCallback& operator=(const InCallback&) = delete;
};

}  // namespace

bool HaveCallbacksOverlapped() {
    return TheCallbacks().haveOverlapped;
}

void Ear::Hear(const std::string& text, const void* data) {
    const InCallback inCallback;
    Step(m_name + " gets " + Quoted(text) + ", on " + threadName);
    std::shared_ptr<Action> act;
    {
        const std::lock_guard guard(m_mutex);
        m_heard.push_back({text, std::this_thread::get_id(), data});
        act = m_act;
        m_changed.notify_all();
    }
    if (act) {
        (*act)();
    }
}

void Ear::Act(Action action) {
    const std::lock_guard guard(m_mutex);
    m_act = action ? std::make_shared<Action>(std::move(action)) : nullptr;
}

void Ear::Forget() {
    const std::lock_guard guard(m_mutex);
    m_heard.clear();
}

std::vector<Heard> Ear::All() const {
    const std::lock_guard guard(m_mutex);
    return m_heard;
}

std::vector<std::string> Ear::Texts() const {
    std::vector<std::string> texts;
    for (const Heard& heard : All()) {
        texts.push_back(heard.text);
    }
    return texts;
}

std::size_t Ear::Count(const std::string& text) const {
    const auto texts = Texts();
    return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), text));
}

std::string Ear::Last() const {
    const auto texts = Texts();
    return texts.empty() ? "nothing" : texts.back();
}

bool Ear::Await(const std::string& text) const {
    std::unique_lock lock(m_mutex);
    const bool hasCome = m_changed.wait_for(lock, Patience(), [&] {
        return std::any_of(m_heard.begin(), m_heard.end(),
                           [&](const Heard& heard) { return heard.text == text; });
    });
    misses += hasCome ? 0 : 1;
    return hasCome;
}

bool Ear::AwaitBeginning(const std::string& begin) const {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, 5 * A_SHORT_TIME, [&] {
        return std::any_of(m_heard.begin(), m_heard.end(),
                           [&](const Heard& heard) { return heard.text.starts_with(begin); });
    });
}

bool Await(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + Patience();
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            ++misses;
            return condition();
        }
        std::this_thread::sleep_for(A_LOOK);
    }
    return true;
}

// --- Values that are reported

namespace {

enum Id : std::size_t { VOLUME, HAL_MUTE, MANAGER_MUTE, ROUTES, ZONE_ROUTES, FOCUSES, SETTINGS, IDS };

constexpr std::array<const char*, IDS> NAMES = {
    "the master volume", "the master mute of the audio HAL", "the master mute of the sound manager",
    "the route",         "the routes of the zones",          "the audio focus",
    "the setting"};

/** Never destroyed: the platform may call at the end. */
Ear& EarOf(Id id, std::size_t slot) {
    static auto& ears = *[] {
        auto all = std::make_unique<std::array<std::array<std::unique_ptr<Ear>, SLOTS>, IDS>>();
        for (std::size_t kind = 0; kind < IDS; ++kind) {
            for (std::size_t i = 0; i < SLOTS; ++i) {
                all->at(kind).at(i) =
                    std::make_unique<Ear>("callback " + std::to_string(i + 1) + " of " + NAMES.at(kind));
            }
        }
        return all.release();
    }();
    return *ears.at(id).at(slot);
}

template <Id ID, std::size_t SLOT>
void OnUnsigned(unsigned int value, void* data) {
    EarOf(ID, SLOT).Hear(std::to_string(value), data);
}
template <Id ID, std::size_t SLOT>
void OnInteger(int value, void* data) {
    EarOf(ID, SLOT).Hear(std::to_string(value), data);
}
template <std::size_t SLOT>
void OnZone(int route, int zone, void* data) {
    EarOf(ZONE_ROUTES, SLOT).Hear(std::to_string(zone) + ':' + std::to_string(route), data);
}
template <std::size_t SLOT>
void OnKey(keynode_t* node, void* data) {
    const char* const text = vconf_keynode_get_str(node);
    EarOf(SETTINGS, SLOT).Hear(text != nullptr ? text : "(null)", data);
}

constexpr auto ALL_SLOTS = std::make_index_sequence<SLOTS>();

template <Id ID, std::size_t... SLOT>
auto UnsignedTable(std::index_sequence<SLOT...> /*slots*/) {
    return std::array{&OnUnsigned<ID, SLOT>...};
}
template <Id ID, std::size_t... SLOT>
auto IntegerTable(std::index_sequence<SLOT...> /*slots*/) {
    return std::array{&OnInteger<ID, SLOT>...};
}
template <std::size_t... SLOT>
auto ZoneTable(std::index_sequence<SLOT...> /*slots*/) {
    return std::array{&OnZone<SLOT>...};
}
template <std::size_t... SLOT>
auto KeyTable(std::index_sequence<SLOT...> /*slots*/) {
    return std::array{&OnKey<SLOT>...};
}

/** Calls a function of the seam, for the transcript. */
int Called(const std::string& call, int result) {
    Step(call + " returns " + std::to_string(result));
    return result;
}

template <Id ID>
std::function<Ear&(int)> Ears(std::size_t firstSlot = 0) {
    return [firstSlot](int slot) -> Ear& { return EarOf(ID, firstSlot + static_cast<std::size_t>(slot)); };
}

std::string Callback(int slot) {
    return "callback " + std::to_string(slot + 1);
}

std::function<std::string(int)> From(int first) {
    return [first](int i) { return std::to_string(first + i); };
}

std::string Alternate(int i) {
    return std::to_string(i % 2);
}

int SetMute(const std::string& text) {
    return Called("audio_set_master_mute(" + text + ")", audio_set_master_mute(text == "1"));
}

}  // namespace

Stream& Volume() {
    static Stream& stream =
        *std::make_unique<Stream>(
             Stream{NAMES[VOLUME], MASTER_VOLUME, From(20), "",
                    [](int slot, void* data) {
                        return Called("audio_register_master_volume_changed_cb(" + Callback(slot) + ")",
                                      audio_register_master_volume_changed_cb(
                                          UnsignedTable<VOLUME>(ALL_SLOTS).at(slot), data));
                    },
                    [](int /*slot*/) {
                        Step("audio_unregister_master_volume_changed_cb() ...");
                        return Called("audio_unregister_master_volume_changed_cb()",
                                      audio_unregister_master_volume_changed_cb());
                    },
                    [](const std::string& text) {
                        return Called("audio_set_master_volume(" + text + ", 0)",
                                      audio_set_master_volume(std::stoi(text), 0));
                    },
                    [] { return Get(MASTER_VOLUME); }, Ears<VOLUME>()})
             .release();
    return stream;
}

Stream& HalMute() {
    static Stream& stream =
        *std::make_unique<Stream>(
             Stream{NAMES[HAL_MUTE], MASTER_MUTE, Alternate, "",
                    [](int slot, void* data) {
                        return Called("audio_register_master_mute_changed_cb(" + Callback(slot) + ")",
                                      audio_register_master_mute_changed_cb(
                                          UnsignedTable<HAL_MUTE>(ALL_SLOTS).at(slot), data));
                    },
                    [](int /*slot*/) {
                        Step("audio_unregister_master_mute_changed_cb() ...");
                        return Called("audio_unregister_master_mute_changed_cb()",
                                      audio_unregister_master_mute_changed_cb());
                    },
                    SetMute, GetMute, Ears<HAL_MUTE>()})
             .release();
    return stream;
}

Stream& ManagerMute() {
    static Stream& stream =
        *std::make_unique<Stream>(
             Stream{NAMES[MANAGER_MUTE], MASTER_MUTE, Alternate, "",
                    [](int slot, void* data) {
                        return Called("sound_manager_set_tv_master_mute_changed_cb(" + Callback(slot) + ")",
                                      sound_manager_set_tv_master_mute_changed_cb(
                                          UnsignedTable<MANAGER_MUTE>(ALL_SLOTS).at(slot), data));
                    },
                    [](int /*slot*/) {
                        Step("sound_manager_unset_tv_master_mute_changed_cb() ...");
                        return Called("sound_manager_unset_tv_master_mute_changed_cb()",
                                      sound_manager_unset_tv_master_mute_changed_cb());
                    },
                    SetMute, GetMute, Ears<MANAGER_MUTE>()})
             .release();
    return stream;
}

Stream& Route() {
    static Stream& stream =
        *std::make_unique<Stream>(
             Stream{NAMES[ROUTES], ROUTE, From(1000), "",
                    [](int slot, void* data) {
                        return Called("sound_manager_set_speaker_changed_cb(" + Callback(slot) + ")",
                                      sound_manager_set_speaker_changed_cb(
                                          IntegerTable<ROUTES>(ALL_SLOTS).at(slot), data));
                    },
                    [](int /*slot*/) {
                        Step("sound_manager_unset_speaker_changed_cb() ...");
                        return Called("sound_manager_unset_speaker_changed_cb()",
                                      sound_manager_unset_speaker_changed_cb());
                    },
                    [](const std::string& text) {
                        return Called("sound_manager_set_speaker_selection(" + text + ")",
                                      sound_manager_set_speaker_selection(std::stoi(text)));
                    },
                    [] { return Get(ROUTE); }, Ears<ROUTES>()})
             .release();
    return stream;
}

Stream& ZoneRouteOf2() {
    static Stream& stream =
        *std::make_unique<Stream>(
             Stream{NAMES[ZONE_ROUTES], ZoneRoute(2), From(2000), "2:",
                    [](int slot, void* data) {
                        return Called("sound_manager_set_multiview_speaker_selection_changed_cb(" +
                                          Callback(slot) + ")",
                                      sound_manager_set_multiview_speaker_selection_changed_cb(
                                          ZoneTable(ALL_SLOTS).at(slot), data));
                    },
                    [](int /*slot*/) {
                        Step("sound_manager_unset_multiview_speaker_selection_changed_cb() ...");
                        return Called("sound_manager_unset_multiview_speaker_selection_changed_cb()",
                                      sound_manager_unset_multiview_speaker_selection_changed_cb());
                    },
                    [](const std::string& text) {
                        return Called(
                            "sound_manager_set_multiview_speaker_selection_with_zone_id(" + text + ", 2)",
                            sound_manager_set_multiview_speaker_selection_with_zone_id(std::stoi(text), 2));
                    },
                    [] { return GetZoneRoute(2); }, Ears<ZONE_ROUTES>()})
             .release();
    return stream;
}

Stream& Focus() {
    static std::array<int, SLOTS> ids{};
    static Stream& stream =
        *std::make_unique<Stream>(
             Stream{NAMES[FOCUSES], FOCUS, From(1), "",
                    [](int slot, void* data) {
                        ids.at(slot) =
                            Called("rc_register_audio_focus_changed_callback(" + Callback(slot) + ")",
                                   rc_register_audio_focus_changed_callback(
                                       IntegerTable<FOCUSES>(ALL_SLOTS).at(slot), data));
                        return ids.at(slot) > 0 ? 0 : -1;
                    },
                    [](int slot) {
                        const std::string call = "rc_unregister_audio_focus_changed_callback(" +
                                                 std::to_string(ids.at(slot)) + ")";
                        Step(call + " ...");
                        return Called(call, rc_unregister_audio_focus_changed_callback(ids.at(slot)));
                    },
                    nullptr, [] { return Get(FOCUS); }, Ears<FOCUSES>(), true})
             .release();
    return stream;
}

Stream KeyStream(const char* key, int firstSlot) {
    const std::string name = key;
    return {"the setting " + name,
            Setting(key),
            From(5000),
            "",
            [=](int slot, void* data) {
                return Called("vconf_notify_key_changed(" + name + ", " + Callback(firstSlot + slot) + ")",
                              vconf_notify_key_changed(key, KeyTable(ALL_SLOTS).at(firstSlot + slot), data));
            },
            [=](int slot) {
                const std::string call =
                    "vconf_ignore_key_changed(" + name + ", " + Callback(firstSlot + slot) + ")";
                Step(call + " ...");
                return Called(call, vconf_ignore_key_changed(key, KeyTable(ALL_SLOTS).at(firstSlot + slot)));
            },
            [=](const std::string& text) {
                return Called("vconf_set_str(" + name + ", " + Quoted(text) + ")",
                              vconf_set_str(key, text.c_str()));
            },
            [=] { return GetSetting(key); },
            Ears<SETTINGS>(static_cast<std::size_t>(firstSlot)),
            true};
}

/** The daemon sets settings by vconf_set_int() alone, so each of the two setters has its share in every rule. */
int SetByEitherSetter(const std::string& text) {
    const int number = std::stoi(text);
    return number % 2 == 0 ? Called("vconf_set_str(memory/kit/value, " + Quoted(text) + ")",
                                    vconf_set_str("memory/kit/value", text.c_str()))
                           : Called("vconf_set_int(memory/kit/value, " + text + ")",
                                    vconf_set_int("memory/kit/value", number));
}

Stream& SettingStream() {
    static Stream& stream = [&]() -> Stream& {
        auto made = std::make_unique<Stream>(KeyStream("memory/kit/value", 0));
        made->set = SetByEitherSetter;
        return *made.release();
    }();
    return stream;
}

std::string Texts(const Stream& stream, int slot) {
    return List(stream.ear(slot).Texts());
}

std::vector<Stream*> AllStreams() {
    std::vector<Stream*> streams = {&Volume(), &HalMute(), &ManagerMute(), &Route(), &SettingStream()};
    static const bool hasZones = SomebodySetsZones({1, 2, 3, 4, 5, 6, 7, 8, 9});
    if (hasZones) {
        streams.push_back(&ZoneRouteOf2());
        streams.push_back(&Focus());
    }
    return streams;
}

std::vector<Stream*> OurStreams() {
    std::vector<Stream*> streams = AllStreams();
    std::erase_if(streams, [](const Stream* stream) { return !stream->set; });
    return streams;
}

std::vector<Stream*> WithoutManagerMute(std::vector<Stream*> streams) {
    std::erase(streams, &ManagerMute());
    return streams;
}

// --- Scenes

Scene::Scene(Stream& stream) : m_stream(stream) {
    Step("--- " + stream.name);
    if (stream.set && stream.set(stream.at(0)) != 0) {
        Unmet(stream.name + " cannot be set", SET);
        return;
    }
    if (!stream.set && !SomebodySets(0)) {
        return;
    }
    m_isReady = true;
    Settle();
}

Scene::~Scene() {
    for (const int slot : m_registered) {
        m_stream.ear(slot).Act(nullptr);
        const Limit limit("the removal of a callback", REMOVAL);
        m_stream.remove(slot);
    }
}

bool Scene::Register(int slot, void* data) {
    m_stream.ear(slot).Act(nullptr);
    if (m_stream.add(slot, data) != 0) {
        Unmet("a callback of " + m_stream.name + " cannot be registered", REPORTED);
        return false;
    }
    if (!m_stream.hasManyCallbacks) {
        m_registered.clear();
    }
    m_registered.insert(slot);
    Settle();
    m_stream.ear(slot).Forget();
    return true;
}

bool Scene::IsHeard(int slot) const {
    for (const int i : {1, 0}) {
        if (!Change(i, slot)) {
            return false;
        }
    }
    Settle();
    m_stream.ear(slot).Forget();
    return true;
}

bool Scene::Remove(int slot) {
    const Limit limit("the removal of a callback", REMOVAL);
    m_registered.erase(slot);
    if (m_stream.remove(slot) == 0) {
        return true;
    }
    Unmet("a callback of " + m_stream.name + " cannot be removed", REMOVAL);
    return false;
}

bool Scene::WeSet(const std::string& text) const {
    if (m_stream.set(text) == 0) {
        return true;
    }
    Unmet(m_stream.name + " cannot be set", SET);
    return false;
}

bool Scene::Await(const std::string& text, int slot) const {
    if (m_stream.ear(slot).Await(m_stream.prefix + text)) {
        return true;
    }
    Unmet("no report of " + m_stream.name + " came", RuleOfReports());
    return false;
}

const char* Scene::RuleOfReports() const {
    if (&m_stream == &ManagerMute()) {
        return "Reports.MasterMuteIsOneValueForBothInterfaces";
    }
    if (&m_stream == &ZoneRouteOf2()) {
        return "Zones.EachRouteIsReportedWithItsZone";
    }
    return m_stream.set ? OURS_REPORTED : REPORTED;
}

bool Scene::Change(int i, int slot) const {
    return (m_stream.set ? WeSet(i) : SomebodySets(i)) && Await(i, slot);
}

void Settle() {
    static Stream& mark = *std::make_unique<Stream>(KeyStream("memory/kit/mark", SLOTS - 1)).release();
    // The key exists before it is watched: another rule judges keys that do not.
    static const bool isRegistered =
        vconf_set_str("memory/kit/mark", "none") == 0 &&
        vconf_notify_key_changed("memory/kit/mark", KeyTable(ALL_SLOTS).back(), nullptr) == 0;
    static std::atomic<int> count = 0;
    static std::atomic<bool> isWorthMarking = true;
    ++quiet;
    for (int i = 0; i < 2; ++i) {
        AwaitEndOfCallbacks();
        if (isRegistered && isWorthMarking) {
            // Again and again, if the platform loses one. A late report of an earlier one will do.
            const std::string begin = "mark " + std::to_string(++count) + '.';
            int attempt = 0;
            isWorthMarking = Await([&] {
                return SomebodySetsQuietly(mark.value, begin + std::to_string(++attempt)) &&
                       mark.ear(0).AwaitBeginning(begin);
            });
        } else {
            std::this_thread::sleep_for(A_SHORT_TIME);
        }
    }
    --quiet;
}

void Linger() {
    std::this_thread::sleep_for(A_SHORT_TIME);
}

namespace {

/** The state of a thread as the kernel shows it: 'R', 'S', ...; 0 if there is none. */
char StateOf(const std::string& thread) {
    std::ifstream stream("/proc/self/task/" + thread + "/stat");
    std::string line;
    std::getline(stream, line);
    const std::size_t name = line.rfind(") ");
    return name != std::string::npos && name + 2 < line.size() ? line[name + 2] : '\0';
}

bool DoOthersRest() {
    const std::string own = std::to_string(gettid());
    std::error_code error;
    const std::filesystem::directory_iterator tasks("/proc/self/task", error);
    return std::ranges::all_of(tasks, [&](const auto& task) {
        const std::string thread = task.path().filename();
        const char state = thread == own ? 'S' : StateOf(thread);
        return state == 'S' || state == '\0';
    });
}

/** Waits until `isAtRest` in many looks in a row; gives up after some seconds. */
void AwaitRest(const std::function<bool()>& isAtRest) {
    static std::atomic<bool> isWorthWaiting = true;  // not for a platform with a thread that never rests
    const auto end = std::chrono::steady_clock::now() + (isWorthWaiting ? LONGEST_UNREST : LITTLE_UNREST);
    int looks = 0;
    while (looks < LOOKS && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(A_LOOK);
        looks = isAtRest() ? looks + 1 : 0;
    }
    if (looks < LOOKS) {
        isWorthWaiting = false;
    }
}

}  // namespace

void AwaitRest() {
    AwaitRest(DoOthersRest);
}

bool WhileReporting(const Action& meanwhile) {
    struct State {
        std::mutex mutex;
        bool isOver = false;  // guarded by mutex
        bool hasRun = false;
    };
    Stream busy = KeyStream("memory/kit/busy", SLOTS - 2);
    const auto state = std::make_shared<State>();
    busy.ear(0).Act([state, meanwhile, self = std::this_thread::get_id()] {
        if (std::this_thread::get_id() == self && !std::exchange(state->hasRun, true)) {
            const Limit limit("a call inside a callback", SET_INSIDE);
            meanwhile();
        }
    });
    static int count = 0;
    ++quiet;
    busy.set(busy.at(0));
    --quiet;
    busy.add(0, nullptr);
    busy.set(busy.at(++count));
    busy.ear(0).Act(nullptr);
    busy.remove(0);
    if (!state->hasRun) {
        Unmet("no callback runs inside a setter", OURS_REPORTED);
    }
    return state->hasRun;
}

// --- Threads

struct Worker::State {
    std::atomic<pid_t> thread = 0;
    std::atomic<bool> isDone = false;
};

Worker::Worker(Action action) : m_state(std::make_shared<State>()) {
    m_thread = std::thread([state = m_state, action = std::move(action)] {
        threadName = "another thread of the rule";
        state->thread = gettid();
        action();
        state->isDone = true;
    });
}

Worker::~Worker() {
    if (!HasReturned()) {
        if (Outcome() == KEPT) {
            Broken("a thread that called the platform never returned");
        }
        EndNow();
    }
    m_thread.join();
}

bool Worker::HasReturned() const {
    return Await([this] { return IsDone(); });
}

bool Worker::IsDone() const {
    return m_state->isDone;
}

void Worker::AwaitDoneOrAsleep() const {
    AwaitRest([this] {
        return IsDone() || (m_state->thread != 0 && StateOf(std::to_string(m_state->thread)) == 'S');
    });
}

struct Hold::State {
    std::mutex mutex;
    std::condition_variable changed;
    bool isHeld = false;      // guarded by mutex
    bool isReleased = false;  // guarded by mutex
};

Hold::Hold(By by)
    : m_state(std::make_shared<State>()),
      m_own(std::make_unique<Stream>(KeyStream("memory/kit/held", SLOTS - 3))),
      m_stream(m_own.get()),
      m_slot(0) {
    static int count = 0;
    m_stream->set(m_stream->at(0));
    m_stream->add(0, nullptr);
    Begin(by, m_stream->at(++count));
}

Hold::Hold(By by, Stream& stream, int slot, const std::string& text)
    : m_state(std::make_shared<State>()), m_stream(&stream), m_slot(slot) {
    Begin(by, text);
}

void Hold::Begin(By by, const std::string& text) {
    AwaitEndOfCallbacks();
    ++holds;
    m_stream->ear(m_slot).Act([state = m_state] {
        std::unique_lock lock(state->mutex);
        if (!std::exchange(state->isHeld, true)) {
            Step("... and this callback does not return yet");
            state->changed.notify_all();
            state->changed.wait(lock, [&] { return state->isReleased; });
            Step("that callback returns");
        }
    });
    if (by == By::US) {
        m_setter = std::make_unique<Worker>([this, text] { m_stream->set(text); });
    } else {
        Step("somebody else: sets " + m_stream->name + " to " + Quoted(text));
        SomebodySetsQuietly(m_stream->value, text);
    }
    std::unique_lock lock(m_state->mutex);
    m_holds = m_state->changed.wait_for(lock, Patience(), [&] { return m_state->isHeld; });
    if (!m_holds) {
        ++misses;
        Unmet("no report of " + m_stream->name + " came", by == By::US ? OURS_REPORTED : REPORTED);
    }
}

void Hold::Release() {
    const std::lock_guard guard(m_state->mutex);
    m_state->isReleased = true;
    m_state->changed.notify_all();
}

Hold::~Hold() {
    Release();
    --holds;
    m_setter.reset();
    m_stream->ear(m_slot).Act(nullptr);
    if (m_own) {
        m_own->remove(0);
    }
}

}  // namespace kit
