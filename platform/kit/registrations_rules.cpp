// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Registrations: adding, replacing and removing callbacks, also while reports are under way. */
#include <resource_center.h>
#include <vconf.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <set>

#include "kit.h"

using namespace kit;

namespace {

constexpr const char* REMOVE_INSIDE = "Registrations.ACallbackMayRemoveItself";
constexpr const char* ADD_INSIDE = "Registrations.ACallbackMayRegisterOthers";

/** Whether a removal outside of callbacks works for this kind; if not, what builds on it is not judged. */
bool DoesRemovalWork(Scene& scene, Stream& stream) {
    constexpr int SLOT = 7;
    if (!scene.Register(SLOT) || !scene.Remove(SLOT)) {
        return false;
    }
    stream.ear(SLOT).Forget();
    scene.SomebodySets(5);
    Settle();
    scene.SomebodySets(0);
    Settle();
    if (!stream.ear(SLOT).Texts().empty()) {
        Unmet("a removed callback of " + stream.name + " is called", REMOVAL);
        return false;
    }
    return true;
}

bool HasOneSlot(const Stream* stream) {
    return !stream->hasManyCallbacks;
}

TEST(Registrations, ARemovedCallbackIsNeverCalledAgain) {
    Rule(
        "After a removal has returned 0, the callback is never called again, by no change of ours or of "
        "somebody else.");
    for (Stream* const stream : AllStreams()) {
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register() || !scene.Change(1)) {
            continue;
        }
        Settle();
        if (!Check(stream->remove(0) == 0, stream->name + ": removing its callback should return 0")) {
            continue;
        }
        stream->ear(0).Forget();
        scene.SomebodySets(2);
        if (stream->set) {
            scene.WeSet(3);
        }
        scene.SomebodySets(4);
        Settle();
        Linger();
        Check(stream->ear(0).Texts().empty(),
              stream->name + ": the removed callback was called with " + Texts(*stream));
    }
}

TEST(Registrations, ARemovalAlsoEndsAReportThatIsPending) {
    Rule(
        "After a removal has returned, the callback is not called for a change that came before the removal "
        "either.");
    for (Stream* const stream : AllStreams()) {
        Scene scene(*stream);
        if (!scene.IsReady() || !DoesRemovalWork(scene, *stream) || !scene.Register()) {
            continue;
        }
        bool isRemoved = false;
        const bool hasRun = WhileReporting([&] {
            if (scene.SomebodySets(1)) {
                AwaitRest();
                isRemoved = scene.Remove();
                stream->ear(0).Forget();
            }
        });
        if (!hasRun || !isRemoved) {
            continue;
        }
        Settle();
        AwaitRest();
        Check(stream->ear(0).Texts().empty(),
              stream->name + ": somebody else's change was pending when its callback was removed, and " +
                  "was reported to it after the removal had returned: " + Texts(*stream));
    }
}

TEST(Registrations, ARemovalWaitsForACallbackThatRunsOnAnotherThread) {
    Rule(
        "A removal waits for the callback if it runs on another thread, and returns when that has returned.");
    for (Stream* const stream : AllStreams()) {
        for (const Hold::By by : {Hold::By::SOMEBODY, Hold::By::US}) {
            Scene scene(*stream);
            if (!scene.IsReady() || !scene.Register() || (!stream->set && by == Hold::By::US)) {
                continue;
            }
            Hold hold(by, *stream, 0, stream->at(1));
            if (!hold.Holds()) {
                continue;
            }
            std::atomic<int> result = -1;
            const Worker remover([&] { result = stream->remove(0); });
            remover.AwaitDoneOrAsleep();
            Check(!remover.IsDone(),
                  stream->name + ": the removal returned while the callback still ran on another thread");
            hold.Release();
            if (!Check(remover.HasReturned(),
                       stream->name + ": the removal did not return when the callback had")) {
                EndNow();
            }
            if (result != 0) {
                Unmet(stream->name + ": the removal of a callback fails", REMOVAL);
            }
        }
    }
}

