// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Tests how the controller starts, wakes, locks out and joins its workers. This program replaces functions of
 * the thread library: each enters the journal and then calls the library's function.
 */
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <system_error>
#include <utility>
#include <vector>

#include "GainFixture.h"

using fake::FakeSeam;
using KVDefine::GAIN_SRC_PLAYER;
using KVDefine::GAIN_SRC_UNMUTE;
using NKavrel::GAIN_HANDLER_PLAYER_MAIN_OUT;
using NKavrel::GAIN_HANDLER_PULSE_RAMP;
using NKavrel::GAIN_HANDLER_UNMUTE_MAIN_OUT;
using NKavrel::KVAudioGainHandler;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

/** The library's function that a function of this program replaces. */
template <typename Function>
Function* Library(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

std::mutex startsMutex;
/** The threads in the order of their starts. startsMutex guards it. */
std::vector<pthread_t> starts;
/** Whether starts and joins enter the journal. */
std::atomic<bool> watchesThreads = false;

/** How timed locks of this thread end. */
enum class Locks { WAIT_IN_TIME, FAIL, WAIT_FOR_EVER };
thread_local Locks locks = Locks::WAIT_IN_TIME;
/** The mutexes that this thread locked, in order. */
thread_local std::vector<const pthread_mutex_t*> lockedMutexes;
/** The longest time that one of them was to wait. None was measured in a ThreadSanitizer build. */
thread_local std::optional<std::chrono::nanoseconds> longestLock;
/** An action that runs once, right after this thread's next unlock of a mutex. */
struct UnlockHook {
    const pthread_mutex_t* mutex = nullptr;
    std::function<void()> action;
};
[[maybe_unused]] thread_local UnlockHook* unlockHook = nullptr;

std::string Place(pthread_t thread) {
    const std::lock_guard lock(startsMutex);
    const auto found =
        std::ranges::find_if(starts, [&](pthread_t start) { return pthread_equal(start, thread) != 0; });
    return std::to_string(found - starts.begin() + 1);
}

[[maybe_unused]] int TimeOut(clockid_t clock, const timespec& deadline) {
    timespec now = {};
    clock_gettime(clock, &now);
    const std::chrono::nanoseconds wait = std::chrono::seconds(deadline.tv_sec - now.tv_sec) +
                                          std::chrono::nanoseconds(deadline.tv_nsec - now.tv_nsec);
    longestLock = std::max(longestLock.value_or(wait), wait);
    return ETIMEDOUT;
}

}  // namespace

extern "C" {

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
    static auto* const create = Library<decltype(pthread_create)>("pthread_create");
    if (!watchesThreads) {
        return create(thread, attributes, body, argument);
    }
    if (const auto failure = FakeSeam::Get().Enter("pthread_create", "")) {
        return *failure;
    }
    const int result = create(thread, attributes, body, argument);
    const std::lock_guard lock(startsMutex);
    starts.push_back(*thread);
    return result;
}

int pthread_join(pthread_t thread, void** result) {
    static auto* const join = Library<decltype(pthread_join)>("pthread_join");
    if (watchesThreads) {
        FakeSeam::Get().Enter("pthread_join", Place(thread));
    }
    return join(thread, result);
}

#ifndef __SANITIZE_THREAD__
// ThreadSanitizer must see where an unlock comes from: it looks away from those of GLib.
int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    static auto* const unlock = Library<decltype(pthread_mutex_unlock)>("pthread_mutex_unlock");
    const int result = unlock(mutex);
    if (unlockHook != nullptr && unlockHook->mutex == mutex) {
        std::exchange(unlockHook, nullptr)->action();
    }
    return result;
}
#endif

