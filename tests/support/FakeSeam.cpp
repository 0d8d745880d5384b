// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "FakeSeam.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>

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

constexpr std::string_view TRACE_IN = "\t[IN]";
constexpr std::string_view TRACE_OUT = "\t[OUT]";
constexpr std::string_view NAMESPACE = "NKavrel::";
constexpr std::string_view TAG = "Kavrel";

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

std::optional<int> Parse(const std::string& text) {
    int value = 0;
    const char* end = text.data() + text.size();
    const auto [parsed, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && parsed == end ? std::optional(value) : std::nullopt;
}

keynode_t NodeOf(const std::string& key, const std::string& text) {
    return {key, Parse(text).value_or(-1), text};
}

char PriorityLetter(int priority) {
    switch (priority) {
        case DLOG_DEBUG:
            return 'D';
        case DLOG_INFO:
            return 'I';
        case DLOG_WARN:
            return 'W';
        case DLOG_ERROR:
            return 'E';
        default:
            return '?';
    }
}

/** Removes from `text` everything up to and including `mark`, and returns the part before the mark. */
std::optional<std::string> TakeUntil(std::string_view& text, std::string_view mark) {
    const auto end = text.find(mark);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    std::string taken(text.substr(0, end));
    text.remove_prefix(end + mark.size());
    return taken;
}

/**
 * Splits "FILE: FUNCTION(LINE) > [FUNCTION:LINE] text\n" into the entry's fields; keeps a line of another
 * form whole.
 */
void ParseLine(Entry& entry) {
    std::string_view rest = entry.raw;
    const auto file = TakeUntil(rest, ": ");
    const auto function = TakeUntil(rest, "(");
    const auto line = TakeUntil(rest, ") > [");
    const auto functionAgain = TakeUntil(rest, ":");
    const auto lineAgain = TakeUntil(rest, "] ");
    if (!file || !function || !line || !functionAgain || !lineAgain || !rest.ends_with('\n')) {
        entry.text += entry.raw;
        return;
    }
    rest.remove_suffix(1);
    entry.site = {*file, *function, Parse(*line).value_or(0)};
    entry.siteAgain = {*file, *functionAgain, Parse(*lineAgain).value_or(0)};
    entry.text += rest;
}

std::string ThreadName() {
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

Entry NewEntry(Entry::Kind kind) {
    Entry entry;
    entry.kind = kind;
    entry.thread = std::this_thread::get_id();
    entry.threadName = ThreadName();
    entry.tid = gettid();
    entry.time = Clock::now();
    return entry;
}

Entry CallEntry(const std::string& name, const std::string& arguments) {
    Entry entry = NewEntry(Entry::Kind::CALL);
    entry.name = name;
    entry.text = name + '(' + arguments + ')';
    return entry;
}

Entry LogEntry(int priority, const char* tag, const std::string& raw) {
    Entry entry = NewEntry(Entry::Kind::LOG);
    entry.priority = priority;
    entry.tag = tag;
    entry.raw = raw;
    entry.text = std::string(1, PriorityLetter(priority)) + ' ';
    ParseLine(entry);
    return entry;
}

bool Matches(const std::string& what, const Entry& entry) {
    return what == entry.text || (entry.IsCall() && what == entry.name);
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

bool Entry::IsTrace() const {
    const auto of = [this](std::string_view mark) { return text.compare(2, mark.size(), mark) == 0; };
    return kind == Kind::LOG && priority == DLOG_DEBUG && (of(TRACE_IN) || of(TRACE_OUT));
}

std::ostream& operator<<(std::ostream& out, const GainWrite& write) {
    return out << (write.out == GainWrite::Out::MAIN ? "main " : "sub ") << write.gain;
}

void Gate::Pass() {
    std::unique_lock lock(m_mutex);
    m_reached = true;
    m_changed.notify_all();
    m_changed.wait(lock, [this] { return m_open; });
}

bool Gate::WaitReached(std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [this] { return m_reached; });
}

void Gate::Open() {
    const std::lock_guard lock(m_mutex);
    m_open = true;
    m_changed.notify_all();
}

/** All values and registrations of the TV. FakeSeam::m_mutex guards them. */
struct FakeSeam::State {
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
    int gain[2] = {100, 100};
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

FakeSeam::FakeSeam() : m_state(std::make_unique<State>()) {}
FakeSeam::~FakeSeam() = default;

FakeSeam& FakeSeam::Get() {
    static FakeSeam fake;
    return fake;
}

void FakeSeam::Reset() {
    const std::lock_guard lock(m_mutex);
    *m_state = State();
    m_failures.clear();
    m_hooks.clear();
    m_judge = nullptr;
    m_journal.clear();
    m_gainWrites.clear();
    m_dropLogLines = false;
}

void FakeSeam::Clear() {
    const std::lock_guard lock(m_mutex);
    m_journal.clear();
    m_gainWrites.clear();
}

/**
 * Adds the entry to the journal and runs the hooks on it. Returns the result with which the call must fail,
 * if any.
 */
std::optional<int> FakeSeam::Record(Entry entry) {
    std::optional<int> result;
    std::vector<std::function<void()>> actions;
    {
        const std::lock_guard lock(m_mutex);
        for (PlannedFailure& failure : m_failures) {
            if (Matches(failure.what, entry) && (++failure.seen == failure.nth || failure.nth == 0)) {
                result = failure.result;
            }
        }
        if (m_judge != nullptr) {
            if (const auto judged = m_judge(entry)) {
                result = judged;
            }
        }
        std::erase_if(m_hooks, [&](Hook& hook) {
            if (!Matches(hook.what, entry)) {
                return false;
            }
            actions.push_back(hook.action);
            return hook.once;
        });
        m_journal.push_back(std::move(entry));
        m_changed.notify_all();
    }
    for (const auto& action : actions) {
        action();
    }
    return result;
}

std::optional<int> FakeSeam::Enter(const std::string& name, const std::string& arguments) {
    return Record(CallEntry(name, arguments));
}

std::vector<std::string> FakeSeam::Texts(const std::function<bool(const Entry&)>& wanted) const {
    const std::lock_guard lock(m_mutex);
    std::vector<std::string> texts;
    for (const Entry& entry : m_journal) {
        if (wanted(entry)) {
            texts.push_back(entry.text);
        }
    }
    return texts;
}

std::vector<std::string> FakeSeam::Log(int lowestPriority) const {
    return Texts([&](const Entry& entry) { return entry.IsLog(lowestPriority); });
}

std::vector<std::string> FakeSeam::Calls(std::string_view prefix) const {
    return Texts([&](const Entry& entry) { return entry.IsCall() && entry.text.starts_with(prefix); });
}

std::vector<std::string> FakeSeam::Journal() const {
    return Texts([](const Entry& entry) { return entry.IsCall() || entry.IsLog(DLOG_INFO); });
}

std::vector<std::string> FakeSeam::JournalHere() const {
    return Texts([here = std::this_thread::get_id()](const Entry& entry) {
        return entry.thread == here && (entry.IsCall() || entry.IsLog(DLOG_INFO));
    });
}

std::vector<std::string> FakeSeam::LogHere() const {
    return Texts([here = std::this_thread::get_id()](const Entry& entry) {
        return entry.thread == here && entry.IsLog(DLOG_INFO);
    });
}

std::vector<std::string> FakeSeam::CallsHere() const {
    return Texts([here = std::this_thread::get_id()](const Entry& entry) {
        return entry.thread == here && entry.IsCall();
    });
}

std::vector<std::string> FakeSeam::JournalOf(const std::string& threadName) const {
    return Texts([&](const Entry& entry) {
        return entry.threadName == threadName && (entry.IsCall() || entry.IsLog(DLOG_INFO));
    });
}

std::vector<std::string> FakeSeam::LogOf(const std::string& threadName) const {
    return Texts(
        [&](const Entry& entry) { return entry.threadName == threadName && entry.IsLog(DLOG_INFO); });
}

std::vector<std::string> FakeSeam::Trace() const {
    auto texts = Texts([](const Entry& entry) { return entry.IsTrace(); });
    for (std::string& text : texts) {
        text.erase(0, std::strlen("D \t"));
    }
    return texts;
}

std::vector<std::string> FakeSeam::TraceNames() const {
    auto texts = Trace();
    for (std::string& text : texts) {
        const std::string mark = text.substr(0, text.find(']') + 1);
        const std::string signature = text.substr(mark.size(), text.find('(') - mark.size());
        const std::string name = signature.substr(signature.rfind(' ') + 1);
        text = mark + (name.starts_with(NAMESPACE) ? name.substr(NAMESPACE.size()) : name);
    }
    return texts;
}

std::vector<Entry> FakeSeam::Entries() const {
    const std::lock_guard lock(m_mutex);
    return m_journal;
}

std::optional<Entry> FakeSeam::Find(const std::string& text) const {
    const std::lock_guard lock(m_mutex);
    const auto found = std::ranges::find(m_journal, text, &Entry::text);
    return found == m_journal.end() ? std::nullopt : std::optional(*found);
}

std::optional<Entry> FakeSeam::LastOf(const std::string& threadName) const {
    const std::lock_guard lock(m_mutex);
    const auto found =
        std::ranges::find(m_journal.rbegin(), m_journal.rend(), threadName, &Entry::threadName);
    return found == m_journal.rend() ? std::nullopt : std::optional(*found);
}

std::string FakeSeam::FunctionOf(const std::string& text) const {
    const auto entry = Find(text);
    return entry ? entry->site.function : "";
}

int FakeSeam::Count(const std::string& text) const {
    const std::lock_guard lock(m_mutex);
    return static_cast<int>(std::ranges::count(m_journal, text, &Entry::text));
}

std::vector<GainWrite> FakeSeam::GainWrites() const {
    const std::lock_guard lock(m_mutex);
    return m_gainWrites;
}

std::vector<int> FakeSeam::GainWrites(GainWrite::Out out) const {
    std::vector<int> gains;
    for (const GainWrite& write : GainWrites()) {
        if (write.out == out) {
            gains.push_back(write.gain);
        }
    }
    return gains;
}

bool FakeSeam::WaitFor(const std::string& text, int count, std::chrono::milliseconds timeout) const {
    return WaitUntil(
        [&](const std::vector<Entry>& journal) {
            return std::ranges::count(journal, text, &Entry::text) >= count;
        },
        timeout);
}

bool FakeSeam::WaitForGainWrite(const GainWrite& write, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout,
                              [&] { return std::ranges::find(m_gainWrites, write) != m_gainWrites.end(); });
}

bool FakeSeam::WaitUntil(const std::function<bool(const std::vector<Entry>&)>& met,
                         std::chrono::milliseconds timeout) const {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [&] { return met(m_journal); });
}

void FakeSeam::Fail(const std::string& what, int result, int nth) {
    const std::lock_guard lock(m_mutex);
    m_failures.push_back({what, result, nth, 0});
}

void FakeSeam::Succeed(const std::string& what) {
    const std::lock_guard lock(m_mutex);
    std::erase_if(m_failures, [&](const PlannedFailure& failure) { return failure.what == what; });
}

void FakeSeam::Judge(std::function<std::optional<int>(const Entry&)> judge) {
    const std::lock_guard lock(m_mutex);
    m_judge = std::move(judge);
}

void FakeSeam::Before(const std::string& what, std::function<void()> action) {
    const std::lock_guard lock(m_mutex);
    m_hooks.push_back({what, std::move(action), false});
}

void FakeSeam::BeforeNext(const std::string& what, std::function<void()> action) {
    const std::lock_guard lock(m_mutex);
    m_hooks.push_back({what, std::move(action), true});
}

BlockedCall FakeSeam::BlockNext(const std::string& what) {
    auto gate = std::make_shared<Gate>();
    BeforeNext(what, [gate] { gate->Pass(); });
    return BlockedCall(gate);
}

void FakeSeam::ReportOwnChanges(bool report) {
    const std::lock_guard lock(m_mutex);
    m_state->reportOwnChanges = report;
}

void FakeSeam::SetInt(const std::string& key, int value) {
    SetStr(key, std::to_string(value));
}

void FakeSeam::SetStr(const std::string& key, const std::string& value) {
    const std::lock_guard lock(m_mutex);
    m_state->settings[key] = value;
}

void FakeSeam::RemoveKey(const std::string& key) {
    const std::lock_guard lock(m_mutex);
    m_state->settings.erase(key);
}

std::optional<std::string> FakeSeam::Value(const std::string& key) const {
    const std::lock_guard lock(m_mutex);
    const auto found = m_state->settings.find(key);
    return found == m_state->settings.end() ? std::nullopt : std::optional(found->second);
}

void FakeSeam::SetFeature(const std::string& key, bool value) {
    const std::lock_guard lock(m_mutex);
    m_state->features[key] = value;
}

void FakeSeam::SetRoute(int route) {
    const std::lock_guard lock(m_mutex);
    m_state->route = route;
}

int FakeSeam::Route() const {
    const std::lock_guard lock(m_mutex);
    return m_state->route;
}

void FakeSeam::SetZones(const std::map<int, int>& routeByZone) {
    const std::lock_guard lock(m_mutex);
    m_state->zones = routeByZone;
}

std::map<int, int> FakeSeam::Zones() const {
    const std::lock_guard lock(m_mutex);
    return m_state->zones;
}

void FakeSeam::SetFocus(std::optional<int> zone) {
    const std::lock_guard lock(m_mutex);
    m_state->focus = zone;
}

void FakeSeam::SetVolume(int volume) {
    const std::lock_guard lock(m_mutex);
    m_state->volume = volume;
}

int FakeSeam::Volume() const {
    const std::lock_guard lock(m_mutex);
    return m_state->volume;
}

void FakeSeam::SetMute(bool mute) {
    const std::lock_guard lock(m_mutex);
    m_state->mute = mute;
}

bool FakeSeam::Mute() const {
    const std::lock_guard lock(m_mutex);
    return m_state->mute;
}

void FakeSeam::SetGain(int main, int sub) {
    const std::lock_guard lock(m_mutex);
    m_state->gain[0] = main;
    m_state->gain[1] = sub;
}

int FakeSeam::MainGainValue() const {
    const std::lock_guard lock(m_mutex);
    return m_state->gain[0];
}

int FakeSeam::SubGainValue() const {
    const std::lock_guard lock(m_mutex);
    return m_state->gain[1];
}

void FakeSeam::SetEvent(const std::string& event, bool done) {
    const std::lock_guard lock(m_mutex);
    m_state->events[event] = done;
}

bool FakeSeam::Event(const std::string& event) const {
    const std::lock_guard lock(m_mutex);
    const auto found = m_state->events.find(event);
    return found != m_state->events.end() && found->second;
}

std::vector<FakeSeam::KeyWatch> FakeSeam::Watches(const std::string& key) const {
    const std::lock_guard lock(m_mutex);
    const auto found = m_state->watches.find(key);
    return found == m_state->watches.end() ? std::vector<KeyWatch>() : found->second;
}

FakeSeam::RegisteredCallback<sound_manager_speaker_changed_cb> FakeSeam::RouteRegistration() const {
    const std::lock_guard lock(m_mutex);
    return m_state->routeRegistration;
}

FakeSeam::RegisteredCallback<sound_manager_multiview_speaker_selection_changed_cb>
FakeSeam::ZoneRouteRegistration() const {
    const std::lock_guard lock(m_mutex);
    return m_state->zoneRouteRegistration;
}

FakeSeam::RegisteredCallback<sound_manager_tv_master_mute_changed_cb> FakeSeam::TvMasterMuteRegistration()
    const {
    const std::lock_guard lock(m_mutex);
    return m_state->tvMasterMuteRegistration;
}

FakeSeam::RegisteredCallback<audio_master_changed_cb> FakeSeam::VolumeRegistration() const {
    const std::lock_guard lock(m_mutex);
    return m_state->volumeRegistration;
}

FakeSeam::RegisteredCallback<audio_master_changed_cb> FakeSeam::MuteRegistration() const {
    const std::lock_guard lock(m_mutex);
    return m_state->muteRegistration;
}

std::map<int, FakeSeam::RegisteredCallback<rc_audio_focus_changed_cb>> FakeSeam::FocusRegistrations() const {
    const std::lock_guard lock(m_mutex);
    return m_state->focusRegistrations;
}

namespace {

/** Calls the registered callback, if there is one. Returns the number of calls made, 0 or 1. */
template <typename Callback, typename... Values>
int Report(const FakeSeam::RegisteredCallback<Callback>& registration, Values... values) {
    if (registration.callback == nullptr) {
        return 0;
    }
    registration.callback(values..., registration.data);
    return 1;
}

}  // namespace

int FakeSeam::FireNode(const std::string& key, keynode_t* node) {
    const auto watches = Watches(key);
    for (const KeyWatch& watch : watches) {
        watch.callback(node, watch.data);
    }
    return static_cast<int>(watches.size());
}

int FakeSeam::FireKey(const std::string& key, const std::string& value) {
    SetStr(key, value);
    keynode_t node = NodeOf(key, value);
    return FireNode(key, &node);
}

int FakeSeam::FireKey(const std::string& key, int value) {
    return FireKey(key, std::to_string(value));
}

int FakeSeam::FireRoute(int route) {
    SetRoute(route);
    return Report(RouteRegistration(), route);
}

int FakeSeam::FireZoneRoute(int route, int zone) {
    {
        const std::lock_guard lock(m_mutex);
        m_state->zones[zone] = route;
    }
    return Report(ZoneRouteRegistration(), route, zone);
}

int FakeSeam::FireFocus(int zone) {
    SetFocus(zone);
    const auto registrations = FocusRegistrations();
    for (const auto& [id, registration] : registrations) {
        Report(registration, zone);
    }
    return static_cast<int>(registrations.size());
}

int FakeSeam::FireVolume(unsigned int volume) {
    SetVolume(static_cast<int>(volume));
    return Report(VolumeRegistration(), volume);
}

int FakeSeam::FireMute(unsigned int mute) {
    SetMute(mute != 0);
    return Report(MuteRegistration(), mute);
}

int FakeSeam::FireTvMasterMute(unsigned int mute) {
    SetMute(mute != 0);
    return Report(TvMasterMuteRegistration(), mute);
}

void OnPlatformThread(const std::function<void()>& action) {
    std::thread(action).join();
}

/** Helpers of the functions of the eight headers. */
class Seam {
public:
    using State = FakeSeam::State;
    /** A report to make after the call took effect and the fake's lock is released. */
    using PendingReport = std::function<void(FakeSeam&)>;

    /**
     * Makes one seam call: enters the journal, runs the hooks and fails if a test asked for that. Otherwise
     * runs `effect` under the lock, and then makes the report that `effect` set.
     */
    template <typename Effect>
    static auto Call(const char* name, const std::string& arguments, Effect effect) {
        using Result = std::invoke_result_t<Effect, State&, PendingReport&>;
        FakeSeam& fake = FakeSeam::Get();
        if (const auto failed = fake.Record(CallEntry(name, arguments))) {
            if constexpr (std::is_pointer_v<Result>) {
                return static_cast<Result>(nullptr);
            } else {
                return static_cast<Result>(*failed);
            }
        }
        PendingReport report;
        std::unique_lock lock(fake.m_mutex);
        const Result result = effect(*fake.m_state, report);
        const bool wanted = report != nullptr && fake.m_state->reportOwnChanges;
        lock.unlock();
        if (wanted) {
            report(fake);
        }
        return result;
    }

    template <typename Callback>
    static int Register(const char* name, FakeSeam::RegisteredCallback<Callback> State::*registration,
                        Callback callback, void* data) {
        return Call(name, "", [&](State& state, PendingReport&) {
            state.*registration = {callback, data};
            return 0;
        });
    }

    template <typename Callback>
    static int Deregister(const char* name, FakeSeam::RegisteredCallback<Callback> State::*registration) {
        return Call(name, "", [&](State& state, PendingReport&) {
            const bool set = (state.*registration).callback != nullptr;
            state.*registration = {};
            return set ? 0 : NOT_FOUND;
        });
    }

    static int GetGain(const char* name, GainWrite::Out out, int* gain) {
        return Call(name, "", [&](State& state, PendingReport&) {
            *gain = state.gain[static_cast<int>(out)];
            return 0;
        });
    }

    static int SetGain(const char* name, GainWrite::Out out, int gain) {
        return Call(name, Arguments(gain), [&](State& state, PendingReport&) {
            FakeSeam& fake = FakeSeam::Get();
            state.gain[static_cast<int>(out)] = gain;
            fake.m_gainWrites.push_back({out, gain, Clock::now(), ThreadName()});
            fake.m_changed.notify_all();
            return 0;
        });
    }

    static bool DropsLogLines() { return FakeSeam::Get().m_dropLogLines.load(std::memory_order_relaxed); }

    static int Log(int priority, const char* tag, const std::string& raw) {
        FakeSeam::Get().Record(LogEntry(priority, tag, raw));
        return 0;
    }

    static int SetKey(const char* name, const char* key, const std::string& shown, const std::string& value) {
        return Call(name, Arguments(key) + ", " + shown, [&](State& state, PendingReport& report) {
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
                return GetGain("get_main_out_gain2", GainWrite::Out::MAIN, gain);
            };
            functions.set_main_out_gain2 = [](int gain) {
                return SetGain("set_main_out_gain2", GainWrite::Out::MAIN, gain);
            };
            functions.get_sub_out_gain2 = [](int* gain) {
                return GetGain("get_sub_out_gain2", GainWrite::Out::SUB, gain);
            };
            functions.set_sub_out_gain2 = [](int gain) {
                return SetGain("set_sub_out_gain2", GainWrite::Out::SUB, gain);
            };
            return functions;
        }();
        return Call("AudioControl_getInstance", "", [](State&, PendingReport&) { return &control; });
    }
};

namespace {

using State = Seam::State;
using PendingReport = Seam::PendingReport;

/** Checks the form that every log line of the daemon has. */
void ExpectWellFormed(const Entry& line) {
    EXPECT_EQ(line.tag, TAG) << line.raw;
    EXPECT_FALSE(line.site.file.empty()) << line.raw;
    EXPECT_EQ(line.site.file.find('/'), std::string::npos) << line.raw;
    EXPECT_EQ(line.site, line.siteAgain) << line.raw;
    EXPECT_NE(line.site.function, "operator()") << line.raw;
    EXPECT_TRUE(line.raw.ends_with('\n')) << line.raw;
}

/**
 * Resets the TV before each test, checks the form of all log lines after it, and prints the journal if it
 * failed.
 */
class JournalListener : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override { FakeSeam::Get().Reset(); }

    void OnTestEnd(const testing::TestInfo& test) override {
        for (const Entry& entry : FakeSeam::Get().Entries()) {
            if (entry.kind == Entry::Kind::LOG) {
                ExpectWellFormed(entry);
            }
        }
        if (!test.result()->Failed()) {
            return;
        }
        std::cout << "Seam calls and log lines of this test:\n";
        for (const Entry& entry : FakeSeam::Get().Entries()) {
            std::cout << "  " << entry.threadName << ": " << entry.text << '\n';
        }
    }
};

[[maybe_unused]] const bool listening = [] {
    testing::UnitTest::GetInstance()->listeners().Append(std::make_unique<JournalListener>().release());
    return true;
}();

}  // namespace
}  // namespace fake

