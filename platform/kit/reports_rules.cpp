// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Reports: which changes come, when, in which order and on which thread. */
#include <audio_hal.h>
#include <resource_center.h>
#include <sound_manager.h>
#include <vconf.h>

#include <algorithm>
#include <atomic>
#include <set>

#include "kit.h"

using namespace kit;

namespace {

/** Whether a report of this text came on this thread. */
bool HasOnThisThread(Stream& stream, const std::string& text) {
    const auto all = stream.ear(0).All();
    return std::any_of(all.begin(), all.end(), [&](const Heard& heard) {
        return heard.text == text && heard.thread == std::this_thread::get_id();
    });
}

/** Whether there are reports, all of them with another zone than that of the stream. Then the rule is not judged. */
bool IsOfAnotherZone(Stream& stream) {
    const auto texts = stream.ear(0).Texts();
    if (texts.empty() || std::any_of(texts.begin(), texts.end(), [&](const std::string& text) {
            return text.starts_with(stream.prefix);
        })) {
        return false;
    }
    Unmet(stream.name + ": the reports were " + List(texts), "Zones.EachRouteIsReportedWithItsZone");
    return true;
}

/** Calls the getters of the stream until the report is there, for platforms that look for changes in getters. */
bool AwaitWhileReading(Stream& stream, const std::string& text) {
    return kit::Await([&] {
        stream.get();
        return stream.ear(0).Has(text);
    });
}

/** Whether somebody else's change that comes while a callback runs is reported at all. */
bool IsPendingReported(Scene& scene, Stream& stream, int i) {
    return WhileReporting([&] { scene.SomebodySets(i); }) && stream.ear(0).Await(stream.HeardAt(i));
}

// --- That changes are reported

TEST(Reports, OurChangeIsReportedOnTheSettersThreadBeforeTheSetterReturns) {
    Rule(
        "A change that this process makes is reported on the thread that makes it, before the setter "
        "returns.");
    for (Stream* const stream : WithoutManagerMute(OurStreams())) {
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register()) {
            continue;
        }
        const auto change = [&](int i) {
            stream->ear(0).Forget();
            if (scene.WeSet(i) && !IsOfAnotherZone(*stream)) {
                Check(HasOnThisThread(*stream, stream->HeardAt(i)),
                      stream->name + ": when the setter returned, the callback had not been called with " +
                          stream->HeardAt(i) + " on the thread that called the setter");
            }
        };
        change(1);
        {
            const Worker worker([&] { change(2); });
        }
        change(3);
    }
}

TEST(Reports, OurChangeIsReportedOnce) {
    Rule(
        "A change that this process makes is reported once, not a second time when the platform notices it.");
    for (Stream* const stream : OurStreams()) {
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register() || !scene.Change(1)) {
            continue;
        }
        Settle();
        Linger();
        Check(stream->ear(0).Count(stream->HeardAt(1)) == 1,
              stream->name + ": one change was reported several times: " + Texts(*stream));
    }
}

TEST(Reports, SomebodyElsesChangeIsReported) {
    Rule("A change that somebody else makes is reported.");
    for (Stream* const stream : WithoutManagerMute(AllStreams())) {
        Scene scene(*stream);
        if (!scene.IsReady() ||
            !Check(stream->add(0, nullptr) == 0, stream->name + ": registering a callback should succeed")) {
            continue;
        }
        for (const int i : {1, 2, 3}) {
            stream->ear(0).Forget();
            if (scene.SomebodySets(i)) {
                const bool hasCome = AwaitWhileReading(*stream, stream->HeardAt(i));
                if (!hasCome && IsOfAnotherZone(*stream)) {
                    break;
                }
                Check(hasCome, stream->name + ": no report of " + stream->HeardAt(i) +
                                   " came; heard: " + Texts(*stream));
            }
        }
        stream->remove(0);
    }
}

TEST(Reports, SomebodyElsesChangeIsReportedOnAThreadOfThePlatform) {
    Rule(
        "A change that somebody else makes is reported on a thread of the platform, never on one that calls "
        "a getter or "
        "anything else.");
    for (Stream* const stream : AllStreams()) {
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register() || !scene.SomebodySets(1)) {
            continue;
        }
        if (!AwaitWhileReading(*stream, stream->HeardAt(1))) {
            Unmet(stream->name + ": no report came", REPORTED);
            continue;
        }
        Check(!HasOnThisThread(*stream, stream->HeardAt(1)),
              stream->name + ": somebody else's change was reported on the thread that called getters");
    }
}

