// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Commands.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "Errors.h"
#include "Platform.h"
#include "Print.h"
#include "Routes.h"

namespace fs = std::filesystem;

namespace tv {

namespace {

/** Accepts the number of a zone, or none, which becomes -1. */
CLI::Validator ZoneOrNone() {
    const auto check = [](std::string& text) {
        text = text == "none" ? "-1" : text;
        return tools::WholeNumber()(text);
    };
    return {check, ""};
}

/** Accepts a key that the platform accepts, or one of the short names, which becomes its key. */
CLI::Validator Key(const std::map<std::string, std::string>& shortNames = {}) {
    const auto check = [=](std::string& text) {
        const auto found = shortNames.find(text);
        text = found != shortNames.end() ? found->second : text;
        return host::IsKey(text) ? "" : tools::Quoted(text) + " is not a key";
    };
    return {check, ""};
}

void Write(const host::Value& value, const std::string& text) {
    ThrowIfFailed(host::Write(value, text));
}

void Write(const host::Value& value, int number) {
    Write(value, std::to_string(number));
}

void RequireZone(int zone) {
    if (!host::HasZone(zone)) {
        throw tools::ToolError(tools::EXIT_REFUSED,
                               "there is no zone " + std::to_string(zone) + "; kavrel-tv zones makes some");
    }
}

// --- The verbs: AddOptions() binds the members to arguments, Act() changes the open TV

/** A verb with one argument, which the validator makes a number. */
struct NumberVerb {
    const char* argument;
    const char* description;
    CLI::Validator validator;
    std::function<void(int number)> act;
    int number = 0;

    void AddOptions(CLI::App& command) {
        command.add_option(argument, number, description)->required()->transform(validator);
    }
    void Act() const { act(number); }
};

std::function<void(int number)> Writer(const host::NamedValue& value) {
    return [value](int number) { Write(value, number); };
}

void SetProjector(int isReady) {
    Write(host::PROJECTOR_READY, isReady);
    if (!HasFeature(host::PROJECTOR_FEATURE)) {
        tools::PrintLine(
            "kavreld ignores the projector unless it started with the feature: "
            "kavrel-tv feature projector on");
    }
}

void SetFocus(int zone) {
    RequireZone(zone);
    Write(host::FOCUS, zone);
}

void SetMultiview(int on) {
    Json::Value info = ReadMultiviewInfo();  // whose other members stay
    info["mode"] = on != 0 ? "on" : "off";
    Write(host::MULTIVIEW_INFO, tools::JsonLine(info));
    if (on != 0 && !HasFeature(host::MULTIVIEW_FEATURE)) {
        tools::PrintLine("kavreld ignores multi-view without the feature: kavrel-tv feature multiview on");
    } else if (on != 0 && ReadZones().empty()) {
        tools::PrintLine("there are no zones so far: kavrel-tv zones 1,2");
    }
}

void SetPopup(int on) {
    const host::Value popup = host::EventValue(host::POPUP_EVENT);
    ThrowIfFailed(on != 0 ? host::Write(popup, "done") : host::Remove(popup));
}

class ZonesVerb {
public:
    void AddOptions(CLI::App& command) {
        const auto parse = [this](const std::string& text) { m_wanted = Parse(text); };
        command.add_option_function<std::string>("ZONES", parse, "Numbers with commas between them, or none")
            ->required();
    }

    void Act() const {
        std::set<int> present;
        for (const Zone& zone : ReadZones()) {
            present.insert(zone.id);
        }
        for (const int zone : m_wanted) {
            if (!present.contains(zone)) {
                MakeZone(std::to_string(zone), ReadOutput().route.value);
            }
        }
        KeepFocusOn(m_wanted);
        for (const int zone : present) {
            if (!m_wanted.contains(zone)) {
                RemoveZone(std::to_string(zone));
            }
        }
    }

private:
    static std::set<int> Parse(const std::string& text) {
        std::set<int> zones;
        std::istringstream words(text == "none" ? "" : text + ",");
        for (std::string word; std::getline(words, word, ',');) {
            if (const std::string error = tools::WholeNumber()(word); !error.empty()) {
                throw CLI::ValidationError("ZONES", error);
            }
            zones.insert(std::stoi(word));
        }
        return zones;
    }

