// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <gio/gio.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Errors.h"
#include "GLibPtr.h"
#include "Platform.h"
#include "PlotScript.h"
#include "Print.h"
#include "Recorder.h"

namespace tv {

namespace {

/** Runs the installer that ./run names; its messages go to standard error. */
void InstallGnuplot() {
    const char* const script = R"([ -z "$KAVREL_INSTALL" ] || "$KAVREL_INSTALL" gnuplot-nox >&2)";
    const tools::GLibPtr<GSubprocess> shell(
        g_subprocess_new(G_SUBPROCESS_FLAGS_NONE, nullptr, "/bin/sh", "-c", script, nullptr));
    if (shell != nullptr) {
        g_subprocess_wait(shell.get(), nullptr, nullptr);
    }
}

std::string ToText(GBytes* bytes) {
    gsize size = 0;
    const void* const data = bytes != nullptr ? g_bytes_get_data(bytes, &size) : nullptr;
    return {static_cast<const char*>(data), size};
}

/** @return what gnuplot prints */
std::string RunGnuplot(const std::string& script) {
    const tools::GLibPtr<char> program(g_find_program_in_path("gnuplot"));
    if (program == nullptr) {
        InstallGnuplot();
    }
    tools::GLibError error;
    const auto flags = static_cast<GSubprocessFlags>(
        G_SUBPROCESS_FLAGS_STDIN_PIPE | G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_PIPE);
    const tools::GLibPtr<GSubprocess> process(g_subprocess_new(flags, error, "gnuplot", "-", nullptr));
    if (process == nullptr) {
        throw tools::ToolError(
            tools::EXIT_REFUSED,
            "cannot start gnuplot, which draws the picture: install the Debian package gnuplot-nox");
    }
    const tools::GLibPtr<GBytes> input(g_bytes_new(script.data(), script.size()));
    GBytes* output = nullptr;
    GBytes* errors = nullptr;
    const bool isDone =
        g_subprocess_communicate(process.get(), input.get(), nullptr, &output, &errors, error) != FALSE;
    const tools::GLibPtr<GBytes> picture(output);
    const tools::GLibPtr<GBytes> complaint(errors);
    if (!isDone || !g_subprocess_get_successful(process.get())) {
        throw tools::ToolError(tools::EXIT_REFUSED, "gnuplot has failed: " + ToText(complaint.get()));
    }
    return ToText(picture.get());
}

/** @return nothing for a name that does not end with a known type, in any case */
std::optional<PictureType> TypeOf(std::string_view name) {
    const std::string_view end = name.substr(name.size() - std::min<std::size_t>(name.size(), 4));
    if (tools::IsSameWord(end, ".svg")) {
        return PictureType::SVG;
    }
    return tools::IsSameWord(end, ".png") ? std::optional(PictureType::PNG) : std::nullopt;
}

/** Replaces the file as a whole. GLib's message names a temporary file: only the reason at its end is of use. */
void WriteFile(const std::string& name, const std::string& text) {
    tools::GLibError error;
    if (!g_file_set_contents(name.c_str(), text.data(), static_cast<gssize>(text.size()), error)) {
        const std::string message = error->message;
        throw tools::ToolError(
            tools::EXIT_REFUSED,
            "cannot write " + name + message.substr(std::min(message.rfind(": "), message.size())));
    }
}

std::string CheckPicture(const std::string& name) {
    return name == STANDARD_OUTPUT || TypeOf(name) ? ""
                                                   : tools::Quoted(name) + " is not FILE.svg, FILE.png or -";
}

struct PlotCommand {
    std::string recording;
    std::string picture;
    std::optional<PictureType> format;

    void AddOptions(CLI::App& command) {
        command.add_option("FILE.csv", recording, "A recording of kavrel-tv record")->required();
        command
            .add_option("PICTURE", picture,
                        "FILE.svg or FILE.png, an old one is replaced;\n- for standard output")
            ->required()
            ->check(CLI::Validator(CheckPicture, ""));
        const std::vector<std::pair<std::string, int>> types = {{"svg", static_cast<int>(PictureType::SVG)},
                                                                {"png", static_cast<int>(PictureType::PNG)}};
        command.add_option("--format", format, "svg|png; Set the type on standard output (default: svg)")
            ->type_name("TYPE")
            ->transform(tools::OneOf(types).description(""));
    }

    int Run(const std::string& /*directory*/) const {
        const auto named = TypeOf(picture);
        if (format && named && format != named) {
            throw tools::UsageError("--format differs from the type of " + tools::Quoted(picture));
        }
        const std::vector<Sample> samples = ParseRecording(recording, ReadFile(recording));
        const std::string name = std::filesystem::path(recording).filename().string();
        const PictureType type = named ? *named : format.value_or(PictureType::SVG);
        const std::string drawn = RunGnuplot(PlotScript(samples, "Sound of the TV: " + name, type));
        if (picture == STANDARD_OUTPUT) {
            tools::Print(drawn);
            return tools::EXIT_DONE;
        }
        WriteFile(picture, drawn);
        tools::PrintLine(std::to_string(samples.size()) + " lines drawn in " + tools::Printable(picture));
        return tools::EXIT_DONE;
    }
};

}  // namespace

void AddPlot(tools::CommandLine& line, const std::string& directory) {
    AddCommand<PlotCommand>(
        line, directory,
        {"plot",
         "Draw a recording as a picture, SVG or PNG\n\n"
         "The picture has both gains above; below them the TV's volume, the times in which\n"
         "it was muted, and the level of the output in use; at the bottom a row for each\n"
         "output, with the times in which it was in use and muted; and a mark at each\n"
         "event. What the recording does not have is left out.",
         "kavrel-tv plot fade.csv fade.svg\nkavrel-tv plot --format png fade.csv - >fade.png"});
}

}  // namespace tv
