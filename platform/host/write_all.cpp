// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "write_all.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace host {
namespace {

/** With a handler that does nothing: unlike an ignored signal it is not passed on to programs started later. */
bool Ignore(int signal) {
    struct sigaction present {};
    if (sigaction(signal, nullptr, &present) != 0 || present.sa_handler != SIG_DFL) {
        return false;
    }
    struct sigaction nothing {};
    nothing.sa_handler = [](int) {};
    nothing.sa_flags = SA_RESTART;
    return sigaction(signal, &nothing, nullptr) == 0;
}

}  // namespace

int WriteAll(int fd, std::string_view text) {
    [[maybe_unused]] static const bool isIgnored = Ignore(SIGXFSZ);
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {  // a terminal that another program has made non-blocking
            pollfd ready{fd, POLLOUT, 0};
            poll(&ready, 1, -1);
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

void IgnorePipeSignal() {
    [[maybe_unused]] static const bool isIgnored = Ignore(SIGPIPE);
}

}  // namespace host