#ifdef __SANITIZE_THREAD__
// In a ThreadSanitizer build tsan_clocklock.cpp already replaces pthread_mutex_clocklock by this function, whose
// deadline is one of the wall clock. That clock can jump, so it measures no time.
int pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* deadline) noexcept {
    static auto* const lock = Library<decltype(pthread_mutex_timedlock)>("pthread_mutex_timedlock");
    lockedMutexes.push_back(mutex);
    return locks == Locks::FAIL            ? ETIMEDOUT
           : locks == Locks::WAIT_FOR_EVER ? pthread_mutex_lock(mutex)
                                           : lock(mutex, deadline);
}
#else
int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const timespec* deadline) noexcept {
    static auto* const lock = Library<decltype(pthread_mutex_clocklock)>("pthread_mutex_clocklock");
    lockedMutexes.push_back(mutex);
    return locks == Locks::FAIL            ? TimeOut(clock, *deadline)
           : locks == Locks::WAIT_FOR_EVER ? pthread_mutex_lock(mutex)
                                           : lock(mutex, clock, deadline);
}
#endif

}  // extern "C"

namespace {

constexpr const char* OF = "NKavrel::KVAudioGainHandler::";
constexpr const char* WAKE_GAIN_OUT = "notify(6)";
constexpr const char* LOCK_FAILED = "E mutex lock failed";

std::string In(const std::string& function) {
    return "D \t[IN]void " + std::string(OF) + function;
}
std::string Out(const std::string& function) {
    return "D \t[OUT]void " + std::string(OF) + function;
}
constexpr const char* GET_GAIN = "GetSrcGain(NKavrel::eKVGainHandlerType, int&)";
constexpr const char* SET_GAIN = "SetSrcGain(NKavrel::eKVGainHandlerType, int)";
constexpr const char* GET_TARGET = "GetPulseTargetValue(int&, int&)";

class KVAudioGainHandlerThreadsTest : public fake::GainFixture {
protected:
    ~KVAudioGainHandlerThreadsTest() override {
        gain.reset();
        watchesThreads = false;
        fake::RecordNotifications(false);
    }

    /** From now on each notification of worker 2 enters the journal as "notify(2)", and so on. */
    void WatchNotifications() {
        fake::RecordNotifications(true);
        seam.Clear();
    }

    void WatchThreads() {
        const std::lock_guard lock(startsMutex);
        starts.clear();
        watchesThreads = true;
    }

    /** Makes the timed lock fail inside the n-th call of a function by a worker. */
    void FailLock(const std::string& worker, const std::string& function, int nth) {
        const auto isThere = [worker] {
            std::array<char, 16> name = {};
            pthread_getname_np(pthread_self(), name.data(), name.size());
            return worker == name.data();
        };
        seam.Before(In(function), [isThere, nth, seen = std::make_shared<std::atomic<int>>(0)] {
            locks = isThere() && ++*seen == nth ? Locks::FAIL : Locks::WAIT_IN_TIME;
        });
        seam.Before(Out(function), [] { locks = Locks::WAIT_IN_TIME; });
    }
    static void CallWithHook(const std::function<void()>& call, UnlockHook hook) {
        unlockHook = &hook;
        call();
        EXPECT_EQ(unlockHook, nullptr) << "the call did not unlock the mutex";
        unlockHook = nullptr;
    }
    /** The mutex that a call locks first. */
    static const pthread_mutex_t* LockOf(const std::function<void()>& call) {
        lockedMutexes.clear();
        call();
        return lockedMutexes.empty() ? nullptr : lockedMutexes.front();
    }
};

// Starting

TEST_F(KVAudioGainHandlerThreadsTest, WorkersAreStartedInAFixedOrder) {
    WatchThreads();
    Start();
    std::vector<std::string> names;
    for (const pthread_t thread : starts) {
        std::array<char, 16> name = {};
        pthread_getname_np(thread, name.data(), name.size());
        names.emplace_back(name.data());
    }
    EXPECT_THAT(names, ElementsAre("UnMuteMainOutH", "UnMuteSubOutH", "PlayerMainOutH", "PlayerSubOutH",
                                   "PulseRampH", "AudioGainOutH"));
}

class KVAudioGainHandlerThreadsFailureTest : public KVAudioGainHandlerThreadsTest,
                                             public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(NthThread, KVAudioGainHandlerThreadsFailureTest, testing::Range(1, 7));

TEST_P(KVAudioGainHandlerThreadsFailureTest, AThreadThatCannotStartStopsThoseBeforeAndThrows) {
    const int failing = GetParam();
    /** For each failing start, the joins of the threads started before it, in the order of their keys. */
    const std::vector<std::vector<std::string>> joins = {
        {},
        {"pthread_join(1)"},
        {"pthread_join(1)", "pthread_join(2)"},
        {"pthread_join(3)", "pthread_join(1)", "pthread_join(2)"},
        {"pthread_join(3)", "pthread_join(4)", "pthread_join(1)", "pthread_join(2)"},
        {"pthread_join(5)", "pthread_join(3)", "pthread_join(4)", "pthread_join(1)", "pthread_join(2)"},
    };
    const std::vector<std::string> before = fake::ThreadNames();
    seam.SetFeature("com.norvik/featureconf/projector_feature_support", true);
    seam.SetGain(0, 0);
    WatchThreads();
    seam.Fail("pthread_create", EAGAIN, failing);
    try {
        gain.emplace();
        FAIL() << "the constructor returned";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again);
    }
    EXPECT_EQ(fake::ThreadNames(), before);
    EXPECT_THAT(journal.Calls("pthread_join").Texts(),
                ElementsAreArray(joins[static_cast<std::size_t>(failing - 1)]));
    EXPECT_EQ(std::ranges::count_if(journal.Logs().Texts(),
                                    [](const std::string& line) { return line.ends_with(" is done"); }),
              failing - 1);
    EXPECT_THAT(journal.Gains().Texts(), IsEmpty());
    EXPECT_THAT(journal.Calls("vconf_").Texts(), IsEmpty());
    EXPECT_THAT(journal.Calls("system_info_").Texts(), IsEmpty());

