// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Implements the eight headers of the TV's platform in memory, for tests.
 *
 * A journal records every seam call and every log line in order, with the thread. A test presets values,
 * makes calls fail, runs code inside a call (Before, BlockNext), fires reports of the platform, and checks
 * the journal.
 *
 * As on a TV, a setter that changes a value reports the change on the calling thread before it returns (see
 * ReportOwnChanges), and does not report an equal value. Each kind of callback has one registration, except
 * that many callbacks can watch a setting or the focus.
 *
 * The text of an entry:
 *   call      as in source, with its input arguments: `audio_set_master_volume(30, 1)`,
 *             `vconf_get_int("memory/sysman/spdif")`, `set_main_out_gain2(25)`
 *   log line  the priority's letter and the text after the prefix: `E owns_lock`
 *
 * All functions may be called from any thread. The fake holds none of its locks while it runs code of others.
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

/** A changed setting, as its watchers receive it. The getters return null for a missing name or text. */
struct _keynode_t {
    std::optional<std::string> name;
    int number = -1;
    std::optional<std::string> text;
};

namespace fake {

using Clock = std::chrono::steady_clock;

/** The time limit of a wait for an event that must come. No test needs nearly as long. */
inline constexpr std::chrono::seconds PATIENCE{60};

/** The place in the source that a log line names. */
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
    /** The kernel's id of the thread. */
    pid_t tid = 0;
    Clock::time_point time;

    /** Calls only: the function's name. */
    std::string name;

    /**
     * Log lines only: the raw line and its parts. The prefix names the place twice, as `site` and
     * `siteAgain`.
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

/** A gain that the daemon wrote to one output of the audio hardware. */
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

/** Blocks the thread that reaches it until the test opens or destroys it. */
class Gate {
public:
    Gate() = default;
    ~Gate() { Open(); }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    /** Blocks the calling thread until the gate is open. */
    void Pass();
    /** Waits until a thread has reached the gate; false if none did in time. */
    bool WaitReached(std::chrono::milliseconds timeout = PATIENCE);
    void Open();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_reached = false;
    bool m_open = false;
};

/**
 * A call that FakeSeam::BlockNext holds. The destructor releases it, so that no thread stays blocked after a
 * test.
 */
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
     * Restores the default TV: internal speaker, multi-view supported but off, no projector, route 0, volume
     * 10, unmuted, no zones and no focus, no settings, no registrations, both gains 100. Empties the journal.
     */
    void Reset();

    // The journal. Each view is a copy, in order.

    /** Empties the journal and the gain writes, but keeps values, planned failures and registrations. */
    void Clear();
    /** The log lines of at least this priority. */
    std::vector<std::string> Log(int lowestPriority = DLOG_INFO) const;
    /** The seam calls whose text begins with the prefix. */
    std::vector<std::string> Calls(std::string_view prefix = {}) const;
    /** The seam calls and the log lines of INFO and above. */
    std::vector<std::string> Journal() const;
    /** The texts of the call tracer: "[IN]int NKavrel::Class::Function(int)" and "[OUT]...". */
    std::vector<std::string> Trace() const;
    /** The texts of the call tracer without types and namespace: "[IN]Class::Function". */
    std::vector<std::string> TraceNames() const;
    /** The same views, limited to the calling thread or to threads of one name. */
    std::vector<std::string> JournalHere() const;
    std::vector<std::string> LogHere() const;
    std::vector<std::string> CallsHere() const;
    std::vector<std::string> JournalOf(const std::string& threadName) const;
    std::vector<std::string> LogOf(const std::string& threadName) const;
    /** All entries. */
    std::vector<Entry> Entries() const;
    /** The first entry with this text. */
    std::optional<Entry> Find(const std::string& text) const;
    /** The last entry of a thread with this name. */
    std::optional<Entry> LastOf(const std::string& threadName) const;
    /** The function that logged this line first, or "" if none did. */
    std::string FunctionOf(const std::string& text) const;
    int Count(const std::string& text) const;
    std::vector<GainWrite> GainWrites() const;
    std::vector<int> GainWrites(GainWrite::Out out) const;

