// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <Platform.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include "Commands.h"
#include "Errors.h"
#include "Layout.h"
#include "MainLoop.h"
#include "Mapping.h"
#include "Print.h"
#include "PulseServer.h"

namespace sound {

namespace {

/** All that outputs and status show. */
struct View {
    std::optional<Claim::Holder> bridge;
    Settings settings;
    Outputs outputs;
    Snapshot snapshot;
    std::string defaultSink;
    std::optional<int> route;  // of the output in use
};

View LookAtAll(const Scene& scene) {
    tv::OpenTv(scene.directory);
    View view;
    view.bridge = Claim::Find();
    view.settings = SettingsInForce(scene.settings);
    view.outputs = Outputs(view.settings.outputs);
    view.snapshot = AskServer(view.settings.server);
    view.defaultSink = DefaultSink(view.snapshot, view.bridge ? view.bridge->defaultSink : "");
    if (const tv::Integer route = tv::ReadOutput().route) {
        view.route = route.value;
    }
    return view;
}

std::string InColumns(const std::vector<std::array<std::string, 3>>& rows) {
    std::array<std::size_t, 2> widths = {};
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < widths.size(); ++i) {
            widths.at(i) = std::max(widths.at(i), row.at(i).size());
        }
    }
    std::string text;
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < widths.size(); ++i) {
            text += row.at(i) + std::string(widths.at(i) + 2 - row.at(i).size(), ' ');
        }
        text += row.back() + "\n";
    }
    return text;
}

/** @return the cells for a sink: its name, and the reason for it */
std::array<std::string, 2> Cells(const Snapshot& snapshot, const Choice& choice) {
    const bool isMissing = !choice.sink.empty() && snapshot.FindSink(choice.sink) == nullptr;
    return {choice.sink.empty() ? "none" : tools::Printable(choice.sink),
            choice.reason + (isMissing ? "; the server does not have it" : "")};
}

// --- outputs

int ShowOutputs(const Scene& scene) {
    const View view = LookAtAll(scene);
    std::vector<std::array<std::string, 3>> rows = {{"output", "sink", "why"}};
    for (const tv::Route& route : tv::Routes()) {
        const auto [sink, why] = Cells(view.snapshot, view.outputs.ChoiceOf(route.code, view.defaultSink));
        const std::string inUse = view.route == route.code ? "; in use" : "";
        rows.push_back({std::string(route.name), sink, why + inUse});
    }
    const bool hasSub = !view.settings.sub.empty();
    const auto [sink, why] =
        Cells(view.snapshot, {view.settings.sub, hasSub ? "--sub" : "no sink is named for it"});
    rows.push_back({"sub output", sink, why});
    tools::Print(InColumns(rows));
    return tools::EXIT_DONE;
}

// --- status

/** A gain, and the stage that makes it heard. */
struct StageView {
    const char* name;
    tv::Integer gain;
    const Stream* stream = nullptr;  // null: there is no stage
    const Sink* sink = nullptr;      // that it plays on
};

StageView LookAtStage(const Snapshot& snapshot, const char* name, const host::Value& gain) {
    StageView view{name, tv::ReadInteger(gain)};
    const auto found = std::find_if(snapshot.streams.begin(), snapshot.streams.end(),
                                    [name](const Stream& stream) { return IsOfStage(stream, name); });
    if (found != snapshot.streams.end()) {
        view.stream = &*found;
        view.sink = snapshot.FindSink(found->sink);
    }
    return view;
}

double AmplitudeOf(const Stream& stream) {
    return stream.isMuted ? 0 : AmplitudeOfVolume(Loudest(stream.volumes));
}

Json::Value ToJson(const tv::Integer& number) {
    return number ? Json::Value(number.value) : Json::Value();
}

Json::Value ToJson(const StageView& stage) {
    Json::Value json(Json::objectValue);
    json["gain"] = ToJson(stage.gain);
    json["sink"] = stage.sink != nullptr ? Json::Value(stage.sink->name) : Json::Value();
    json["amplitude"] = stage.stream != nullptr ? Json::Value(AmplitudeOf(*stage.stream)) : Json::Value();
    return json;
}

Json::Value ToJson(const Sink& sink) {
    Json::Value json(Json::objectValue);
    json["level"] = LevelOfVolume(Loudest(sink.volumes));
    json["mute"] = sink.isMuted;
    return json;
}