TEST(Reports, ASetterDeliversNoChangeOfSomebodyElse) {
    Rule(
        "Inside a setter only the caller's own change is reported on its thread, never one of somebody else "
        "that is pending.");
    for (Stream* const stream : AllStreams()) {
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register()) {
            continue;
        }
        const bool hasRun = WhileReporting([&] {
            if (scene.SomebodySets(1)) {
                AwaitRest();
                Step("vconf_set_int(memory/kit/other, ...)");
                static int count = 0;
                vconf_set_int("memory/kit/other", ++count);
                Check(
                    !HasOnThisThread(*stream, stream->HeardAt(1)),
                    stream->name +
                        ": setting a setting reported somebody else's pending change on the setter's thread");
            }
        });
        if (!hasRun) {
            return;
        }
        if (!stream->ear(0).Await(stream->HeardAt(1))) {
            Unmet(stream->name + ": a change during a callback is not reported", LAST);
            return;
        }
        Check(!HasOnThisThread(*stream, stream->HeardAt(1)),
              stream->name +
                  ": somebody else's pending change was reported on the thread that called a setter");
    }
}

TEST(Reports, MasterMuteIsOneValueForBothInterfaces) {
    Rule("The audio HAL's and the sound manager's mute are one value: both callbacks get each change of it.");
    Scene scene(HalMute());
    if (!scene.IsReady() || !scene.Register()) {
        return;
    }
    Check(ManagerMute().add(0, nullptr) == 0,
          "sound_manager_set_tv_master_mute_changed_cb() should return 0");
    Settle();
    for (const bool isOurs : {true, false}) {
        for (const char* const text : {"1", "0"}) {
            ManagerMute().ear(0).Forget();
            HalMute().ear(0).Forget();
            if (!(isOurs ? scene.WeSet(text) : scene.SomebodySets(text)) || !scene.Await(text)) {
                continue;
            }
            Check(ManagerMute().ear(0).Await(text), std::string("the mute became ") + text +
                                                        ", but the sound manager's callback got " +
                                                        Texts(ManagerMute()));
        }
    }
}

// --- Equal values

TEST(Reports, AnEqualValueOfOursIsSilent) {
    Rule("A value that this process sets is not reported if it is in force already.");
    for (Stream* const stream : OurStreams()) {
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register()) {
            continue;
        }
        scene.WeSet(0);
        Settle();
        Check(!stream->ear(0).Has(stream->HeardAt(0)),
              stream->name + ": " + stream->HeardAt(0) +
                  " was in force before the registration, and setting it was reported");
        if (!scene.Change(1)) {
            continue;
        }
        Settle();
        const std::size_t before = stream->ear(0).Count(stream->HeardAt(1));
        const std::size_t echoes = before - 1;  // of one change; another rule judges those
        scene.WeSet(1);
        Settle();
        Check(stream->ear(0).Count(stream->HeardAt(1)) <= before + echoes,
              stream->name + ": " + stream->HeardAt(1) +
                  " was set twice, and the second time was reported, too");
    }
}

TEST(Reports, AnEqualValueOfSomebodyElseIsSilent) {
    Rule("A value that somebody else sets is not reported if it is in force already.");
    for (Stream* const stream : AllStreams()) {
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register()) {
            continue;
        }
        scene.SomebodySets(0);
        Settle();
        Check(!stream->ear(0).Has(stream->HeardAt(0)),
              stream->name + ": " + stream->HeardAt(0) +
                  " was in force before the registration, and setting it was reported");
        if (!scene.SomebodySets(1) || !scene.Await(1)) {
            continue;
        }
        Settle();
        const std::size_t before = stream->ear(0).Count(stream->HeardAt(1));
        scene.SomebodySets(1);
        Settle();
        Check(stream->ear(0).Count(stream->HeardAt(1)) <= before,
              stream->name + ": somebody else set " + stream->HeardAt(1) +
                  " twice, and the second time was reported, too");
    }
}

