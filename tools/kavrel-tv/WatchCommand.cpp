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
#include "Snapshot.h"
#include "Terminal.h"
#include "View.h"

namespace tv {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds LEAST_TIME_BETWEEN_FRAMES(50);

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
        m_next =
            m_loop.After(std::max(LEAST_TIME_BETWEEN_FRAMES - passed, milliseconds(0)), [this] { Show(); });
    }

private:
    void Show() {
        m_next.reset();
        m_shown = Clock::now();
        const Snapshot now = ReadTv();
        if (m_asJson) {
            tools::PrintJson(ToJson(now));
        } else {
            m_screen->Show(Draw(now, Bars::WITH, m_style, ColumnsOfOutput()));
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

int Watch(const std::string& directory, bool asJson) {
    OpenTv(directory);
    tools::MainLoop loop;
    loop.EndWithReader();
    std::unique_ptr<LiveView> view;
    // All that can happen is heard from before the first look on, so that nothing falls in between.
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

}  // namespace

void AddWatch(tools::CommandLine& line, const Options& options) {
    auto asJson = std::make_shared<bool>(false);
    line.AddCommand("watch",
                    "show the TV live, with bars, until Ctrl-C\n\n"
                    "Drawn anew when something has changed, at most 20 times a second.",
                    "kavrel-tv watch", [&options, asJson] { return Watch(options.directory, *asJson); })
        .add_flag("--json", *asJson, "an object on a line of its own for each change");
}

}  // namespace tv