using fake::Arguments;
using fake::FakeSeam;
using fake::NOT_FOUND;
using fake::PendingReport;
using fake::Seam;
using fake::State;

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
    return Seam::Call("vconf_get_int", Arguments(key), [&](State& state, PendingReport&) {
        const auto found = state.settings.find(key);
        if (found == state.settings.end()) {
            return NOT_FOUND;
        }
        const auto parsed = fake::Parse(found->second);
        *value = parsed.value_or(*value);
        return parsed ? 0 : fake::BAD_TEXT;
    });
}

int vconf_set_int(const char* key, int value) {
    return Seam::SetKey("vconf_set_int", key, Arguments(value), std::to_string(value));
}

char* vconf_get_str(const char* key) {
    return Seam::Call("vconf_get_str", Arguments(key), [&](State& state, PendingReport&) -> char* {
        const auto found = state.settings.find(key);
        return found == state.settings.end() ? nullptr : strdup(found->second.c_str());
    });
}

int vconf_set_str(const char* key, const char* value) {
    return Seam::SetKey("vconf_set_str", key, Arguments(value), value);
}

int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data) {
    return Seam::Call("vconf_notify_key_changed", Arguments(key), [&](State& state, PendingReport&) {
        auto& watches = state.watches[key];
        const auto found = std::ranges::find(watches, callback, &FakeSeam::KeyWatch::callback);
        if (found == watches.end()) {
            watches.push_back({callback, user_data});
        } else {
            found->data = user_data;
        }
        return 0;
    });
}