TEST(Registrations, ACallbackMayRemoveItself) {
    Rule(
        "A callback may remove its own registration: the removal returns 0, and the callback is not called "
        "again.");
    for (const bool isOurs : {true, false}) {
        for (Stream* const stream : isOurs ? OurStreams() : AllStreams()) {
            Scene scene(*stream);
            if (!scene.IsReady() || !DoesRemovalWork(scene, *stream) || !scene.Register()) {
                continue;
            }
            std::atomic<int> result = -1;
            std::atomic<bool> hasRun = false;
            stream->ear(0).Act([&] {
                if (!hasRun.exchange(true)) {
                    const Limit limit(stream->name + ": the removal of a callback, called inside it,");
                    result = stream->remove(0);
                }
            });
            if (isOurs ? !scene.Change(1) : !(scene.SomebodySets(1) && scene.Await(1))) {
                continue;
            }
            Settle();
            const auto heard = stream->ear(0).Texts();
            scene.SomebodySets(2);
            Settle();
            Check(result == 0,
                  stream->name + ": the removal inside the callback returned " + std::to_string(result));
            Check(stream->ear(0).Texts() == heard,
                  stream->name + ": a callback that had removed itself was called again: " + Texts(*stream));
        }
    }
}

/** Whether a setting can have the callbacks 1 and 2; if not, what builds on it is not judged. */
bool DoBothHear(const Scene& scene, Stream& stream) {
    if (!scene.SomebodySets(8) || !scene.Await(8, 1)) {
        return false;
    }
    if (stream.ear(0).Await(stream.HeardAt(8))) {
        Settle();
        return true;
    }
    Unmet("one of two callbacks of a key is not called", SEVERAL_CALLBACKS);
    return false;
}

/** Two registrations that get the same report: the one that is called first removes the other. */
void CheckRemovesAnother(Stream& one, int oneSlot, Stream& two, int twoSlot, Scene& scene, bool isOurs) {
    std::atomic<int> calls = 0;
    std::atomic<Ear*> removed = nullptr;
    const auto act = [&](Stream& other, int slot) {
        return [&, slot] {
            if (++calls == 1) {
                const Limit limit("the removal of a callback, called inside another one,", REMOVE_INSIDE);
                if (other.remove(slot) == 0) {
                    removed = &other.ear(slot);
                }
            }
        };
    };
    one.ear(oneSlot).Forget();
    two.ear(twoSlot).Forget();
    one.ear(oneSlot).Act(act(two, twoSlot));
    two.ear(twoSlot).Act(act(one, oneSlot));
    if (isOurs ? scene.WeSet(1) : scene.SomebodySets(1)) {
        const bool hasCome = kit::Await([&] { return calls > 0; });
        Settle();
        if (!hasCome) {
            Unmet("no report came", OURS_REPORTED);
        } else if (Check(removed != nullptr, "a callback could not remove another one")) {
            const auto heard = removed.load()->Texts();
            Check(heard.empty(),
                  "the callback that was called first removed the other one, which was called nevertheless, "
                  "with " +
                      List(heard));
        }
    }
    one.ear(oneSlot).Act(nullptr);
    two.ear(twoSlot).Act(nullptr);
}

TEST(Registrations, ACallbackMayRemoveAnotherOneThatIsAboutToBeCalled) {
    Rule(
        "A callback may remove another registration, which is then not called for the report under way "
        "either.");
    for (const bool isOurs : {true, false}) {
        {
            Scene scene(SettingStream());
            if (scene.IsReady() && DoesRemovalWork(scene, SettingStream()) && scene.Register(0) &&
                scene.Register(1) && DoBothHear(scene, SettingStream())) {
                CheckRemovesAnother(SettingStream(), 0, SettingStream(), 1, scene, isOurs);
            }
        }
        {
            Scene scene(HalMute());
            Scene other(ManagerMute());
            if (scene.IsReady() && DoesRemovalWork(scene, HalMute()) &&
                DoesRemovalWork(other, ManagerMute()) && scene.Register() && other.Register()) {
                CheckRemovesAnother(HalMute(), 0, ManagerMute(), 0, scene, isOurs);
            }
        }
        if (!isOurs && SomebodySetsZones({1, 2, 3, 4, 5, 6, 7, 8, 9})) {
            Scene scene(Focus());
            if (scene.IsReady() && DoesRemovalWork(scene, Focus()) && scene.Register(0) &&
                scene.Register(1)) {
                CheckRemovesAnother(Focus(), 0, Focus(), 1, scene, false);
            }
        }
    }
}

