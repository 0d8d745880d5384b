// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * A library that the tests preload into a bus, so that the machine needs no change for it.
 *
 * The users in the file KAVREL_TEST_PASSWD exist for the bus beside those of the machine. The launcher of
 * dbus-broker requires a journal: it gets the socket KAVREL_TEST_JOURNAL.
 */
#include <dlfcn.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

namespace {

template <typename Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/** Looks for a user that fits in KAVREL_TEST_PASSWD. */
template <typename Fits>
bool Find(Fits fits, passwd* user, char* buffer, std::size_t size, passwd** result) {
    const char* const path = std::getenv("KAVREL_TEST_PASSWD");
    const std::unique_ptr<FILE, int (*)(FILE*)> users(path ? std::fopen(path, "re") : nullptr, std::fclose);
    while (users && fgetpwent_r(users.get(), user, buffer, size, result) == 0) {
        if (fits(*user))
            return true;
    }
    return false;
}

}  // namespace

extern "C" int getpwnam_r(const char* name, passwd* user, char* buffer, std::size_t size, passwd** result) {
    const auto fits = [name](const passwd& one) { return std::string_view(one.pw_name) == name; };
    if (Find(fits, user, buffer, size, result))
        return 0;
    return Next<decltype(getpwnam_r)>("getpwnam_r")(name, user, buffer, size, result);
}

extern "C" int getpwuid_r(uid_t id, passwd* user, char* buffer, std::size_t size, passwd** result) {
    const auto fits = [id](const passwd& one) { return one.pw_uid == id; };
    if (Find(fits, user, buffer, size, result))
        return 0;
    return Next<decltype(getpwuid_r)>("getpwuid_r")(id, user, buffer, size, result);
}

extern "C" passwd* getpwnam(const char* name) {
    static passwd user;
    static std::array<char, 4096> buffer;
    passwd* result = nullptr;
    errno = getpwnam_r(name, &user, buffer.data(), buffer.size(), &result);
    return result;
}

extern "C" int connect(int socket, const sockaddr* address, socklen_t size) {
    static const auto connectNext = Next<int(int, const sockaddr*, socklen_t)>("connect");
    const char* const journal = std::getenv("KAVREL_TEST_JOURNAL");
    sockaddr_un local{};
    std::memcpy(&local, address, std::min<std::size_t>(size, sizeof(local)));
    const std::string_view path(local.sun_path, strnlen(local.sun_path, sizeof(local.sun_path)));
    if (journal == nullptr || local.sun_family != AF_UNIX || path != "/run/systemd/journal/socket")
        return connectNext(socket, address, size);
    local.sun_path[std::string_view(journal).copy(local.sun_path, sizeof(local.sun_path) - 1)] = '\0';
    return connectNext(socket, reinterpret_cast<const sockaddr*>(&local), sizeof(local));
}
