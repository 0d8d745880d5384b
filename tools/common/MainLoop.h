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
 * The default main context of a tool that stays, run until it is told to end: by Quit(), by Ctrl-C, SIGTERM
 * or SIGHUP, or because the reader of standard output has gone, which it notices at once and not at the next
 * write. Signals count from the construction on, and end a wait for a reader that is there and does not read
 * too. One at a time, on the main thread.
 */
class MainLoop {
public:
    MainLoop();
    ~MainLoop();
    MainLoop(const MainLoop&) = delete;
    MainLoop& operator=(const MainLoop&) = delete;

    /** For tools whose output is all they are for: the end of its reader ends Run(), at once and not at the
     * next write, and with 0. */
    void EndWithReader();

    /** @return what Quit() was given; 128 + the signal's number
     *  @throws what a guarded function has thrown */
    int Run();
    /** The same for what Ctrl-C is the way to end: then 0. */
    int RunUntilInterrupted();
    void Quit(int exitCode);

    enum class Waited { MET, EXPIRED, ENDED };
    /** Runs until the condition holds, which is looked at after each event, or the time is over.
     *  @return ENDED when it was told to end meanwhile, and always from then on
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