/** Only one of two changes in a row differs from the value in force, from either side. */
TEST(Reports, AnEqualValueIsSilentFromBothSides) {
    Rule(
        "A value that is in force already is not reported, also if somebody else set it and this process "
        "sets it again, or the "
        "other way round.");
    for (Stream* const stream : OurStreams()) {
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register() || !scene.Change(1)) {
            continue;
        }
        Settle();
        std::size_t before = stream->ear(0).Count(stream->HeardAt(1));
        scene.SomebodySets(1);
        Settle();
        if (stream->ear(0).Count(stream->HeardAt(1)) > before) {
            before = stream->ear(0).Count(stream->HeardAt(1));
            scene.SomebodySets(1);
            Settle();
            if (stream->ear(0).Count(stream->HeardAt(1)) > before) {
                Unmet(stream->name + ": somebody else's equal values are reported", EQUAL_OTHERS);
            } else {
                Broken(stream->name + ": this process set " + stream->HeardAt(1) +
                       ", then somebody else did, and that was reported");
            }
        }
        if (!scene.SomebodySets(2) || !scene.Await(2)) {
            continue;
        }
        Settle();
        before = stream->ear(0).Count(stream->HeardAt(2));
        scene.WeSet(2);
        Settle();
        if (stream->ear(0).Count(stream->HeardAt(2)) > before) {
            before = stream->ear(0).Count(stream->HeardAt(2));
            scene.WeSet(2);
            Settle();
            if (stream->ear(0).Count(stream->HeardAt(2)) > before) {
                Unmet(stream->name + ": our equal values are reported", EQUAL_OURS);
            } else {
                Broken(stream->name + ": somebody else set " + stream->HeardAt(2) +
                       ", then this process did, and that was reported");
            }
        }
    }
}

// --- Order

TEST(Reports, OurChangesAreReportedInTheirOrder) {
    Rule(
        "The changes that this process makes are reported in the order in which it makes them, none left "
        "out.");
    const std::vector<Stream*> streams = {&Volume(), &Route(), &SettingStream()};
    std::vector<std::unique_ptr<Scene>> scenes;
    std::vector<std::string> heard;  // guarded by mutex
    std::mutex mutex;
    for (Stream* const stream : streams) {
        scenes.push_back(std::make_unique<Scene>(*stream));
        if (!scenes.back()->IsReady() || !scenes.back()->Register() || !scenes.back()->IsHeard()) {
            return;
        }
        stream->ear(0).Act([&, stream] {
            const std::lock_guard guard(mutex);
            const std::string text = stream->ear(0).Last();
            if (std::find(heard.begin(), heard.end(), text) == heard.end()) {
                heard.push_back(text);
            }
        });
    }
    std::vector<std::string> expected;
    for (int i = 1; i <= 20; ++i) {
        for (std::size_t s = 0; s < streams.size(); ++s) {
            scenes[s]->WeSet(i);
            expected.push_back(streams[s]->at(i));
        }
    }
    if (!scenes.back()->Await(20)) {
        return;
    }
    Settle();
    const std::lock_guard guard(mutex);
    Check(heard == expected, "set: " + List(expected) + "\n  reported: " + List(heard));
}

TEST(Reports, TheLastValueIsAlwaysReported) {
    Rule(
        "However quickly somebody else changes a value, and whatever callbacks do meanwhile, its last change "
        "is reported.");
    for (Stream* const stream : AllStreams()) {
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register() || !scene.IsHeard()) {
            continue;
        }
        {
            const Hold hold(Hold::By::SOMEBODY, *stream, 0, stream->at(1));
            if (!hold.Holds()) {
                continue;
            }
            for (const int i : {2, 3, 4}) {
                scene.SomebodySets(i);
            }
            AwaitRest();
        }
        Settle();
        const int last = stream->value.kind == KIT_MASTER_MUTE ? 0 : 4;
        Check(stream->ear(0).Await(stream->HeardAt(last)) && stream->ear(0).Last() == stream->HeardAt(last),
              stream->name + " was changed while a callback ran; its last value is " + stream->HeardAt(last) +
                  ", but the last one reported is " + stream->ear(0).Last());
        Step("somebody else changes the value very quickly, and ends with " + stream->HeardAt(7));
        for (int i = 0; i < 50; ++i) {
            SomebodySetsQuietly(stream->value, stream->at(i % 7));
        }
        SomebodySetsQuietly(stream->value, stream->at(7));
        Settle();
        Check(kit::Await([&] { return stream->ear(0).Last() == stream->HeardAt(7); }),
              stream->name + ": the last one reported is " + stream->ear(0).Last());
    }
}

TEST(Reports, AReportNeverGoesBackInTime) {
    Rule(
        "Once a value has been reported, no older one is: a report is about the value that is in force when "
        "it is delivered.");
    for (Stream* const stream : OurStreams()) {
        Scene scene(*stream);
        const bool isMute = stream->value.kind == KIT_MASTER_MUTE;
        if (!scene.IsReady() || !scene.Register() || !scene.IsHeard()) {
            continue;
        }
        const int last = isMute ? 0 : 2;
        const bool hasRun = WhileReporting([&] {
            if (scene.SomebodySets(1)) {
                AwaitRest();
                scene.WeSet(last);
            }
        });
        if (!hasRun) {
            return;
        }
        Settle();
        AwaitRest();
        const bool isUpToDate = kit::Await([&] {
            const std::string heard = stream->ear(0).Last();
            return heard == stream->prefix + stream->get() || heard == "nothing";
        });
        Check(isUpToDate, stream->name + ": somebody else set " + stream->HeardAt(1) +
                              ", then this process set " + stream->HeardAt(last) + "; the reports were " +
                              Texts(*stream) + ", so the last one is out of date");
    }
}