int vconf_ignore_key_changed(const char* key, vconf_callback_fn callback) {
    return Seam::Call("vconf_ignore_key_changed", Arguments(key), [&](State& state, PendingReport&) {
        const auto removed = std::erase_if(
            state.watches[key], [&](const FakeSeam::KeyWatch& watch) { return watch.callback == callback; });
        return removed > 0 ? 0 : NOT_FOUND;
    });
}

char* vconf_keynode_get_name(keynode_t* node) {
    return Seam::Call("vconf_keynode_get_name", "",
                      [&](State&, PendingReport&) { return node->name ? node->name->data() : nullptr; });
}

int vconf_keynode_get_int(keynode_t* node) {
    return Seam::Call("vconf_keynode_get_int", "", [&](State&, PendingReport&) { return node->number; });
}

char* vconf_keynode_get_str(keynode_t* node) {
    return Seam::Call("vconf_keynode_get_str", "",
                      [&](State&, PendingReport&) { return node->text ? node->text->data() : nullptr; });
}

// system_info.h

int system_info_get_custom_bool(const char* key, bool* value) {
    return Seam::Call("system_info_get_custom_bool", Arguments(key), [&](State& state, PendingReport&) {
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
    return Seam::Call("sound_manager_get_speaker_selection", "", [&](State& state, PendingReport&) {
        *route = state.route;
        return 0;
    });
}

int sound_manager_set_speaker_selection(sound_tv_output_route_e route) {
    return Seam::Call(
        "sound_manager_set_speaker_selection", Arguments(route), [&](State& state, PendingReport& report) {
            if (std::exchange(state.route, route) != route) {
                report = [route](FakeSeam& fake) { fake::Report(fake.RouteRegistration(), route); };
            }
            return 0;
        });
}

int sound_manager_get_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e* route, int zone_id) {
    return Seam::Call("sound_manager_get_multiview_speaker_selection_with_zone_id", Arguments(zone_id),
                      [&](State& state, PendingReport&) {
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
                      [&](State& state, PendingReport& report) {
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
    return Seam::Register("sound_manager_set_speaker_changed_cb", &State::routeRegistration, callback,
                          user_data);
}

int sound_manager_unset_speaker_changed_cb(void) {
    return Seam::Deregister("sound_manager_unset_speaker_changed_cb", &State::routeRegistration);
}

int sound_manager_set_multiview_speaker_selection_changed_cb(
    sound_manager_multiview_speaker_selection_changed_cb callback, void* user_data) {
    return Seam::Register("sound_manager_set_multiview_speaker_selection_changed_cb",
                          &State::zoneRouteRegistration, callback, user_data);
}

int sound_manager_unset_multiview_speaker_selection_changed_cb(void) {
    return Seam::Deregister("sound_manager_unset_multiview_speaker_selection_changed_cb",
                            &State::zoneRouteRegistration);
}

int sound_manager_set_tv_master_mute_changed_cb(sound_manager_tv_master_mute_changed_cb callback,
                                                void* user_data) {
    return Seam::Register("sound_manager_set_tv_master_mute_changed_cb", &State::tvMasterMuteRegistration,
                          callback, user_data);
}

int sound_manager_unset_tv_master_mute_changed_cb(void) {
    return Seam::Deregister("sound_manager_unset_tv_master_mute_changed_cb",
                            &State::tvMasterMuteRegistration);
}

// audio_hal.h

int audio_get_master_volume(int* volume) {
    return Seam::Call("audio_get_master_volume", "", [&](State& state, PendingReport&) {
        *volume = state.volume;
        return 0;
    });
}

int audio_set_master_volume(int volume, int mode) {
    return Seam::Call("audio_set_master_volume", Arguments(volume, mode),
                      [&](State& state, PendingReport& report) {
                          if (std::exchange(state.volume, volume) != volume) {
                              report = [volume](FakeSeam& fake) {
                                  fake::Report(fake.VolumeRegistration(), static_cast<unsigned int>(volume));
                              };
                          }
                          return 0;
                      });
}

int audio_get_master_mute(bool* mute) {
    return Seam::Call("audio_get_master_mute", "", [&](State& state, PendingReport&) {
        *mute = state.mute;
        return 0;
    });
}

int audio_set_master_mute(bool mute) {
    return Seam::Call("audio_set_master_mute", Arguments(mute), [&](State& state, PendingReport& report) {
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
    return Seam::Register("audio_register_master_volume_changed_cb", &State::volumeRegistration, callback,
                          user_data);
}

int audio_register_master_mute_changed_cb(audio_master_changed_cb callback, void* user_data) {
    return Seam::Register("audio_register_master_mute_changed_cb", &State::muteRegistration, callback,
                          user_data);
}

int audio_unregister_master_volume_changed_cb(void) {
    return Seam::Deregister("audio_unregister_master_volume_changed_cb", &State::volumeRegistration);
}

int audio_unregister_master_mute_changed_cb(void) {
    return Seam::Deregister("audio_unregister_master_mute_changed_cb", &State::muteRegistration);
}

// resource_center.h

int rc_get_zone_list(rc_zone_list_h* list) {
    return Seam::Call("rc_get_zone_list", "", [&](State& state, PendingReport&) {
        auto zones = std::make_unique<_rc_zone_list>();
        for (const auto& [id, route] : state.zones) {
            zones->zones.push_back({id});
        }
        *list = zones.release();
        return 0;
    });
}

int rc_get_next_zone(rc_zone_list_h list, rc_zone_h* zone) {
    return Seam::Call("rc_get_next_zone", "", [&](State&, PendingReport&) {
        if (list->next == list->zones.size()) {
            return NOT_FOUND;
        }
        *zone = &list->zones[list->next++];
        return 0;
    });
}

int rc_get_zone_id(rc_zone_h zone, int* zone_id) {
    return Seam::Call("rc_get_zone_id", "", [&](State&, PendingReport&) {
        *zone_id = zone->id;
        return 0;
    });
}

int rc_free_zone_list(rc_zone_list_h list) {
    return Seam::Call("rc_free_zone_list", "", [&](State&, PendingReport&) {
        std::unique_ptr<_rc_zone_list>{list};
        return 0;
    });
}

int rc_get_audio_focus(int* zone_id) {
    return Seam::Call("rc_get_audio_focus", "", [&](State& state, PendingReport&) {
        *zone_id = state.focus.value_or(*zone_id);
        return state.focus ? 0 : NOT_FOUND;
    });
}

int rc_register_audio_focus_changed_callback(rc_audio_focus_changed_cb callback, void* user_data) {
    return Seam::Call("rc_register_audio_focus_changed_callback", "", [&](State& state, PendingReport&) {
        state.focusRegistrations[++state.lastFocusId] = {callback, user_data};
        return state.lastFocusId;
    });
}

int rc_unregister_audio_focus_changed_callback(int callback_id) {
    return Seam::Call("rc_unregister_audio_focus_changed_callback", Arguments(callback_id),
                      [&](State& state, PendingReport&) {
                          return state.focusRegistrations.erase(callback_id) > 0 ? 0 : NOT_FOUND;
                      });
}

// audio_control.h

AudioControl* AudioControl_getInstance(void) {
    return Seam::Glue();
}

// lwipc.h

int LwipcEventDone(const char* event) {
    return Seam::Call("LwipcEventDone", Arguments(event), [&](State& state, PendingReport&) {
        state.events[event] = true;
        return 0;
    });
}

int LwipcResetEvent(const char* event) {
    return Seam::Call("LwipcResetEvent", Arguments(event), [&](State& state, PendingReport&) {
        state.events[event] = false;
        return 0;
    });
}

int LwipcIsDone(const char* event) {
    return Seam::Call("LwipcIsDone", Arguments(event),
                      [&](State& state, PendingReport&) { return state.events[event] ? 1 : 0; });
}

}  // extern "C"
