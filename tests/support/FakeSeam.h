// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The TV's platform in memory, behind the same eight headers.
 *
 * One journal holds every seam call and every log line in the order in which they happened, with the
 * thread. A test presets values, makes calls fail, runs code inside a call (Before, Block), fires platform
 * reports, and asserts the journal.
 *
 * As on a TV, a setter that changes a value reports the change on the calling thread before it returns
 * (see ReportOwnChanges), an equal value is not reported, and the fixed slots hold one registration each.
 *
 * How entries read:
 *   calls      as in source, with the arguments that go in: `audio_set_master_volume(30, 1)`,
 *              `vconf_get_int("memory/sysman/spdif")`, `set_main_out_gain2(25)`
 *   log lines  the priority's letter and the text after the prefix: `E owns_lock`
 *
 * Everything may be used from any thread. No lock of the fake is held while anything outside it runs.
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

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

/** A changed setting as its watchers are given it. Without a name, or without a text, the platform's getter
 * answers null. */
struct _keynode_t {
    std::optional<std::string> name;
    int number = -1;
    std::optional<std::string> text;
};

namespace fake {

using Clock = std::chrono::steady_clock;

/** How long a test waits for an event that must come. Never how long anything takes. */
inline constexpr std::chrono::seconds PATIENCE{60};

/** The place that a log line names. */
struct Site {
    std::string file;
    std::string function;
    int line = 0;

    bool operator==(const Site&) const = default;
};

struct Entry {
    enum class Kind { CALL, LOG };

    Kind kind = Kind::CALL;
    std::string text;
    std::thread::id thread;
    std::string threadName;
    /** The kernel's number of the thread. */
    pid_t tid = 0;
    Clock::time_point time;

    /** Calls: the function's bare name. */
    std::string name;

    /**
     * Log lines: as handed over, and taken apart. The prefix names
     * the place twice: `site` and `siteAgain`.
     */
    int priority = 0;
    std::string tag;
    std::string raw;
    Site site;
    Site siteAgain;

    bool IsCall() const { return kind == Kind::CALL; }
    bool IsLog(int lowestPriority) const { return kind == Kind::LOG && priority >= lowestPriority; }
    bool IsTrace() const;
};

/** One store to the audio hardware. */
struct GainWrite {
    enum class Out { MAIN, SUB };

    Out out = Out::MAIN;
    int gain = 0;
    Clock::time_point time;
    std::string threadName;

    bool operator==(const GainWrite& other) const { return out == other.out && gain == other.gain; }
};

inline GainWrite MainGain(int gain) {
    return {GainWrite::Out::MAIN, gain, {}, {}};
}
inline GainWrite SubGain(int gain) {
    return {GainWrite::Out::SUB, gain, {}, {}};
}
std::ostream& operator<<(std::ostream& out, const GainWrite& write);

/** Holds the thread that reaches it until it is opened. Opens by itself when the test lets go of it. */
class Gate {
public:
    Gate() = default;
    ~Gate() { Open(); }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    /** Called by the thread that is to be held. */
    void Pass();
    /** Whether a thread stands at the gate, or has passed it, in time. */
    bool WaitReached(std::chrono::milliseconds timeout = PATIENCE);
    void Open();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_reached = false;
    bool m_open = false;
};

/** Opens the gate, at the latest, at the end of its scope: no thread is left standing in it. */
class BlockedCall {
public:
    explicit BlockedCall(std::shared_ptr<Gate> gate) : m_gate(std::move(gate)) {}
    ~BlockedCall() { Open(); }
    BlockedCall(const BlockedCall&) = delete;
    BlockedCall& operator=(const BlockedCall&) = delete;

    bool WaitReached(std::chrono::milliseconds timeout = PATIENCE) { return m_gate->WaitReached(timeout); }
    void Open() { m_gate->Open(); }

private:
    std::shared_ptr<Gate> m_gate;
};

class FakeSeam {
public:
    static FakeSeam& Get();

    /**
     * Back to the default TV: internal speaker, multi-view supported but off, no projector, route 0, volume
     * 10, unmuted, no zones and no focus, no settings, no registrations, both gains 100, an empty journal.
     */
    void Reset();

    // The journal. All views are copies, in order.

    /** Empties the journal and the gain writes; values, failures and registrations stay. */
    void Clear();
    /** Log lines of at least this priority. */
    std::vector<std::string> Log(int lowestPriority = DLOG_INFO) const;
    /** Seam calls; with a prefix only those that begin with it. */
    std::vector<std::string> Calls(std::string_view prefix = {}) const;
    /** Calls and log lines of INFO and above. */
    std::vector<std::string> Journal() const;
    /** Texts of the call tracer: "[IN]int NKavrel::Class::Function(int)" and "[OUT]...". */
    std::vector<std::string> Trace() const;
    /** The same without types and namespace: "[IN]Class::Function". */
    std::vector<std::string> TraceNames() const;
    /** The same views of the calling thread alone, and of the threads with a name. */
    std::vector<std::string> JournalHere() const;
    std::vector<std::string> LogHere() const;
    std::vector<std::string> CallsHere() const;
    std::vector<std::string> JournalOf(const std::string& threadName) const;
    std::vector<std::string> LogOf(const std::string& threadName) const;
    /** Everything. */
    std::vector<Entry> Entries() const;
    /** The first entry with this text. */
    std::optional<Entry> Find(const std::string& text) const;
    /** The last entry of the threads with this name. */
    std::optional<Entry> LastOf(const std::string& threadName) const;
    /** The function that logged this line first; "" when none did. */
    std::string FunctionOf(const std::string& text) const;
    int Count(const std::string& text) const;
    std::vector<GainWrite> GainWrites() const;
    std::vector<int> GainWrites(GainWrite::Out out) const;

