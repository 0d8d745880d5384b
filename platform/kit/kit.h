// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The language of the kit's rules: words for a person who reads a failure, the values that are reported, and
 * ears for their callbacks.
 *
 * A rule is one test, in a process of its own, and fails for one reason: the platform breaks this rule. What it
 * needs beyond its own rule it takes as it comes; if that is broken, the rule is not judged, and says which other
 * rule is broken.
 *
 * No rule waits for a fixed time to show that a report never comes: somebody else makes another change, and when
 * that is reported, the earlier one would have been. Nothing depends on the mark being the last: a platform
 * that promises no order between values is never failed for it.
 */
#ifndef KAVREL_KIT_KIT_H
#define KAVREL_KIT_KIT_H

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "adapter.h"

namespace kit {

using Action = std::function<void()>;

// --- The end of a process of one rule

inline constexpr int KEPT = 0;
inline constexpr int BROKEN = 1;
inline constexpr int CANNOT = 77;  // the adapter or the platform does not have what the rule needs
inline constexpr int UNMET = 78;   // another rule is broken

// --- Words

/** Begins a test with its rule, as a sentence. */
void Rule(const std::string& sentence);
/** Adds a line to the transcript that a failure shows. */
void Step(const std::string& text);
/** Whether Step() adds nothing meanwhile, because too much happens. */
void SetQuiet(bool isQuiet);
/** The rule is broken. The rest of the test may go on. */
void Broken(const std::string& seen);
/** Broken unless `isKept`. @return isKept */
bool Check(bool isKept, const std::string& seen);
/** Part of the rule, or all of it, cannot be judged because of the adapter. */
void Cannot(const std::string& what);
/** Part of the rule, or all of it, cannot be judged because `rule` is broken. */
void Unmet(const std::string& what, const char* rule);
/** How the process ends: BROKEN, UNMET, CANNOT or KEPT. */
int Outcome();

/** The rules that Unmet() names most often. A test looks whether there is a rule of each name in these sources. */
inline constexpr const char* SET = "Reading.AValueThatIsSetIsRead";
inline constexpr const char* REPORTED = "Reports.SomebodyElsesChangeIsReported";
inline constexpr const char* OURS_REPORTED =
    "Reports.OurChangeIsReportedOnTheSettersThreadBeforeTheSetterReturns";
inline constexpr const char* EQUAL_OURS = "Reports.AnEqualValueOfOursIsSilent";
inline constexpr const char* EQUAL_OTHERS = "Reports.AnEqualValueOfSomebodyElseIsSilent";
inline constexpr const char* LAST = "Reports.TheLastValueIsAlwaysReported";
inline constexpr const char* REMOVAL = "Registrations.ARemovedCallbackIsNeverCalledAgain";
inline constexpr const char* SEVERAL_CALLBACKS = "SettingsRegistrations.AKeyMayHaveSeveralCallbacks";
inline constexpr const char* SET_INSIDE = "Callbacks.MaySetOtherValues";

/** The values of a list, for a person. */
std::string List(const std::vector<std::string>& texts);
/** A text in quotes; a long one by its length. */
std::string Quoted(std::string_view text);

/** Ends the process if the scope takes too long: BROKEN, or UNMET if another rule is named. */
class Limit {
public:
    explicit Limit(std::string what, const char* otherRule = nullptr);
    ~Limit();
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_isOver = false;  // guarded by m_mutex
    std::thread m_thread;
};

// --- The rest of the TV

inline constexpr kit_value MASTER_VOLUME = {KIT_MASTER_VOLUME, 0, nullptr};
inline constexpr kit_value MASTER_MUTE = {KIT_MASTER_MUTE, 0, nullptr};
inline constexpr kit_value ROUTE = {KIT_ROUTE, 0, nullptr};
inline constexpr kit_value FOCUS = {KIT_FOCUS, 0, nullptr};
inline constexpr kit_value MAIN_OUT_GAIN = {KIT_MAIN_OUT_GAIN, 0, nullptr};
inline constexpr kit_value SUB_OUT_GAIN = {KIT_SUB_OUT_GAIN, 0, nullptr};
inline constexpr kit_value ZoneRoute(int zone) {
    return {KIT_ZONE_ROUTE, zone, nullptr};
}
inline constexpr kit_value Setting(const char* key) {
    return {KIT_SETTING, 0, key};
}
inline constexpr kit_value Feature(const char* key) {
    return {KIT_FEATURE, 0, key};
}
inline constexpr kit_value Event(const char* name) {
    return {KIT_EVENT, 0, name};
}

/**
 * Each calls the adapter, and waits until the getters show the change, unless a callback runs.
 * @return whether it is done; if not, the rule is not judged, or the adapter has failed
 */
bool SomebodySets(const kit_value& value, const std::string& text);
bool SomebodyRemoves(const kit_value& value);
bool MakeUnreadable(const kit_value& value);
bool MakeReadable(const kit_value& value);
bool SomebodySetsZones(const std::vector<int>& zones);
/** The zones that rc_get_zone_list() lists now. @param result what that call returned */
std::vector<int> ZonesNow(int& result);
/** An argument that a failed call should leave as it was. */
inline constexpr int UNTOUCHED = 424242;
/** Like SomebodySets(), without a line in the transcript: for storms. */
bool SomebodySetsQuietly(const kit_value& value, const std::string& text);

// --- Ears

struct Heard {
    std::string text;        // the value; of a zone's route "ZONE:ROUTE"
    std::thread::id thread;  // that the callback ran on
    const void* data;        // the user data
};

/** A callback function of its own: it notes what it hears, then it acts. Found without the user data. */
class Ear {
public:
    explicit Ear(std::string name) : m_name(std::move(name)) {}