    seam.Succeed("pthread_create");
    Start();
    EXPECT_EQ(seam.MainGainValue(), 100) << "the next controller is as good as any";
}

TEST_F(KVAudioGainHandlerThreadsTest, AFailedStartWaitsUntilTheThreadsBeforeRest) {
    WatchThreads();
    seam.Fail("pthread_create", EAGAIN, 3);
    bool hasGoneOn = true;
    // The first worker has not come to its wait yet.
    seam.BeforeNext("I Sleep UnMuteMainOutH", [&] {
        hasGoneOn = journal.With(In("_StopWorkers()")).Wait(1, std::chrono::milliseconds(50));
    });
    EXPECT_THROW(gain.emplace(), std::system_error);
    EXPECT_FALSE(hasGoneOn);
}

// Waking

TEST_F(KVAudioGainHandlerThreadsTest, AGainSetAtOnceWakesTheGainOutWorkerAndAFadeItsOwn) {
    Start();
    WatchNotifications();
    gain->ApplyAudioGain(GAIN_SRC_PLAYER, 100, 1);
    gain->ApplyAudioGain(GAIN_SRC_PLAYER, 100, 2);
    gain->ApplyAudioGain(GAIN_SRC_UNMUTE, 100, 1);
    EXPECT_THAT(journal.Here().BeginningWith("notify").Texts(),
                ElementsAre("notify(6)", "notify(6)", "notify(6)", "notify(6)"));
    seam.Clear();
    gain->SetFadeInInterruptable(true);
    gain->ApplyVolumeFadeIn(GAIN_SRC_UNMUTE, 1);
    gain->ApplyVolumeFadeIn(GAIN_SRC_PLAYER, 1);
    gain->ApplyVolumeFadeIn(GAIN_SRC_PLAYER, 2);
    gain->ApplyPulseAudioGain(100, 0);
    EXPECT_THAT(journal.Here().BeginningWith("notify").Texts(),
                ElementsAre("notify(4)", "notify(5)", "notify(2)", "notify(3)", "notify(1)"));
    seam.Clear();
    seam.Fail("AudioControl_getInstance", 0);
    gain->ApplyAudioGain(GAIN_SRC_UNMUTE, 10, 1);
    gain->ApplyVolumeFadeIn(GAIN_SRC_PLAYER, 1);
    gain->SetSrcGain(GAIN_HANDLER_UNMUTE_MAIN_OUT, 50);
    gain->ApplyAudioGain(GAIN_SRC_PLAYER, 10, 4);
    EXPECT_THAT(journal.Here().BeginningWith("notify").Texts(), IsEmpty());
}

