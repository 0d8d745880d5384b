// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "write_all.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

namespace host {
namespace {

/** Blocks SIGPIPE and SIGXFSZ, which the kernel sends to the writing thread, and discards those of failed writes. */
class WriteSignals {
public:
    WriteSignals() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGPIPE);
        sigaddset(&signals, SIGXFSZ);
        sigpending(&m_pendingBefore);
        pthread_sigmask(SIG_BLOCK, &signals, &m_blockedBefore);
    }
    ~WriteSignals() { pthread_sigmask(SIG_SETMASK, &m_blockedBefore, nullptr); }
    WriteSignals(const WriteSignals&) = delete;
    WriteSignals& operator=(const WriteSignals&) = delete;

    void TakeThatOf(int error) const {
        const int number = error == EPIPE ? SIGPIPE : SIGXFSZ;
        if ((error != EPIPE && error != EFBIG) || sigismember(&m_pendingBefore, number) == 1) {
            return;
        }
        sigset_t signal;
        sigemptyset(&signal);
        sigaddset(&signal, number);
        const timespec now{};
        sigtimedwait(&signal, nullptr, &now);
    }

private:
    sigset_t m_pendingBefore{};
    sigset_t m_blockedBefore{};
};

}  // namespace

int WriteAll(int fd, std::string_view text) {
    const WriteSignals signals;
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {  // a terminal that another program has made non-blocking
            pollfd ready{fd, POLLOUT, 0};
            poll(&ready, 1, -1);
        } else if (errno != EINTR) {
            const int error = errno;
            signals.TakeThatOf(error);
            return error;
        }
    }
    return 0;
}

}  // namespace host