    void Hear(const std::string& text, const void* data);
    /** Sets an action that the callback takes from now on, after it has noted the report. */
    void Act(Action action);
    void Forget();

    std::vector<Heard> All() const;
    std::vector<std::string> Texts() const;
    std::size_t Count(const std::string& text) const;
    bool Has(const std::string& text) const { return Count(text) > 0; }
    std::string Last() const;
    /** Waits for a report of `text`. @return false after some seconds without it */
    bool Await(const std::string& text) const;
    /** Waits half a second for a report of a text with this beginning. */
    bool AwaitBeginning(const std::string& begin) const;

private:
    const std::string m_name;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<Heard> m_heard;     // guarded by m_mutex
    std::shared_ptr<Action> m_act;  // guarded by m_mutex
};

/** Whether two callbacks, of whatever kind, ever ran at the same time on two threads. */
bool HaveCallbacksOverlapped();
/** Waits until `condition` is true. @return false after some seconds */
bool Await(const std::function<bool()>& condition);

// --- Values that are reported

inline constexpr int SLOTS = 12;  // callback functions for each kind of report

/** One kind of report of the seam, with its calls. A slot is the number of a callback function, which has an ear. */
struct Stream {
    std::string name;  // "the master volume"
    kit_value value;
    std::function<std::string(int)> at;  // values that differ from one another; those of a mute alternate
    std::string prefix;                  // of the value as its callback hears it
    std::function<int(int slot, void* data)> add;
    std::function<int(int slot)> remove;
    std::function<int(const std::string&)> set;  // empty: the seam has no such call
    std::function<std::string()> get;            // the value, or "(failed)"
    std::function<Ear&(int slot)> ear;
    bool hasManyCallbacks = false;  // a second registration leaves the first one in its place

