// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TESTS_FAKESERVER_H
#define KAVREL_TESTS_FAKESERVER_H

#include <deque>
#include <string>
#include <vector>

#include "Server.h"

namespace sound {

using Lines = std::vector<std::string>;

/** A sound server that notes what it is asked, and answers when the test has it answer. As with every server, an
 * exception of a callback ends the loop. */
class FakeServer final : public Server {
public:
    using Server::Server;

    void Connect(Handlers handlers) override;
    bool IsReady() const override { return m_isReady; }

    void Look(std::function<void(Snapshot&&)> done) override;
    void Load(const std::string& module, const std::string& arguments,
              std::function<void(Index module)> done) override;
    void Unload(Index module, Done done) override;
    void SetSinkVolumes(Index sink, const Volumes& volumes, Done done) override;
    void SetSinkMute(Index sink, bool isMuted, Done done) override;
    void SetStreamVolumes(Index stream, const Volumes& volumes, Done done) override;
    void SetStreamMute(Index stream, bool isMuted, Done done) override;
    void MoveStream(Index stream, Index sink, Done done) override;
    void SetDefaultSink(const std::string& sink, Done done) override;

    /** @return what the server was asked since the last call, such as "unload 7" */
    Lines Take();
    bool WasAsked() const { return !m_asked.empty(); }

    // A connection exists from the start, until Connect() begins one that is not ready yet.

    void BecomeReady();
    /** Forgets the questions that have no answer yet. */
    void Go(const std::string& reason);
    void Announce(Change change, Index index);

    // Each of the next three answers the oldest question of its kind, and fails the test if there is none.

    void Answer(bool hasSucceeded = true);
    void AnswerLoad(Index module);
    void AnswerLook(Snapshot snapshot);
    /** Answers until nothing but looks and loads wait for an answer. The test does not fail if nothing waits. */
    void AnswerAll();

    bool HasLook() const { return !m_looks.empty(); }

private:
    void Ask(const std::string& line, Done done);

    bool m_isReady = true;
    Handlers m_handlers;
    Lines m_asked;
    std::deque<Done> m_dones;
    std::deque<std::function<void(Index)>> m_loads;
    std::deque<std::function<void(Snapshot&&)>> m_looks;
};

}  // namespace sound

#endif
