// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <audio_hal.h>
#include <directory.h>
#include <lwipc.h>
#include <sound_manager.h>
#include <vconf.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Errors.h"
#include "Platform.h"
#include "Print.h"
#include "Routes.h"
#include "Snapshot.h"
#include "Verbs.h"

namespace fs = std::filesystem;

namespace tv {

namespace {

using Arguments = std::vector<std::string>;

struct Argument {
    std::string name;
    std::string description;
    bool isOptional = false;
};

struct Verb {
    std::string name;
    std::string description;
    std::string example;
    std::vector<Argument> arguments;
    std::function<Deed(const Arguments&)> understand;
};

// --- Reading arguments

bool IsOn(const std::string& text) {
    return tools::Choice("the state", text, {"off", "on"}) == 1;
}

std::set<int> ZonesIn(const std::string& text) {
    std::set<int> zones;
    std::istringstream list(text == "none" ? "" : text + ",");
    for (std::string zone; std::getline(list, zone, ',');) {
        zones.insert(tools::Number("each zone", zone));
    }
    return zones;
}

/** @throws UsageError for a key that the platform would refuse */
const std::string& KeyIn(const std::string& text) {
    if (!host::IsKey(text)) {
        throw tools::UsageError("\"" + tools::Printable(text) + "\" is no key");
    }
    return text;
}

std::string FeatureIn(const std::string& text) {
    if (text == "internal-speaker") {
        return INTERNAL_SPEAKER_FEATURE;
    }
    if (text == "multiview") {
        return MULTIVIEW_FEATURE;
    }
    return text == "projector" ? PROJECTOR_FEATURE : KeyIn(text);
}

// --- Acting

Deed SetSetting(const char* key, int value) {
    return [=] { Require(vconf_set_int(key, value), key); };
}

Deed SetMultiview(bool on) {
    return [=] {
        Json::Value info = ReadMultiviewInfo();  // whose other members stay
        info["mode"] = on ? "on" : "off";
        Require(vconf_set_str(MULTIVIEW_KEY, tools::JsonLine(info).c_str()), MULTIVIEW_KEY);
        if (on && ReadFeature(MULTIVIEW_FEATURE).value != 1) {
            tools::PrintLine(
                "kavreld does not look at it on a TV without the feature: kavrel-tv feature multiview on");
        } else if (on && ReadZones().empty()) {
            tools::PrintLine("there are no zones so far: kavrel-tv zones 1,2");
        }
    };
}

fs::path ZoneFolder(const std::string& name) {
    return host::Root() / "sound/zones" / name;
}

/** A zone comes with its route, and goes with it: nobody ever sees the one without the other. */
void MakeZone(int zone, int route) {
    const std::string name = std::to_string(zone);
    const std::string unfinished = "." + name + ".new";
    const std::string routeFile = "sound/zones/" + unfinished + "/route";
    Require(host::Write({routeFile, host::Range{}}, std::to_string(route)), "cannot make zone " + name);
    fs::rename(ZoneFolder(unfinished), ZoneFolder(name));
}

void RemoveZone(int zone) {
    const std::string name = std::to_string(zone);
    const std::string gone = "." + name + ".gone";
    fs::remove_all(ZoneFolder(gone));
    fs::rename(ZoneFolder(name), ZoneFolder(gone));
    fs::remove_all(ZoneFolder(gone));
}

void SetFocus(int zone) {
    Require(host::Write({FOCUS_PATH, host::Range{}}, std::to_string(zone)), "cannot move the focus");
}

/** The focus is never left on a zone that has gone. */
void MoveFocusInto(const std::set<int>& zones) {
    const Number focus = ReadFocus();
    if (!focus || zones.contains(focus.value)) {
        return;
    }
    if (zones.empty()) {
        Require(host::Remove({FOCUS_PATH, std::nullopt}), "cannot remove the focus");
        return;
    }
    SetFocus(*zones.begin());
    tools::PrintLine("the focus is on zone " + std::to_string(*zones.begin()) + " now");
}

Deed SetZones(const std::set<int>& wanted) {
    return [=] {
        std::set<int> present;
        for (const Zone& zone : ReadZones()) {
            present.insert(zone.id);
        }
        for (const int zone : wanted) {
            if (!present.contains(zone)) {
                MakeZone(zone, ReadOutput().route.value);
            }
        }
        MoveFocusInto(wanted);
        for (const int zone : present) {
            if (!wanted.contains(zone)) {
                RemoveZone(zone);
            }
        }
    };
}

void NeedZone(int zone) {
    if (!host::HasZone(zone)) {
        throw tools::ToolError(tools::EXIT_REFUSED,
                               "there is no zone " + std::to_string(zone) + "; kavrel-tv zones makes some");
    }
}

Deed SetZoneRoute(int zone, int route) {
    return [=] {
        NeedZone(zone);
        Require(sound_manager_set_multiview_speaker_selection_with_zone_id(route, zone),
                "cannot set the route");
    };
}

Deed SetProjector(bool ready) {
    return [=] {
        SetSetting(PROJECTOR_KEY, ready ? 1 : 0)();
        if (ReadFeature(PROJECTOR_FEATURE).value != 1) {
            tools::PrintLine(
                "kavreld looks at it only if it started with the feature: kavrel-tv feature projector on");
        }
    };
}

Deed SetFeature(const std::string& key, bool on) {
    return [=] {
        Require(host::Write(host::KeyValue(host::FEATURES, key), on ? "true" : "false"), key);
        tools::PrintLine("kavreld reads the flags when it starts: it knows this one after its next start");
    };
}

Deed SetPopup(bool on) {
    return [=] { Require(on ? LwipcEventDone(POPUP_EVENT) : LwipcResetEvent(POPUP_EVENT), POPUP_EVENT); };
}

Deed SetKey(const std::string& key, const std::string& value) {
    return [=] { Require(vconf_set_str(key.c_str(), value.c_str()), key); };
}

Deed PrintKey(const std::string& key) {
    return [=] {
        const host::Value setting = host::KeyValue(host::SETTINGS, key);
        bool isSet = false;
        Require(host::Exists(setting, isSet), key);
        if (!isSet) {
            throw tools::ToolError(tools::EXIT_REFUSED, key + " is not set");
        }
        std::string text;
        Require(host::Read(setting, text), key);
        tools::PrintLine(text);
    };
}

// --- The verbs

std::string RouteTable() {
    std::string table;
    for (const Route& route : Routes()) {
        const std::string code = std::to_string(route.code);
        table += "\n" + std::string(4 - code.size(), ' ') + code + "  " + std::string(route.name);
        table += std::string(14 - route.name.size(), ' ') + std::string(route.words);
    }
    return table;
}

const Argument ROUTE = {"ROUTE", "its code or its name"};
const Argument STATE = {"STATE", "on or off"};
const Argument ZONE = {"ZONE", "its number"};

std::vector<Verb> Verbs() {
    return {
        {"route",
         "switch the output of the single view\n\nThe routes by code, name and meaning:" + RouteTable(),
         "kavrel-tv route hdmi",
         {ROUTE},
         [](const Arguments& given) -> Deed {
             const int route = RouteIn(given[0]);
             return [=] { Require(sound_manager_set_speaker_selection(route), "cannot set the route"); };
         }},
        {"multiview",
         "switch multi-view on or off",
         "kavrel-tv multiview on",
         {STATE},
         [](const Arguments& given) { return SetMultiview(IsOn(given[0])); }},
        {"zones",
         "divide the screen into these zones\n\n"
         "New zones begin with the route in force, the others keep theirs. The focus never\n"
         "stays on a zone that goes.",
         "kavrel-tv zones 1,2,3",
         {{"ZONES", "numbers with commas between them, or none"}},
         [](const Arguments& given) { return SetZones(ZonesIn(given[0])); }},
        {"focus",
         "give a zone the audio focus",
         "kavrel-tv focus 2",
         {ZONE},
         [](const Arguments& given) -> Deed {
             const int zone = tools::Number("the zone", given[0]);
             return [=] {
                 NeedZone(zone);
                 SetFocus(zone);
             };
         }},
        {"zone-route",
         "switch the output of a zone\n\nThe routes: kavrel-tv route --help",
         "kavrel-tv zone-route 2 bt",
         {ZONE, ROUTE},
         [](const Arguments& given) {
             return SetZoneRoute(tools::Number("the zone", given[0]), RouteIn(given[1]));
         }},
        {"cable",
         "plug the optical cable (S/PDIF) in or pull it out",
         "kavrel-tv cable out",
         {{"STATE", "in or out"}},
         [](const Arguments& given) {
             return SetSetting(CABLE_KEY, tools::Choice("the cable", given[0], {"out", "in"}));
         }},
        {"mobile",
         "switch TV-to-mobile sound on or off",
         "kavrel-tv mobile on",
         {STATE},
         [](const Arguments& given) { return SetSetting(MOBILE_KEY, IsOn(given[0]) ? 1 : 0); }},
        {"projector",
         "make the projector ready or not\n\n"
         "kavreld looks at it only if the feature \"projector\" was on when it started.",
         "kavrel-tv projector not-ready",
         {{"STATE", "ready or not-ready"}},
         [](const Arguments& given) {
             return SetProjector(tools::Choice("the projector", given[0], {"not-ready", "ready"}) == 1);
         }},
        {"sub-bt",
         "give a zone a Bluetooth headset of its own, or none",
         "kavrel-tv sub-bt 2",
         {{"ZONE", "its number, or none"}},
         [](const Arguments& given) {
             return SetSetting(SUB_BT_KEY, given[0] == "none" ? -1 : tools::Number("the zone", given[0]));
         }},
        {"feature",
         "give the TV a feature, or take it\n\n"
         "kavreld reads the flags when it starts. Three have a short name:\n"
         "internal-speaker, multiview, projector.",
         "kavrel-tv feature projector on",
         {{"KEY", "its key or short name"}, STATE},
         [](const Arguments& given) { return SetFeature(FeatureIn(given[0]), IsOn(given[1])); }},
        {"popup",
         "let finished fade-ins be announced on the screen, or not\n\n"
         "The boot event \"FadeInPopup\".",
         "kavrel-tv popup on",
         {STATE},
         [](const Arguments& given) { return SetPopup(IsOn(given[0])); }},
        {"volume",
         "set the TV's master volume, as the remote control does",
         "kavrel-tv volume 30",
         {{"VOLUME", "0 to 100"}},
         [](const Arguments& given) -> Deed {
             const int volume = tools::Number("the volume", given[0], 0, 100);
             return [=] { Require(audio_set_master_volume(volume, 0), "cannot set the volume"); };
         }},
        {"mute",
         "set the TV's master mute, as the remote control does",
         "kavrel-tv mute on",
         {STATE},
         [](const Arguments& given) -> Deed {
             const bool on = IsOn(given[0]);
             return [=] { Require(audio_set_master_mute(on), "cannot set mute"); };
         }},
        {"key",
         "print a setting, or write it",
         "kavrel-tv key memory/sysman/spdif\nkavrel-tv key memory/sysman/spdif 1",
         {{"KEY", "memory/... or db/..."}, {"VALUE", "any text", true}},
         [](const Arguments& given) {
             const std::string& key = KeyIn(given[0]);
             return given.size() == 1 ? PrintKey(key) : SetKey(key, given[1]);
         }},
    };
}

void AddVerb(tools::CommandLine& line, const Options& options, const Verb& verb) {
    auto given = std::make_shared<Arguments>(verb.arguments.size());
    auto argumentOptions = std::make_shared<std::vector<CLI::Option*>>();
    const auto act = [&options, given, argumentOptions, understand = verb.understand] {
        const auto count = std::count_if(argumentOptions->begin(), argumentOptions->end(),
                                         [](const CLI::Option* option) { return option->count() > 0; });
        const Deed deed = understand({given->begin(), given->begin() + count});
        OpenTv(options.directory);
        deed();
        return tools::EXIT_DONE;
    };
    CLI::App& command = line.AddCommand(verb.name, verb.description, verb.example, act);
    for (std::size_t i = 0; i < verb.arguments.size(); ++i) {
        const Argument& argument = verb.arguments[i];
        argumentOptions->push_back(command.add_option(argument.name, (*given)[i], argument.description)
                                       ->required(!argument.isOptional));
    }
}

}  // namespace

Deed UnderstandVerb(const std::vector<std::string>& words) {
    for (const Verb& verb : Verbs()) {
        if (verb.name != words.front()) {
            continue;
        }
        const auto needed = std::count_if(verb.arguments.begin(), verb.arguments.end(),
                                          [](const Argument& argument) { return !argument.isOptional; });
        const auto given = static_cast<std::ptrdiff_t>(words.size()) - 1;
        if (given < needed || given > static_cast<std::ptrdiff_t>(verb.arguments.size())) {
            throw tools::UsageError(
                "the form is, for example: " +
                verb.example.substr(std::string("kavrel-tv ").size(),
                                    verb.example.find('\n') - std::string("kavrel-tv ").size()));
        }
        return verb.understand({words.begin() + 1, words.end()});
    }
    throw tools::UsageError("there is no such verb: \"" + tools::Printable(words.front()) + "\"");
}

void AddVerbs(tools::CommandLine& line, const Options& options) {
    for (const Verb& verb : Verbs()) {
        AddVerb(line, options, verb);
    }
}

}  // namespace tv
