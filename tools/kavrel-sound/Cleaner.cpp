// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Cleaner.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "Layout.h"
#include "Outputs.h"

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
    Cleaner(Server& server, std::string defaultSink)
        : m_server(server), m_defaultSink(std::move(defaultSink)) {}

    void Run() {
        m_server.Connect({[this] { Look(); }, [this](const std::string& /*reason*/) { End(); }, {}});
        const auto timer = m_server.Loop().After(PATIENCE, [this] { End(); });
        m_server.Loop().Run();
    }

private:
    void Look() {
        m_server.Look([this](const Snapshot& snapshot) { Remove(snapshot); });
    }

    void Remove(const Snapshot& snapshot) {
        if (snapshot.defaultSink == KAVREL_SINK && snapshot.FindSink(m_defaultSink) != nullptr) {
            m_server.SetDefaultSink(m_defaultSink, {});
        }
        const std::vector<Index> own = FindOwnModules(snapshot);
        if (own.empty()) {
            End();
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

    void End() { m_server.Loop().Quit(0); }

    Server& m_server;
    const std::string m_defaultSink;
};

}  // namespace

void RemoveFromServer(Server& server, const std::string& defaultSink) {
    Cleaner(server, defaultSink).Run();
}

}  // namespace sound