TEST(Reports, QuickChangesNeverGoBack) {
    Rule(
        "Quick changes by somebody else may become one report, but an older value is never reported after a "
        "newer one.");
    for (Stream* const stream : AllStreams()) {
        if (stream->value.kind == KIT_MASTER_MUTE || stream->value.kind == KIT_FOCUS) {
            continue;
        }
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register()) {
            continue;
        }
        Step("somebody else sets " + stream->at(1) + " to " + stream->at(60) + ", one after the other");
        for (int i = 1; i <= 60; ++i) {
            SomebodySetsQuietly(stream->value, stream->at(i));
        }
        Settle();
        if (!stream->ear(0).Await(stream->HeardAt(60))) {
            Unmet(stream->name + ": the last of many changes is not reported", LAST);
            return;
        }
        int last = 0;
        for (const std::string& text : stream->ear(0).Texts()) {
            const int value = std::atoi(text.c_str() + stream->prefix.size());
            Check(value >= last, stream->name + ": " + std::to_string(value) + " was reported after " +
                                     std::to_string(last));
            last = value;
        }
    }
}

TEST(Reports, OurChangesOnTwoThreadsAreReportedInTheOrderOfTheirWrites) {
    Rule(
        "When two threads set one value, the last report is the value that is in force at the end: the lock "
        "of the reports is held "
        "over the write, too.");
    for (Stream* const stream : OurStreams()) {
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register() || !scene.IsHeard()) {
            continue;
        }
        const bool isMute = stream->value.kind == KIT_MASTER_MUTE;
        std::unique_ptr<Worker> worker;
        const bool hasRun = WhileReporting([&] {
            worker = std::make_unique<Worker>([&] { scene.WeSet(1); });
            worker->AwaitDoneOrAsleep();
            scene.WeSet(isMute ? 0 : 2);
        });
        worker.reset();
        if (!hasRun) {
            return;
        }
        Settle();
        const std::string present = stream->prefix + stream->get();
        const std::string last = stream->ear(0).Last();
        Check(last == present || (last == "nothing" && present == stream->HeardAt(0)),
              stream->name + ": two threads set it; it is " + present + " now, but the reports were " +
                  Texts(*stream));
    }
}

TEST(Reports, AChangeOfSomebodyElseIsReportedThoughWeSetTheSameValue) {
    Rule(
        "A change of somebody else that is pending is reported also if this process sets the same value "
        "meanwhile.");
    for (Stream* const stream : OurStreams()) {
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register()) {
            continue;
        }
        if (!IsPendingReported(scene, *stream, 1)) {
            Unmet(stream->name + ": a change during a callback is not reported", LAST);
            return;
        }
        const bool hasRun = WhileReporting([&] {
            scene.SomebodySets(2);
            scene.WeSet(2);
        });
        if (!hasRun) {
            return;
        }
        Settle();
        Check(stream->ear(0).Await(stream->HeardAt(2)), stream->name + " changed to " + stream->HeardAt(2) +
                                                            ", but the reports were " + Texts(*stream));
    }
}

TEST(Reports, AChangeAfterAnUnreadableTimeIsReported) {
    Rule("A value that was unreadable for a time is reported again when it changes.");
    for (Stream* const stream : AllStreams()) {
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register() || !scene.IsHeard() || !MakeUnreadable(stream->value)) {
            continue;
        }
        Settle();
        if (MakeReadable(stream->value) && scene.SomebodySets(1)) {
            Check(stream->ear(0).Await(stream->HeardAt(1)),
                  stream->name + ": no report of " + stream->HeardAt(1) + " came");
        }
    }
}

// --- One at a time