Json::Value ToJson(const View& view, const StageView& main, const StageView& sub) {
    Json::Value json(Json::objectValue);
    json["bridge"] = view.bridge ? Json::Value(view.bridge->process) : Json::Value();
    json["server"] = view.snapshot.server;
    json["kavrel"] = view.snapshot.FindSink(std::string(KAVREL_SINK)) != nullptr;
    json["output"] = view.route ? Json::Value(tv::NameOrCodeOfRoute(*view.route)) : Json::Value();
    json["main"] = ToJson(main);
    json["sub"] = ToJson(sub);
    json["sinks"] = Json::Value(Json::objectValue);
    for (const Sink& sink : view.snapshot.sinks) {
        json["sinks"][sink.name] = ToJson(sink);
    }
    return json;
}

std::string Described(const StageView& stage) {
    if (stage.sink == nullptr) {
        return "silent: there is no stage";
    }
    const double percent = std::round(AmplitudeOf(*stage.stream) * 1000) / 10;
    const std::string gain = stage.gain ? std::to_string(stage.gain.value) : "unreadable";
    return "gain " + gain + ", heard at " + tools::Formatted("%g %%", percent) + " on " +
           tools::Printable(stage.sink->name) + " (level " +
           std::to_string(LevelOfVolume(Loudest(stage.sink->volumes))) +
           (stage.sink->isMuted ? ", muted)" : ")");
}

struct StatusCommand {
    bool isJson = false;

    int Run(const Scene& scene) const {
        const View view = LookAtAll(scene);
        const StageView main = LookAtStage(view.snapshot, MAIN_STAGE, host::MAIN_OUT_GAIN);
        const StageView sub = LookAtStage(view.snapshot, SUB_STAGE, host::SUB_OUT_GAIN);
        if (isJson) {
            tools::PrintJson(ToJson(view, main, sub));
            return tools::EXIT_DONE;
        }
        const bool hasKavrel = view.snapshot.FindSink(std::string(KAVREL_SINK)) != nullptr;
        tools::PrintLine("bridge  " + (view.bridge ? "process " + std::to_string(view.bridge->process)
                                                   : "none runs on this TV"));
        tools::PrintLine("server  " + tools::Printable(view.snapshot.server) +
                         (hasKavrel ? ", with the sink \"kavrel\"" : ", without the sink \"kavrel\""));
        tools::PrintLine("output  " + (view.route ? tv::NameOrCodeOfRoute(*view.route) : "unreadable"));
        tools::PrintLine("main    " + Described(main));
        tools::PrintLine("sub     " + Described(sub));
        return tools::EXIT_DONE;
    }
};

}  // namespace

Settings SettingsInForce(const Settings& given) {
    const auto bridge = Claim::Find();
    if (!bridge || !given.outputs.empty() || !given.sub.empty()) {
        return given;
    }
    Settings settings = bridge->settings;
    settings.server = given.server.empty() ? settings.server : given.server;
    return settings;
}

Snapshot AskServer(const std::string& server) {
    tools::MainLoop loop;
    std::optional<Snapshot> answer;
    PulseServer connection(loop, server);
    const auto look = [&] {
        connection.Look([&](Snapshot&& snapshot) {
            answer = std::move(snapshot);
            loop.Quit(tools::EXIT_DONE);
        });
    };
    const auto fail = [](const std::string& reason) {
        throw tools::ToolError(tools::EXIT_UNREACHABLE, "no sound server: " + reason);
    };
    connection.Connect({look, fail, {}});
    const int status = loop.Run();
    if (!answer) {
        throw tools::ToolError(static_cast<tools::ExitCode>(status),
                               "interrupted before the server answered");
    }
    return std::move(*answer);
}

void AddOutputs(tools::CommandLine& line, const Scene& scene) {
    line.AddCommand("outputs",
                    "List the sink of each output of the TV, and why it is that one\n\n"
                    "The list shows what kavrel-sound does that runs on this TV, or what it would do\n"
                    "with the options given.",
                    "kavrel-sound outputs\nkavrel-sound outputs --output bt=SINK",
                    [&scene] { return ShowOutputs(scene); });
}

void AddStatus(tools::CommandLine& line, const Scene& scene) {
    const auto command = std::make_shared<StatusCommand>();
    CLI::App& app = line.AddCommand("status", "Show the bridge, the server, and both gains as they are heard",
                                    "kavrel-sound status", [command, &scene] { return command->Run(scene); });
    app.add_flag("--json", command->isJson, "Print one JSON object on one line");
}

}  // namespace sound