    std::string HeardAt(int i) const { return prefix + at(i); }
};

Stream& Volume();
Stream& HalMute();
Stream& ManagerMute();
Stream& Route();
Stream& ZoneRouteOf2();
Stream& Focus();
Stream& SettingStream();
/** The texts that a callback of the stream has heard, for a person. */
std::string Texts(const Stream& stream, int slot = 0);
/** A setting, whose slot 0 is the first slot. */
Stream KeyStream(const char* key, int firstSlot);

/** All of them. Those that need zones are left out, with a word, if the adapter cannot make zones. */
std::vector<Stream*> AllStreams();
/** Those that the seam can set. */
std::vector<Stream*> OurStreams();
/** Without the sound manager's mute, whose reports the rule of the master mute judges. */
std::vector<Stream*> WithoutManagerMute(std::vector<Stream*> streams);

/**
 * A part of a rule that is about one kind of report. The value begins as at(0), with nothing left to report;
 * at the end its registrations are removed.
 */
class Scene {
public:
    explicit Scene(Stream& stream);
    ~Scene();
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    /** Whether the value could be prepared; otherwise this part is not judged. */
    bool IsReady() const { return m_isReady; }
    /** Registers a callback, waits until nothing is left to report, and forgets what it has heard. */
    bool Register(int slot = 0, void* data = nullptr);
    bool Remove(int slot = 0);
    /**
     * Whether the callback is called for a plain change, here and there. Otherwise this part is not judged. The
     * value is then at(0) again, and what was heard is forgotten.
     */
    bool IsHeard(int slot = 0) const;
    /** Sets the value through the seam. */
    bool WeSet(const std::string& text) const;
    bool WeSet(int i) const { return WeSet(m_stream.at(i)); }
    bool SomebodySets(const std::string& text) const { return kit::SomebodySets(m_stream.value, text); }
    bool SomebodySets(int i) const { return SomebodySets(m_stream.at(i)); }
    /** Waits for the report of a value. If it does not come, this part is not judged. */
    bool Await(const std::string& text, int slot = 0) const;
    bool Await(int i, int slot = 0) const { return Await(m_stream.at(i), slot); }
    /** Makes a change, by the seam if it can, and waits for its report. */
    bool Change(int i, int slot = 0) const;

private:
    /** The rule that a missing report of this value breaks. */
    const char* RuleOfReports() const;

    Stream& m_stream;
    bool m_isReady = false;
    std::set<int> m_registered;  // slots that the end of the scene removes
};

/** Waits until the platform has handled all that somebody else has changed. */
void Settle();
/** Waits until each other thread of this process has nothing to do, or waits for a lock. */
void AwaitRest();
/** Watches for a short time for something that no later report marks. */
void Linger();

/** Runs `meanwhile` inside a callback on this thread. @return false, and not judged, if the platform calls none */
bool WhileReporting(const Action& meanwhile);

/** Another thread of ours. If it never returns, the process ends with it. */
class Worker {
public:
    explicit Worker(Action action);
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /** Waits until the thread has returned. @return false after some seconds */
    bool HasReturned() const;
    bool IsDone() const;
    /** Waits until the thread has returned, or sleeps as one does that waits for a lock. */
    void AwaitDoneOrAsleep() const;

private:
    struct State;
    std::shared_ptr<State> m_state;
    std::thread m_thread;
};

/** Keeps a callback from returning, on another thread: one of the platform, or one of ours that sets the value. */
class Hold {
public:
    enum class By { SOMEBODY, US };

    explicit Hold(By by);
    /** The callback in `slot` is registered already. */
    Hold(By by, Stream& stream, int slot, const std::string& text);
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

    /** Whether a callback is held. If not, the rule is not judged. */
    bool Holds() const { return m_holds; }
    void Release();

private:
    struct State;

    void Begin(By by, const std::string& text);

    std::shared_ptr<State> m_state;
    std::unique_ptr<Stream> m_own;
    Stream* m_stream;
    int m_slot;
    bool m_holds = false;
    std::unique_ptr<Worker> m_setter;
};

/** Ends this process at once, with its outcome so far: for threads that hang in the platform. */
[[noreturn]] void EndNow();

}  // namespace kit

#endif
