// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Wrong platforms: each breaks one rule of the seam in a way in which somebody who ports kavrel to a TV might.
 * tests/system/test_kit.py says which rule of the kit has to find each.
 */
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "memory_platform.h"

namespace memory {
namespace {

// --- Removals

/** The removal of a focus registration says that it has succeeded, and only marks the id. */
struct CallsAfterRemoval : Platform {
    bool Remove(const std::string& topic, int id) override {
        if (topic != "focus") {
            return Platform::Remove(topic, id);
        }
        const Guard delivery(m_delivery);
        return IsRegistered(id) && m_removed.insert(id).second;
    }
    std::set<int> m_removed;
};

/** The platform thread makes its list of callbacks before it waits for the delivery lock. */
struct ListsCallbacksTooEarly : Platform {
    void Handle(const Pending& pending) override {
        const std::vector<Registration> listed = Registered(TopicOf(pending.name));
        const Guard delivery(m_delivery);
        std::vector<Registration> removed;
        std::copy_if(listed.begin(), listed.end(), std::back_inserter(removed),
                     [this](const Registration& one) { return !IsRegistered(one.id); });
        Platform::Handle(pending);
        for (const Registration& registration : removed) {
            registration.handler(pending.name, pending.text);
        }
    }
};

/** A removal takes effect at once, without the delivery lock. */
struct RemovalDoesNotWait : Platform {
    bool Remove(const std::string& /*topic*/, int id) override {
        const bool isThere = IsRegistered(id);
        Erase(id);
        return isThere;
    }
    bool RemoveSlot(const std::string& topic, const std::string& slot) override {
        for (const Registration& registration : Registered(topic)) {
            if (registration.slot == slot) {
                return Remove(topic, registration.id);
            }
        }
        return false;
    }
    bool RemoveForKey(const std::string& topic, const void* callback) override {
        for (const Registration& registration : Registered(topic)) {
            if (registration.callback == callback) {
                return Remove(topic, registration.id);
            }
        }
        return false;
    }
};

/** A removal waits until no callback runs, also the one that calls it. */
struct RemovalInsideACallbackHangs : Platform {
    bool Remove(const std::string& topic, int id) override {
        while (m_running) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return Platform::Remove(topic, id);
    }
    void Deliver(const std::string& name, const std::string& text) override {
        const bool before = m_running.exchange(true);
        Platform::Deliver(name, text);
        m_running = before;
    }
    std::atomic<bool> m_running = false;
};

/** The removal of a setting's callback forgets which callback it is about. */
struct RemovesByKeyOnly : Platform {
    bool RemoveForKey(const std::string& topic, const void* /*callback*/) override {
        const Guard delivery(m_delivery);
        const auto all = Registered(topic);
        for (const Registration& registration : all) {
            Erase(registration.id);
        }
        return !all.empty();
    }
};

/** The removal of a setting's callback forgets which key it is about. */
struct RemovesByCallbackOnly : Platform {
    bool RemoveForKey(const std::string& topic, const void* callback) override {
        const Guard delivery(m_delivery);
        const bool isThere = Platform::RemoveForKey(topic, callback);
        const StateGuard guard(m_state);
        if (isThere) {
            std::erase_if(m_registrations, [&](const Registration& one) { return one.callback == callback; });
        }
        return isThere;
    }
};

struct UnknownIdIsFine : Platform {
    int UnknownId() override { return 0; }
};

/** The report goes to every callback that was there when it began. */
struct CallsWhomACallbackRemoved : Platform {
    void Deliver(const std::string& name, const std::string& text) override {
        Know(name, text);
        const unsigned int number = ++m_numbers[name];
        for (const Registration& registration : Registered(TopicOf(name))) {
            registration.handler(name, text);
            if (m_numbers[name] != number) {
                return;
            }
        }
    }
    std::map<std::string, unsigned int> m_numbers;
};

// --- Registrations

struct RepeatedPairIsASecondOne : Platform {
    int AddForKey(const std::string& topic, const void* callback, Handler handler) override {
        Add(topic, {}, callback, std::move(handler));
        return 0;
    }
};

struct RepeatedPairKeepsItsUserData : Platform {
    int AddForKey(const std::string& topic, const void* callback, Handler handler) override {
        const Guard delivery(m_delivery);
        const auto all = Registered(topic);
        if (std::none_of(all.begin(), all.end(),
                         [&](const Registration& one) { return one.callback == callback; })) {
            Add(topic, {}, callback, std::move(handler));
        }
        return 0;
    }
};

/** A key has one callback: the newest. */
struct KeyHasOneCallback : Platform {
    int AddForKey(const std::string& topic, const void* callback, Handler handler) override {
        const Guard delivery(m_delivery);
        for (const Registration& registration : Registered(topic)) {
            Erase(registration.id);
        }
        return Platform::AddForKey(topic, callback, std::move(handler));
    }
};

struct SecondKeepsTheFirst : Platform {
    int AddToSlot(const std::string& topic, const std::string& slot, Handler handler) override {
        const Guard delivery(m_delivery);
        const auto all = Registered(topic);
        const bool isTaken =
            std::any_of(all.begin(), all.end(), [&](const Registration& one) { return one.slot == slot; });
        return isTaken ? 0 : Platform::AddToSlot(topic, slot, std::move(handler));
    }
};

struct ReportsTheValueAtRegistration : Platform {
    int Add(const std::string& topic, const std::string& slot, const void* callback,
            Handler handler) override {
        const Guard delivery(m_delivery);
        const int id = Platform::Add(topic, slot, callback, handler);
        if (const auto present = Present(topic)) {
            handler(topic, *present);
        }
        return id;
    }
};

/** A callback that is registered during a report gets that report. */
struct NewOneHearsTheReportUnderWay : Platform {
    void Deliver(const std::string& name, const std::string& text) override {
        const int before = m_lastId;
        Platform::Deliver(name, text);
        for (const Registration& registration : Registered(TopicOf(name))) {
            if (registration.id > before && IsKnown(name, text)) {
                registration.handler(name, text);
            }
        }
    }
};

struct KeyHasToExist : Platform {
    int AddForKey(const std::string& topic, const void* callback, Handler handler) override {
        return Present(topic) ? Platform::AddForKey(topic, callback, std::move(handler)) : NOT_THERE;
    }
};

// --- Reports

/** Each value has a lock of its own. */
struct TwoReportsAtOnce : Platform {
    std::recursive_mutex& Lock(const std::string& name) override {
        const StateGuard guard(m_locksMutex);
        return m_locks[TopicOf(name)];
    }
    std::mutex m_locksMutex;
    std::map<std::string, std::recursive_mutex> m_locks;
};

/** The setter leaves the report to the platform thread. */
struct ReportsOurChangesLater : Platform {
    int Set(const std::string& name, const std::string& text) override {
        const Guard delivery(m_delivery);
        const bool isNews = Present(name) != text;
        Write(name, text);
        if (isNews) {
            Queue({name, "!" + text});
        }
        return 0;
    }
    void Handle(const Pending& pending) override {
        const Guard delivery(m_delivery);
        if (!pending.text.starts_with("!")) {
            Platform::Handle(pending);
        } else if (!IsKnown(pending.name, pending.text.substr(1))) {
            Deliver(pending.name, pending.text.substr(1));
        }
    }
};

/** The platform notices our own changes, and reports them again. */
struct ReportsOurChangesTwice : Platform {
    int Set(const std::string& name, const std::string& text) override {
        const Guard delivery(m_delivery);
        if (Present(name) != text) {
            Queue({name, "!"});
        }
        return Platform::Set(name, text);
    }
    void Handle(const Pending& pending) override {
        const Guard delivery(m_delivery);
        const auto present = Present(pending.name);
        if (pending.text == "!" && present) {
            Deliver(pending.name, *present);
        } else {
            Platform::Handle(pending);
        }
    }
};

struct ReportsOurEqualValues : Platform {
    int Set(const std::string& name, const std::string& text) override {
        const Guard delivery(m_delivery);
        Write(name, text);
        Deliver(name, text);
        return 0;
    }
};

/** The setter of integers, unlike that of texts, does not compare. */
struct ReportsOurEqualIntegers : Platform {
    int SetInteger(const std::string& name, int value) override {
        const Guard delivery(m_delivery);
        const std::string text = std::to_string(value);
        Write(name, text);
        Deliver(name, text);
        return 0;
    }
};

/** A mute that a setter finds in force is known from then on, also if somebody else's change is still pending. */
struct SetterSwallowsAPendingChange : Platform {
    int Set(const std::string& name, const std::string& text) override {
        const Guard delivery(m_delivery);
        if (name == "mute" && Present(name) == text) {
            Know(name, text);
            return 0;
        }
        return Platform::Set(name, text);
    }
};

struct ReportsEqualValuesOfOthers : Platform {
    void Handle(const Pending& pending) override {
        const Guard delivery(m_delivery);
        if (const auto present = Present(pending.name)) {
            Deliver(pending.name, *present);
        }
    }
};

/**
 * A change that comes while a callback runs is lost. One that comes when the callback has done its work, and is only about
 * to return, is not: other rules make such changes, too.
 */
struct LosesTheLastValue : Platform {
    void Queue(const Pending& pending) override {
        std::unique_lock lock(m_mutex);
        m_isHeld = !m_returned.wait_for(lock, std::chrono::milliseconds(m_isHeld ? 0 : 500),
                                        [this] { return m_running == 0; });
        if (!m_isHeld) {
            Platform::Queue(pending);
        }
    }
    void Deliver(const std::string& name, const std::string& text) override {
        {
            const std::lock_guard lock(m_mutex);
            ++m_running;
        }
        Platform::Deliver(name, text);
        const std::lock_guard lock(m_mutex);
        --m_running;
        m_isHeld = m_isHeld && m_running > 0;
        m_returned.notify_all();
    }
    std::mutex m_mutex;
    std::condition_variable m_returned;
    int m_running = 0;      // guarded by m_mutex
    bool m_isHeld = false;  // guarded by m_mutex; a change has been lost in this callback already
};

/** The platform thread reports the value as it was when it noticed the change. */
struct GoesBackInTime : Platform {
    void Handle(const Pending& pending) override {
        const Guard delivery(m_delivery);
        if (!IsKnown(pending.name, pending.text)) {
            Deliver(pending.name, pending.text);
        }
    }
};

/** A setter writes before it takes the delivery lock. */
struct WritesOutsideTheLock : Platform {
    int Set(const std::string& name, const std::string& text) override {
        const bool isNews = Present(name) != text;
        Write(name, text);
        const Guard delivery(m_delivery);
        if (isNews) {
            Deliver(name, text);
        }
        return 0;
    }
};

/** When a callback sets its value, the callbacks after it hear the newer value first. */
struct OlderReportGoesOn : Platform {
    void Deliver(const std::string& name, const std::string& text) override {
        Know(name, text);
        for (const Registration& registration : Registered(TopicOf(name))) {
            if (IsRegistered(registration.id)) {
                registration.handler(name, text);
            }
        }
    }
};

/** A setter delivers all that is pending. */
struct SetterDeliversEverything : Platform {
    int Set(const std::string& name, const std::string& text) override {
        const Guard delivery(m_delivery);
        for (auto pending = Next(); pending; pending = Next()) {
            Platform::Handle(*pending);
        }
        return Platform::Set(name, text);
    }
    void Handle(const Pending& pending) override {
        {
            const StateGuard guard(m_state);
            m_taken.push_back(pending);
        }
        const Guard delivery(m_delivery);
        if (const auto next = Next()) {
            Platform::Handle(*next);
        }
    }
    std::optional<Pending> Next() {
        const StateGuard guard(m_state);
        if (m_taken.empty()) {
            return std::nullopt;
        }
        const Pending next = m_taken.front();
        m_taken.pop_front();
        return next;
    }
    std::deque<Pending> m_taken;
};

/** A setter reports the value before it is in force. */
struct ReportsBeforeItWrites : Platform {
    int Set(const std::string& name, const std::string& text) override {
        const Guard delivery(m_delivery);
        if (Present(name) != text) {
            const std::string before = Present(name).value_or("");
            Deliver(name, text);
            if (IsKnown(name, text)) {
                Write(name, text);
            }
        }
        return 0;
    }
};

struct MuteOfTheHalAlone : Platform {
    void Deliver(const std::string& name, const std::string& text) override {
        const auto all = Registered(name);
        if (name == "mute" &&
            std::any_of(all.begin(), all.end(), [](const Registration& one) { return one.slot == "hal"; })) {
            Know(name, text);
            for (const Registration& registration : all) {
                if (registration.slot == "hal") {
                    registration.handler(name, text);
                }
            }
            return;
        }
        Platform::Deliver(name, text);
    }
};

struct FirstRouteOfAZoneIsSilent : Platform {
    void Deliver(const std::string& name, const std::string& text) override {
        const bool isNew = name == "zone/5" || name == "zone/6";  // only their rule sets these routes
        if (isNew && m_seen.insert(name).second) {
            Know(name, text);
            return;
        }
        Platform::Deliver(name, text);
    }
    std::set<std::string> m_seen;
};

/** A change that a callback makes is reported when the callback has returned. */
struct QueuesChangesInsideCallbacks : Platform {
    void Deliver(const std::string& name, const std::string& text) override {
        m_waiting.push_back({name, text});
        if (std::exchange(m_isDelivering, true)) {
            return;
        }
        while (!m_waiting.empty()) {
            const Pending next = m_waiting.front();
            m_waiting.pop_front();
            Platform::Deliver(next.name, next.text);
        }
        m_isDelivering = false;
    }
    std::deque<Pending> m_waiting;  // guarded by m_delivery, like the next
    bool m_isDelivering = false;
};

/** Changes that come while nothing is registered are reported to the next registration. */
struct RemembersTheOldValue : Platform {
    int Add(const std::string& topic, const std::string& slot, const void* callback,
            Handler handler) override {
        const Guard delivery(m_delivery);
        std::map<std::string, std::string> known;
        std::map<std::string, std::string> present;
        {
            const StateGuard guard(m_state);
            known = m_known;
            present = m_values;
        }
        const int id = Platform::Add(topic, slot, callback, std::move(handler));
        for (const auto& [name, text] : known) {
            Know(name, text);
        }
        for (const auto& [name, text] : present) {
            if (TopicOf(name) == topic) {
                Queue({name, text});
            }
        }
        return id;
    }
    void Handle(const Pending& pending) override {
        const Guard delivery(m_delivery);
        if (!Registered(TopicOf(pending.name)).empty()) {
            Platform::Handle(pending);
        }
    }
};

// --- Values

struct ClampsTheVolume : Platform {
    int SetVolume(int volume) override { return Platform::SetVolume(std::clamp(volume, 0, 100)); }
};

struct FailedReadIsZero : Platform {
    int GetVolume(int* volume) override {
        *volume = 0;
        return Platform::GetVolume(volume);
    }
};

struct UnknownZoneIsFine : Platform {
    int NoSuchZone() override { return 0; }
};

/** In the order of their names. */
struct ZonesAreUnsorted : Platform {
    std::vector<int> Zones() override {
        std::vector<int> zones = Platform::Zones();
        std::sort(zones.begin(), zones.end(),
                  [](int one, int two) { return std::to_string(one) < std::to_string(two); });
        return zones;
    }
};

/** Getters wait for the delivery lock. */
struct GettersWait : Platform {
    std::optional<std::string> Read(const std::string& name) override {
        if (name.starts_with("gain/")) {
            return Platform::Read(name);
        }
        const Guard delivery(m_delivery);
        return Platform::Read(name);
    }
};

struct GainsWait : Platform {
    void Write(const std::string& name, const std::string& text) override {
        if (name.starts_with("gain/")) {
            const Guard delivery(m_delivery);
            Platform::Write(name, text);
            return;
        }
        Platform::Write(name, text);
    }
};

struct LogWaits : Platform {
    int Log(int priority, const char* text) override {
        const Guard delivery(m_delivery);
        return Platform::Log(priority, text);
    }
};

struct LogFormatsEverything : Platform {
    int LowestPriority() override { return 3; }
    int Log(int priority, const char* text) override {
        return priority < 4 ? 0 : Platform::Log(priority, text);
    }
};

struct LogEndsWithItsReader : Platform {
    int Log(int priority, const char* text) override { return WriteLine(priority, text); }
};

/** As a mixer might that knows 0 to 100 only. */
struct ClampsTheGains : Platform {
    void Write(const std::string& name, const std::string& text) override {
        const bool isGain = name.starts_with("gain/");
        Platform::Write(name, isGain ? std::to_string(std::clamp(std::stoi(text), 0, 100)) : text);
    }
};

/** A key that is taken away takes its last value along. */
struct ForgetsWhatIsTakenAway : Platform {
    void Change(const std::string& name, const std::optional<std::string>& text) override {
        Platform::Change(name, text);
        if (!text) {
            const StateGuard guard(m_state);
            m_known.erase(name);
        }
    }
};

/** All nodes of a key give the text of its newest report. */
struct NodesShareTheirText : Platform {
    void Deliver(const std::string& name, const std::string& text) override {
        auto& shared = m_texts[name];
        shared.at(text.copy(shared.data(), shared.size() - 1)) = '\0';
        Platform::Deliver(name, text);
    }
    const char* NodeText(const std::string& name, const std::string& /*text*/) override {
        return m_texts[name].data();
    }
    std::map<std::string, std::array<char, 4096>> m_texts;  // guarded by m_delivery
};

struct Crashes : Platform {
    std::vector<int> Zones() override {
        const std::vector<int> zones = Platform::Zones();
        if (zones.empty()) {
            std::raise(SIGSEGV);
        }
        return zones;
    }
};

template <typename Wrong>
Platform* Make() {
    return std::make_unique<Wrong>().release();
}

}  // namespace

Platform* MakeWrong(const std::string& name) {
    static const std::map<std::string, Platform* (*)()> all = {
        {"CallsAfterRemoval", Make<CallsAfterRemoval>},
        {"ListsCallbacksTooEarly", Make<ListsCallbacksTooEarly>},
        {"RemovalDoesNotWait", Make<RemovalDoesNotWait>},
        {"RemovalInsideACallbackHangs", Make<RemovalInsideACallbackHangs>},
        {"RemovesByKeyOnly", Make<RemovesByKeyOnly>},
        {"RemovesByCallbackOnly", Make<RemovesByCallbackOnly>},
        {"UnknownIdIsFine", Make<UnknownIdIsFine>},
        {"CallsWhomACallbackRemoved", Make<CallsWhomACallbackRemoved>},
        {"RepeatedPairIsASecondOne", Make<RepeatedPairIsASecondOne>},
        {"RepeatedPairKeepsItsUserData", Make<RepeatedPairKeepsItsUserData>},
        {"KeyHasOneCallback", Make<KeyHasOneCallback>},
        {"SecondKeepsTheFirst", Make<SecondKeepsTheFirst>},
        {"ReportsTheValueAtRegistration", Make<ReportsTheValueAtRegistration>},
        {"NewOneHearsTheReportUnderWay", Make<NewOneHearsTheReportUnderWay>},
        {"KeyHasToExist", Make<KeyHasToExist>},
        {"TwoReportsAtOnce", Make<TwoReportsAtOnce>},
        {"ReportsOurChangesLater", Make<ReportsOurChangesLater>},
        {"ReportsOurChangesTwice", Make<ReportsOurChangesTwice>},
        {"ReportsOurEqualValues", Make<ReportsOurEqualValues>},
        {"ReportsOurEqualIntegers", Make<ReportsOurEqualIntegers>},
        {"SetterSwallowsAPendingChange", Make<SetterSwallowsAPendingChange>},
        {"ReportsEqualValuesOfOthers", Make<ReportsEqualValuesOfOthers>},
        {"LosesTheLastValue", Make<LosesTheLastValue>},
        {"GoesBackInTime", Make<GoesBackInTime>},
        {"WritesOutsideTheLock", Make<WritesOutsideTheLock>},
        {"OlderReportGoesOn", Make<OlderReportGoesOn>},
        {"SetterDeliversEverything", Make<SetterDeliversEverything>},
        {"ReportsBeforeItWrites", Make<ReportsBeforeItWrites>},
        {"MuteOfTheHalAlone", Make<MuteOfTheHalAlone>},
        {"FirstRouteOfAZoneIsSilent", Make<FirstRouteOfAZoneIsSilent>},
        {"QueuesChangesInsideCallbacks", Make<QueuesChangesInsideCallbacks>},
        {"RemembersTheOldValue", Make<RemembersTheOldValue>},
        {"ClampsTheVolume", Make<ClampsTheVolume>},
        {"FailedReadIsZero", Make<FailedReadIsZero>},
        {"UnknownZoneIsFine", Make<UnknownZoneIsFine>},
        {"ZonesAreUnsorted", Make<ZonesAreUnsorted>},
        {"GettersWait", Make<GettersWait>},
        {"GainsWait", Make<GainsWait>},
        {"LogWaits", Make<LogWaits>},
        {"LogFormatsEverything", Make<LogFormatsEverything>},
        {"LogEndsWithItsReader", Make<LogEndsWithItsReader>},
        {"ClampsTheGains", Make<ClampsTheGains>},
        {"ForgetsWhatIsTakenAway", Make<ForgetsWhatIsTakenAway>},
        {"NodesShareTheirText", Make<NodesShareTheirText>},
        {"Crashes", Make<Crashes>},
    };
    const auto found = all.find(name);
    return found != all.end() ? found->second() : nullptr;
}

}  // namespace memory