TEST_F(KVAudioGainHandlerThreadsTest, AFadeWakesTheGainOutWorkerAtItsBeginningAndAtItsEnd) {
    Start();
    WatchNotifications();
    for (const int from : {90, 100}) {
        seam.Clear();
        gain->_ApplyAudioGain(GAIN_HANDLER_PLAYER_MAIN_OUT, 1, from, false);
        ASSERT_TRUE(Rest());
        EXPECT_THAT(journal.Of("PlayerMainOutH").Texts(),
                    ElementsAre("I Wake PlayerMainOutH. gain:" + std::to_string(from), WAKE_GAIN_OUT,
                                "I handlerGainType:2, LastGain:100", WAKE_GAIN_OUT,
                                "LwipcIsDone(\"FadeInPopup\")", "I Sleep PlayerMainOutH"));
    }
}

TEST_F(KVAudioGainHandlerThreadsTest, ARampWakesTheGainOutWorkerAtItsStartAndAfterSteps1And4And7) {
    Start();
    WatchNotifications();
    gain->ApplyPulseAudioGain(20, 100);
    ASSERT_TRUE(Rest());
    const std::string waits = ", timedwait 10";
    EXPECT_THAT(
        journal.Of("PulseRampH").BeginningWith("notify", "I ").Texts(),
        ElementsAre("I Wake PulseRampH", WAKE_GAIN_OUT, "I startVolume:100, remainCount:10, timeout:10",
                    "I remain count is 10" + waits, "I Remain[9]. gain:92", "I remain count is 9" + waits,
                    WAKE_GAIN_OUT, "I Remain[8]. gain:84", "I remain count is 8" + waits,
                    "I Remain[7]. gain:76", "I remain count is 7" + waits, "I Remain[6]. gain:68",
                    "I remain count is 6" + waits, WAKE_GAIN_OUT, "I Remain[5]. gain:60",
                    "I remain count is 5" + waits, "I Remain[4]. gain:52", "I remain count is 4" + waits,
                    "I Remain[3]. gain:44", "I remain count is 3" + waits, WAKE_GAIN_OUT,
                    "I Remain[2]. gain:36", "I remain count is 2" + waits, "I Remain[1]. gain:28",
                    "I remain count is 1" + waits, "I Remain[0]. gain:20",
                    "I remain count is 0, Nothing to do!", "I Sleep PulseRampH"));
}

TEST_F(KVAudioGainHandlerThreadsTest, ANewRampWakesTheGainOutWorkerOnlyWhereAStepWouldHave) {
    Start();
    WatchNotifications();
    for (const auto& [gainBefore, wakes] : {std::pair{84, false}, {68, true}}) {
        ASSERT_TRUE(Rest());
        gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, 100);
        seam.Clear();
        AfterStore(GAIN_HANDLER_PULSE_RAMP, gainBefore, [this] { gain->ApplyPulseAudioGain(100, 10); });
        gain->ApplyPulseAudioGain(20, 100);
        ASSERT_TRUE(Rest());
        const std::vector<std::string> lines =
            journal.Of("PulseRampH").BeginningWith("notify", "I startVolume").Texts();
        const std::string restart =
            "I startVolume:" + std::to_string(gainBefore) + ", remainCount:10, timeout:1";
        const auto found = std::ranges::find(lines, restart);
        ASSERT_NE(found, lines.end());
        const auto before = std::count(lines.begin(), found, WAKE_GAIN_OUT);
        EXPECT_EQ(before, wakes ? 3 : 2) << "at the start, after step 1, and here after step 4";
        EXPECT_EQ(std::count(found, lines.end(), WAKE_GAIN_OUT), 3);
    }
}

