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
#include <optional>
#include <sstream>
#include <utility>

using NKavrel::eKVGainHandlerType;
using NKavrel::GainHandlerName;
using NKavrel::KVAudioGainHandler;

namespace fake {
namespace {

constexpr const char* STORED =
    "D \t[OUT]void NKavrel::KVAudioGainHandler::SetSrcGain(NKavrel::eKVGainHandlerType, int)";

constexpr const char* OUT_WORKER = "AudioGainOutH";
/** The line with which each turn of this worker's loop reads the total of the main output. */
constexpr const char* MAIN_TURN = "I Path:1 ";

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
    SkipStepTimes(true);
    gain.reset();  // first, because its workers may still store gains
    SkipStepTimes(false);
    for (const Watched::Action& waiting : m_watched->actions) {
        ADD_FAILURE() << "no " << GainHandlerName[waiting.worker] << " stored the gain " << waiting.gain;
    }
}

void GainFixture::Start() {
    Create();
    seam.Clear();
}

void GainFixture::Create() {
    gain.emplace();
    seam.Before(STORED, [this, controller = &*gain] { OnStore(*controller); });
    ASSERT_TRUE(Rest());
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

std::vector<Clock::time_point> GainFixture::MainTurns() const {
    std::vector<Clock::time_point> times;
    for (const Entry& entry : journal.Of(OUT_WORKER).BeginningWith(MAIN_TURN).Entries()) {
        times.push_back(entry.time);
    }
    return times;
}

Milliseconds GainFixture::ShortestPeriod(std::optional<Milliseconds> limit) const {
    const int periods = limit ? 50 : 3;
    Milliseconds shortest = Milliseconds::max();
    for (int count = 2; count < periods + 2 && shortest >= limit.value_or(Milliseconds::zero()); ++count) {
        EXPECT_TRUE(journal.Of(OUT_WORKER).BeginningWith(MAIN_TURN).Wait(count));
        const auto turns = MainTurns();
        for (std::size_t i = 1; i < turns.size(); ++i) {
            shortest = std::min<Milliseconds>(shortest, turns[i] - turns[i - 1]);
        }
    }
    return shortest;
}

}  // namespace fake