    /**
     * Waits until the journal has `count` entries with this text, of any priority; false if that takes too
     * long.
     */
    bool WaitFor(const std::string& text, int count = 1, std::chrono::milliseconds timeout = PATIENCE) const;
    bool WaitForLog(const std::string& text, std::chrono::milliseconds timeout = PATIENCE) const {
        return WaitFor(text, 1, timeout);
    }
    bool WaitForGainWrite(const GainWrite& write, std::chrono::milliseconds timeout = PATIENCE) const;
    /**
     * Waits until the journal meets a condition. `met` runs under the fake's lock, so it must use only its
     * argument.
     */
    bool WaitUntil(const std::function<bool(const std::vector<Entry>&)>& met,
                   std::chrono::milliseconds timeout = PATIENCE) const;

    // Interference. `what` is a function's name, the text of a call ("vconf_get_int(\"memory/x\")"), or the
    // text of a log line ("E owns_lock").

    /**
     * Makes calls fail with this result: every call, or only the n-th from now, counted from 1. A failing
     * function that returns a pointer returns null. A failed call changes nothing and reports nothing.
     */
    void Fail(const std::string& what, int result, int nth = 0);
    /** Cancels every Fail with exactly this `what`. */
    void Succeed(const std::string& what);
    /**
     * Shows `judge` every entry before it enters the journal. A result makes that call fail. It runs under the
     * fake's lock, so it must use only its argument. Null shows none.
     */
    void Judge(std::function<std::optional<int>(const Entry&)> judge);
    /**
     * Runs `action` inside each such call, on its thread: after it enters the journal and before it takes
     * effect.
     */
    void Before(const std::string& what, std::function<void()> action);
    /** Runs `action` inside the next such call only. */
    void BeforeNext(const std::string& what, std::function<void()> action);
    /** Blocks the next such call until the returned object is opened or destroyed. */
    [[nodiscard]] BlockedCall BlockNext(const std::string& what);
    /**
     * Records a call of a function outside the seam, which the test program defines in place of a library's.
     * @return the result with which the call must fail, if any
     */
    std::optional<int> Enter(const std::string& name, const std::string& arguments);
    /**
     * Discards log lines instead of recording them, for tests that look for races: the journal's lock would
     * order all threads that log and so hide their races from ThreadSanitizer. False after Reset.
     */
    void DropLogLines(bool drop) { m_dropLogLines = drop; }
    /** Makes setters report the changes that they make; true after Reset. */
    void ReportOwnChanges(bool report);

    // Values of the TV. These functions neither report changes nor enter the journal.

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

    // Registrations, for tests that call a registered callback themselves.

    struct KeyWatch {
        vconf_callback_fn callback = nullptr;
        void* data = nullptr;
    };
    std::vector<KeyWatch> Watches(const std::string& key) const;

    template <typename Callback>
    struct RegisteredCallback {
        Callback callback = nullptr;
        void* data = nullptr;
    };
    RegisteredCallback<sound_manager_speaker_changed_cb> RouteRegistration() const;
    RegisteredCallback<sound_manager_multiview_speaker_selection_changed_cb> ZoneRouteRegistration() const;
    RegisteredCallback<sound_manager_tv_master_mute_changed_cb> TvMasterMuteRegistration() const;
    RegisteredCallback<audio_master_changed_cb> VolumeRegistration() const;
    RegisteredCallback<audio_master_changed_cb> MuteRegistration() const;
    std::map<int, RegisteredCallback<rc_audio_focus_changed_cb>> FocusRegistrations() const;

private:
    friend class Seam;

    struct PlannedFailure {
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
    std::vector<PlannedFailure> m_failures;
    std::vector<Hook> m_hooks;
    std::function<std::optional<int>(const Entry&)> m_judge;
    std::vector<GainWrite> m_gainWrites;
    std::unique_ptr<State> m_state;
    std::atomic<bool> m_dropLogLines = false;
};

/** Runs `action` on another thread, as a platform reports, and waits until it returns. */
void OnPlatformThread(const std::function<void()>& action);

}  // namespace fake

#endif