TEST_F(KVAudioGainHandlerThreadsTest, AnIdlePulseWorkerThatIsWokenWithoutARequestDoesNotStep) {
    Start();
    WatchNotifications();
    for (int i = 0; i < 5; ++i) {
        fake::NotifyWorker(GAIN_HANDLER_PULSE_RAMP);
        ASSERT_TRUE(Rest());
    }
    EXPECT_THAT(journal.Here().BeginningWith("notify").Texts(),
                ElementsAre("notify(1)", "notify(1)", "notify(1)", "notify(1)", "notify(1)"));
    EXPECT_THAT(journal.All().Of("PulseRampH").Entries(), IsEmpty());
    gain->ApplyPulseAudioGain(50, 0);
    ASSERT_TRUE(Rest());
    EXPECT_EQ(journal.Of("PulseRampH").Texts().front(), "I Wake PulseRampH");
    EXPECT_THAT(StoredGains(GAIN_HANDLER_PULSE_RAMP), ElementsAre(50));
}

// Destruction

TEST_F(KVAudioGainHandlerThreadsTest, DestructionWakesAllAndJoinsThemInTheOrderOfTheirNumbers) {
    WatchThreads();
    Start();
    WatchNotifications();
    gain.reset();
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("notify(1)", "notify(2)", "notify(3)", "notify(4)", "notify(5)", "notify(6)",
                            "pthread_join(5)", "pthread_join(3)", "pthread_join(4)", "pthread_join(1)",
                            "pthread_join(2)", "pthread_join(6)",
                            "system_info_get_custom_bool(\"com.norvik/featureconf/projector_feature_"
                            "support\")",
                            "vconf_ignore_key_changed(\"memory/org.olvane.btapp/sub_audio_zoneid\")"))
        << "started 5th, 3rd, 4th, 1st, 2nd and 6th";
}

// Locks that time out

TEST_F(KVAudioGainHandlerThreadsTest, WithoutTheLockAGetterLeavesTheCallersValueAndASetterTheSlot) {
    Start();
    gain->SetPulseTargetValue(30, 200);
    int value = 12345;
    int target = 1;
    int duration = 2;
    locks = Locks::FAIL;
    gain->GetSrcGain(GAIN_HANDLER_PULSE_RAMP, value);
    gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, 40);
    gain->GetPulseTargetValue(target, duration);
    gain->SetPulseTargetValue(90, 900);
    EXPECT_EQ(gain->SetMainOutGain2(1), -1);
    EXPECT_EQ(gain->SetSubOutGain2(2), -1);
    EXPECT_EQ(gain->SetAudioGain(3), -1);
    locks = Locks::WAIT_IN_TIME;
    EXPECT_EQ(value, 12345);
    EXPECT_EQ(target, 1);
    EXPECT_EQ(duration, 2);
    std::vector<std::string> functions;
    for (const fake::Entry& entry : journal.Here().With(LOCK_FAILED).Entries()) {
        functions.push_back(entry.site.function);
    }
    EXPECT_THAT(functions,
                ElementsAre("GetSrcGain", "SetSrcGain", "GetPulseTargetValue", "SetPulseTargetValue",
                            "SetMainOutGain2", "SetSubOutGain2", "SetMainOutGain2"));
    EXPECT_EQ(Gain(GAIN_HANDLER_PULSE_RAMP), 100);
    gain->GetPulseTargetValue(target, duration);
    EXPECT_EQ(target, 30);
    EXPECT_EQ(duration, 200);
    EXPECT_THAT(journal.Gains().Texts(), IsEmpty());
}

