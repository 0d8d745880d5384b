// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "OwnModule.h"

#include <utility>

#include "Print.h"

namespace sound {

namespace {

constexpr std::chrono::seconds RETRY{1};

}  // namespace

OwnModule::OwnModule(Server& server, std::string name, std::function<void()> whenAnswered)
    : m_server(server), m_name(std::move(name)), m_whenAnswered(std::move(whenAnswered)) {}

Index OwnModule::Ensure(std::vector<Index> found, const std::string& arguments) {
    m_isWanted = true;
    std::erase_if(found, [this](Index module) { return m_unloading.contains(module); });
    if (found.empty()) {
        if (!m_isLoading && m_retry == nullptr && m_unloading.empty()) {
            Load(arguments);
        }
        return NO_INDEX;
    }
    const Index kept = found.front();
    found.erase(found.begin());
    for (const Index module : found) {
        Unload(module);
    }
    return kept;
}

void OwnModule::Remove(const std::vector<Index>& found) {
    m_isWanted = false;
    for (const Index module : found) {
        Unload(module);
    }
}

void OwnModule::Load(const std::string& arguments) {
    m_isLoading = true;
    m_hasUnloaded = false;
    m_server.Load(m_name, arguments, [this](Index module) {
        m_isLoading = false;
        if (module == NO_INDEX && !m_hasUnloaded) {
            Fail();
            return;
        }
        m_hasComplained = false;
        if (!m_isWanted && module != NO_INDEX) {
            Unload(module);
        }
        m_whenAnswered();
    });
}

void OwnModule::Fail() {
    if (!std::exchange(m_hasComplained, true)) {
        tools::Complain("the server cannot load " + m_name + "; kavrel-sound asks again every second");
    }
    m_retry = m_server.Loop().After(RETRY, [this] {
        m_retry.reset();
        m_whenAnswered();
    });
}

void OwnModule::Unload(Index module) {
    m_hasUnloaded = true;
    if (m_unloading.insert(module).second) {
        m_server.Unload(module, [this, module](bool /*hasSucceeded*/) {
            m_unloading.erase(module);
            m_whenAnswered();
        });
    }
}

void OwnModule::Forget() {
    m_isLoading = false;
    m_retry.reset();
    m_unloading.clear();
}

}  // namespace sound