    static fs::path Folder(const std::string& name) { return host::Root() / host::ZONES / name; }

    /** Makes the folder aside and renames it, so that nobody sees a zone without its route. */
    static void MakeZone(const std::string& name, int route) {
        const std::string unfinished = "." + name + ".new";
        Write({std::string(host::ZONES) + "/" + unfinished + "/route", host::ANY_INTEGER}, route);
        fs::rename(Folder(unfinished), Folder(name));
    }

    static void RemoveZone(const std::string& name) {
        const fs::path gone = Folder("." + name + ".gone");
        fs::remove_all(gone);
        fs::rename(Folder(name), gone);
        fs::remove_all(gone);
    }

    /** Moves the focus if its zone is about to go. */
    static void KeepFocusOn(const std::set<int>& zones) {
        const Integer focus = ReadInteger(host::FOCUS);
        if (!focus || zones.contains(focus.value)) {
            return;
        }
        if (zones.empty()) {
            ThrowIfFailed(host::Remove(host::FOCUS));
            return;
        }
        Write(host::FOCUS, *zones.begin());
        tools::PrintLine("the focus is on zone " + std::to_string(*zones.begin()) + " now");
    }

    std::set<int> m_wanted;
};

struct ZoneRouteVerb {
    int zone = 0;
    int route = 0;

    void AddOptions(CLI::App& command) {
        command.add_option("ZONE", zone, "The zone's number")->required()->transform(tools::WholeNumber());
        command.add_option("ROUTE", route, "The route's code or name")->required()->transform(RouteCode());
    }

    void Act() const {
        RequireZone(zone);
        Write(host::ZoneRoute(zone), route);
    }
};

struct FeatureVerb {
    std::string key;
    bool on = false;

    void AddOptions(CLI::App& command) {
        command.add_option("KEY", key, "The feature's key or short name")
            ->required()
            ->transform(Key({{"internal-speaker", host::INTERNAL_SPEAKER_FEATURE.Key()},
                             {"multiview", host::MULTIVIEW_FEATURE.Key()},
                             {"projector", host::PROJECTOR_FEATURE.Key()}}));
        command.add_option("STATE", on)->required()->transform(tools::OneOf({{"on", 1}, {"off", 0}}));
    }

    void Act() const {
        Write(host::KeyValue(host::FEATURES, key), std::string(on ? "true" : "false"));
        tools::PrintLine("kavreld reads the features only when it starts");
    }
};

struct KeyVerb {
    std::string key;
    std::optional<std::string> text;

    void AddOptions(CLI::App& command) {
        command.add_option("KEY", key, "memory/... or db/...")->required()->transform(Key());
        command.add_option("VALUE", text, "Any text; without it: print the setting");
    }

