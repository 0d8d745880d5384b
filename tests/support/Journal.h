// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The journal of the fake seam: every seam call, every log line and every gain that an output received, in
 * order, with the thread.
 *
 * The text of an entry:
 *   call      as in source, with its input arguments: `audio_set_master_volume(30, 1)`,
 *             `vconf_get_int("memory/sysman/spdif")`, `set_main_out_gain2(25)`
 *   log line  the priority's letter and the text after the prefix: `E owns_lock`
 *   gain      the output and the gain: `main 25`, `sub 25`
 *
 * A test reads the journal with a query, which first chooses entries and then reads something of them:
 *
 *     seam.journal.Texts()                                     calls, and log lines of INFO and above
 *     seam.journal.Here().Calls("vconf_").Texts()              this thread's calls that begin so
 *     seam.journal.Of("PulseRampH").Logs(DLOG_DEBUG).Texts()   all log lines of one worker
 *     seam.journal.By("TVSpeaker.cpp").Texts()                 calls, and what this source file logs
 *     seam.journal.With("E owns_lock").Count()                 how often this text occurs
 *     seam.journal.Gains().Wait(2)                             waits for the second gain
 */
#ifndef KAVREL_TESTS_JOURNAL_H
#define KAVREL_TESTS_JOURNAL_H

#include <dlog.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

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

/** An output of the audio hardware. */
enum class Out { MAIN, SUB };

struct Entry {
    enum class Kind { CALL, LOG, GAIN };

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

    /** Gains only. */
    Out out = Out::MAIN;
    int gain = 0;

    bool IsCall() const { return kind == Kind::CALL; }
    bool IsLog(int lowestPriority) const { return kind == Kind::LOG && priority >= lowestPriority; }
    /** Whether this is a line of the call tracer: "D \t[IN]int NKavrel::Class::Function(int)", "D \t[OUT]...". */
    bool IsTrace() const { return IsScopeBegin() || IsScopeEnd(); }
    bool IsScopeBegin() const;
    bool IsScopeEnd() const;
};

/** Entries of the calling thread, now. */
Entry CallEntry(const std::string& name, const std::string& arguments);
Entry LogEntry(int priority, const char* tag, const std::string& raw);
Entry GainEntry(Out out, int gain);

/** The texts of the entries for gains. */
std::string MainGain(int gain);
std::string SubGain(int gain);

class Journal;

/**
 * Some entries of the journal. It holds no entries: each reading function reads the journal anew and gives
 * copies, in order.
 *
 * Unless Logs, Traces, Gains or All ask for them, or With or BeginningWith for their text, a query leaves out
 * debug lines, with the call tracer's, and gains.
 */
class Query {
public:
    using Condition = std::function<bool(const Entry&)>;

    // These functions narrow the query down.

    /** Those of the calling thread. */
    Query Here() const;
    Query Of(std::thread::id thread) const;
    /** Those of all threads of this name. */
    Query Of(std::string threadName) const;
    /** The seam calls whose text begins so. */
    Query Calls(std::string beginning = {}) const;
    /** The log lines of at least this priority. */
    Query Logs(int lowestPriority = DLOG_INFO) const;
    /** Leaves out the log lines of all source files but these. */
    template <typename... Files>
    Query By(Files... files) const {
        return ByOneOf({std::string(std::move(files))...});
    }
    /** The lines of the call tracer. */
    Query Traces() const;
    /** Also the call tracer's lines of each entered scope. */
    Query AndScopes() const;
    /** The gains that the outputs received. */
    Query Gains() const;
    Query Gains(Out out) const;
    Query All() const;
    /** Those with exactly this text, of any kind. */
    Query With(std::string text) const;
    /** Those whose text begins with one of these, of any kind. */
    template <typename... Texts>
    Query BeginningWith(Texts... texts) const {
        return BeginningWithOneOf({std::string(std::move(texts))...});
    }

    // These functions read the entries.

    std::vector<Entry> Entries() const;
    std::vector<std::string> Texts() const;
    /** The texts; a log line as "FUNCTION: E text" with the function that logged, a scope as its signature. */
    std::vector<std::string> Lines() const;
    /** The scopes of trace lines without types and namespace: "[IN]Class::Function". */
    std::vector<std::string> Names() const;
    /** The gains as numbers. */
    std::vector<int> Numbers() const;
    int Count() const;
    /** The first entry; fails the test if there is none. */
    Entry First() const;
    /** The last entry; fails the test if there is none. */
    Entry Last() const;
    /** The function that logged the first entry, or "" if there is none. */
    std::string Function() const;
    /** Waits until there are `count` entries; false if that takes too long. */
    [[nodiscard]] bool Wait(int count = 1, std::chrono::milliseconds timeout = PATIENCE) const;

protected:
    explicit Query(const Journal& journal);

private:
    Query BeginningWithOneOf(std::vector<std::string> texts) const;
    Query ByOneOf(std::vector<std::string> files) const;
    Query OfKind(Condition kind) const;
    Query And(Condition condition) const;
    bool Chooses(const Entry& entry) const;

    const Journal* m_journal;
    /** The kinds of entries; null for the usual ones. */
    Condition m_kind;
    std::vector<Condition> m_conditions;
};

/** Any thread may use it. */
class Journal : public Query {
public:
    Journal();
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    void Add(Entry entry);
    void Clear();
    /**
     * Drops log lines instead of keeping them, for tests that look for races: the journal's lock would order
     * all threads that log and so hide their races from ThreadSanitizer.
     */
    void DropLogLines(bool drop) { m_dropsLogLines = drop; }
    bool DropsLogLines() const { return m_dropsLogLines.load(std::memory_order_relaxed); }

private:
    friend class Query;

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    /** Guarded by m_mutex. */
    std::vector<Entry> m_entries;
    std::atomic<bool> m_dropsLogLines = false;
};

}  // namespace fake

#endif