/** While a callback of each kind is held, a change of every other kind is made, by us and by somebody else. */
TEST(Reports, ComeOneAtATime) {
    Rule("All callbacks of the seam, of whatever header, run one at a time.");
    const std::vector<Stream*> streams = AllStreams();
    int i = 0;
    for (Stream* const held : streams) {
        for (const Hold::By by : {Hold::By::SOMEBODY, Hold::By::US}) {
            if (!held->set && by == Hold::By::US) {
                continue;
            }
            std::vector<std::unique_ptr<Scene>> scenes;
            for (Stream* const stream : streams) {
                scenes.push_back(std::make_unique<Scene>(*stream));
                if (!scenes.back()->IsReady() || !scenes.back()->Register()) {
                    return;
                }
            }
            std::vector<std::unique_ptr<Worker>> workers;
            Hold hold(by, *held, 0, held->at(1));
            if (!hold.Holds()) {
                break;
            }
            const int next = 2 + ++i % 2;
            for (Stream* const stream : streams) {
                if (stream->value.kind == held->value.kind) {
                    continue;
                }
                SomebodySets(stream->value, stream->at(1));
                if (stream->set) {
                    workers.push_back(
                        std::make_unique<Worker>([stream, next] { stream->set(stream->at(next)); }));
                }
            }
            for (const auto& worker : workers) {
                worker->AwaitDoneOrAsleep();
            }
            AwaitRest();
            const bool isBroken = HaveCallbacksOverlapped();
            hold.Release();
            workers.clear();
            Settle();
            if (!Check(!isBroken, "while a callback of " + held->name +
                                      " ran, another callback ran on another thread")) {
                return;
            }
        }
    }
    Check(!HaveCallbacksOverlapped(), "two callbacks ran at the same time on two threads");
}

// --- Inside a callback

TEST(Callbacks, MaySetOtherValues) {
    Rule(
        "A callback may set another value; that change is reported inside the callback, on its thread, "
        "before the setter returns.");
    for (const bool isOurs : {true, false}) {
        for (Stream* const outer : AllStreams()) {
            if (isOurs && !outer->set) {
                continue;
            }
            for (Stream* const inner : {&Volume(), &Route(), &SettingStream()}) {
                if (inner == outer) {
                    continue;
                }
                Scene outerScene(*outer);
                Scene innerScene(*inner);
                if (!outerScene.IsReady() || !innerScene.IsReady() || !outerScene.Register() ||
                    !innerScene.Register()) {
                    continue;
                }
                std::atomic<bool> isReported = false;
                std::atomic<bool> hasRun = false;
                outer->ear(0).Act([&] {
                    if (!hasRun.exchange(true)) {
                        const Limit limit("the setter of " + inner->name + ", called inside a callback of " +
                                          outer->name + ",");
                        inner->set(inner->at(1));
                        isReported = HasOnThisThread(*inner, inner->HeardAt(1));
                    }
                });
                if (isOurs ? !outerScene.Change(1) : !(outerScene.SomebodySets(1) && outerScene.Await(1))) {
                    continue;
                }
                Settle();
                if (isReported) {
                    continue;
                }
                // A platform that reports no such change in time, also outside of callbacks, breaks another rule.
                inner->set(inner->at(0));
                inner->ear(0).Forget();
                inner->set(inner->at(1));
                if (HasOnThisThread(*inner, inner->HeardAt(1))) {
                    Broken("a callback of " + outer->name + " set " + inner->name +
                           ", and that was not reported on its thread before the setter returned");
                } else {
                    Unmet("our changes are not reported in time", OURS_REPORTED);
                }
            }
        }
    }
}

/** From now on the first of these callbacks that is called sets its own value to at(2), once. */
void ActByNewerValue(Stream& stream, const std::vector<int>& slots, std::atomic<bool>& hasRun) {
    for (const int slot : slots) {
        stream.ear(slot).Act([&stream, &hasRun] {
            if (!hasRun.exchange(true)) {
                const Limit limit("a setter, called inside a callback of its own value,");
                stream.set(stream.at(2));
            }
        });
    }
}

/** A setting has three callbacks, and the first that is called sets a newer value. */
void CheckThreeCallbacksHearTheNewestLast(bool isOurs) {
    Stream& stream = SettingStream();
    const std::vector<int> slots = {0, 1, 2};
    std::atomic<bool> hasRun = false;
    Scene scene(stream);
    if (!scene.IsReady() || !scene.Register(0) || !scene.Register(1) || !scene.Register(2) ||
        !scene.SomebodySets(3) || !scene.Await(3, 2)) {
        return;
    }
    if (!stream.ear(0).Await(stream.at(3)) || !stream.ear(1).Await(stream.at(3))) {
        Unmet("not every callback of a key is called", SEVERAL_CALLBACKS);
        return;
    }
    Settle();
    ActByNewerValue(stream, slots, hasRun);
    // Without a look at the getters: the callback may have set the newer value by then.
    if (isOurs ? !scene.WeSet(1) : !SomebodySetsQuietly(stream.value, stream.at(1))) {
        return;
    }
    const bool haveHeard =
        std::ranges::all_of(slots, [&](int slot) { return stream.ear(slot).Await(stream.at(2)); });
    if (!hasRun) {
        Unmet("no report came", isOurs ? OURS_REPORTED : REPORTED);
        return;
    }
    if (!Check(haveHeard, "the first callback set a newer value, and not every callback heard it")) {
        return;
    }
    Settle();
    for (const int slot : slots) {
        Check(stream.ear(slot).Last() == stream.at(2),
              "the first callback set a newer value, " + stream.at(2) + ", but callback " +
                  std::to_string(slot + 1) + " heard " + Texts(stream, slot));
    }
}

