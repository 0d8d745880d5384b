// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "GainFixture.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>
#include <utility>

using NKavrel::eKVGainHandlerType;
using NKavrel::GainHandlerName;
using NKavrel::KVAudioGainHandler;

namespace fake {
namespace {

constexpr const char* STORED =
    "D \t[OUT]void NKavrel::KVAudioGainHandler::SetSrcGain(NKavrel::eKVGainHandlerType, int)";

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

/** The name of a thread, or nothing if it is ending. */
std::optional<std::string> NameOf(const std::filesystem::path& folder) {
    constexpr unsigned ENDING = 4;  // PF_EXITING of the kernel, which a thread has before its join can return
    constexpr int BEFORE_FLAGS = 6;
    const std::string stat = FirstLine(folder / "stat");  // number (name) state parent ... flags ...
    const auto first = stat.find('(');
    const auto last = stat.rfind(')');
    if (last == std::string::npos) {
        return std::nullopt;  // it has ended since the folder was listed
    }
    std::istringstream fields(stat.substr(last + 1));
    std::string ignored;
    for (int field = 0; field < BEFORE_FLAGS; ++field) {
        fields >> ignored;
    }
    unsigned flags = 0;
    fields >> flags;
    return (flags & ENDING) == 0 ? std::optional(stat.substr(first + 1, last - first - 1)) : std::nullopt;
}

/**
 * For each other thread, how often it gave the processor to another thread. Nothing if one of them does not
 * sleep.
 */
std::optional<std::map<std::string, long>> SwitchesOfSleepers() {
    const std::string self = std::to_string(gettid());
    std::map<std::string, long> switches;
    for (const auto& folder : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string number = folder.path().filename();
        if (number == self) {
            continue;
        }
        std::ifstream status(folder.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("State:") && line.find("S (sleeping)") == std::string::npos) {
                return std::nullopt;
            }
            if (const auto at = line.find("ctxt_switches:"); at != std::string::npos) {
                switches[number] += std::stol(line.substr(line.find(':') + 1));
            }
        }
    }
    return switches;
}

/** A thread by name, and the text of the last entry that it makes before it waits. */
struct Wait {
    std::string thread;
    std::string lastEntry;
};

bool IsLast(const std::vector<Entry>& journal, const Wait& wait) {
    const auto last = std::find_if(journal.rbegin(), journal.rend(),
                                   [&](const Entry& entry) { return entry.threadName == wait.thread; });
    return last != journal.rend() && last->text == wait.lastEntry;
}

/**
 * Waits until all other threads of this process sleep at once, and these entries are the last ones of their
 * threads. Then nobody is about to wake one of them, and no lock is held for a moment.
 *
 * A thread that was seen asleep may be awake when the last one is seen asleep. So this looks twice: a thread
 * that did not run from the first look to the second one slept all that time.
 */
bool AllSleep(const FakeSeam& seam, const std::vector<Wait>& waits) {
    const auto areLast = [&](const std::vector<Entry>& journal) {
        return std::ranges::all_of(waits, [&](const Wait& wait) { return IsLast(journal, wait); });
    };
    const auto deadline = Clock::now() + PATIENCE;
    while (seam.WaitUntil(areLast) && Clock::now() < deadline) {
        const auto before = SwitchesOfSleepers();
        if (before && areLast(seam.Entries()) && SwitchesOfSleepers() == before) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
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
    for (const auto& folder : std::filesystem::directory_iterator("/proc/self/task")) {
        if (auto name = NameOf(folder.path())) {
            names.push_back(std::move(*name));
        }
    }
    std::ranges::sort(names);
    return names;
}

bool WorkersRest() {
    std::vector<Wait> waits;
    std::ranges::transform(ALL_WORKERS, std::back_inserter(waits), [](eKVGainHandlerType worker) {
        return Wait{GainHandlerName[worker], SleepLine(worker)};
    });
    return AllSleep(FakeSeam::Get(), waits);
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
    return AllSleep(seam, {{GainHandlerName[worker], lastEntry}});
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
