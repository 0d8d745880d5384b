// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "GainFixture.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <sstream>
#include <thread>

using NKavrel::eKVGainHandlerType;
using NKavrel::GainHandlerName;
using NKavrel::KVAudioGainHandler;

namespace fake {
namespace {

constexpr const char* STORED =
    "D \t[OUT]void NKavrel::KVAudioGainHandler::SetSrcGain(NKavrel::eKVGainHandlerType, int)";

/** The gain-out worker is last, because the others wake it. */
constexpr std::array ALL_WORKERS = {
    NKavrel::GAIN_HANDLER_UNMUTE_MAIN_OUT, NKavrel::GAIN_HANDLER_UNMUTE_SUB_OUT,
    NKavrel::GAIN_HANDLER_PLAYER_MAIN_OUT, NKavrel::GAIN_HANDLER_PLAYER_SUB_OUT,
    NKavrel::GAIN_HANDLER_PULSE_RAMP,      NKavrel::GAIN_HANDLER_AUDIO_GAIN_OUT};

std::string SleepLine(eKVGainHandlerType worker) {
    return worker == NKavrel::GAIN_HANDLER_AUDIO_GAIN_OUT ? "I Sleep AudioGainOut"
                                                          : "I Sleep " + GainHandlerName[worker];
}

std::string FirstLine(const std::filesystem::path& file) {
    std::string line;
    std::ifstream stream(file);
    std::getline(stream, line);
    return line;
}

/** A thread of this process, as /proc shows it. */
struct Thread {
    std::string name;
    char state;  // 'S' while it waits in the kernel
};

/** The threads of this process but for those that are ending: a thread that was joined may stay in /proc for a while. */
std::vector<Thread> Threads() {
    constexpr unsigned ENDING = 4;  // PF_EXITING of the kernel, which a thread has before its join can return
    std::vector<Thread> threads;
    for (const auto& folder : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string line =
            FirstLine(folder.path() / "stat");  // number (name) state ppid pgrp ... flags ...
        const std::size_t nameEnd = line.rfind(')');
        if (nameEnd == std::string::npos) {
            continue;  // it has ended since the folder was listed
        }
        std::istringstream fields(line.substr(nameEnd + 1));
        Thread thread = {.name = line.substr(line.find('(') + 1, nameEnd - line.find('(') - 1), .state = 0};
        fields >> thread.state;
        int ignored = 0;
        for (int field = 0; field < 5; ++field) {
            fields >> ignored;
        }
        unsigned flags = 0;
        if (fields >> flags && (flags & ENDING) == 0) {
            threads.push_back(std::move(thread));
        }
    }
    return threads;
}

bool WaitsInKernel(const std::string& name) {
    return std::ranges::any_of(
        Threads(), [&](const Thread& thread) { return thread.name == name && thread.state == 'S'; });
}

/** The number of the thread's entries if the last one has this text, else nothing. */
std::optional<std::size_t> CountIfLast(const std::vector<Entry>& journal, const std::string& thread,
                                       const std::string& text) {
    const auto count = std::ranges::count(journal, thread, &Entry::threadName);
    const auto last = std::find_if(journal.rbegin(), journal.rend(),
                                   [&](const Entry& entry) { return entry.threadName == thread; });
    return last != journal.rend() && last->text == text ? std::optional<std::size_t>(count) : std::nullopt;
}

/**
 * Waits until a worker waits in the kernel and this is its last entry. Several looks in a row must agree,
 * because a worker logs its "Sleep" line before it waits, and wakes up before it logs again.
 */
bool ComesToWait(const FakeSeam& seam, const std::string& name, const std::string& lastEntry) {
    constexpr int LOOKS = 3;  // a single look may meet a short wait for a lock
    const auto deadline = Clock::now() + PATIENCE;
    std::optional<std::size_t> seen;
    for (int looks = 0; looks < LOOKS; ++looks) {
        std::optional<std::size_t> now;
        if (!seam.WaitUntil([&](const std::vector<Entry>& journal) {
                now = CountIfLast(journal, name, lastEntry);
                return now.has_value();
            }) ||
            Clock::now() > deadline) {
            return false;
        }
        if (now != seen || !WaitsInKernel(name)) {
            looks = 0;
        }
        seen = now;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::string ThisThread() {
    std::array<char, 16> name = {};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    return name.data();
}

int GainOf(KVAudioGainHandler& controller, eKVGainHandlerType slot) {
    constexpr int UNREADABLE = 12345;
    int value = UNREADABLE;
    controller.GetSrcGain(slot, value);
    return value;
}

}  // namespace

std::vector<std::string> ThreadNames() {
    std::vector<std::string> names;
    std::ranges::transform(Threads(), std::back_inserter(names), &Thread::name);
    std::ranges::sort(names);
    return names;
}

bool WorkersRest() {
    return std::ranges::all_of(ALL_WORKERS, [](eKVGainHandlerType worker) {
        return ComesToWait(FakeSeam::Get(), GainHandlerName[worker], SleepLine(worker));
    });
}

struct GainFixture::Watched {
    struct Action {
        eKVGainHandlerType worker;
        int gain;
        std::function<void()> run;
    };

    mutable std::mutex mutex;
    // The mutex guards both lists.
    std::vector<Store> stores;
    std::vector<Action> actions;
};

GainFixture::GainFixture() : m_watched(std::make_unique<Watched>()) {}

GainFixture::~GainFixture() {
    gain.reset();  // first, because its workers may still store gains
}

void GainFixture::Start() {
    gain.emplace();
    seam.Before(STORED, [this, controller = &*gain] { OnStore(*controller); });
    ASSERT_TRUE(Rest());
    Mark();
}

bool GainFixture::Waits(eKVGainHandlerType worker, const std::string& lastEntry) const {
    return ComesToWait(seam, GainHandlerName[worker], lastEntry);
}

void GainFixture::Mark() {
    m_mark = seam.Entries().size();
}

std::vector<Entry> GainFixture::Entries(const std::string& thread) const {
    const auto isOther = [&](const Entry& entry) {
        return thread.empty() ? entry.thread != std::this_thread::get_id() : entry.threadName != thread;
    };
    std::vector<Entry> entries = seam.Entries();
    entries.erase(entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(m_mark));
    std::erase_if(entries, isOther);
    return entries;
}

std::vector<std::string> GainFixture::Journal(const std::string& thread) const {
    std::vector<std::string> texts;
    for (const Entry& entry : Entries(thread)) {
        if (entry.kind == Entry::Kind::CALL || entry.IsLog(DLOG_INFO)) {
            texts.push_back(entry.text);
        }
    }
    return texts;
}

Entry GainFixture::Find(const std::string& thread, const std::string& text) const {
    const std::vector<Entry> entries = Entries(thread);
    const auto found = std::ranges::find(entries, text, &Entry::text);
    if (found == entries.end()) {
        ADD_FAILURE() << "no \"" << text << "\" of thread \"" << thread << '"';
        return {};
    }
    return *found;
}

int GainFixture::Gain(eKVGainHandlerType slot) {
    return GainOf(*gain, slot);
}

void GainFixture::OnStore(KVAudioGainHandler& controller) {
    const auto found = std::ranges::find(GainHandlerName, ThisThread());
    if (found == GainHandlerName.end()) {
        return;
    }
    const auto worker = static_cast<eKVGainHandlerType>(found - GainHandlerName.begin());
    const Store store = {worker, GainOf(controller, worker), Clock::now()};
    std::function<void()> action;
    {
        const std::lock_guard lock(m_watched->mutex);
        m_watched->stores.push_back(store);
        std::erase_if(m_watched->actions, [&](const Watched::Action& waiting) {
            const bool now = waiting.worker == worker && waiting.gain == store.gain;
            action = now ? waiting.run : action;
            return now;
        });
    }
    if (action) {
        OnPlatformThread([&] {
            pthread_setname_np(pthread_self(), "Requester");
            action();
        });
    }
}

std::vector<Store> GainFixture::Stores(eKVGainHandlerType worker) const {
    const std::lock_guard lock(m_watched->mutex);
    std::vector<Store> stores;
    std::ranges::copy_if(m_watched->stores, std::back_inserter(stores),
                         [&](const Store& store) { return store.worker == worker; });
    return stores;
}

std::vector<int> GainFixture::StoredGains(eKVGainHandlerType worker) const {
    std::vector<int> gains;
    std::ranges::transform(Stores(worker), std::back_inserter(gains), &Store::gain);
    return gains;
}

void GainFixture::AfterStore(eKVGainHandlerType worker, int value, std::function<void()> action) {
    const std::lock_guard lock(m_watched->mutex);
    m_watched->actions.push_back({worker, value, std::move(action)});
}

}  // namespace fake
