// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Cleaner.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "Layout.h"
#include "MainLoop.h"
#include "Outputs.h"
#include "Server.h"

namespace sound {

namespace {

constexpr std::chrono::seconds PATIENCE{2};

/** In the order in which they are unloaded: without "kavrel" first, a stage would be moved. */
std::vector<Index> FindOwnModules(const Snapshot& snapshot) {
    std::vector<Index> found = FindStage(snapshot, MAIN_STAGE);
    for (const auto& others : {FindStage(snapshot, SUB_STAGE), FindKavrel(snapshot)}) {
        found.insert(found.end(), others.begin(), others.end());
    }
    return found;
}

class Cleaner {
public:
    Cleaner(const std::string& server, std::string defaultSink)
        : m_defaultSink(std::move(defaultSink)),
          m_server(m_loop, server, {[this] { Look(); }, [this](const std::string&) { m_loop.Quit(0); }, {}}) {
    }

    void Run() {
        m_server.Connect();
        const auto timer = m_loop.After(PATIENCE, [this] { m_loop.Quit(0); });
        m_loop.Run();
    }

private:
    void Look() {
        m_server.Look([this](const Snapshot& snapshot) { Remove(snapshot); });
    }

    void Remove(const Snapshot& snapshot) {
        if (snapshot.defaultSink == KAVREL_SINK && snapshot.FindSink(m_defaultSink) != nullptr) {
            m_server.SetDefaultSink(m_defaultSink);
        }
        const std::vector<Index> own = FindOwnModules(snapshot);
        if (own.empty()) {
            m_loop.Quit(0);
            return;
        }
        for (const Index module : own) {
            m_server.Unload(module, [this, isLast = module == own.back()](bool) {
                if (isLast) {
                    Look();
                }
            });
        }
    }

    const std::string m_defaultSink;
    tools::MainLoop m_loop;
    Server m_server;
};

}  // namespace

void RemoveFromServer(const std::string& server, const std::string& defaultSink) {
    Cleaner(server, defaultSink).Run();
}

}  // namespace sound