    /**
     * Waits until an entry, of any priority, has this text
     * (`count` of them); false when PATIENCE is over.
     */
    bool WaitFor(const std::string& text, int count = 1, std::chrono::milliseconds timeout = PATIENCE) const;
    bool WaitForLog(const std::string& text, std::chrono::milliseconds timeout = PATIENCE) const {
        return WaitFor(text, 1, timeout);
    }
    bool WaitForGainWrite(const GainWrite& write, std::chrono::milliseconds timeout = PATIENCE) const;
    /** Waits for a condition over the journal. `met` runs under the fake's lock: it only looks at its
     * argument. */
    bool WaitUntil(const std::function<bool(const std::vector<Entry>&)>& met,
                   std::chrono::milliseconds timeout = PATIENCE) const;

    // Interference. `what` is a function's bare name, a whole call ("vconf_get_int(\"memory/x\")"), or a log
    // line ("E owns_lock").

    /**
     * Makes calls fail with this result: every one, or only the n-th from now (counted from 1). What hands
     * out a pointer answers null. A failed call changes nothing and reports nothing.
     */
    void Fail(const std::string& what, int result, int nth = 0);
    /** Takes back every Fail of exactly this. */
    void Succeed(const std::string& what);
    /** Runs `action` on the calling thread after the entry is in the journal and before the call takes
     * effect. */
    void Before(const std::string& what, std::function<void()> action);
    /** Runs `action` the next time only. */
    void BeforeNext(const std::string& what, std::function<void()> action);
    /** Holds the next such call until the result is opened or goes out of scope. */
    [[nodiscard]] BlockedCall BlockNext(const std::string& what);
    /**
     * Enters a call of a function outside the seam that the test program defines itself, in place of a
     * library's. Answers the result that it is to fail with, if any.
     */
    std::optional<int> Enter(const std::string& name, const std::string& arguments);
    /**
     * Drops log lines unseen, for tests that look for races: otherwise the journal's lock orders all threads
     * that log, and hides theirs from ThreadSanitizer. False after Reset.
     */
    void DropLogLines(bool drop) { m_dropLogLines = drop; }
    /** Whether setters report the changes they make; true after Reset. */
    void ReportOwnChanges(bool report);

    // Values, set and read without a report, without a journal entry.

    void SetInt(const std::string& key, int value);
    void SetStr(const std::string& key, const std::string& value);
    void RemoveKey(const std::string& key);
    std::optional<std::string> Value(const std::string& key) const;
    void SetFeature(const std::string& key, bool value);
    void SetRoute(int route);
    int Route() const;
    void SetZones(const std::map<int, int>& routeByZone);
    std::map<int, int> Zones() const;
    /** No zone: reading the focus fails. */
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

    // Reports, on the calling thread, of a change made elsewhere: the value is stored and the callbacks of
    // this one registration are called, for an equal value too. They answer how many were called.

    int FireKey(const std::string& key, int value);
    int FireKey(const std::string& key, const std::string& value);
    /** Calls the watchers of `key` with a node of the test's own making (null too) and stores nothing. */
    int FireNode(const std::string& key, keynode_t* node);
    int FireRoute(int route);
    int FireZoneRoute(int route, int zone);
    int FireFocus(int zone);
    int FireVolume(unsigned int volume);
    int FireMute(unsigned int mute);
    int FireTvMasterMute(unsigned int mute);

    // Registrations, for tests that call a static callback with arguments of their own.

    struct KeyWatch {
        vconf_callback_fn callback = nullptr;
        void* data = nullptr;
    };
    std::vector<KeyWatch> Watches(const std::string& key) const;

    template <typename Callback>
    struct Slot {
        Callback callback = nullptr;
        void* data = nullptr;
    };
    Slot<sound_manager_speaker_changed_cb> RouteSlot() const;
    Slot<sound_manager_multiview_speaker_selection_changed_cb> ZoneRouteSlot() const;
    Slot<sound_manager_tv_master_mute_changed_cb> TvMasterMuteSlot() const;
    Slot<audio_master_changed_cb> VolumeSlot() const;
    Slot<audio_master_changed_cb> MuteSlot() const;
    std::map<int, Slot<rc_audio_focus_changed_cb>> FocusSlots() const;

private:
    friend class Seam;

    struct Failure {
        std::string what;
        int result = 0;
        int nth = 0;
        int seen = 0;
    };
    struct Hook {
        std::string what;
        std::function<void()> action;
        bool once = false;
    };
    struct State;

    FakeSeam();
    ~FakeSeam();

    std::optional<int> Record(Entry entry);
    std::vector<std::string> Texts(const std::function<bool(const Entry&)>& wanted) const;

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<Entry> m_journal;
    std::vector<Failure> m_failures;
    std::vector<Hook> m_hooks;
    std::vector<GainWrite> m_gainWrites;
    std::unique_ptr<State> m_state;
    std::atomic<bool> m_dropLogLines = false;
};

/** Runs the function on a thread of its own, as a platform would, and waits for its end. */
void OnPlatformThread(const std::function<void()>& action);

}  // namespace fake

#endif