TEST(Callbacks, MaySetTheirOwnValueAndTheNewestIsTheLastOneHeard) {
    Rule("A callback may set its own value. Every callback of that value hears the newer one last.");
    for (const bool isOurs : {true, false}) {
        CheckThreeCallbacksHearTheNewestLast(isOurs);
        if (Outcome() != KEPT) {
            return;
        }
    }
    for (Stream* const stream : {&Volume(), &Route()}) {
        std::atomic<bool> hasRun = false;
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register()) {
            continue;
        }
        ActByNewerValue(*stream, {0}, hasRun);
        if (SomebodySetsQuietly(stream->value, stream->at(1)) && scene.Await(1)) {
            Settle();
            Check(
                stream->ear(0).Await(stream->HeardAt(2)) && stream->ear(0).Last() == stream->HeardAt(2),
                stream->name + ": its callback set " + stream->HeardAt(2) + ", but heard " + Texts(*stream));
        }
    }
}

TEST(Callbacks, FindTheNewValueInTheGetters) {
    Rule("Inside a callback the getter gives the value that is reported.");
    for (const bool isOurs : {true, false}) {
        for (Stream* const stream : isOurs ? OurStreams() : AllStreams()) {
            Scene scene(*stream);
            if (!scene.IsReady() || !scene.Register()) {
                continue;
            }
            std::mutex mutex;
            std::string read;  // guarded by mutex
            stream->ear(0).Act([&] {
                const Limit limit("a getter inside a callback", "Callbacks.MayRead");
                const std::lock_guard guard(mutex);
                read = stream->get();
            });
            if (isOurs ? !scene.Change(1) : !(scene.SomebodySets(1) && scene.Await(1))) {
                continue;
            }
            Settle();
            const std::lock_guard guard(mutex);
            Check(read == stream->at(1), stream->name + ": in a callback that got " + stream->HeardAt(1) +
                                             " the getter gave " + read);
        }
    }
}

TEST(Callbacks, MayRead) {
    Rule("A callback may call every getter.");
    for (const bool isOurs : {true, false}) {
        Scene scene(SettingStream());
        if (!scene.IsReady() || !scene.Register()) {
            return;
        }
        SettingStream().ear(0).Act([&] {
            for (Stream* const stream : AllStreams()) {
                const Limit limit("the getter of " + stream->name + ", called inside a callback,");
                stream->get();
            }
            const Limit limit("rc_get_zone_list(), called inside a callback,");
            rc_zone_list_h list = nullptr;
            if (rc_get_zone_list(&list) == 0) {
                rc_free_zone_list(list);
            }
        });
        if (isOurs ? scene.WeSet(1) : scene.SomebodySets(1)) {
            scene.Await(1);
            Settle();
        }
    }
}

TEST(Callbacks, HearTheirOwnValueAlone) {
    Rule("A callback hears the value that it is registered for, and no other one.");
    const std::vector<Stream*> streams = AllStreams();
    for (Stream* const stream : streams) {
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register()) {
            continue;
        }
        std::set<std::string> keys = {"memory/kit/valu", "memory/kit/value2", "db/kit/value"};
        for (Stream* const other : streams) {
            if (other->value.kind == stream->value.kind) {
                continue;
            }
            for (const int i : {1, 2}) {
                if (other->set) {
                    other->set(other->at(i));
                }
                SomebodySets(other->value, other->at(i + 1));
            }
        }
        if (stream != &SettingStream()) {
            keys.insert("memory/kit/value");
        }
        for (const std::string& key : keys) {
            vconf_set_int(key.c_str(), 77);
            SomebodySetsQuietly(Setting(key.c_str()), "78");
        }
        Settle();
        Check(stream->ear(0).Texts().empty(),
              "a callback of " + stream->name + " heard other values: " + Texts(*stream));
    }
}

// --- The zones

