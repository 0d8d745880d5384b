// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Reading and setting values: no rule here needs a callback. */
#include <audio_control.h>
#include <audio_hal.h>
#include <lwipc.h>
#include <resource_center.h>
#include <sound_manager.h>
#include <system_info.h>
#include <vconf.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <set>

#include "kit.h"

using namespace kit;

namespace {

constexpr int NO_SUCH_ZONE = static_cast<int>(0xFE6A0004);
constexpr const char* KEY = "memory/kit/value";

std::string Number(int value) {
    return std::to_string(value);
}

/** The longest text that every platform keeps. A longer one may be refused. */
constexpr int LONG_TEXT = 4095;
constexpr int ONE_MIB = 1024 * 1024;

/** The text of a setting, or "(null)". */
std::string Text(const char* key) {
    const std::unique_ptr<char, decltype(&std::free)> text(vconf_get_str(key), &std::free);
    return text ? text.get() : "(null)";
}

/** A getter of an integer, with the value that it reads and a setter, if the seam has one. */
struct Integer {
    std::string getter;
    kit_value value;
    std::function<int(int*)> get;
    std::function<int(int)> set;
    std::vector<int> values;
};

const std::vector<int> ANY_INTEGER = {0, 1, 55, -1, 1000000, INT_MAX, INT_MIN};

std::vector<Integer> Integers() {
    return {
        {"audio_get_master_volume",
         MASTER_VOLUME,
         audio_get_master_volume,
         [](int value) { return audio_set_master_volume(value, 0); },
         {0, 1, 50, 99, 100}},
        {"sound_manager_get_speaker_selection", ROUTE, sound_manager_get_speaker_selection,
         sound_manager_set_speaker_selection, ANY_INTEGER},
        {"vconf_get_int", Setting(KEY), [](int* value) { return vconf_get_int(KEY, value); },
         [](int value) { return vconf_set_int(KEY, value); }, ANY_INTEGER},
    };
}

/** Those of the zones; empty, and not judged, if the adapter cannot make zones. */
std::vector<Integer> ZoneIntegers() {
    if (!SomebodySetsZones({2, 3})) {
        return {};
    }
    return {{"sound_manager_get_multiview_speaker_selection_with_zone_id", ZoneRoute(2),
             [](int* value) { return sound_manager_get_multiview_speaker_selection_with_zone_id(value, 2); },
             [](int value) { return sound_manager_set_multiview_speaker_selection_with_zone_id(value, 2); },
             ANY_INTEGER}};
}

std::vector<Integer> Gains() {
    AudioControl* const control = AudioControl_getInstance();
    if (control == nullptr) {
        Cannot("this platform has no table of gains: AudioControl_getInstance() gives null");
        return {};
    }
    return {{"get_main_out_gain2", MAIN_OUT_GAIN, control->get_main_out_gain2, control->set_main_out_gain2,
             ANY_INTEGER},
            {"get_sub_out_gain2", SUB_OUT_GAIN, control->get_sub_out_gain2, control->set_sub_out_gain2,
             ANY_INTEGER}};
}

std::vector<Integer> AllIntegers() {
    std::vector<Integer> all = Integers();
    for (const auto& more : {ZoneIntegers(), Gains()}) {
        all.insert(all.end(), more.begin(), more.end());
    }
    return all;
}

void CheckRead(const Integer& integer, int expected) {
    int value = UNTOUCHED;
    const int result = integer.get(&value);
    Step(integer.getter + "() returns " + Number(result) + " and gives " + Number(value));
    Check(result == 0 && value == expected,
          integer.getter + "() should return 0 and give " + Number(expected));
}

void CheckSetsAndReads(const std::vector<Integer>& integers) {
    for (const Integer& integer : integers) {
        for (const int value : integer.values) {
            const int result = integer.set(value);
            Step("the setter of " + integer.getter + " gets " + Number(value) + " and returns " +
                 Number(result));
            Check(result == 0, "the setter of " + integer.getter + " should return 0");
            CheckRead(integer, value);
        }
    }
}

void CheckSettingFails(const char* key, const std::string& what) {
    int value = UNTOUCHED;
    const int result = vconf_get_int(key, &value);
    Step("vconf_get_int(" + what + ") returns " + Number(result));
    Check(result != 0, "vconf_get_int() of " + what + " should fail");
}

// --- Values

TEST(Reading, AValueThatIsSetIsRead) {
    Rule(
        "A value that a setter of the seam has set is the value that its getter gives; the setter returns "
        "0.");
    CheckSetsAndReads(Integers());
    CheckSetsAndReads(ZoneIntegers());
    for (const bool isMuted : {true, false, true}) {
        const int result = audio_set_master_mute(isMuted);
        bool mute = !isMuted;
        const int read = audio_get_master_mute(&mute);
        Step("audio_set_master_mute(" + Number(isMuted) + ") returns " + Number(result) +
             ", audio_get_master_mute() returns " + Number(read) + " and gives " + Number(mute));
        Check(result == 0 && read == 0 && mute == isMuted, "the mute should be the one that was set");
    }
}

TEST(Reading, AnEqualValueIsSetWithSuccess) {
    Rule("Setting a value that is in force already succeeds.");
    for (const Integer& integer : AllIntegers()) {
        for (int i = 0; i < 2; ++i) {
            const int result = integer.set(integer.values.at(1));
            Step("the setter of " + integer.getter + " gets " + Number(integer.values.at(1)) +
                 " and returns " + Number(result));
            if (i == 0 && result != 0) {
                Unmet("the setter of " + integer.getter + " fails", SET);
                break;
            }
            Check(result == 0, "the setter of " + integer.getter + " should return 0");
        }
    }
    if (audio_set_master_mute(true) != 0) {
        Unmet("audio_set_master_mute() fails", SET);
        return;
    }
    Check(audio_set_master_mute(true) == 0, "audio_set_master_mute(1) of a muted TV should return 0");
}

TEST(Reading, GettersGiveWhatSomebodyElseSet) {
    Rule("Once somebody else has changed a value, its getter gives the new one.");
    for (const Integer& integer : AllIntegers()) {
        for (const int value : {integer.values.at(2), integer.values.at(1)}) {
            if (SomebodySets(integer.value, Number(value))) {
                CheckRead(integer, value);
            }
        }
    }
    for (const bool isMuted : {true, false}) {
        bool mute = !isMuted;
        if (SomebodySets(MASTER_MUTE, Number(isMuted))) {
            const int result = audio_get_master_mute(&mute);
            Check(result == 0 && mute == isMuted, "audio_get_master_mute() returns " + Number(result) +
                                                      " and gives " + Number(mute) + ", not " +
                                                      Number(isMuted));
        }
    }
}

TEST(Reading, AFailedReadLeavesItsArgumentAsItWas) {
    Rule("A read of an unreadable value fails, and leaves the argument as it was.");
    for (const Integer& integer : AllIntegers()) {
        integer.set(integer.values.at(1));
        if (!MakeUnreadable(integer.value)) {
            continue;
        }
        int value = UNTOUCHED;
        const int result = integer.get(&value);
        Step(integer.getter + "() returns " + Number(result));
        Check(result != 0, integer.getter + "() of an unreadable value should fail");
        Check(result == 0 || value == UNTOUCHED,
              integer.getter + "() failed, but set its argument to " + Number(value));
        MakeReadable(integer.value);
    }
    for (const bool before : {true, false}) {
        bool mute = before;
        if (SomebodySets(MASTER_MUTE, Number(!before)) && MakeUnreadable(MASTER_MUTE)) {
            const int result = audio_get_master_mute(&mute);
            Check(result != 0, "audio_get_master_mute() of an unreadable mute should fail");
            Check(result == 0 || mute == before, "audio_get_master_mute() failed, but changed its argument");
            MakeReadable(MASTER_MUTE);
        }
    }
}

TEST(Reading, AValueThatIsReadableAgainIsRead) {
    Rule("When an unreadable value is readable again, its getter succeeds again.");
    for (const Integer& integer : AllIntegers()) {
        integer.set(integer.values.at(1));
        int value = 0;
        if (MakeUnreadable(integer.value)) {
            integer.get(&value);
            if (MakeReadable(integer.value)) {
                CheckRead(integer, integer.values.at(1));
            }
        }
    }
}

TEST(Reading, ValuesAreIndependent) {
    Rule("Setting one value changes no other one.");
    const std::vector<Integer> all = AllIntegers();
    for (const Integer& changed : all) {
        if (changed.set(changed.values.at(2)) != 0) {
            Unmet("the setter of " + changed.getter + " fails", SET);
            return;
        }
        for (const Integer& integer : all) {
            if (integer.set(integer.values.at(2)) != 0) {
                Unmet("the setter of " + integer.getter + " fails", SET);
                return;
            }
        }
        audio_set_master_mute(false);
        Step("the setter of " + changed.getter + " gets " + Number(changed.values.at(1)));
        changed.set(changed.values.at(1));
        bool mute = true;
        audio_get_master_mute(&mute);
        Check(!mute, "the setter of " + changed.getter + " changed the master mute");
        for (const Integer& integer : all) {
            int value = UNTOUCHED;
            if (&integer != &changed && integer.get(&value) == 0) {
                Check(value == integer.values.at(2),
                      "the setter of " + changed.getter + " changed what " + integer.getter + "() gives");
            }
        }
    }
    audio_set_master_volume(30, 0);
    audio_set_master_mute(true);
    int volume = 0;
    Check(audio_get_master_volume(&volume) != 0 || volume == 30,
          "the mute changed the volume to " + Number(volume));
}

// --- audio_hal.h

TEST(AudioHal, AVolumeOutOfRangeFailsAndChangesNothing) {
    Rule("A volume below 0 or above 100 fails, and the volume stays as it is.");
    Ear& ear = Volume().ear(0);
    Volume().add(0, nullptr);
    for (const int wrong : {-1, 101, 127, 255, 1000, INT_MAX, INT_MIN}) {
        if (audio_set_master_volume(42, 0) != 0) {
            Unmet("the volume cannot be set", SET);
            break;
        }
        ear.Forget();
        const int result = audio_set_master_volume(wrong, 0);
        int volume = UNTOUCHED;
        audio_get_master_volume(&volume);
        Step("audio_set_master_volume(" + Number(wrong) + ", 0) returns " + Number(result) +
             ", and the volume is " + Number(volume));
        Check(result != 0, "audio_set_master_volume(" + Number(wrong) + ") should fail");
        Check(volume == 42, "the volume should still be 42");
        Check(!ear.Has(std::to_string(static_cast<unsigned int>(wrong))) && !ear.Has("0") && !ear.Has("100"),
              "audio_set_master_volume(" + Number(wrong) + ") was reported: " + List(ear.Texts()));
    }
}

TEST(AudioHal, TheModeHasNoEffectOnTheVolume) {
    Rule("The mode of audio_set_master_volume() has no effect on the value.");
    int expected = 10;
    if (audio_set_master_volume(expected, 0) != 0) {
        Unmet("the volume cannot be set", SET);
        return;
    }
    for (const int mode : {0, 1, 2, 3, -1, 100}) {
        ++expected;
        const int result = audio_set_master_volume(expected, mode);
        int volume = UNTOUCHED;
        audio_get_master_volume(&volume);
        Step("audio_set_master_volume(" + Number(expected) + ", " + Number(mode) + ") returns " +
             Number(result) + ", and the volume is " + Number(volume));
        Check(result == 0 && volume == expected, "the volume should be " + Number(expected));
    }
}

// --- sound_manager.h

TEST(SoundManager, TheRouteOfAnUnknownZoneIs0xFE6A0004) {
    Rule(
        "Reading or setting the route of a zone that does not exist returns 0xFE6A0004 and leaves `*route` "
        "as it was.");
    if (!SomebodySetsZones({2, 3, 4}) || !SomebodySetsZones({2, 3})) {
        return;
    }
    for (const int zone : {1, 0, -1, 4, 23, INT_MAX, INT_MIN}) {
        int route = UNTOUCHED;
        const int read = sound_manager_get_multiview_speaker_selection_with_zone_id(&route, zone);
        const int set = sound_manager_set_multiview_speaker_selection_with_zone_id(7, zone);
        int made = UNTOUCHED;
        if (read == NO_SUCH_ZONE &&
            sound_manager_get_multiview_speaker_selection_with_zone_id(&made, zone) == 0) {
            Unmet("setting the route of zone " + Number(zone) + " has made it",
                  "SoundManager.SettingARouteNeverMakesAZone");
            return;
        }
        Step("zone " + Number(zone) + " of the zones 2, 3: reading its route returns " + Number(read) +
             ", setting it returns " + Number(set));
        Check(read == NO_SUCH_ZONE,
              "reading the route of an unknown zone should return -26607612 (0xFE6A0004)");
        Check(set == NO_SUCH_ZONE,
              "setting the route of an unknown zone should return -26607612 (0xFE6A0004)");
        Check(route == UNTOUCHED, "the failed read set its argument to " + Number(route));
    }
}

TEST(SoundManager, ANewZoneHasARouteToSet) {
    Rule("When the zones change, the route of a zone that has come can be set and read.");
    if (!SomebodySetsZones({2, 3}) || !SomebodySetsZones({3, 4})) {
        return;
    }
    int route = UNTOUCHED;
    const int set = sound_manager_set_multiview_speaker_selection_with_zone_id(7, 4);
    const int read = sound_manager_get_multiview_speaker_selection_with_zone_id(&route, 4);
    Step("zone 4 has come: setting its route returns " + Number(set) + ", reading it returns " +
         Number(read));
    Check(set == 0 && read == 0 && route == 7, "the route of a new zone should be set and read");
}

std::string Zones(const std::vector<int>& ids) {
    std::vector<std::string> names;
    for (const int id : ids) {
        names.push_back(Number(id));
    }
    return List(names);
}

TEST(SoundManager, SettingARouteNeverMakesAZone) {
    Rule("Setting the route of a zone that does not exist never makes the zone.");
    if (!SomebodySetsZones({2, 3})) {
        return;
    }
    sound_manager_set_multiview_speaker_selection_with_zone_id(7, 5);
    int result = 0;
    const std::vector<int> zones = ZonesNow(result);
    Step("the route of zone 5 of the zones 2, 3 was set; the list of zones is " + Zones(zones));
    Check(std::find(zones.begin(), zones.end(), 5) == zones.end(), "zone 5 should not exist");
}

TEST(SoundManager, EachZoneHasItsOwnRoute) {
    Rule("Setting the route of a zone leaves those of other zones and that of the TV as they are.");
    if (!SomebodySetsZones({2, 3})) {
        return;
    }
    sound_manager_set_speaker_selection(10);
    sound_manager_set_multiview_speaker_selection_with_zone_id(20, 2);
    sound_manager_set_multiview_speaker_selection_with_zone_id(30, 3);
    int route = 0;
    int two = 0;
    int three = 0;
    sound_manager_get_speaker_selection(&route);
    sound_manager_get_multiview_speaker_selection_with_zone_id(&two, 2);
    sound_manager_get_multiview_speaker_selection_with_zone_id(&three, 3);
    Step("the route was set to 10, that of zone 2 to 20, that of zone 3 to 30; they are " +
         Zones({route, two, three}));
    Check(route == 10 && two == 20 && three == 30, "each route should be the one that was set");
}

// --- resource_center.h

void CheckZones(const std::vector<int>& arranged, const std::vector<int>& expected) {
    if (SomebodySetsZones(arranged)) {
        int result = 0;
        const std::vector<int> zones = ZonesNow(result);
        Step("rc_get_zone_list() returns " + Number(result) + "; the list has " + Zones(zones));
        Check(result == 0 && zones == expected, "the list should have " + Zones(expected));
    }
}

TEST(ResourceCenter, ZonesAreListedInAscendingOrder) {
    Rule("A list has every zone once, in ascending order of the ids as numbers.");
    CheckZones({2}, {2});
    CheckZones({10, 9, 100, 1, 2}, {1, 2, 9, 10, 100});
    CheckZones({3, 2}, {2, 3});
}

TEST(ResourceCenter, NoZonesMakeAnEmptyList) {
    Rule("rc_get_zone_list() without any zones succeeds and gives an empty list.");
    CheckZones({}, {});
    CheckZones({4}, {4});
    CheckZones({}, {});
}

TEST(ResourceCenter, TheEndOfAListLeavesTheZoneAsItWas) {
    Rule("At its end, and at each further step, rc_get_next_zone() fails and leaves `*zone` as it was.");
    if (!SomebodySetsZones({1, 2})) {
        return;
    }
    rc_zone_list_h list = nullptr;
    rc_zone_h zone = nullptr;
    rc_zone_h last = nullptr;
    if (rc_get_zone_list(&list) != 0) {
        Unmet("there is no list of zones", "ResourceCenter.ZonesAreListedInAscendingOrder");
        return;
    }
    for (int i = 0; i < 10 && rc_get_next_zone(list, &zone) == 0; ++i) {
        last = zone;
    }
    for (int i = 0; i < 2; ++i) {
        zone = last;
        const int result = rc_get_next_zone(list, &zone);
        Step("after the last zone rc_get_next_zone() returns " + Number(result));
        Check(result != 0, "rc_get_next_zone() at the end should fail");
        Check(zone == last, "rc_get_next_zone() at the end changed its argument");
    }
    Check(rc_free_zone_list(list) == 0, "rc_free_zone_list() should return 0");
}

TEST(ResourceCenter, AListHasTheZonesOfOneMoment) {
    Rule(
        "A list keeps the zones of the moment at which it was made, and each list has a position of its "
        "own.");
    if (!SomebodySetsZones({1, 2})) {
        return;
    }
    rc_zone_list_h old = nullptr;
    rc_zone_h first = nullptr;
    if (rc_get_zone_list(&old) != 0 || rc_get_next_zone(old, &first) != 0) {
        Unmet("there is no list of zones", "ResourceCenter.ZonesAreListedInAscendingOrder");
        return;
    }
    int result = 0;
    if (const std::vector<int> both = ZonesNow(result); both != std::vector{1, 2}) {
        Unmet("the list of the zones 1, 2 has " + Zones(both),
              "ResourceCenter.ZonesAreListedInAscendingOrder");
        return;
    }
    SomebodySetsZones({7});
    const std::vector<int> now = ZonesNow(result);
    rc_zone_h second = nullptr;
    const int step = rc_get_next_zone(old, &second);
    int one = 0;
    int two = 0;
    rc_get_zone_id(first, &one);
    if (step == 0) {
        rc_get_zone_id(second, &two);
    }
    Step(
        "a list of the zones 1, 2 was at its first zone; then the zones changed to 7, and another list was "
        "read: it has " +
        Zones(now) + "; the first list gives " + Zones({one, two}));
    Check(step == 0 && std::set{one, two} == std::set{1, 2}, "the first list should still give 1 and 2");
    rc_free_zone_list(old);
}

TEST(ResourceCenter, TheIdOfAZoneNeedsBothArguments) {
    Rule("rc_get_zone_id() is negative for a null argument, and leaves `*zone_id` as it was.");
    int id = UNTOUCHED;
    const int noZone = rc_get_zone_id(nullptr, &id);
    Step("rc_get_zone_id(null, ...) returns " + Number(noZone));
    Check(noZone < 0, "it should be negative");
    Check(id == UNTOUCHED, "it changed its argument to " + Number(id));
    rc_zone_list_h list = nullptr;
    rc_zone_h zone = nullptr;
    if (!SomebodySetsZones({1}) || rc_get_zone_list(&list) != 0) {
        return;
    }
    if (rc_get_next_zone(list, &zone) == 0) {
        const int noId = rc_get_zone_id(zone, nullptr);
        Step("rc_get_zone_id(zone, null) returns " + Number(noId));
        Check(noId < 0, "it should be negative");
    }
    rc_free_zone_list(list);
}

TEST(ResourceCenter, TheFocusIsRead) {
    Rule("rc_get_audio_focus() gives the zone that has the audio focus.");
    if (!SomebodySetsZones({1, 2, 3})) {
        return;
    }
    for (const int zone : {1, 3, 2}) {
        if (SomebodySets(FOCUS, Number(zone))) {
            int focus = UNTOUCHED;
            const int result = rc_get_audio_focus(&focus);
            Step("rc_get_audio_focus() returns " + Number(result) + " and gives " + Number(focus));
            Check(result == 0 && focus == zone, "it should return 0 and give " + Number(zone));
        }
    }
}

TEST(ResourceCenter, NoFocusIsAFailure) {
    Rule(
        "While no zone has the audio focus, or it cannot be read, rc_get_audio_focus() fails and leaves "
        "`*zone_id` as it was.");
    const auto check = [](const std::string& when) {
        int focus = UNTOUCHED;
        const int result = rc_get_audio_focus(&focus);
        Step(when + " rc_get_audio_focus() returns " + Number(result));
        Check(result != 0, "rc_get_audio_focus() should fail");
        Check(focus == UNTOUCHED, "rc_get_audio_focus() changed its argument to " + Number(focus));
    };
    check("on a fresh TV");
    if (!SomebodySetsZones({1, 2, 3}) || !SomebodySets(FOCUS, "2")) {
        return;
    }
    if (SomebodyRemoves(FOCUS)) {
        check("when no zone has it any more");
    }
    if (SomebodySets(FOCUS, "3") && MakeUnreadable(FOCUS)) {
        check("when it is unreadable");
    }
}

// --- vconf.h

TEST(Settings, EitherGetterReadsWhatEitherSetterWrote) {
    Rule(
        "An integer is stored as its decimal digits: vconf_get_str() reads what vconf_set_int() wrote, and "
        "vconf_get_int() "
        "what vconf_set_str() wrote.");
    if (vconf_set_int(KEY, 1) != 0) {
        Unmet("a setting cannot be set", SET);
        return;
    }
    for (const int number : ANY_INTEGER) {
        vconf_set_int(KEY, number);
        Check(Text(KEY) == Number(number),
              "vconf_set_int(" + Number(number) + ") was read as the text " + Quoted(Text(KEY)));
        vconf_set_str(KEY, "x");
        vconf_set_str(KEY, Number(number).c_str());
        int value = UNTOUCHED;
        const int result = vconf_get_int(KEY, &value);
        Check(result == 0 && value == number, "vconf_set_str(" + Quoted(Number(number)) +
                                                  ") was read: vconf_get_int() returned " + Number(result) +
                                                  " and gave " + Number(value));
    }
}

void CheckTextsComeBack(const std::vector<std::string>& texts) {
    for (const char* const key : {KEY, "db/kit/value"}) {
        for (const std::string& text : texts) {
            const int result = vconf_set_str(key, text.c_str());
            Step(std::string("vconf_set_str(") + key + ", " + Quoted(text) + ") returns " + Number(result));
            Check(result == 0, "vconf_set_str() should return 0");
            Check(Text(key) == text,
                  "vconf_get_str() gives " + Quoted(Text(key)) + " instead of " + Quoted(text));
        }
    }
}

TEST(Settings, ATextComesBackAsItWas) {
    Rule("Any text of at most 4095 bytes comes back as it was, from a memory key and from a db key.");
    CheckTextsComeBack({"", "a", "\n", "a\n", " \t a b \n\n", "{\"mode\":\"on\"}", "\xFF\xFE\x01", "0x10",
                        "007", std::string(LONG_TEXT, 'x')});
}

TEST(TvInADirectory, ATextOfOneMiBComesBackAsItWas) {
    Rule("A text of at most 1 MiB comes back as it was, from a memory key and from a db key.");
    CheckTextsComeBack({std::string(65536, 'y'), std::string(ONE_MIB, 'z')});
}

TEST(Settings, ATextThatIsTooLongChangesNothing) {
    Rule("A text of more than 1 MiB is refused and changes nothing, or comes back whole.");
    const std::string longText(LONG_TEXT, 'y');
    if (vconf_set_str(KEY, longText.c_str()) != 0 || Text(KEY) != longText) {
        Unmet("a text of " + Number(LONG_TEXT) + " bytes does not come back",
              "Settings.ATextComesBackAsItWas");
        return;
    }
    vconf_set_str(KEY, "short");
    const std::string text(ONE_MIB + 1, 'x');
    const int result = vconf_set_str(KEY, text.c_str());
    Step("vconf_set_str() of 1 MiB and one byte returns " + Number(result));
    Check(Text(KEY) == (result == 0 ? text : "short"), "vconf_get_str() gives " + Quoted(Text(KEY)));
}

TEST(Settings, AMissingKeyFails) {
    Rule(
        "Of a key that nobody has set, vconf_get_int() fails and leaves `*value` as it was, and "
        "vconf_get_str() gives null.");
    const auto check = [](const char* key) {
        int value = UNTOUCHED;
        const int result = vconf_get_int(key, &value);
        Step(std::string("vconf_get_int(") + key + ") returns " + Number(result));
        Check(result != 0, "vconf_get_int() should fail");
        Check(value == UNTOUCHED, "vconf_get_int() changed its argument to " + Number(value));
        Check(Text(key) == "(null)", "vconf_get_str() should give null, not " + Quoted(Text(key)));
    };
    check("memory/kit/none");
    check("db/kit/none");
    check("memory/kit");
    vconf_set_int(KEY, 5);
    if (SomebodyRemoves(Setting(KEY))) {
        check(KEY);
    }
}

TEST(Settings, ATextThatIsNoIntegerFailsToBeOne) {
    Rule("vconf_get_int() fails, and leaves `*value` as it was, for text that is no 32-bit integer.");
    for (const char* const text :
         {"loud", "", "12x", "1.5", "-", "2147483648", "-2147483649", "99999999999999999999", "1 2"}) {
        vconf_set_str(KEY, text);
        int value = UNTOUCHED;
        const int result = vconf_get_int(KEY, &value);
        Step("vconf_get_int() of the text " + Quoted(text) + " returns " + Number(result));
        Check(result != 0, "vconf_get_int() should fail");
        Check(value == UNTOUCHED, "vconf_get_int() changed its argument to " + Number(value));
    }
}

TEST(Settings, AnUnreadableKeyGivesNoText) {
    Rule("vconf_get_str() gives null for an unreadable key, and its text when it is readable again.");
    vconf_set_str(KEY, "text");
    if (MakeUnreadable(Setting(KEY))) {
        Check(Text(KEY) == "(null)", "vconf_get_str() gives " + Quoted(Text(KEY)));
        if (MakeReadable(Setting(KEY))) {
            Check(Text(KEY) == "text", "vconf_get_str() gives " + Quoted(Text(KEY)) + " instead of \"text\"");
        }
    }
}

TEST(TvInADirectory, OtherKeysAreRefused) {
    Rule(
        "A key is a path of non-empty parts, none of which begins with a dot. Any other key is refused by "
        "every call.");
    const auto ignore = [](keynode_t*, void*) {};
    for (const char* const key : {"", "/", "/memory/kit/a", "memory/kit/", "memory//kit", "memory/../kit",
                                  "../kit", ".kit", "memory/.kit", "memory/kit/.", "."}) {
        const std::string what = Quoted(key);
        CheckSettingFails(key, what);
        Check(Text(key) == "(null)", "vconf_get_str() of " + what + " should give null");
        Check(vconf_set_int(key, 1) != 0, "vconf_set_int() of " + what + " should fail");
        Check(vconf_set_str(key, "1") != 0, "vconf_set_str() of " + what + " should fail");
        Check(vconf_notify_key_changed(key, ignore, nullptr) != 0,
              "vconf_notify_key_changed() of " + what + " should fail");
        Check(vconf_ignore_key_changed(key, ignore) != 0,
              "vconf_ignore_key_changed() of " + what + " should fail");
    }
}

TEST(Settings, EachKeyHasItsOwnValue) {
    Rule("Each key has its own value, also if it differs in its folder, its case or one letter, or is long.");
    if (vconf_set_int(KEY, 1) != 0) {
        Unmet("a setting cannot be set", SET);
        return;
    }
    const std::string part(60, 'k');
    const std::vector<std::string> keys = {"memory/kit/key",
                                           "db/kit/key",
                                           "memory/kit/keys",
                                           "memory/kit/Key",
                                           "memory/kit/k",
                                           "memory/kit/deep/er/key",
                                           "memory/kit_key",
                                           "memory/kit/key.x",
                                           "memory/kit/" + part + '/' + part + "/a",
                                           "memory/kit/" + part + '/' + part + "/b"};
    int value = 0;
    for (const std::string& key : keys) {
        const int result = vconf_set_int(key.c_str(), ++value);
        Check(result == 0, "vconf_set_int(" + key + ") returned " + Number(result));
    }
    int expected = 0;
    for (const std::string& key : keys) {
        int read = UNTOUCHED;
        vconf_get_int(key.c_str(), &read);
        ++expected;
        Check(read == expected, key + " should be " + Number(expected) + ", not " + Number(read));
    }
}

TEST(Settings, EachTextBelongsToItsCaller) {
    Rule(
        "vconf_get_str() gives a text of the caller's own, which the caller may change and frees with "
        "free().");
    vconf_set_str(KEY, "one");
    char* const first = vconf_get_str(KEY);
    char* const second = vconf_get_str(KEY);
    if (first == nullptr || second == nullptr) {
        Unmet("vconf_get_str() gives null", "Settings.ATextComesBackAsItWas");
        std::free(first);
        std::free(second);
        return;
    }
    Check(first != second, "two calls gave the same memory");
    if (first != second) {
        first[0] = 'X';
        vconf_set_str(KEY, "two");
        Check(std::string_view(second) == "one",
              "a text changed after vconf_get_str() had given it, to " + Quoted(second));
        std::free(first);
        std::free(second);
        Check(Text(KEY) == "two", "the setting is " + Quoted(Text(KEY)) + " instead of \"two\"");
    }
}

// --- Failures

void CheckCode(const std::string& call, int result) {
    Step(call + " returns " + Number(result));
    Check(result <= 0 && result != -1 && result != -2 && result != -4,
          call + " should return 0 or a negative code other than -1, -2 and -4, not " + Number(result));
}

TEST(AudioHal, AFailureIsANegativeCode) {
    Rule(
        "A call for the master volume or mute that fails returns a negative code, but never -1, -2 or -4: a "
        "client gets this code, and those three are the daemon's own answers.");
    CheckCode("audio_set_master_volume(101)", audio_set_master_volume(101, 0));
    int volume = 0;
    bool mute = false;
    if (MakeUnreadable(MASTER_VOLUME)) {
        CheckCode("audio_get_master_volume() of an unreadable volume", audio_get_master_volume(&volume));
        MakeReadable(MASTER_VOLUME);
    }
    if (MakeUnreadable(MASTER_MUTE)) {
        CheckCode("audio_get_master_mute() of an unreadable mute", audio_get_master_mute(&mute));
        MakeReadable(MASTER_MUTE);
    }
}

TEST(TvInADirectory, EachFailureIsANegativeCode) {
    Rule("Each call of the seam that fails returns a negative code, but never -1, -2 or -4.");
    const auto check = CheckCode;
    int value = 0;
    check("vconf_get_int(memory/kit/none)", vconf_get_int("memory/kit/none", &value));
    check("vconf_set_int(\"\")", vconf_set_int("", 1));
    check("vconf_ignore_key_changed() of nothing", vconf_ignore_key_changed(KEY, [](keynode_t*, void*) {}));
    check("audio_unregister_master_volume_changed_cb() of nothing",
          audio_unregister_master_volume_changed_cb());
    check("audio_unregister_master_mute_changed_cb() of nothing", audio_unregister_master_mute_changed_cb());
    check("sound_manager_unset_speaker_changed_cb() of nothing", sound_manager_unset_speaker_changed_cb());
    check("sound_manager_unset_multiview_speaker_selection_changed_cb() of nothing",
          sound_manager_unset_multiview_speaker_selection_changed_cb());
    check("sound_manager_unset_tv_master_mute_changed_cb() of nothing",
          sound_manager_unset_tv_master_mute_changed_cb());
    for (const Integer& integer : AllIntegers()) {
        integer.set(integer.values.at(1));
        if (MakeUnreadable(integer.value)) {
            check(integer.getter + "() of an unreadable value", integer.get(&value));
            MakeReadable(integer.value);
        }
    }
}

// --- audio_control.h

TEST(AudioControlTable, IsOneForTheProcess) {
    Rule("AudioControl_getInstance() always gives the same table, on every thread, with its four functions.");
    AudioControl* const control = AudioControl_getInstance();
    if (control == nullptr) {
        Cannot("this platform has no table of gains: AudioControl_getInstance() gives null");
        return;
    }
    AudioControl* other = nullptr;
    {
        const Worker worker([&] { other = AudioControl_getInstance(); });
    }
    Check(AudioControl_getInstance() == control, "a second call gave another table");
    Check(other == control, "a call on another thread gave another table");
    Check(control->get_main_out_gain2 != nullptr && control->set_main_out_gain2 != nullptr &&
              control->get_sub_out_gain2 != nullptr && control->set_sub_out_gain2 != nullptr,
          "one of the four functions is null");
}

TEST(AudioControlTable, AnyGainIsStoredAndReadBack) {
    Rule("Each gain stores any 32-bit integer and reads it back.");
    CheckSetsAndReads(Gains());
}

// --- system_info.h

TEST(SystemInfo, FlagsAreRead) {
    Rule("A feature flag is read as this model of TV has it.");
    if (!SomebodySets(Feature("kit/featureconf/yes"), "true") ||
        !SomebodySets(Feature("kit/featureconf/no"), "false")) {
        return;
    }
    bool yes = false;
    bool no = true;
    const int one = system_info_get_custom_bool("kit/featureconf/yes", &yes);
    const int two = system_info_get_custom_bool("kit/featureconf/no", &no);
    Step("system_info_get_custom_bool() returns " + Number(one) + " and gives " + Number(yes) +
         " for true; it returns " + Number(two) + " and gives " + Number(no) + " for false");
    Check(one == 0 && yes, "the flag that is true should be read as true");
    Check(two == 0 && !no, "the flag that is false should be read as false");
}

TEST(SystemInfo, AFlagThatIsNotThereFails) {
    Rule("A flag that this TV does not have, or that cannot be read, fails and leaves `*value` as it was.");
    const bool hasUnreadable = SomebodySets(Feature("kit/featureconf/bad"), "true") &&
                               MakeUnreadable(Feature("kit/featureconf/bad"));
    vconf_set_str("memory/kit/flag", "true");
    for (const bool before : {true, false}) {
        for (const char* const key : {"kit/featureconf/none", "memory/kit/flag", "kit/featureconf/bad"}) {
            bool value = before;
            if (std::string_view(key) == "kit/featureconf/bad" && !hasUnreadable) {
                continue;
            }
            const int result = system_info_get_custom_bool(key, &value);
            Step(std::string("system_info_get_custom_bool(") + key + ") returns " + Number(result));
            Check(result != 0, "it should fail");
            Check(value == before, "it changed its argument");
        }
    }
}

// --- lwipc.h

void CheckEvent(const char* event, int expected) {
    const int result = LwipcIsDone(event);
    Step("LwipcIsDone(" + Quoted(event) + ") returns " + Number(result));
    Check(result == expected, "it should return " + Number(expected));
}

TEST(BootEvents, AreDoneOnceTheyAreMarked) {
    Rule(
        "An event is not done (0) until LwipcEventDone(), done (1) until LwipcResetEvent(), and then not "
        "done again.");
    const char* const event = "kit/event";
    CheckEvent(event, 0);
    Check(LwipcEventDone(event) == 0, "LwipcEventDone() should return 0");
    CheckEvent(event, 1);
    CheckEvent(event, 1);
    Check(LwipcResetEvent(event) == 0, "LwipcResetEvent() should return 0");
    CheckEvent(event, 0);
    Check(LwipcEventDone(event) == 0, "LwipcEventDone() should return 0 again");
    CheckEvent(event, 1);
    LwipcResetEvent(event);
}

TEST(BootEvents, ARepeatedCallChangesNothing) {
    Rule("Marking a done event done, and resetting one that is not done, succeeds and changes nothing.");
    const char* const event = "kit/again";
    Check(LwipcResetEvent(event) == 0, "LwipcResetEvent() of an event that never was done should return 0");
    LwipcEventDone(event);
    Check(LwipcEventDone(event) == 0, "LwipcEventDone() of a done event should return 0");
    CheckEvent(event, 1);
    LwipcResetEvent(event);
    Check(LwipcResetEvent(event) == 0, "a second LwipcResetEvent() should return 0");
    CheckEvent(event, 0);
}

TEST(BootEvents, HaveAnyNonEmptyName) {
    Rule("An event's name is any non-empty text, and each name is an event of its own.");
    const std::vector<std::string> names = {"kit",  "kit/a",    "/kit/.a", "kit_a",       "kit%2Fa", "kit a",
                                            "kit.", "kit/../a", "KIT",     "kit\xC3\xA4", "kit\n"};
    for (const std::string& name : names) {
        for (const std::string& other : names) {
            LwipcResetEvent(other.c_str());
        }
        const int result = LwipcEventDone(name.c_str());
        Step("LwipcEventDone(" + Quoted(name) + ") returns " + Number(result));
        Check(result == 0, "it should return 0");
        for (const std::string& other : names) {
            const int isDone = LwipcIsDone(other.c_str());
            Check(isDone == (other == name ? 1 : 0), "with " + Quoted(name) + " alone done, LwipcIsDone(" +
                                                         Quoted(other) + ") returns " + Number(isDone));
        }
        LwipcResetEvent(name.c_str());
    }
}

TEST(TvInADirectory, AnEventWithoutANameFails) {
    Rule("An empty name fails; LwipcIsDone() is negative for it.");
    const int done = LwipcEventDone("");
    const int reset = LwipcResetEvent("");
    const int isDone = LwipcIsDone("");
    Step("of an empty name LwipcEventDone() returns " + Number(done) + ", LwipcResetEvent() " +
         Number(reset) + ", LwipcIsDone() " + Number(isDone));
    Check(done != 0 && reset != 0, "LwipcEventDone() and LwipcResetEvent() should fail");
    Check(isDone < 0, "LwipcIsDone() should be negative");
}

TEST(BootEvents, AreSharedWithEveryProcess) {
    Rule("Any process may mark an event done or reset it.");
    const char* const event = "kit/shared";
    if (SomebodySets(Event(event), "1")) {
        CheckEvent(event, 1);
        if (SomebodySets(Event(event), "0")) {
            CheckEvent(event, 0);
        }
    }
}

}  // namespace
