// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Program.h"

#include <gio/gio.h>

#include <chrono>
#include <stdexcept>

#include "GLibPtr.h"

namespace ctl {

namespace {

constexpr std::chrono::seconds LONGEST_END(10);  // of a program that the kernel has to end

/** The two outputs of a program that runs. */
struct Run {
    tools::GLibPtr<GBytes> output;
    tools::GLibPtr<GBytes> errors;
    tools::GLibError error;
    bool isOver = false;

    static void OnEnd(GObject* program, GAsyncResult* result, void* data) {
        auto* run = static_cast<Run*>(data);
        GBytes* output = nullptr;
        GBytes* errors = nullptr;
        g_subprocess_communicate_finish(G_SUBPROCESS(program), result, &output, &errors, run->error);
        run->output.reset(output);
        run->errors.reset(errors);
        run->isOver = true;
    }
};

/** Ends a program. A thread of GLib sends the signal: without waiting, this tool might end before that. */
void End(GSubprocess* program) {
    const auto onEnd = [](GObject* ended, GAsyncResult* result, void* isOver) {
        g_subprocess_wait_finish(G_SUBPROCESS(ended), result, nullptr);
        *static_cast<bool*>(isOver) = true;
    };
    const tools::Deadline deadline(LONGEST_END);
    bool isOver = false;
    g_subprocess_force_exit(program);
    g_subprocess_wait_async(program, deadline.Cancellable(), onEnd, &isOver);
    while (!isOver) {
        g_main_context_iteration(nullptr, TRUE);
    }
}

/** The text without newlines at its end. */
std::string TextOf(GBytes* bytes) {
    gsize size = 0;
    const auto* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
    const std::string text(data, size);
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

}  // namespace

Written RunProgram(const std::vector<const char*>& command, tools::Timeout timeout) {
    const std::string name = command.front();
    std::vector<const char*> arguments = command;
    arguments.push_back(nullptr);
    const auto flags =
        static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_PIPE);
    const tools::Deadline deadline(timeout);
    Run run;
    const tools::GLibPtr<GSubprocess> program(g_subprocess_newv(arguments.data(), flags, run.error));
    if (program == nullptr) {
        const bool isMissing = g_error_matches(run.error.Get(), G_SPAWN_ERROR, G_SPAWN_ERROR_NOENT) == TRUE;
        throw std::runtime_error(isMissing ? "there is no program " + name : run.error->message);
    }
    g_subprocess_communicate_async(program.get(), nullptr, deadline.Cancellable(), Run::OnEnd, &run);
    while (!run.isOver) {
        g_main_context_iteration(nullptr, TRUE);
    }
    if (run.error.Get() != nullptr) {
        End(program.get());
        throw std::runtime_error(deadline.IsOver()
                                     ? name + " did not end within " + tools::InSeconds(*timeout)
                                     : run.error->message);
    }
    Written written = {TextOf(run.output.get()), TextOf(run.errors.get())};
    if (g_subprocess_get_successful(program.get()) == FALSE) {
        throw std::runtime_error(written.errors.empty() ? name + " failed" : written.errors);
    }
    return written;
}

std::string OutputOf(const std::vector<const char*>& command, tools::Timeout timeout) {
    const Written written = RunProgram(command, timeout);
    return written.output.empty() ? written.errors : written.output;
}

}  // namespace ctl
