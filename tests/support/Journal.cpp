// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Journal.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <optional>
#include <utility>

namespace fake {

namespace {

constexpr std::string_view SCOPE_BEGIN = "D \t[IN]";
constexpr std::string_view SCOPE_END = "D \t[OUT]";
constexpr std::string_view NAMESPACE = "NKavrel::";

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

int ParseLineNumber(const std::string& text) {
    int number = 0;
    const char* end = text.data() + text.size();
    const auto [parsed, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && parsed == end ? number : 0;
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
    entry.site = {*file, *function, ParseLineNumber(*line)};
    entry.siteAgain = {*file, *functionAgain, ParseLineNumber(*lineAgain)};
    entry.text += rest;
}

std::string ThreadName() {
    std::array<char, 16> name = {};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    return name.data();
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

/** A query that asks for no kind and no text chooses these. */
bool IsUsual(const Entry& entry) {
    return entry.IsCall() || entry.IsLog(DLOG_INFO);
}

std::string LineOf(const Entry& entry) {
    if (entry.IsScopeBegin()) {
        return entry.text.substr(SCOPE_BEGIN.size());
    }
    return entry.kind == Entry::Kind::LOG ? entry.site.function + ": " + entry.text : entry.text;
}

/** "[IN]Class::Function" for the trace line "D \t[IN]int NKavrel::Class::Function(int)". */
std::string NameOf(const Entry& entry) {
    const std::string& text = entry.text;
    const auto markEnd = text.find(']') + 1;
    const std::string mark = text.substr(text.find('['), markEnd - text.find('['));
    const std::string declared = text.substr(markEnd, text.find('(') - markEnd);
    const std::string name = declared.substr(declared.rfind(' ') + 1);
    return mark + (name.starts_with(NAMESPACE) ? name.substr(NAMESPACE.size()) : name);
}

template <typename Projection>
auto Each(const std::vector<Entry>& entries, Projection projection) {
    std::vector<std::decay_t<std::invoke_result_t<Projection, const Entry&>>> results;
    std::ranges::transform(entries, std::back_inserter(results), projection);
    return results;
}

}  // namespace

bool Entry::IsScopeBegin() const {
    return kind == Kind::LOG && text.starts_with(SCOPE_BEGIN);
}

bool Entry::IsScopeEnd() const {
    return kind == Kind::LOG && text.starts_with(SCOPE_END);
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

Entry GainEntry(Out out, int gain) {
    Entry entry = NewEntry(Entry::Kind::GAIN);
    entry.out = out;
    entry.gain = gain;
    entry.text = out == Out::MAIN ? MainGain(gain) : SubGain(gain);
    return entry;
}

std::string MainGain(int gain) {
    return "main " + std::to_string(gain);
}

std::string SubGain(int gain) {
    return "sub " + std::to_string(gain);
}

Query::Query(const Journal& journal) : m_journal(&journal) {}

Query Query::OfKind(Condition kind) const {
    Query query = *this;
    query.m_kind = std::move(kind);
    return query;
}

Query Query::And(Condition condition) const {
    Query query = *this;
    query.m_conditions.push_back(std::move(condition));
    return query;
}

bool Query::Chooses(const Entry& entry) const {
    return (m_kind ? m_kind(entry) : IsUsual(entry)) &&
           std::ranges::all_of(m_conditions, [&](const Condition& condition) { return condition(entry); });
}

Query Query::Here() const {
    return Of(std::this_thread::get_id());
}

Query Query::Of(std::thread::id thread) const {
    return And([thread](const Entry& entry) { return entry.thread == thread; });
}

Query Query::Of(std::string threadName) const {
    return And([name = std::move(threadName)](const Entry& entry) { return entry.threadName == name; });
}

Query Query::Calls(std::string beginning) const {
    return OfKind([beginning = std::move(beginning)](const Entry& entry) {
        return entry.IsCall() && entry.text.starts_with(beginning);
    });
}

Query Query::Logs(int lowestPriority) const {
    return OfKind([lowestPriority](const Entry& entry) { return entry.IsLog(lowestPriority); });
}

Query Query::ByOneOf(std::vector<std::string> files) const {
    return And([files = std::move(files)](const Entry& entry) {
        return entry.kind != Entry::Kind::LOG || std::ranges::find(files, entry.site.file) != files.end();
    });
}

Query Query::Traces() const {
    return OfKind(&Entry::IsTrace);
}

Query Query::AndScopes() const {
    return OfKind([kind = m_kind ? m_kind : IsUsual](const Entry& entry) {
        return entry.IsScopeBegin() || kind(entry);
    });
}

Query Query::Gains() const {
    return OfKind([](const Entry& entry) { return entry.kind == Entry::Kind::GAIN; });
}

Query Query::Gains(Out out) const {
    return Gains().And([out](const Entry& entry) { return entry.out == out; });
}

Query Query::All() const {
    return OfKind([](const Entry&) { return true; });
}

Query Query::With(std::string text) const {
    const Query kinds = m_kind ? *this : All();
    return kinds.And([text = std::move(text)](const Entry& entry) { return entry.text == text; });
}

Query Query::BeginningWithOneOf(std::vector<std::string> texts) const {
    const Query kinds = m_kind ? *this : All();
    return kinds.And([texts = std::move(texts)](const Entry& entry) {
        return std::ranges::any_of(texts,
                                   [&](const std::string& text) { return entry.text.starts_with(text); });
    });
}

std::vector<Entry> Query::Entries() const {
    std::vector<Entry> entries;
    const std::lock_guard lock(m_journal->m_mutex);
    std::ranges::copy_if(m_journal->m_entries, std::back_inserter(entries),
                         [this](const Entry& entry) { return Chooses(entry); });
    return entries;
}

std::vector<std::string> Query::Texts() const {
    return Each(Entries(), [](const Entry& entry) { return entry.text; });
}

std::vector<std::string> Query::Lines() const {
    return Each(Entries(), LineOf);
}

std::vector<std::string> Query::Names() const {
    return Each(Entries(), NameOf);
}

std::vector<int> Query::Numbers() const {
    return Each(Entries(), [](const Entry& entry) { return entry.gain; });
}

int Query::Count() const {
    return static_cast<int>(Entries().size());
}

Entry Query::First() const {
    const std::vector<Entry> entries = Entries();
    EXPECT_FALSE(entries.empty()) << "the journal has no such entry";
    return entries.empty() ? Entry() : entries.front();
}

Entry Query::Last() const {
    const std::vector<Entry> entries = Entries();
    EXPECT_FALSE(entries.empty()) << "the journal has no such entry";
    return entries.empty() ? Entry() : entries.back();
}

std::string Query::Function() const {
    const std::vector<Entry> entries = Entries();
    return entries.empty() ? "" : entries.front().site.function;
}

bool Query::Wait(int count, std::chrono::milliseconds timeout) const {
    const auto met = [&] {
        return std::ranges::count_if(m_journal->m_entries,
                                     [this](const Entry& entry) { return Chooses(entry); }) >= count;
    };
    std::unique_lock lock(m_journal->m_mutex);
    return m_journal->m_changed.wait_for(lock, timeout, met);
}

Journal::Journal() : Query(*this) {}

void Journal::Add(Entry entry) {
    const std::lock_guard lock(m_mutex);
    m_entries.push_back(std::move(entry));
    m_changed.notify_all();
}

void Journal::Clear() {
    const std::lock_guard lock(m_mutex);
    m_entries.clear();
}

}  // namespace fake