TEST_F(KVAudioGainHandlerThreadsTest, EachSlotAndThePulseTargetHaveALockOfTheirOwn) {
    Start();
    std::set<const pthread_mutex_t*> all;
    int unused = 0;
    for (int number = 0; number < NKavrel::GAIN_HANDLER_COUNT; ++number) {
        const auto slot = static_cast<NKavrel::eKVGainHandlerType>(number);
        const auto* lock = LockOf([&] { gain->SetSrcGain(slot, 100); });
        EXPECT_EQ(LockOf([&] { gain->GetSrcGain(slot, unused); }), lock) << number;
        all.insert(lock);
    }
    const auto* target = LockOf([&] { gain->SetPulseTargetValue(100, 0); });
    EXPECT_EQ(LockOf([&] { gain->GetPulseTargetValue(unused, unused); }), target);
    all.insert(target);
    EXPECT_EQ(all.size(), NKavrel::GAIN_HANDLER_COUNT + 1U);
    EXPECT_FALSE(all.contains(nullptr));
    const auto* writes = LockOf([&] { gain->GetSrcGain(NKavrel::GAIN_HANDLER_AUDIO_GAIN_OUT, unused); });
    EXPECT_EQ(LockOf([&] { gain->SetMainOutGain2(1); }), writes);
    EXPECT_EQ(LockOf([&] { gain->SetSubOutGain2(2); }), writes);
}

#ifndef __SANITIZE_THREAD__  // which has no such unlock
TEST_F(KVAudioGainHandlerThreadsTest, AGainIsStoredAndReadBeforeTheLockOfItsSlotIsReleased) {
    Start();
    int stored = 0;
    int read = 0;
    const auto* lock = LockOf([&] { gain->GetSrcGain(GAIN_HANDLER_PULSE_RAMP, read); });
    CallWithHook([&] { gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, 40); },
                 {lock, [&] { gain->GetSrcGain(GAIN_HANDLER_PULSE_RAMP, stored); }});
    EXPECT_EQ(stored, 40);
    CallWithHook([&] { gain->GetSrcGain(GAIN_HANDLER_PULSE_RAMP, read); },
                 {lock, [&] { gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, 70); }});
    EXPECT_EQ(read, 40);
    EXPECT_EQ(Gain(GAIN_HANDLER_PULSE_RAMP), 70);
}

TEST_F(KVAudioGainHandlerThreadsTest, ThePulseTargetIsStoredAndReadBeforeItsLockIsReleased) {
    Start();
    std::pair<int, int> stored;
    std::pair<int, int> read;
    const auto* lock = LockOf([&] { gain->GetPulseTargetValue(read.first, read.second); });
    CallWithHook([&] { gain->SetPulseTargetValue(30, 200); },
                 {lock, [&] { gain->GetPulseTargetValue(stored.first, stored.second); }});
    EXPECT_EQ(stored, std::pair(30, 200));
    CallWithHook([&] { gain->GetPulseTargetValue(read.first, read.second); },
                 {lock, [&] { gain->SetPulseTargetValue(90, 900); }});
    EXPECT_EQ(read, std::pair(30, 200));
    gain->GetPulseTargetValue(read.first, read.second);
    EXPECT_EQ(read, std::pair(90, 900));
}

TEST_F(KVAudioGainHandlerThreadsTest, AnOutputIsWrittenBeforeTheLockOfTheWritesIsReleased) {
    Start();
    std::vector<std::string> written;
    const UnlockHook hook = {LockOf([&] { gain->SetMainOutGain2(1); }),
                             [&] { written = journal.Gains().Texts(); }};
    gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, 60);
    CallWithHook([&] { gain->SetMainOutGain2(1); }, hook);
    EXPECT_THAT(written, ElementsAre(fake::MainGain(60)));
    CallWithHook([&] { gain->SetSubOutGain2(2); }, hook);
    EXPECT_THAT(written, ElementsAre(fake::MainGain(60), fake::SubGain(60)));
}
#endif