TEST(Registrations, ACallbackMayRegisterOthers) {
    Rule("A callback may register callbacks, of its own kind and of others; they hear the next change.");
    for (const bool isOurs : {true, false}) {
        for (Stream* const stream : isOurs ? OurStreams() : AllStreams()) {
            Scene scene(*stream);
            Stream other = KeyStream("memory/kit/added", 3);
            if (!scene.IsReady() || !scene.Register()) {
                continue;
            }
            other.set("0");
            Settle();
            std::atomic<int> result = -1;
            std::atomic<bool> hasRun = false;
            stream->ear(0).Act([&] {
                if (!hasRun.exchange(true)) {
                    const Limit limit(stream->name + ": a registration inside its callback");
                    result = other.add(0, nullptr);
                }
            });
            if (isOurs ? !scene.Change(1) : !(scene.SomebodySets(1) && scene.Await(1))) {
                continue;
            }
            Settle();
            Check(result == 0,
                  stream->name + ": a registration inside its callback returned " + std::to_string(result));
            other.ear(0).Forget();
            if (SomebodySets(other.value, "1")) {
                Check(other.ear(0).Await("1"),
                      stream->name + ": a callback that was registered inside its callback heard nothing");
            }
            other.remove(0);
        }
    }
}

/** Callback 2 was registered while a report was under way: it should not have heard that report. */
void CheckHeardNothing(const Scene& scene, Stream& stream) {
    const auto heard = stream.ear(1).Texts();
    if (heard.empty()) {
        return;
    }
    stream.remove(1);
    stream.ear(1).Forget();
    stream.add(1, nullptr);
    Settle();
    const bool isCalledAtOnce = !stream.ear(1).Texts().empty();
    stream.ear(1).Forget();
    if (stream.set) {
        scene.WeSet(0);
        Settle();
    }
    if (isCalledAtOnce) {
        Unmet(stream.name + ": a new callback gets the present value",
              "Registrations.TheValueAtRegistrationIsNotReported");
    } else if (stream.ear(1).Count(stream.HeardAt(0)) > 1) {
        Unmet(stream.name + ": one change is reported several times", "Reports.OurChangeIsReportedOnce");
    } else {
        Broken(stream.name + ": a callback that was registered while a report was under way heard " +
               List(heard));
    }
}

TEST(Registrations, ANewOneDoesNotHearTheReportUnderWay) {
    Rule(
        "A callback that is registered while a report is under way does not hear that report, but the next "
        "one.");
    for (const bool isOurs : {true, false}) {
        for (Stream* const stream : isOurs ? OurStreams() : AllStreams()) {
            Scene scene(*stream);
            if (!scene.IsReady() || !scene.Register()) {
                continue;
            }
            stream->ear(1).Forget();
            std::atomic<bool> hasRun = false;
            stream->ear(0).Act([&] {
                if (!hasRun.exchange(true)) {
                    const Limit limit("a registration inside a callback", ADD_INSIDE);
                    stream->add(1, nullptr);
                }
            });
            if (isOurs ? !scene.Change(1) : !(scene.SomebodySets(1) && scene.Await(1))) {
                continue;
            }
            Settle();
            CheckHeardNothing(scene, *stream);
            if (stream->hasManyCallbacks && (isOurs ? scene.WeSet(2) : scene.SomebodySets(2))) {
                Check(stream->ear(1).Await(stream->HeardAt(2)),
                      stream->name + ": the new callback did not hear the next change");
            }
            stream->remove(1);
        }
    }
    // The callback of one mute registers that of the other.
    Scene scene(HalMute());
    if (!scene.IsReady() || !scene.Register()) {
        return;
    }
    ManagerMute().ear(1).Forget();
    std::atomic<bool> hasRun = false;
    HalMute().ear(0).Act([&] {
        if (!hasRun.exchange(true)) {
            const Limit limit("a registration inside a callback", ADD_INSIDE);
            ManagerMute().add(1, nullptr);
        }
    });
    if (scene.Change(1)) {
        Settle();
        CheckHeardNothing(scene, ManagerMute());
    }
}

