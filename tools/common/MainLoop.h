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
#include <vector>

#include "Errors.h"
#include "GLibPtr.h"

namespace tools {

/**
 * Runs the default main context until Quit(), Ctrl-C, SIGTERM or SIGHUP, or until the reader of standard output
 * closes it, which the loop notices before the next write. The object catches these signals from its
 * construction on, also while a write waits for a slow reader. One object at a time, on the main thread.
 */
class MainLoop {
public:
    MainLoop();
    ~MainLoop();
    MainLoop(const MainLoop&) = delete;
    MainLoop& operator=(const MainLoop&) = delete;

    /** Makes Run() return 0 as soon as the reader of standard output closes it: for tools that only print. */
    void EndWithReader();

    /** @return the argument of Quit(), or 128 plus the signal's number
     *  @throws what a guarded function has thrown */
    int Run();
    /** Like Run(), but returns 0 after Ctrl-C: for commands that end in no other way. */
    int RunUntilInterrupted();
    void Quit(int exitCode);

    enum class Waited { MET, EXPIRED, ENDED };
    /** Runs until the condition holds or the time has passed; checks the condition after each event.
     *  @return ENDED if something ended the loop meanwhile, and in all later calls
     *  @throws what a guarded function has thrown */
    Waited RunUntil(const std::function<bool()>& met, std::chrono::milliseconds timeout);
    /**
     * Calls the function, for use in GLib's callbacks, which no
     * exception may leave: it ends Run() instead.
     */
    void Guard(const std::function<void()>& function);

    /** Calls the (guarded) function again and again while the source lives. */
    GLibPtr<GSource> Every(std::chrono::milliseconds period, std::function<void()> function);
    /** Calls the (guarded) function once, unless the source is gone by then. */
    GLibPtr<GSource> After(std::chrono::milliseconds delay, std::function<void()> function);
    /** Calls the (guarded) function whenever the file can be read, while the source lives. */
    GLibPtr<GSource> WhenReadable(int file, std::function<void()> function);
    /** Calls the (guarded) function whenever the signal comes, while the source lives: SIGHUP, SIGINT,
     * SIGTERM, SIGUSR1, SIGUSR2 or SIGWINCH. */
    GLibPtr<GSource> OnSignal(int signalNumber, std::function<void()> function);

private:
    struct Callback;
    /** A signal that ends a tool. */
    struct Ending {
        int signal;
        ExitCode exitCode;
        bool hasCome = false;
    };
    GLibPtr<GSource> Attach(GSource* source, std::function<void()> function, bool once);
    void LookAtSignals();

    bool m_ended = false;
    int m_exitCode = 0;
    std::exception_ptr m_thrown;
    std::array<Ending, 3> m_endings = {
        {{SIGINT, EXIT_INTERRUPTED}, {SIGTERM, EXIT_TERMINATED}, {SIGHUP, EXIT_HUNG_UP}}};
    const GLibPtr<GMainContext> m_stalled;
    std::vector<GLibPtr<GSource>> m_signals;
    GLibPtr<GSource> m_reader;
};

}  // namespace tools

#endif
