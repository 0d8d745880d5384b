// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TOOLS_MAINLOOP_H
#define KAVREL_TOOLS_MAINLOOP_H

#include <glib.h>

#include <array>
#include <chrono>
#include <csignal>
#include <exception>
#include <functional>
#include <optional>
#include <vector>

#include "Errors.h"
#include "GLibPtr.h"

namespace tools {

/**
 * Runs the default main context of a tool until it ends: by Quit(), by Ctrl-C, SIGTERM or SIGHUP, or because the
 * reader of standard output has gone. While the object lives, these signals also end a write that waits for a slow
 * reader. A tool has one at a time, on the main thread.
 */
class MainLoop {
public:
    MainLoop();
    ~MainLoop();
    MainLoop(const MainLoop&) = delete;
    MainLoop& operator=(const MainLoop&) = delete;

    /** Makes Run() return 0 as soon as the reader of standard output goes, before the next write fails. For tools
     *  that do nothing but print. */
    void EndWithReader();

    /** @return the argument of Quit(), or 128 + the signal's number
     *  @throws the exception of a guarded function */
    int Run();
    /** Like Run(), but returns 0 after Ctrl-C, which is the usual end of some commands, and after so many seconds. */
    int RunUntilInterrupted(std::optional<double> seconds = {});
    void Quit(int exitCode);

    enum class Waited { MET, EXPIRED, ENDED };
    /** Runs until the condition holds, which it checks after each event, or the time is over.
     *  @return ENDED if Quit() or a signal ended the loop, and always from then on
     *  @throws the exception of a guarded function */
    Waited RunUntil(const std::function<bool()>& met, std::chrono::milliseconds timeout);
    /** Calls the function and keeps its exception, which ends Run(): no exception may leave a callback of GLib. */
    void Guard(const std::function<void()>& function);

    // The functions below make a source that calls the function through Guard(), as long as the source lives.

    /** Calls the function once, after the delay. */
    GLibPtr<GSource> After(std::chrono::milliseconds delay, std::function<void()> function);
    GLibPtr<GSource> WhenReadable(int file, std::function<void()> function);
    /** @param signalNumber SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2 or SIGWINCH */
    GLibPtr<GSource> OnSignal(int signalNumber, std::function<void()> function);

private:
    struct Callback;
    /** A signal that ends a tool. */
    struct Ending {
        int signal;
        ExitCode exitCode;
        bool hasCome = false;
    };
    GLibPtr<GSource> WatchFile(int file, GIOCondition condition, std::function<void()> function);
    static GLibPtr<GSource> Attach(GSource* source, GSourceFunc call, Callback callback);
    void LookAtSignals();

    bool m_ended = false;
    int m_exitCode = 0;
    std::exception_ptr m_thrown;
    std::array<Ending, 3> m_endings = {
        {{SIGINT, EXIT_INTERRUPTED}, {SIGTERM, EXIT_TERMINATED}, {SIGHUP, EXIT_HUNG_UP}}};
    /** The context that dispatches the signals while a write waits for its reader. */
    const GLibPtr<GMainContext> m_stalled;
    std::vector<GLibPtr<GSource>> m_signals;
    GLibPtr<GSource> m_reader;
};

}  // namespace tools

#endif