TEST(Registrations, RemovingWhatIsNotRegisteredFails) {
    Rule("The removal of a callback that is not registered fails, also after it has been removed once.");
    for (Stream* const stream : AllStreams()) {
        if (stream == &Focus()) {
            continue;
        }
        Step("--- " + stream->name);
        Check(stream->remove(0) != 0, stream->name + ": nothing is registered, but the removal succeeded");
        if (stream->add(0, nullptr) == 0 && stream->remove(0) == 0) {
            Check(stream->remove(0) != 0,
                  stream->name + ": the callback was removed already, but a second removal succeeded");
        }
    }
}

TEST(Registrations, AnUnknownFocusIdFails) {
    Rule(
        "rc_unregister_audio_focus_changed_callback() fails for an id that is not registered, and removes "
        "nothing.");
    const auto check = [](int id) {
        const int result = rc_unregister_audio_focus_changed_callback(id);
        Step("rc_unregister_audio_focus_changed_callback(" + std::to_string(id) + ") returns " +
             std::to_string(result));
        Check(result != 0, "it should fail: no such id is registered");
    };
    for (const int id : {0, -1, 1, 2, 12345}) {
        check(id);
    }
    const auto ignore = [](int, void*) {};
    const int id = rc_register_audio_focus_changed_callback(ignore, nullptr);
    Step("rc_register_audio_focus_changed_callback() returns " + std::to_string(id));
    for (const int other : {id + 1, id + 1000, -id, 0}) {
        check(other);
    }
    if (rc_unregister_audio_focus_changed_callback(id) == 0) {
        check(id);
    }
}

TEST(Registrations, ARemovedCallbackMayBeRegisteredAgain) {
    Rule(
        "A callback that was removed may be registered again, many times, and hears the changes from then "
        "on.");
    for (Stream* const stream : AllStreams()) {
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register() || !scene.SomebodySets(1) || !scene.Await(1)) {
            continue;
        }
        Settle();
        if (!scene.Remove()) {
            continue;
        }
        scene.SomebodySets(2);
        Settle();
        int failures = 0;
        Step("the callback is registered and removed 100 times");
        SetQuiet(true);
        for (int i = 0; i < 100; ++i) {
            failures +=
                static_cast<int>(stream->add(0, nullptr) != 0) + static_cast<int>(stream->remove(0) != 0);
        }
        SetQuiet(false);
        Check(failures == 0,
              stream->name + ": of 100 registrations and removals " + std::to_string(failures) + " failed");
        if (!Check(stream->add(0, nullptr) == 0,
                   stream->name + ": the callback could not be registered again")) {
            continue;
        }
        Settle();
        stream->ear(0).Forget();
        if (scene.SomebodySets(1)) {
            Check(stream->ear(0).Await(stream->HeardAt(1)),
                  stream->name + ": the callback was registered again, and heard " + Texts(*stream));
        }
        stream->remove(0);
    }
}

TEST(Registrations, TheValueAtRegistrationIsNotReported) {
    Rule(
        "A new callback hears changes from then on: neither the value at that moment nor one from before is "
        "reported to it.");
    for (Stream* const stream : AllStreams()) {
        Scene scene(*stream);
        if (!scene.IsReady()) {
            continue;
        }
        stream->ear(0).Forget();
        if (stream->add(0, nullptr) == 0) {
            Settle();
            Check(stream->ear(0).Texts().empty(),
                  stream->name + ": nothing changed, but the new callback was called with " + Texts(*stream));
            stream->remove(0);
        }
        Settle();
        stream->ear(0).Forget();
        if (!scene.SomebodySets(1)) {
            continue;
        }
        stream->ear(1).Forget();
        if (stream->add(1, nullptr) == 0) {
            Settle();
            const auto heard = stream->ear(1).Texts();
            stream->ear(1).Forget();
            scene.SomebodySets(1);
            Settle();
            if (!heard.empty() && !stream->ear(0).Texts().empty()) {
                Unmet(stream->name + ": a removed callback is called", REMOVAL);
            } else if (!heard.empty() && stream->ear(1).Has(stream->HeardAt(1))) {
                Unmet(stream->name + ": equal values are reported", EQUAL_OTHERS);
            } else {
                Check(heard.empty(),
                      stream->name +
                          ": somebody else's change came before the registration, but was reported: " +
                          List(heard));
            }
            stream->remove(1);
        }
    }
}

