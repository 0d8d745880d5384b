// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>

#include "Commands.h"
#include "DirectoryWatch.h"
#include "Errors.h"
#include "MainLoop.h"
#include "Platform.h"
#include "Print.h"
#include "Terminal.h"
#include "View.h"

namespace tv {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds SHORTEST_FRAME(50);

struct ShowCommand {
    bool asJson = false;

    void AddOptions(CLI::App& command) {
        command.add_flag("--json", asJson, "Print one object on one line; null: not set or unreadable");
    }

    int Run(const std::string& directory) const {
        OpenTv(directory);
        if (asJson) {
            tools::PrintJson(ToJson());
        } else {
            tools::Print(Draw(Bars::WITHOUT, tools::Style(), tools::ColumnsOfOutput()));
        }
        return tools::EXIT_DONE;
    }
};

/** Shows the TV and, whenever something has changed, shows it anew. */
class LiveView {
public:
    LiveView(tools::MainLoop& loop, bool asJson) : m_loop(loop), m_asJson(asJson) { Show(); }

    void Suspend() {
        if (m_screen) {
            m_screen->Suspend();
        }
        Changed();
    }

    void Changed() {
        if (m_next) {
            return;
        }
        const auto passed = std::chrono::duration_cast<milliseconds>(Clock::now() - m_shown);
        m_next = m_loop.After(std::max(SHORTEST_FRAME - passed, milliseconds(0)), [this] { Show(); });
    }

private:
    void Show() {
        m_next.reset();
        m_shown = Clock::now();
        if (m_asJson) {
            tools::PrintJson(ToJson());
        } else {
            m_screen->Show(Draw(Bars::WITH, m_style, tools::ColumnsOfOutput()));
        }
    }

    tools::MainLoop& m_loop;
    const bool m_asJson;
    const std::unique_ptr<tools::FullScreen> m_screen =
        m_asJson ? nullptr : std::make_unique<tools::FullScreen>();
    const tools::Style m_style;
    Clock::time_point m_shown;
    tools::GLibPtr<GSource> m_next;  // the frame to come
};

/** Ctrl-Z, which the main loop does not know: it can be read from a file instead of being acted upon. */
class SuspendSignal {
public:
    SuspendSignal() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTSTP);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        m_file = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    }
    ~SuspendSignal() { close(m_file); }
    SuspendSignal(const SuspendSignal&) = delete;
    SuspendSignal& operator=(const SuspendSignal&) = delete;

    int File() const { return m_file; }
    bool Take() const {
        signalfd_siginfo info = {};
        return read(m_file, &info, sizeof(info)) > 0;
    }

private:
    int m_file = -1;
};

struct WatchCommand {
    bool asJson = false;

    void AddOptions(CLI::App& command) {
        command.add_flag("--json", asJson, "Print an object on a line of its own for each change");
    }

    int Run(const std::string& directory) const {
        OpenTv(directory);
        tools::MainLoop loop;
        loop.EndWithReader();
        std::unique_ptr<LiveView> view;
        // Everything is watched before the first look, so that no change in between is lost.
        const DirectoryWatch changes(loop, directory,
                                     [&](DirectoryWatch::Event, const std::string&) { view->Changed(); });
        const auto resized = loop.OnSignal(SIGWINCH, [&] { view->Changed(); });
        const SuspendSignal suspension;
        const auto suspended = loop.WhenReadable(suspension.File(), [&] {
            if (suspension.Take()) {
                view->Suspend();
            }
        });
        view = std::make_unique<LiveView>(loop, asJson);
        return loop.RunUntilInterrupted();
    }
};

}  // namespace

void AddShowAndWatch(tools::CommandLine& line, const std::string& directory) {
    AddCommand<ShowCommand>(
        line, directory,
        {"show",
         "Show the whole TV on one screen\n\n"
         "A setting that nobody has written yet is \"not set\"; a value that is not one of\n"
         "its kind is \"unreadable\".",
         "kavrel-tv show --json"});
    AddCommand<WatchCommand>(line, directory,
                             {"watch",
                              "Show the TV live, with bars, until Ctrl-C\n\n"
                              "The screen is drawn again after each change, at most 20 times a second.",
                              "kavrel-tv watch"});
}

}  // namespace tv
