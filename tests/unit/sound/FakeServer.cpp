// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "FakeServer.h"

#include <gtest/gtest.h>

#include <utility>

namespace sound {

namespace {

std::string Text(const Volumes& volumes) {
    std::string text;
    for (const Volume volume : volumes) {
        text += " " + std::to_string(volume);
    }
    return text;
}

/** Removes the first of the callbacks. @return an empty one, and fails the test, if there is none */
template <typename Callback>
Callback TakeFirst(std::deque<Callback>& callbacks) {
    if (callbacks.empty()) {
        ADD_FAILURE() << "nobody waits for this answer";
        return {};
    }
    Callback first = std::move(callbacks.front());
    callbacks.pop_front();
    return first;
}

}  // namespace

// --- What it is asked

void FakeServer::Ask(const std::string& line, Done done) {
    if (m_isReady) {
        m_asked.push_back(line);
        m_dones.push_back(std::move(done));
    }
}

void FakeServer::Connect(Handlers handlers) {
    m_handlers = std::move(handlers);
    m_isReady = false;
    m_asked.emplace_back("connect");
}

void FakeServer::Look(std::function<void(Snapshot&&)> done) {
    if (m_isReady) {
        m_asked.emplace_back("look");
        m_looks.push_back(std::move(done));
    }
}

void FakeServer::Load(const std::string& module, const std::string& arguments,
                      std::function<void(Index module)> done) {
    if (m_isReady) {
        m_asked.push_back("load " + module + " " + arguments);
        m_loads.push_back(std::move(done));
    }
}

void FakeServer::Unload(Index module, Done done) {
    Ask("unload " + std::to_string(module), std::move(done));
}

void FakeServer::SetSinkVolumes(Index sink, const Volumes& volumes, Done done) {
    Ask("sink " + std::to_string(sink) + " volumes" + Text(volumes), std::move(done));
}

void FakeServer::SetSinkMute(Index sink, bool isMuted, Done done) {
    Ask("sink " + std::to_string(sink) + (isMuted ? " mute" : " unmute"), std::move(done));
}

void FakeServer::SetStreamVolumes(Index stream, const Volumes& volumes, Done done) {
    Ask("stream " + std::to_string(stream) + " volumes" + Text(volumes), std::move(done));
}

void FakeServer::SetStreamMute(Index stream, bool isMuted, Done done) {
    Ask("stream " + std::to_string(stream) + (isMuted ? " mute" : " unmute"), std::move(done));
}

void FakeServer::MoveStream(Index stream, Index sink, Done done) {
    Ask("stream " + std::to_string(stream) + " to sink " + std::to_string(sink), std::move(done));
}

void FakeServer::SetDefaultSink(const std::string& sink, Done done) {
    Ask("default sink " + sink, std::move(done));
}

// --- What it does

Lines FakeServer::Take() {
    return std::exchange(m_asked, {});
}

void FakeServer::BecomeReady() {
    m_isReady = true;
    Loop().Guard(m_handlers.whenReady);
}

void FakeServer::Go(const std::string& reason) {
    m_isReady = false;
    m_dones.clear();
    m_loads.clear();
    m_looks.clear();
    Loop().Guard([&] { m_handlers.whenGone(reason); });
}

void FakeServer::Announce(Change change, Index index) {
    Loop().Guard([&] { m_handlers.whenChanged(change, index); });
}

void FakeServer::Answer(bool hasSucceeded) {
    if (const Done done = TakeFirst(m_dones)) {
        Loop().Guard([&] { done(hasSucceeded); });
    }
}

void FakeServer::AnswerLoad(Index module) {
    if (const auto done = TakeFirst(m_loads)) {
        Loop().Guard([&] { done(module); });
    }
}

void FakeServer::AnswerLook(Snapshot snapshot) {
    if (const auto done = TakeFirst(m_looks)) {
        Loop().Guard([&] { done(std::move(snapshot)); });
    }
}

void FakeServer::AnswerAll() {
    while (!m_dones.empty()) {
        Answer();
    }
}

}  // namespace sound