TEST(Registrations, ASecondOneReplacesTheFirst) {
    Rule(
        "Where the process has one callback of a kind, registering another one replaces it and its user "
        "data, "
        "and one removal removes it.");
    static int first = 0;
    static int second = 0;
    for (Stream* const stream : AllStreams()) {
        if (!HasOneSlot(stream)) {
            continue;
        }
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register(0) || !scene.IsHeard()) {
            continue;
        }
        stream->ear(1).Forget();
        Check(stream->add(1, nullptr) == 0, stream->name + ": a second registration should return 0");
        if (!scene.SomebodySets(1)) {
            continue;
        }
        Check(
            stream->ear(1).Await(stream->HeardAt(1)),
            stream->name + ": the second callback was not called; the first one heard " + Texts(*stream, 0));
        Settle();
        Check(stream->ear(0).Texts().empty(),
              stream->name + ": the first callback was replaced, but was called with " + Texts(*stream, 0));
        stream->remove(1);
        scene.SomebodySets(2);
        Settle();
        Check(!stream->ear(0).Has(stream->HeardAt(2)),
              stream->name + ": when the second callback was removed, the first one was called again");
        if (!scene.Register(0, &first) || !scene.Register(0, &second)) {
            continue;
        }
        if (scene.SomebodySets(3) && scene.Await(3)) {
            for (const Heard& heard : stream->ear(0).All()) {
                Check(heard.data != &first,
                      stream->name + ": the callback still gets the user data of the first registration");
            }
        }
    }
}

TEST(Registrations, ACallbackGetsItsUserData) {
    Rule(
        "A callback gets the user data of its registration, from our changes and those of somebody else; "
        "null, too.");
    static int mine = 0;
    for (Stream* const stream : AllStreams()) {
        for (void* const data : {static_cast<void*>(&mine), static_cast<void*>(nullptr)}) {
            for (const bool isOurs : {true, false}) {
                Scene scene(*stream);
                if (!scene.IsReady() || (isOurs && !stream->set) || !scene.Register(0, data)) {
                    continue;
                }
                const auto hasOwnData = [&] {
                    const auto all = stream->ear(0).All();
                    return std::any_of(all.begin(), all.end(),
                                       [&](const Heard& heard) { return heard.data == data; });
                };
                // A removed registration that still hears may be called before this one.
                if (isOurs ? scene.Change(1) : scene.SomebodySets(1) && scene.Await(1)) {
                    Check(kit::Await(hasOwnData),
                          stream->name + ": the callback got other user data than its registration gave");
                }
            }
        }
    }
}

// --- Settings

TEST(SettingsRegistrations, ARepeatedPairReplacesItsUserData) {
    Rule(
        "Registering the same callback for the same key again replaces its user data: it is called once for "
        "each change, and removed once.");
    static int first = 0;
    static int second = 0;
    Stream& stream = SettingStream();
    for (const bool isOurs : {true, false}) {
        Scene scene(stream);
        if (!scene.IsReady() || !scene.Register(0, &first)) {
            return;
        }
        Check(stream.add(0, &second) == 0, "registering the same pair again should return 0");
        Settle();
        stream.ear(0).Forget();
        if (!(isOurs ? scene.WeSet(1) : scene.SomebodySets(1)) || !scene.Await(1)) {
            return;
        }
        Settle();
        const auto all = stream.ear(0).All();
        const std::set<const void*> data = [&] {
            std::set<const void*> found;
            for (const Heard& heard : all) {
                found.insert(heard.data);
            }
            return found;
        }();
        Check(!data.contains(&first), "the callback was called with the user data of its first registration");
        Check(!(data.contains(&first) && data.contains(&second)),
              "the callback was called for both registrations");
        stream.remove(0);
        Check(stream.remove(0) != 0, "the pair was removed, but a second removal succeeded");
        stream.ear(0).Forget();
        scene.SomebodySets(2);
        Settle();
        Check(stream.ear(0).Texts().empty(),
              "the pair was registered twice and removed, but was called with " + Texts(stream));
    }
}

