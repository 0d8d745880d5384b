// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Kernel.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/openat2.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace {

struct State {
    std::mutex mutex;
    // Guarded by the mutex.
    std::string steps;
    kernel::Crossing crossing;
    std::string refusedEnd;
    std::string hiddenPath;
    std::string unsyncedName;
    std::string openedPath;
    std::function<void()> beforeOpening;
    std::deque<int> timeouts;  // those that NextTimeout() has not returned yet
    std::optional<int> lastTimeout;
    std::condition_variable hasTimeout;
    bool areWaitsHeld = false;
    bool isThreadHeld = false;
    std::condition_variable hold;
};

/** Never destroyed: the platform thread calls until the process has ended. */
union NeverDestroyed {
    NeverDestroyed() : state() {}
    ~NeverDestroyed() {}
    State state;
} kept;
State& state = kept.state;

/** How many unlocks this thread still makes before its action. */
thread_local int unlocksLeft = 0;
thread_local std::function<void()> afterUnlocks;

std::atomic<int> renames = 0;
std::atomic<int> refusedWaits = 0;
std::atomic<int> filesToInherit = 0;

/** "file", or the name of the folder. */
std::string NameOf(int file) {
    struct stat status {};
    std::error_code ignored;
    return fstat(file, &status) == 0 && S_ISDIR(status.st_mode)
               ? fs::read_symlink("/proc/self/fd/" + std::to_string(file), ignored).filename().string()
               : "file";
}

void Note(const std::string& step) {
    const std::lock_guard guard(state.mutex);
    state.steps += step + ", ";
}

kernel::Crossing TakeCrossing(const std::string& name) {
    const std::lock_guard guard(state.mutex);
    return name == state.crossing.name ? std::exchange(state.crossing, {}) : kernel::Crossing();
}

std::function<void()> TakeOpening(const std::string& path, int flags) {
    const std::lock_guard guard(state.mutex);
    const bool isIt = state.openedPath.empty() ? (flags & O_CREAT) != 0 : path == state.openedPath;
    return isIt ? std::exchange(state.beforeOpening, nullptr) : nullptr;
}

void NoteTimeout(int timeout) {
    const std::lock_guard guard(state.mutex);
    if (state.lastTimeout != timeout) {
        state.lastTimeout = timeout;
        state.timeouts.push_back(timeout);
        state.hasTimeout.notify_all();
    }
}

/** Returns at once unless waits are held. */
void AwaitLeave() {
    std::unique_lock lock(state.mutex);
    state.isThreadHeld = state.areWaitsHeld;
    state.hold.notify_all();
    state.hold.wait(lock, [] { return !state.areWaitsHeld; });
}

void CountFileToInherit(std::uint64_t flags) {
    filesToInherit += (flags & O_CLOEXEC) == 0 ? 1 : 0;
}

bool IsRefused(const std::string& path) {
    const std::lock_guard guard(state.mutex);
    return !state.refusedEnd.empty() && path.ends_with(state.refusedEnd);
}

bool IsHidden(const std::string& path) {
    const std::lock_guard guard(state.mutex);
    return path == state.hiddenPath;
}

bool IsUnsynced(const std::string& name) {
    const std::lock_guard guard(state.mutex);
    return name == state.unsyncedName;
}

void Run(const std::function<void()>& action) {
    if (action) {
        action();
    }
}

}  // namespace

// --- The calls, in the place of the C library's

/**
 * Like the C library's, it reads as many arguments as a call can have, even those that the caller did not pass.
 * AddressSanitizer would take that for an error.
 */
extern "C" [[gnu::no_sanitize_address]] long syscall(long number, ...) noexcept {
    static const auto real = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    if (number == SYS_openat2 && renames > 0) {
        --renames;
        errno = EAGAIN;
        return -1;
    }
    std::array<long, 6> values{};
    va_list arguments;
    va_start(arguments, number);
    for (long& value : values) {
        value = va_arg(arguments, long);
    }
    va_end(arguments);
    if (number == SYS_openat2) {
        CountFileToInherit(reinterpret_cast<const open_how*>(values[2])->flags);
    }
    return real(number, values[0], values[1], values[2], values[3], values[4], values[5]);
}

namespace {

int Open(int folder, const char* path, int flags, va_list arguments) {
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    Run(TakeOpening(path, flags));
    if (IsHidden(path)) {
        errno = ENOENT;
        return -1;
    }
    return static_cast<int>(syscall(SYS_openat, folder, path, flags, mode));
}

}  // namespace

extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int file = Open(AT_FDCWD, path, flags, arguments);
    va_end(arguments);
    return file;
}

extern "C" int openat(int folder, const char* path, int flags, ...) {
    CountFileToInherit(static_cast<std::uint64_t>(flags));
    va_list arguments;
    va_start(arguments, flags);
    const int file = Open(folder, path, flags, arguments);
    va_end(arguments);
    return file;
}