TEST(Zones, EachRouteIsReportedWithItsZone) {
    Rule("The callback of the zones' routes gets the changes of every zone, each with the zone's id.");
    Stream& stream = ZoneRouteOf2();
    if (!SomebodySetsZones({1, 2, 30})) {
        return;
    }
    for (const int zone : {1, 2, 30}) {
        SomebodySets(ZoneRoute(zone), "5");
    }
    Scene scene(stream);
    if (!scene.IsReady() || !scene.Register()) {
        return;
    }
    int route = 100;
    for (const int zone : {30, 1, 2}) {
        const std::string ours = std::to_string(++route);
        Step("sound_manager_set_multiview_speaker_selection_with_zone_id(" + ours + ", " +
             std::to_string(zone) + ")");
        sound_manager_set_multiview_speaker_selection_with_zone_id(route, zone);
        Check(stream.ear(0).Await(std::to_string(zone) + ':' + ours),
              "no report of zone " + std::to_string(zone) + " came; heard (zone:route): " + Texts(stream));
        const std::string theirs = std::to_string(++route);
        if (SomebodySets(ZoneRoute(zone), theirs)) {
            Check(
                stream.ear(0).Await(std::to_string(zone) + ':' + theirs),
                "no report of zone " + std::to_string(zone) + " came; heard (zone:route): " + Texts(stream));
        }
    }
}

TEST(Zones, TheFirstRouteOfANewZoneIsReported) {
    Rule("A zone that appears after the registration is heard, too: its first route is a change.");
    Stream& stream = ZoneRouteOf2();
    if (!SomebodySetsZones({2})) {
        return;
    }
    Scene scene(stream);
    if (!scene.IsReady() || !scene.Register() || !scene.IsHeard() || !SomebodySetsZones({2, 5})) {
        return;
    }
    if (SomebodySets(ZoneRoute(5), "8")) {
        Check(stream.ear(0).Await("5:8"),
              "zone 5 appeared, and somebody else set its route to 8; heard (zone:route): " + Texts(stream));
    }
    if (SomebodySetsZones({2, 5, 6})) {
        sound_manager_set_multiview_speaker_selection_with_zone_id(9, 6);
        Check(stream.ear(0).Await("6:9"),
              "zone 6 appeared, and its route was set to 9; heard (zone:route): " + Texts(stream));
    }
}

// --- Settings

TEST(SettingsReports, AKeyMayBeWatchedBeforeItExists) {
    Rule("A key that does not exist yet may be watched, and its appearance is reported.");
    for (const bool isOurs : {true, false}) {
        for (const char* const key : {"memory/kit/new", "db/kit/new", "memory/kit/new/deeper/key"}) {
            const std::string full = std::string(key) + (isOurs ? "-ours" : "-theirs");
            Stream stream = KeyStream(full.c_str(), 0);
            stream.ear(0).Forget();
            Check(stream.add(0, nullptr) == 0, "vconf_notify_key_changed(" + full + ") should return 0");
            Settle();
            if (isOurs ? stream.set("1") == 0 : SomebodySets(Setting(full.c_str()), "1")) {
                Check(stream.ear(0).Await("1"),
                      "the key " + full + " appeared, but the reports were " + Texts(stream));
            }
            stream.remove(0);
        }
    }
}

TEST(SettingsReports, AKeyThatWasTakenAwayIsReportedWhenItReturnsWithAnotherValue) {
    Rule("A key that somebody else takes away, and that returns with another value, is reported.");
    Scene scene(SettingStream());
    if (!scene.IsReady() || !scene.Register() || !SomebodyRemoves(SettingStream().value)) {
        return;
    }
    Settle();
    if (scene.SomebodySets(1)) {
        Check(SettingStream().ear(0).Await(SettingStream().at(1)),
              "the reports were " + Texts(SettingStream()));
    }
}

TEST(SettingsReports, AKeyThatWasTakenAwayIsSilentWhenItReturnsWithItsValue) {
    Rule("A key that somebody else takes away, and that returns with the last value, is not reported.");
    Stream& stream = SettingStream();
    Scene scene(stream);
    if (!scene.IsReady() || !scene.Register() || !SomebodyRemoves(stream.value)) {
        return;
    }
    Settle();
    if (!scene.SomebodySets(0)) {
        return;
    }
    Settle();
    const std::string heard = Texts(stream);
    if (!stream.ear(0).Has(stream.at(0))) {
        return;
    }
    stream.ear(0).Forget();
    scene.SomebodySets(0);
    Settle();
    if (stream.ear(0).Has(stream.at(0))) {
        Unmet("equal values are reported", EQUAL_OTHERS);
    } else {
        Broken(stream.at(0) + " was the value before, but the reports were " + heard);
    }
}

struct Node {
    std::mutex mutex;
    std::string name;  // guarded by mutex, like the others
    std::string text;
    int number = 0;
    int count = 0;

    void Read(keynode_t* node) {
        const char* const read = vconf_keynode_get_name(node);
        const char* const str = vconf_keynode_get_str(node);
        const std::lock_guard guard(mutex);
        name = read != nullptr ? read : "(null)";
        text = str != nullptr ? str : "(null)";
        number = vconf_keynode_get_int(node);
        ++count;
    }
};

