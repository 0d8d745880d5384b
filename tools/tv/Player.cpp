// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Player.h"

#include <directory.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "Platform.h"

namespace tv {

Player::~Player() {
    if (m_isThisProcess) {
        static_cast<void>(host::Remove(File()));
    }
}

host::Value Player::File() {
    return {".devices", host::ANY_INTEGER};
}

void Player::Take() {
    ThrowIfFailed(host::Write(File(), std::to_string(getpid())));
    m_isThisProcess = true;
    m_process = getpid();
}

Player::Change Player::Look() {
    int process = 0;
    const bool isAlive = !host::Read(File(), process) && (kill(process, 0) == 0 || errno == EPERM);
    if (!isAlive) {
        Take();
        return Change::GIVEN_BACK;
    }
    m_process = process;
    if (process == getpid() || !m_isThisProcess) {
        return Change::NONE;
    }
    m_isThisProcess = false;
    return Change::TAKEN_AWAY;
}

}  // namespace tv