extern "C" int fcntl(int file, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    if (command == F_DUPFD) {
        ++filesToInherit;
    }
    return static_cast<int>(syscall(SYS_fcntl, file, command, argument));
}

extern "C" int mkdirat(int folder, const char* path, mode_t mode) noexcept {
    Note(std::string("make ") + path);
    return static_cast<int>(syscall(SYS_mkdirat, folder, path, mode));
}

extern "C" int epoll_ctl(int epoll, int operation, int file, epoll_event* event) noexcept {
    if (operation == EPOLL_CTL_ADD && refusedWaits > 0) {
        --refusedWaits;
        errno = ENOSPC;
        return -1;
    }
    return static_cast<int>(syscall(SYS_epoll_ctl, epoll, operation, file, event));
}

extern "C" int epoll_wait(int epoll, epoll_event* events, int size, int timeout) {
    static const auto real =
        reinterpret_cast<int (*)(int, epoll_event*, int, int)>(dlsym(RTLD_NEXT, "epoll_wait"));
    NoteTimeout(timeout);
    AwaitLeave();
    return real(epoll, events, size, timeout);
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    static const auto real =
        reinterpret_cast<int (*)(pthread_mutex_t*)>(dlsym(RTLD_NEXT, "pthread_mutex_unlock"));
    const int result = real(mutex);
    if (unlocksLeft > 0 && --unlocksLeft == 0) {
        Run(std::exchange(afterUnlocks, nullptr));
    }
    return result;
}

extern "C" int fsync(int file) {
    const std::string name = NameOf(file);
    Note("sync " + name);
    if (IsUnsynced(name)) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fsync, file));
}

extern "C" int renameat2(int oldFolder, const char* oldName, int newFolder, const char* newName,
                         unsigned int flags) noexcept {
    const kernel::Crossing others = TakeCrossing(newName);
    Run(others.before);
    const auto result =
        static_cast<int>(syscall(SYS_renameat2, oldFolder, oldName, newFolder, newName, flags));
    const int error = errno;
    Note(std::string("rename ") + newName);
    Run(others.after);
    errno = error;
    return result;
}

extern "C" int inotify_add_watch(int inotify, const char* path, std::uint32_t mask) noexcept {
    if (IsRefused(path)) {
        errno = ENOSPC;
        return -1;
    }
    return static_cast<int>(syscall(SYS_inotify_add_watch, inotify, path, mask));
}

namespace kernel {

std::string TakeSteps() {
    const std::lock_guard guard(state.mutex);
    return std::exchange(state.steps, {});
}

void Cross(const Crossing& next) {
    const std::lock_guard guard(state.mutex);
    state.crossing = next;
}

void CrossOpening(const std::string& path, const std::function<void()>& action) {
    const std::lock_guard guard(state.mutex);
    state.openedPath = path;
    state.beforeOpening = action;
}

void CrossUnlock(int times, const std::function<void()>& action) {
    afterUnlocks = action;
    unlocksLeft = times;
}

int FilesOpenedToInherit() {
    return filesToInherit;
}

int NextTimeout() {
    std::unique_lock lock(state.mutex);
    state.hasTimeout.wait(lock, [] { return !state.timeouts.empty(); });
    const int timeout = state.timeouts.front();
    state.timeouts.pop_front();
    return timeout;
}

int HoldWaits() {
    const std::lock_guard guard(state.mutex);
    state.areWaitsHeld = true;
    return 0;
}

int AwaitHeldWait() {
    std::unique_lock lock(state.mutex);
    state.hold.wait(lock, [] { return state.isThreadHeld; });
    return 0;
}

int EndHeldWait() {
    const std::lock_guard guard(state.mutex);
    state.areWaitsHeld = false;
    state.hold.notify_all();
    return 0;
}

int RefuseWaits(int times) {
    refusedWaits = times;
    return 0;
}

void RefuseWatchesOf(const std::string& end) {
    const std::lock_guard guard(state.mutex);
    state.refusedEnd = end;
}

void HideFile(const std::string& path) {
    const std::lock_guard guard(state.mutex);
    state.hiddenPath = path;
}

void RefuseSyncsOf(const std::string& name) {
    const std::lock_guard guard(state.mutex);
    state.unsyncedName = name;
}

int RenameMeanwhile(int times) {
    renames = times;
    return 0;
}

int Refuse(const std::string& call, int error) {
    static const std::map<std::string, unsigned int> numbers = {{"openat2", SYS_openat2},
                                                                {"inotify_init1", SYS_inotify_init1},
                                                                {"epoll_ctl", SYS_epoll_ctl},
                                                                {"clone3", SYS_clone3}};
    std::array<sock_filter, 4> filter = {{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, numbers.at(call), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned int>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    const sock_fprog program{filter.size(), filter.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) | prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
}

}  // namespace kernel