Node& TheNode() {
    static Node& node = *std::make_unique<Node>().release();
    return node;
}

void ReadNode(keynode_t* node, void*) {
    TheNode().Read(node);
}

TEST(SettingsReports, ANodeGivesNameTextAndInteger) {
    Rule(
        "A node gives its key, the new value as text, and as an integer: -1 for text that is no 32-bit "
        "integer.");
    Node& node = TheNode();
    for (const char* const key : {"memory/kit/node", "db/kit/node"}) {
        if (vconf_notify_key_changed(key, ReadNode, nullptr) != 0) {
            Unmet("a key cannot be watched", REPORTED);
            return;
        }
        for (const auto& [text, number] : {std::pair("17", 17),
                                           {"-12", -12},
                                           {"loud", -1},
                                           {"2147483647", INT32_MAX},
                                           {"2147483648", -1},
                                           {"", -1},
                                           {"a\nb", -1},
                                           {"5x", -1}}) {
            for (const bool isOurs : {true, false}) {
                vconf_set_str(key, "before");
                Settle();
                int before = 0;
                {
                    const std::lock_guard guard(node.mutex);
                    before = node.count;
                }
                if (!(isOurs ? vconf_set_str(key, text) == 0 : SomebodySets(Setting(key), text))) {
                    continue;
                }
                const bool hasCome = kit::Await([&] {
                    const std::lock_guard guard(node.mutex);
                    return node.count > before;
                });
                const std::lock_guard guard(node.mutex);
                if (!hasCome) {
                    Unmet("no report came", isOurs ? OURS_REPORTED : REPORTED);
                    continue;
                }
                Step(std::string(key) + " became " + Quoted(text) + "; the node gives the name " +
                     Quoted(node.name) + ", the text " + Quoted(node.text) + ", the integer " +
                     std::to_string(node.number));
                Check(node.name == key, "the node's name should be " + std::string(key));
                Check(node.text == text, "the node's text should be " + Quoted(text));
                Check(node.number == number, "the node's integer should be " + std::to_string(number));
            }
        }
        vconf_ignore_key_changed(key, ReadNode);
    }
}

TEST(SettingsReports, ANullNodeIsHarmless) {
    Rule("For a null node the name and the text are null, and the integer is -1.");
    Check(vconf_keynode_get_name(nullptr) == nullptr, "vconf_keynode_get_name(null) should give null");
    Check(vconf_keynode_get_str(nullptr) == nullptr, "vconf_keynode_get_str(null) should give null");
    Check(vconf_keynode_get_int(nullptr) == -1, "vconf_keynode_get_int(null) should give -1");
}

struct Kept {
    std::atomic<bool> hasRun = false;
    std::atomic<bool> isSame = true;
};

Kept& TheKept() {
    static Kept& kept = *std::make_unique<Kept>().release();
    return kept;
}

void KeepNode(keynode_t* node, void* /*data*/) {
    Kept& kept = TheKept();
    if (kept.hasRun.exchange(true)) {
        return;
    }
    const char* const name = vconf_keynode_get_name(node);
    const char* const text = vconf_keynode_get_str(node);
    const std::string before = std::string(name != nullptr ? name : "") + '=' + (text != nullptr ? text : "");
    const int number = vconf_keynode_get_int(node);
    const Limit limit("a call inside a callback",
                      "Callbacks.MaySetTheirOwnValueAndTheNewestIsTheLastOneHeard");
    vconf_set_str("memory/kit/kept", "a value that is longer than the one before it was");
    vconf_ignore_key_changed("memory/kit/kept", KeepNode);
    vconf_set_str("memory/kit/kept", "another one that comes when the registration has gone");
    const std::string after = std::string(name != nullptr ? name : "") + '=' + (text != nullptr ? text : "");
    kept.isSame = before == after && vconf_keynode_get_int(node) == number;
}

TEST(SettingsReports, ANodeIsValidUntilItsCallbackReturns) {
    Rule(
        "A node keeps its name and its value until its callback returns, also if the callback sets the key "
        "and removes itself.");
    Kept& kept = TheKept();
    vconf_set_str("memory/kit/kept", "0");
    vconf_notify_key_changed("memory/kit/kept", KeepNode, nullptr);
    vconf_set_str("memory/kit/kept", "1");
    Settle();
    if (!kept.hasRun) {
        Unmet("no report came", OURS_REPORTED);
    }
    Check(kept.isSame, "the name or the value of a node changed while its callback ran");
}

}  // namespace