/** One callback for two keys: the values tell the keys apart. */
TEST(SettingsRegistrations, AreToldApartByKeyAndCallback) {
    Rule(
        "A registration of a setting belongs to a pair of key and callback: removing a pair leaves every "
        "other "
        "pair as it is, and the "
        "removal of a pair that is not registered fails, though its key or its callback is.");
    for (const bool isOurs : {true, false}) {
        Stream one = KeyStream("memory/kit/one", 0);
        Stream two = KeyStream("memory/kit/two", 0);
        const auto change = [&](int i) {
            const std::string text = std::to_string(i);
            for (const int slot : {0, 1, 2}) {
                one.ear(slot).Forget();
            }
            isOurs ? one.set("one " + text) == 0 : SomebodySets(one.value, "one " + text);
            isOurs ? two.set("two " + text) == 0 : SomebodySets(two.value, "two " + text);
            Settle();
        };
        const auto check = [&](int slot, const std::string& text, bool isHeard, const char* when) {
            Check((isHeard ? one.ear(slot).Await(text) : one.ear(slot).Has(text)) == isHeard,
                  "callback " + std::to_string(slot + 1) + " should " + (isHeard ? "" : "not ") + "hear " +
                      Quoted(text) + " " + when + "; it heard " + Texts(one, slot));
        };
        one.set("one 0");
        two.set("two 0");
        Settle();
        one.add(0, nullptr);
        one.add(1, nullptr);
        two.add(0, nullptr);
        Check(two.remove(1) != 0,
              "callback 2 is not registered for memory/kit/two, but its removal succeeded");
        Check(one.remove(2) != 0,
              "callback 3 is not registered for memory/kit/one, but its removal succeeded");
        change(1);
        if (!one.ear(1).Await("one 1") || !one.ear(0).Await("one 1") || !one.ear(0).Await("two 1")) {
            Unmet("not every callback of a key is called", SEVERAL_CALLBACKS);
            return;
        }
        one.remove(0);
        change(2);
        const char* const when = "when callback 1 had been removed from memory/kit/one";
        check(1, "one 2", true, when);
        check(0, "two 2", true, when);
        one.remove(1);
        two.remove(0);
    }
}

TEST(SettingsRegistrations, AKeyMayHaveSeveralCallbacks) {
    Rule("A key may have several callbacks: each of them is called once for each change.");
    Stream& stream = SettingStream();
    for (const bool isOurs : {true, false}) {
        Scene scene(stream);
        if (!scene.IsReady() || !scene.Register(0) || !scene.IsHeard() || !scene.Register(1) ||
            !scene.Register(2) || !(isOurs ? scene.WeSet(1) : scene.SomebodySets(1))) {
            return;
        }
        for (const int slot : {0, 1, 2}) {
            Check(stream.ear(slot).Await(stream.at(1)),
                  "callback " + std::to_string(slot + 1) + " of three was not called");
        }
        Settle();
    }
}

TEST(SettingsRegistrations, ManyKeysMayBeWatched) {
    Rule("As many keys may be watched as a service needs: 64 keys with one callback each.");
    std::vector<std::string> keys;
    for (int i = 0; i < 64; ++i) {
        keys.push_back("memory/kit/many/" + std::to_string(i));
    }
    std::vector<Stream> streams;
    for (const std::string& key : keys) {
        streams.push_back(KeyStream(key.c_str(), 4));
        streams.back().set("0");
        Check(streams.back().add(0, nullptr) == 0, "watching " + key + " should return 0");
    }
    Settle();
    int i = 0;
    for (Stream& stream : streams) {
        const std::string text = "value " + std::to_string(++i);
        if (SomebodySets(stream.value, text)) {
            Check(stream.ear(0).Await(text), stream.name + ": no report of " + Quoted(text) + " came");
        }
    }
    for (Stream& stream : streams) {
        stream.remove(0);
    }
}

// --- The audio focus

using Calls = std::array<std::atomic<int>, 3>;

/** Counts a call by its user data, which another rule judges. */
void Count(Calls& calls, const void* data) {
    for (auto& call : calls) {
        if (&call == data) {
            ++call;
            return;
        }
    }
    Unmet("a callback got other user data than its own", "Registrations.ACallbackGetsItsUserData");
}