TEST_F(KVAudioGainHandlerThreadsTest, AWriterReadsItsTotalWhenTheWriterBeforeItHasFinished) {
    Start();
    for (const char* place :
         {"I Path:1 player:100 pulse: 60 unmute:100 Total: 60", "get_main_out_gain2", "set_main_out_gain2"}) {
        SCOPED_TRACE(place);
        gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, 60);
        seam.SetGain(100, 100);
        seam.Clear();
        auto held = seam.BlockNext(place);
        auto first = std::async(std::launch::async, [this] { gain->SetMainOutGain2(1); });
        ASSERT_TRUE(held.WaitReached());
        auto second = std::async(std::launch::async, [this] {
            locks = Locks::WAIT_FOR_EVER;
            gain->SetMainOutGain2(1);
        });
        // Only time can show that nothing happens.
        EXPECT_EQ(second.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
        gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, 30);
        held.Open();
        first.get();
        second.get();
        EXPECT_THAT(journal.Gains().Texts(), ElementsAre(fake::MainGain(60), fake::MainGain(30)));
    }
}

#ifndef __SANITIZE_THREAD__
TEST_F(KVAudioGainHandlerThreadsTest, NoLockIsWaitedForLongerThanThreeSeconds) {
    Start();
    longestLock.reset();
    locks = Locks::FAIL;
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 40, 1), -1);
    EXPECT_EQ(gain->ApplyPulseAudioGain(100, 0), 0);
    locks = Locks::WAIT_IN_TIME;
    EXPECT_EQ(journal.Here().With(LOCK_FAILED).Count(), 3)
        << "the gain, the output and the target are guarded";
    ASSERT_TRUE(longestLock);
    EXPECT_LE(*longestLock, std::chrono::seconds(3));
}
#endif

TEST_F(KVAudioGainHandlerThreadsTest, AGainThatCannotBeReadIsTreatedAsZeroInTheTotal) {
    Start();
    int total = 12345;
    locks = Locks::FAIL;
    gain->GetAudioGain(1, total);
    locks = Locks::WAIT_IN_TIME;
    EXPECT_EQ(total, 0);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(LOCK_FAILED, LOCK_FAILED, LOCK_FAILED,
                                                    "I Path:1 player:  0 pulse:  0 unmute:  0 Total:  0"));
}

TEST_F(KVAudioGainHandlerThreadsTest, AFadeWhoseFirstReadFailsBeginsAtZero) {
    Start();
    FailLock("PlayerMainOutH", GET_GAIN, 1);
    gain->_ApplyAudioGain(GAIN_HANDLER_PLAYER_MAIN_OUT, 1, 97, false);
    ASSERT_TRUE(journal.With("I Wake PlayerMainOutH. gain:0").Wait());
    AfterStore(GAIN_HANDLER_PLAYER_MAIN_OUT, 10, [this] { gain->ApplyAudioGain(GAIN_SRC_PLAYER, 100, 1); });
    ASSERT_TRUE(Rest());
    EXPECT_THAT(StoredGains(GAIN_HANDLER_PLAYER_MAIN_OUT), ElementsAre(5, 10));
}

TEST_F(KVAudioGainHandlerThreadsTest, AFadeWhoseReadFailsStepsFromTheOldGainAgain) {
    Start();
    // The worker reads once at its start and after each step; the fixture also reads after each store.
    FailLock("PlayerMainOutH", GET_GAIN, 5);
    gain->_ApplyAudioGain(GAIN_HANDLER_PLAYER_MAIN_OUT, 1, 80, false);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(StoredGains(GAIN_HANDLER_PLAYER_MAIN_OUT), ElementsAre(85, 90, 90, 95, 100));
    EXPECT_THAT(journal.Of("PlayerMainOutH").Texts(), Contains(LOCK_FAILED).Times(1));
}

TEST_F(KVAudioGainHandlerThreadsTest, AFadeWhoseStoreFailsTakesTheStepAgain) {
    FailLock("PlayerMainOutH", SET_GAIN,
             2);  // its hooks must run before Start()'s, which read each stored gain
    Start();
    gain->_ApplyAudioGain(GAIN_HANDLER_PLAYER_MAIN_OUT, 1, 85, false);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(StoredGains(GAIN_HANDLER_PLAYER_MAIN_OUT), ElementsAre(90, 90, 95, 100));
    EXPECT_THAT(journal.Of("PlayerMainOutH").Texts(), Contains(LOCK_FAILED).Times(1));
}

