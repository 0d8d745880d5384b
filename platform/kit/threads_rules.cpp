// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Threads: which calls wait for no callback, and that all may be made at once. */
#include <audio_control.h>
#include <audio_hal.h>
#include <dlog.h>
#include <lwipc.h>
#include <resource_center.h>
#include <sound_manager.h>
#include <system_info.h>
#include <vconf.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <set>

#include "kit.h"

using namespace kit;

namespace {

struct Call {
    const char* name;
    Action make;
};

/** Makes each call on a thread of its own, while a callback runs and does not return. */
void CheckNeverWaits(const std::vector<Call>& calls) {
    for (const Hold::By by : {Hold::By::SOMEBODY, Hold::By::US}) {
        const Hold hold(by);
        if (!hold.Holds()) {
            continue;
        }
        for (const Call& call : calls) {
            Step(std::string(call.name) + " is called on another thread, while the callback runs");
            const Worker worker(call.make);
            if (!worker.HasReturned()) {
                Broken(std::string(call.name) + " did not return while a callback ran on another thread");
                EndNow();
            }
        }
    }
}

TEST(Threads, GainsNeverWaitForACallback) {
    Rule("The four functions of AudioControl wait for no callback.");
    AudioControl* const control = AudioControl_getInstance();
    if (control == nullptr) {
        Cannot("this platform has no table of gains: AudioControl_getInstance() gives null");
        return;
    }
    static int gain = 0;
    CheckNeverWaits({{"AudioControl_getInstance()", [] { AudioControl_getInstance(); }},
                     {"get_main_out_gain2()", [=] { control->get_main_out_gain2(&gain); }},
                     {"set_main_out_gain2()", [=] { control->set_main_out_gain2(50); }},
                     {"get_sub_out_gain2()", [=] { control->get_sub_out_gain2(&gain); }},
                     {"set_sub_out_gain2()", [=] { control->set_sub_out_gain2(50); }}});
}

TEST(Threads, TheLogNeverWaitsForACallback) {
    Rule("__dlog_print() waits for no callback.");
    CheckNeverWaits(
        {{"__dlog_print() of a debug line", [] { __dlog_print(DLOG_DEBUG, "Kit", "a debug line\n"); }},
         {"__dlog_print() of an error", [] { __dlog_print(DLOG_ERROR, "Kit", "an error\n"); }}});
}

TEST(Threads, ReadsNeverWaitForACallback) {
    Rule("A plain read of a value waits for no callback.");
    vconf_set_int("memory/kit/value", 1);
    static int value = 0;
    static bool flag = false;
    std::vector<Call> calls = {
        {"audio_get_master_volume()", [] { audio_get_master_volume(&value); }},
        {"audio_get_master_mute()", [] { audio_get_master_mute(&flag); }},
        {"sound_manager_get_speaker_selection()", [] { sound_manager_get_speaker_selection(&value); }},
        {"sound_manager_get_multiview_speaker_selection_with_zone_id()",
         [] { sound_manager_get_multiview_speaker_selection_with_zone_id(&value, 2); }},
        {"vconf_get_int()", [] { vconf_get_int("memory/kit/value", &value); }},
        {"vconf_get_str()", [] { std::free(vconf_get_str("memory/kit/value")); }},
        {"system_info_get_custom_bool()", [] { system_info_get_custom_bool("kit/none", &flag); }},
        {"rc_get_audio_focus()", [] { rc_get_audio_focus(&value); }},
        {"the functions of a list of zones",
         [] {
             rc_zone_list_h list = nullptr;
             rc_zone_h zone = nullptr;
             if (rc_get_zone_list(&list) == 0) {
                 rc_get_next_zone(list, &zone);
                 rc_free_zone_list(list);
             }
         }},
        {"LwipcIsDone()", [] { LwipcIsDone("kit/none"); }},
    };
    AllStreams();  // arranges zones, if the adapter can
    CheckNeverWaits(calls);
}

/** The rule of a call that fails without any other call beside it. */
const char* RuleOf(std::string_view call) {
    struct Own {
        std::string_view part;
        const char* rule;
    };
    constexpr std::array OWN = {
        Own{"Lwipc", "BootEvents.ARepeatedCallChangesNothing"},
        Own{"_gain2", "AudioControlTable.AnyGainIsStoredAndReadBack"},
        Own{"_str", "Settings.ATextComesBackAsItWas"},
        Own{"rc_register", "FocusRegistrations.EachCallMakesItsOwn"},
        Own{"rc_unregister", "FocusRegistrations.EachCallMakesItsOwn"},
        Own{"rc_", "ResourceCenter.ZonesAreListedInAscendingOrder"},
        Own{"_register", "Registrations.ARemovedCallbackMayBeRegisteredAgain"},
        Own{"_notify", "Registrations.ARemovedCallbackMayBeRegisteredAgain"},
        Own{"_unregister", REMOVAL},
        Own{"_ignore", REMOVAL},
    };
    const auto* const found = std::find_if(OWN.begin(), OWN.end(), [call](const Own& own) {
        return call.find(own.part) != std::string_view::npos;
    });
    return found != OWN.end() ? found->rule : SET;
}

constexpr int ROUNDS = 150;

/** The calls that failed, or gave a value that nobody had set. */
class Failures {
public:
    void Check(const char* call, bool isRight) {
        if (!isRight) {
            const std::lock_guard guard(m_mutex);
            m_calls.insert(call);
        }
    }
    std::vector<std::string> Calls() {
        const std::lock_guard guard(m_mutex);
        return {m_calls.begin(), m_calls.end()};
    }

private:
    std::mutex m_mutex;
    std::set<std::string> m_calls;  // guarded by m_mutex
};

/** Makes some calls. @param i the number of the round, from 0 */
using Round = void (*)(Failures& failures, int i);

void SetAndGetVolume(Failures& failures, int i) {
    int value = -1;
    failures.Check("audio_set_master_volume", audio_set_master_volume(i % 101, 0) == 0);
    failures.Check("audio_get_master_volume",
                   audio_get_master_volume(&value) == 0 && value >= 0 && value <= 100);
}

void SetSettings(Failures& failures, int i) {
    const std::string text(1000U + i % 7 * 500U, static_cast<char>('a' + i % 26));
    failures.Check("vconf_set_str", vconf_set_str("memory/kit/long", text.c_str()) == 0);
    failures.Check("vconf_set_int", vconf_set_int("memory/kit/value", i) == 0);
}

/** Each text of the setting is one letter, many times. */
void GetSetting(Failures& failures, int /*i*/) {
    const std::unique_ptr<char, decltype(&std::free)> text(vconf_get_str("memory/kit/long"), &std::free);
    const std::string_view read = text ? text.get() : "";
    failures.Check("vconf_get_str",
                   read.size() >= 1000 && read.find_first_not_of(read.front()) == std::string_view::npos);
}

void RegisterAndRemove(Failures& failures, int /*i*/) {
    failures.Check("vconf_notify_key_changed", SettingStream().add(5, nullptr) == 0);
    failures.Check("vconf_ignore_key_changed", SettingStream().remove(5) == 0);
    failures.Check("audio_register_master_volume_changed_cb", Volume().add(5, nullptr) == 0);
    failures.Check("audio_unregister_master_volume_changed_cb", Volume().remove(5) == 0);
    const int id = rc_register_audio_focus_changed_callback([](int, void*) {}, nullptr);
    failures.Check("rc_register_audio_focus_changed_callback", id > 0);
    failures.Check("rc_unregister_audio_focus_changed_callback",
                   rc_unregister_audio_focus_changed_callback(id) == 0);
}

void SetAndGetRoute(Failures& failures, int i) {
    int value = 0;
    failures.Check("sound_manager_set_speaker_selection", sound_manager_set_speaker_selection(i) == 0);
    failures.Check("sound_manager_get_speaker_selection", sound_manager_get_speaker_selection(&value) == 0);
}

void SetAndGetGain(Failures& failures, int i) {
    if (AudioControl* const control = AudioControl_getInstance()) {
        int gain = -1;
        failures.Check("set_main_out_gain2", control->set_main_out_gain2(i) == 0);
        failures.Check("get_main_out_gain2",
                       control->get_main_out_gain2(&gain) == 0 && gain >= 0 && gain < ROUNDS);
    }
}

void MarkEvents(Failures& failures, int i) {
    const std::string event = "kit/event" + std::to_string(i % 3);
    failures.Check("LwipcEventDone", LwipcEventDone(event.c_str()) == 0);
    failures.Check("LwipcIsDone", LwipcIsDone(event.c_str()) == 1);
}

void ListZones(Failures& failures, int /*i*/) {
    rc_zone_list_h list = nullptr;
    failures.Check("rc_get_zone_list", rc_get_zone_list(&list) == 0);
    rc_zone_h zone = nullptr;
    while (list != nullptr && rc_get_next_zone(list, &zone) == 0) {
        int id = 0;
        failures.Check("rc_get_zone_id", rc_get_zone_id(zone, &id) == 0 && id >= 1 && id <= 9);
    }
    if (list != nullptr) {
        failures.Check("rc_free_zone_list", rc_free_zone_list(list) == 0);
    }
}

void SetBesideSomebodyElse(Failures& failures, int i) {
    SomebodySetsQuietly(MASTER_VOLUME, std::to_string(i % 101));
    SomebodySetsQuietly(Setting("memory/kit/value"), std::to_string(i));
    bool mute = false;
    failures.Check("audio_set_master_mute", audio_set_master_mute(i % 2 == 0) == 0);
    failures.Check("audio_get_master_mute", audio_get_master_mute(&mute) == 0);
}

/** Each is one thread's part. */
constexpr std::array<Round, 9> ALL_ROUNDS = {SetAndGetVolume,   SetSettings,    GetSetting,
                                             RegisterAndRemove, SetAndGetRoute, SetAndGetGain,
                                             MarkEvents,        ListZones,      SetBesideSomebodyElse};

/** Makes all calls on one thread. */
void MakeCallsAlone(Failures& failures) {
    const Worker alone([&] {
        for (const Round round : ALL_ROUNDS) {
            for (const int i : {0, 0, 1, ROUNDS - 1}) {
                round(failures, i);
            }
        }
    });
}

void MakeCallsAtOnce(Failures& failures) {
    std::vector<std::unique_ptr<Worker>> workers;
    for (const Round round : ALL_ROUNDS) {
        workers.push_back(std::make_unique<Worker>([&failures, round] {
            for (int i = 0; i < ROUNDS; ++i) {
                round(failures, i);
            }
        }));
    }
}

/** First each call without any other beside it, then on a thread of its own while the others make theirs. */
TEST(Threads, AllCallsMayBeMadeAtOnce) {
    Rule(
        "All calls may be made from any thread at the same time: each gives a value that somebody has set, "
        "and none fails or crashes.");
    AllStreams();
    Failures failures;
    const Scene volumeScene(Volume());
    const Scene settingScene(SettingStream());
    vconf_set_str("memory/kit/long", std::string(2000, 'a').c_str());
    audio_set_master_volume(50, 0);
    SetQuiet(true);
    MakeCallsAlone(failures);
    SetQuiet(false);
    if (const auto calls = failures.Calls(); !calls.empty()) {
        Unmet("one at a time these fail already: " + List(calls), RuleOf(calls.front()));
        return;
    }
    Step(std::to_string(ALL_ROUNDS.size()) + " threads make all calls at once");
    SetQuiet(true);
    MakeCallsAtOnce(failures);
    SetQuiet(false);
    Check(
        failures.Calls().empty(),
        "with all calls at once these failed or gave a value that nobody had set: " + List(failures.Calls()));
}

/** Repeats the scenes of the simpler rules. @return the name of the first broken one, or null */
const char* SimplerRuleThatIsBroken(Scene& scene, Stream& stream) {
    const auto isLastPresent = [&] {
        Settle();
        AwaitRest();
        return stream.ear(0).Last() == stream.prefix + stream.get();
    };
    scene.WeSet(70);
    if (!WhileReporting([&] { scene.SomebodySets(71); })) {
        return OURS_REPORTED;
    }
    if (!isLastPresent()) {
        return LAST;
    }
    WhileReporting([&] {
        scene.SomebodySets(72);
        AwaitRest();
        scene.WeSet(73);
    });
    if (!isLastPresent()) {
        return "Reports.AReportNeverGoesBackInTime";
    }
    std::unique_ptr<Worker> worker;
    WhileReporting([&] {
        worker = std::make_unique<Worker>([&] { scene.WeSet(74); });
        worker->AwaitDoneOrAsleep();
        scene.WeSet(75);
    });
    worker.reset();
    return isLastPresent() ? nullptr : "Reports.OurChangesOnTwoThreadsAreReportedInTheOrderOfTheirWrites";
}

/** After a storm the last report has to be the value in force. */
TEST(Threads, AfterAStormTheLastReportIsThePresentValue) {
    Rule(
        "When several threads and somebody else change a value at once, the last report is the value that is "
        "in force at the end.");
    for (Stream* const stream : {&Volume(), &SettingStream(), &Route()}) {
        Scene scene(*stream);
        if (!scene.IsReady() || !scene.Register()) {
            continue;
        }
        Step("three threads set values at once, and somebody else does");
        SetQuiet(true);
        {
            std::vector<std::unique_ptr<Worker>> workers;
            for (int worker = 0; worker < 3; ++worker) {
                workers.push_back(std::make_unique<Worker>([=] {
                    for (int i = 0; i < 60; ++i) {
                        if (worker == 0) {
                            SomebodySetsQuietly(stream->value, stream->at(1 + i));
                        } else {
                            stream->set(stream->at(1 + (i * 7 + worker) % 60));
                        }
                    }
                }));
            }
        }
        SetQuiet(false);
        Settle();
        const std::string present = stream->prefix + stream->get();
        if (kit::Await([&] { return stream->ear(0).Last() == present; })) {
            continue;
        }
        if (const char* const rule = SimplerRuleThatIsBroken(scene, *stream)) {
            Unmet(stream->name + ": the last report was not the present value", rule);
        } else {
            Broken(stream->name + " is " + present + " now, but the last report was " +
                   stream->ear(0).Last());
        }
    }
}

}  // namespace