TEST(FocusRegistrations, EachCallMakesItsOwn) {
    Rule(
        "rc_register_audio_focus_changed_callback() may be called several times, with the same callback too: "
        "each call returns an id of "
        "its own above 0, and each registration is called.");
    static Calls calls;
    if (!SomebodySetsZones({1, 2, 3}) || !SomebodySets(FOCUS, "1")) {
        return;
    }
    Settle();
    const auto count = [](int, void* data) { Count(calls, data); };
    std::vector<int> ids;
    for (auto& call : calls) {
        ids.push_back(rc_register_audio_focus_changed_callback(count, &call));
        Step("rc_register_audio_focus_changed_callback() returns " + std::to_string(ids.back()));
        Check(ids.back() > 0, "the id should be above 0");
    }
    Check(std::set<int>(ids.begin(), ids.end()).size() == ids.size(),
          "each registration should have an id of its own");
    Settle();
    for (auto& call : calls) {
        call = 0;
    }
    SomebodySets(FOCUS, "2");
    kit::Await([&] { return calls[0] > 0 && calls[1] > 0 && calls[2] > 0; });
    Settle();
    for (std::size_t i = 0; i < calls.size() && Outcome() != UNMET; ++i) {
        Check(calls[i] > 0, "registration " + std::to_string(i + 1) + " of three was not called");
    }
    for (const int id : ids) {
        rc_unregister_audio_focus_changed_callback(id);
    }
}

TEST(FocusRegistrations, ARemovalLeavesTheOthers) {
    Rule(
        "The removal of one registration of the audio focus leaves the other ones, also those of the same "
        "callback.");
    static Calls calls;
    if (!SomebodySetsZones({1, 2, 3}) || !SomebodySets(FOCUS, "1")) {
        return;
    }
    const auto count = [](int, void* data) { Count(calls, data); };
    std::vector<int> ids;
    for (auto& call : calls) {
        ids.push_back(rc_register_audio_focus_changed_callback(count, &call));
    }
    Settle();
    const auto change = [&](const char* zone) {
        for (auto& call : calls) {
            call = 0;
        }
        SomebodySets(FOCUS, zone);
        kit::Await([&] { return calls[0] > 0 && calls[2] > 0; });
        Settle();
    };
    change("2");
    if (calls[0] == 0 || calls[1] == 0 || calls[2] == 0) {
        Unmet("not every registration is called", "FocusRegistrations.EachCallMakesItsOwn");
        return;
    }
    Step("the second of three registrations is removed");
    rc_unregister_audio_focus_changed_callback(ids[1]);
    change("3");
    Check(calls[0] > 0 && calls[2] > 0, "the first or the third registration was not called any more");
    for (const int id : ids) {
        rc_unregister_audio_focus_changed_callback(id);
    }
}

TEST(Registrations, ARemovalLeavesOtherKinds) {
    Rule("The removal of a callback of one kind leaves those of every other kind.");
    const std::vector<Stream*> streams = AllStreams();
    for (Stream* const removed : streams) {
        std::vector<std::unique_ptr<Scene>> scenes;
        for (Stream* const stream : streams) {
            scenes.push_back(std::make_unique<Scene>(*stream));
            if (!scenes.back()->IsReady() || !scenes.back()->Register() || !scenes.back()->IsHeard()) {
                return;
            }
        }
        const auto at =
            static_cast<std::size_t>(std::find(streams.begin(), streams.end(), removed) - streams.begin());
        if (!scenes[at]->Remove()) {
            continue;
        }
        Settle();
        for (std::size_t i = 0; i < streams.size(); ++i) {
            const bool isAnotherMute = streams[i] == &ManagerMute() && removed != &HalMute();
            if (i == at || isAnotherMute) {  // the rule of the master mute judges two callbacks of it
                continue;
            }
            streams[i]->ear(0).Forget();
            scenes[i]->SomebodySets(0);
            Settle();
            if (scenes[i]->SomebodySets(1)) {
                Check(streams[i]->ear(0).Await(streams[i]->HeardAt(1)),
                      "the callback of " + removed->name + " was removed, and then that of " +
                          streams[i]->name + " was not called");
            }
        }
    }
}

}  // namespace