TEST_F(KVAudioGainHandlerThreadsTest, APulseWorkerThatCannotReadItsTargetRampsToTheOneBefore) {
    Start();
    gain->ApplyPulseAudioGain(20, 20);
    ASSERT_TRUE(Rest());
    gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, 70);
    seam.Clear();
    FailLock("PulseRampH", GET_TARGET, 1);
    EXPECT_EQ(gain->ApplyPulseAudioGain(90, 5000), 0);
    ASSERT_TRUE(Rest());
    const std::vector<std::string> lines =
        journal.Of("PulseRampH").BeginningWith("I startVolume", "I Remain", "E ").Texts();
    EXPECT_EQ(lines[0], LOCK_FAILED);
    EXPECT_EQ(lines[1], "I startVolume:70, remainCount:10, timeout:2");
    EXPECT_EQ(lines.back(), "I Remain[0]. gain:20");
}

TEST_F(KVAudioGainHandlerThreadsTest, ARequestWhoseTargetCannotBeStoredIsRaisedAllTheSame) {
    Start();
    gain->ApplyPulseAudioGain(20, 20);
    ASSERT_TRUE(Rest());
    gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, 70);
    seam.Clear();
    locks = Locks::FAIL;
    EXPECT_EQ(gain->ApplyPulseAudioGain(90, 5000), 0);
    locks = Locks::WAIT_IN_TIME;
    EXPECT_EQ(journal.Here().With(LOCK_FAILED).Function(), "SetPulseTargetValue");
    ASSERT_TRUE(Rest());
    EXPECT_EQ(StoredGains(GAIN_HANDLER_PULSE_RAMP).back(), 20);
}

TEST_F(KVAudioGainHandlerThreadsTest, ARequestWhoseTargetCannotBeStoredIsPendingForThePeriodBefore) {
    const auto periodOfRequest = [this] {
        auto pending = seam.BlockNext(In(GET_TARGET));
        locks = Locks::FAIL;
        gain->ApplyPulseAudioGain(90, 400);
        locks = Locks::WAIT_IN_TIME;
        EXPECT_TRUE(pending.WaitReached());
        seam.Clear();  // of the period before
        return ShortestPeriod();
    };
    Start();
    EXPECT_GE(periodOfRequest(), std::chrono::milliseconds(60)) << "the period of no request yet";
    ASSERT_TRUE(Rest());
    gain->ApplyPulseAudioGain(100, 2000);
    EXPECT_TRUE(Waits(GAIN_HANDLER_PULSE_RAMP, "I remain count is 10, timedwait 200"));
    EXPECT_GE(periodOfRequest(), std::chrono::milliseconds(100));
}

TEST_F(KVAudioGainHandlerThreadsTest, ARampWhoseStartCannotBeReadBeginsAtTheStartBefore) {
    Start();
    gain->ApplyPulseAudioGain(20, 20);
    ASSERT_TRUE(Rest());
    gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, 70);
    seam.Clear();
    FailLock("PulseRampH", GET_GAIN, 1);
    gain->ApplyPulseAudioGain(90, 20);
    ASSERT_TRUE(Rest());
    EXPECT_EQ(journal.Of("PulseRampH").With("I startVolume:100, remainCount:10, timeout:2").First().thread,
              journal.Of("PulseRampH").With("I Remain[0]. gain:90").First().thread);
}

TEST_F(KVAudioGainHandlerThreadsTest, ARampWhoseStoreFailsGoesOnWithItsNextStep) {
    FailLock("PulseRampH", SET_GAIN, 3);  // its hooks must run before Start()'s, too
    Start();
    gain->ApplyPulseAudioGain(20, 20);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(StoredGains(GAIN_HANDLER_PULSE_RAMP), ElementsAre(92, 84, 84, 68, 60, 52, 44, 36, 28, 20));
    EXPECT_THAT(journal.Of("PulseRampH").Texts(), Contains(LOCK_FAILED).Times(1));
}

}  // namespace
