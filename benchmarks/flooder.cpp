// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * A hostile program: floods the server with getters that want no reply, over many connections, for some
 * seconds, at a rate or as fast as the bus takes them. It speaks the bus's protocol itself, so that it costs little.
 *
 * Usage: flooder SOCKET CONNECTIONS SECONDS RATE
 * Prints "ready" when it is connected, and at the end the number of messages that the bus has taken.
 */
#include <fcntl.h>
#include <gio/gio.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::microseconds PAUSE(200);  // between messages that are sent at a rate

std::string BlobOf(const char* name, const char* path, const char* interface, const char* method,
                   GDBusMessageFlags flags) {
    g_autoptr(GDBusMessage) message = g_dbus_message_new_method_call(name, path, interface, method);
    g_dbus_message_set_flags(message, flags);
    g_dbus_message_set_serial(message, 1);
    gsize size = 0;
    g_autofree guchar* blob = g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    return {blob, blob + size};
}

[[noreturn]] void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/** One connection, authenticated and with its name, that never waits. */
class Connection {
public:
    explicit Connection(const std::string& socketPath)
        : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
        if (connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            Fail("connect");
        }
        Ask(std::string_view("\0AUTH EXTERNAL\r\n", 16), "DATA\r\n");
        Ask("DATA\r\n", "OK ");
        constexpr const char* BUS = "org.freedesktop.DBus";
        Ask("BEGIN\r\n" + BlobOf(BUS, "/org/freedesktop/DBus", BUS, "Hello", G_DBUS_MESSAGE_FLAGS_NONE), "l");
        fcntl(m_socket, F_SETFL, O_NONBLOCK);
    }
    ~Connection() {
        if (m_socket >= 0) {
            close(m_socket);
        }
    }
    Connection(Connection&& other) noexcept : m_socket(std::exchange(other.m_socket, -1)) {}
    Connection& operator=(Connection&&) = delete;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int Socket() const { return m_socket; }

    /** Goes on with the text, which it sends again and again: once, or until the bus takes no more. */
    long Send(std::string_view text) {
        long sent = 0;
        while (sent < static_cast<long>(text.size())) {
            const std::string_view rest = text.substr(m_position);
            const ssize_t count = send(m_socket, rest.data(), rest.size(), MSG_NOSIGNAL);
            if (count < 0) {
                break;
            }
            sent += count;
            m_position = (m_position + static_cast<std::size_t>(count)) % text.size();
        }
        return sent;
    }

private:
    void Ask(std::string_view question, std::string_view answer) const {
        std::array<char, 4096> reply{};
        if (write(m_socket, question.data(), question.size()) < 0 ||
            read(m_socket, reply.data(), reply.size() - 1) <= 0 ||
            !std::string_view(reply.data()).starts_with(answer)) {
            throw std::runtime_error("the bus does not let it in");
        }
    }

    int m_socket;
    std::size_t m_position = 0;  // in the text
};

/** @param rate messages a second of all connections; 0 for as many as the bus takes
 *  @return the number of messages that the bus has taken */
long Flood(std::vector<Connection>& connections, std::chrono::duration<double> time, double rate) {
    const std::string message = BlobOf("org.olvane.kavrel", "/Org/Olvane/KavrelInternal", "org.olvane.kavrel",
                                       "GetSpeakerVolume", G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    const auto size = static_cast<double>(message.size());
    std::vector<pollfd> sockets;
    sockets.reserve(connections.size());
    for (const Connection& connection : connections) {
        sockets.push_back({connection.Socket(), POLLOUT, 0});
    }
    double sent = 0;  // bytes
    const auto start = Clock::now();
    for (auto now = start; now < start + time; now = Clock::now()) {
        const double due = rate * std::chrono::duration<double>(now - start).count() * size;
        if (rate > 0 && sent >= due) {
            std::this_thread::sleep_for(PAUSE);
            continue;
        }
        poll(sockets.data(), sockets.size(), 10);
        for (std::size_t i = 0; i < sockets.size(); ++i) {
            if ((sockets[i].revents & POLLOUT) != 0) {
                sent += static_cast<double>(connections[i].Send(message));
            }
        }
    }
    return static_cast<long>(sent / size);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "Usage: flooder SOCKET CONNECTIONS SECONDS RATE\n";
        return EXIT_FAILURE;
    }
    try {
        const int count = std::max(0, std::atoi(argv[2]));
        std::vector<Connection> connections;
        connections.reserve(count);
        for (int i = 0; i < count; ++i) {
            connections.emplace_back(argv[1]);
        }
        std::cout << "ready" << std::endl;
        std::cout << Flood(connections, std::chrono::duration<double>(std::atof(argv[3])), std::atof(argv[4]))
                  << '\n';
    } catch (const std::exception& error) {
        std::cerr << "flooder: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
