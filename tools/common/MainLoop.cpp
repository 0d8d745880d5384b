// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "MainLoop.h"

#include <glib-unix.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <utility>

#include "Print.h"

namespace tools {

struct MainLoop::Callback {
    MainLoop* loop;
    std::function<void()> function;
    gboolean after;  // G_SOURCE_CONTINUE or G_SOURCE_REMOVE

    static gboolean Call(void* data) {
        auto* callback = static_cast<Callback*>(data);
        callback->loop->Guard(callback->function);
        return callback->after;
    }
    static gboolean CallForFile(int /*file*/, GIOCondition /*state*/, void* data) { return Call(data); }
    static void Delete(void* data) { const std::unique_ptr<Callback> callback(static_cast<Callback*>(data)); }
};

MainLoop::MainLoop() : m_stalled(g_main_context_new()) {
    const auto interrupt = [](void* ending) -> gboolean {
        static_cast<Ending*>(ending)->hasCome = true;
        return G_SOURCE_CONTINUE;
    };
    for (Ending& ending : m_endings) {
        m_signals.push_back(OnSignal(ending.signal, [this, &ending] { Quit(ending.exitCode); }));
        m_signals.emplace_back(g_unix_signal_source_new(ending.signal));
        g_source_set_callback(m_signals.back().get(), interrupt, &ending, nullptr);
        g_source_attach(m_signals.back().get(), m_stalled.get());
    }
    WhileStalled([this] { LookAtSignals(); });
}

MainLoop::~MainLoop() {
    WhileStalled({});
}

/** Standard output is written on the main thread, so the default context sees no signal while a write waits. */
void MainLoop::LookAtSignals() {
    while (g_main_context_iteration(m_stalled.get(), FALSE) != FALSE) {
    }
    for (const Ending& ending : m_endings) {
        if (ending.hasCome) {
            throw ToolError(ending.exitCode, "interrupted while nobody read its output");
        }
    }
}

void MainLoop::EndWithReader() {
    const auto gone = static_cast<GIOCondition>(G_IO_ERR | G_IO_HUP | G_IO_NVAL);
    m_reader = WatchFile(STDOUT_FILENO, gone, [this] { Quit(EXIT_DONE); });
}

int MainLoop::Run() {
    while (!m_ended) {
        g_main_context_iteration(nullptr, TRUE);
    }
    if (m_thrown) {
        std::rethrow_exception(m_thrown);
    }
    return m_exitCode;
}

int MainLoop::RunUntilInterrupted(std::optional<double> seconds) {
    GLibPtr<GSource> end;
    if (seconds) {
        end = After(std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(*seconds)),
                    [this] { Quit(EXIT_DONE); });
    }
    const int exitCode = Run();
    return exitCode == EXIT_INTERRUPTED ? EXIT_DONE : exitCode;
}

MainLoop::Waited MainLoop::RunUntil(const std::function<bool()>& met, std::chrono::milliseconds timeout) {
    bool isOver = timeout.count() <= 0;
    const auto timer = After(timeout, [&isOver] { isOver = true; });
    while (!m_ended && !met()) {
        if (isOver) {
            return Waited::EXPIRED;
        }
        g_main_context_iteration(nullptr, TRUE);
    }
    if (m_thrown) {
        std::rethrow_exception(m_thrown);
    }
    return m_ended ? Waited::ENDED : Waited::MET;
}

void MainLoop::Quit(int exitCode) {
    if (!m_ended) {
        m_ended = true;
        m_exitCode = exitCode;
    }
}

void MainLoop::Guard(const std::function<void()>& function) {
    if (m_ended) {
        return;
    }
    try {
        function();
    } catch (...) {
        m_thrown = std::current_exception();
        m_ended = true;
    }
}

GLibPtr<GSource> MainLoop::After(std::chrono::milliseconds delay, std::function<void()> function) {
    auto* timer = g_timeout_source_new(static_cast<guint>(delay.count()));
    return Attach(timer, Callback::Call, {this, std::move(function), G_SOURCE_REMOVE});
}

GLibPtr<GSource> MainLoop::WhenReadable(int file, std::function<void()> function) {
    return WatchFile(file, G_IO_IN, std::move(function));
}

GLibPtr<GSource> MainLoop::OnSignal(int signalNumber, std::function<void()> function) {
    return Attach(g_unix_signal_source_new(signalNumber), Callback::Call,
                  {this, std::move(function), G_SOURCE_CONTINUE});
}

GLibPtr<GSource> MainLoop::WatchFile(int file, GIOCondition condition, std::function<void()> function) {
    return Attach(g_unix_fd_source_new(file, condition), G_SOURCE_FUNC(Callback::CallForFile),
                  {this, std::move(function), G_SOURCE_CONTINUE});
}

GLibPtr<GSource> MainLoop::Attach(GSource* source, GSourceFunc call, Callback callback) {
    auto owned = std::make_unique<Callback>(std::move(callback));
    g_source_set_callback(source, call, owned.release(), Callback::Delete);
    g_source_attach(source, nullptr);
    return GLibPtr<GSource>(source);
}

}  // namespace tools