    void Act() const {
        const host::Value setting = host::KeyValue(host::SETTINGS, key);
        if (text) {
            Write(setting, *text);
            return;
        }
        std::string present;
        const host::Error error = host::Read(setting, present);
        if (error.number == ENOENT) {
            throw tools::ToolError(tools::EXIT_REFUSED, key + " is not set");
        }
        ThrowIfFailed(error);
        tools::PrintLine(present);
    }
};

std::string RouteTable() {
    std::string table;
    for (const Route& route : Routes()) {
        const std::string code = std::to_string(route.code);
        table += "\n" + std::string(4 - code.size(), ' ') + code + "  " + std::string(route.name);
        table += std::string(14 - route.name.size(), ' ') + std::string(route.words);
    }
    return table;
}

template <typename Verb>
void Add(const AddVerb& add, const About& about, const Verb& initial = {}) {
    const auto verb = std::make_shared<Verb>(initial);
    verb->AddOptions(add(about, [verb, initial]() -> Change {
        return [parsed = std::exchange(*verb, initial)] { parsed.Act(); };
    }));
}

}  // namespace

void AddVerbs(const AddVerb& add) {
    const std::string routes =
        "Switch the output of the single view\n\nThe routes by code, name and meaning:";
    const CLI::Validator onOrOff = tools::OneOf({{"on", 1}, {"off", 0}});
    Add(add, {"route", routes + RouteTable(), "kavrel-tv route hdmi"},
        NumberVerb{"ROUTE", "The route's code or name", RouteCode(), Writer(host::ROUTE)});
    Add(add, {"multiview", "Switch multi-view on or off", "kavrel-tv multiview on"},
        NumberVerb{"STATE", "", onOrOff, SetMultiview});
    Add<ZonesVerb>(add, {"zones",
                         "Divide the screen into these zones\n\n"
                         "A new zone gets the route of the output in use; the others keep theirs. The\n"
                         "focus moves away from a zone that goes.",
                         "kavrel-tv zones 1,2,3"});
    Add(add, {"focus", "Give a zone the audio focus", "kavrel-tv focus 2"},
        NumberVerb{"ZONE", "The zone's number", tools::WholeNumber(), SetFocus});
    Add<ZoneRouteVerb>(
        add, {"zone-route", "Switch the output of a zone\n\nkavrel-tv route --help lists the routes.",
              "kavrel-tv zone-route 2 bt"});
    Add(add, {"cable", "Plug the optical cable (S/PDIF) in or pull it out", "kavrel-tv cable out"},
        NumberVerb{"STATE", "", tools::OneOf({{"in", 1}, {"out", 0}}), Writer(host::OPTICAL_CABLE)});
    Add(add, {"mobile", "Switch TV-to-mobile sound on or off", "kavrel-tv mobile on"},
        NumberVerb{"STATE", "", onOrOff, Writer(host::MOBILE_MIRRORING)});
    Add(add,
        {"projector",
         "Make the projector ready or not ready\n\n"
         "kavreld ignores it unless the feature \"projector\" was on when it started.",
         "kavrel-tv projector not-ready"},
        NumberVerb{"STATE", "", tools::OneOf({{"ready", 1}, {"not-ready", 0}}), SetProjector});
    Add(add, {"sub-bt", "Give a zone a Bluetooth headset of its own, or none", "kavrel-tv sub-bt 2"},
        NumberVerb{"ZONE", "The zone's number, or none", ZoneOrNone(), Writer(host::SUB_BLUETOOTH_ZONE)});
    Add<FeatureVerb>(add, {"feature",
                           "Switch a feature of the TV on or off\n\n"
                           "kavreld reads the features only when it starts. Three have a short name:\n"
                           "internal-speaker, multiview, projector.",
                           "kavrel-tv feature projector on"});
    Add(add,
        {"popup",
         "Switch the popup of finished fade-ins on or off\n\n"
         "The TV shows popups once the boot event \"FadeInPopup\" is done.",
         "kavrel-tv popup on"},
        NumberVerb{"STATE", "", onOrOff, SetPopup});
    Add(add, {"volume", "Set the TV's master volume, as the remote control does", "kavrel-tv volume 30"},
        NumberVerb{"VOLUME", "0 to 100", tools::WholeNumber(0, 100), Writer(host::MASTER_VOLUME)});
    Add(add, {"mute", "Set the TV's master mute, as the remote control does", "kavrel-tv mute on"},
        NumberVerb{"STATE", "", onOrOff, Writer(host::MASTER_MUTE)});
    Add<KeyVerb>(add, {"key", "Print or write a setting",
                       "kavrel-tv key memory/sysman/spdif\nkavrel-tv key memory/sysman/spdif 1"});
}

void AddVerbs(tools::CommandLine& line, const std::string& directory) {
    AddVerbs([&](const About& about, const std::function<Change()>& parsed) -> CLI::App& {
        return line.AddCommand(about.name, about.description, about.examples, [&directory, parsed] {
            OpenTv(directory);
            parsed()();
            return tools::EXIT_DONE;
        });
    });
}

}  // namespace tv
