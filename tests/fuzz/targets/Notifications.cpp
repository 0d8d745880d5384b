// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The bytes are changes of files and notifications of them, which the target sends to the host platform in the
 * kernel's place: right ones, wrong ones, late ones, none. The platform must stay sound; and as soon as it has seen
 * an overflow, its listeners must know every value as its file has it.
 */
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/sockios.h>
#include <sound_manager.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <vconf.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "Target.h"
#include "TvFolder.h"

namespace fs = std::filesystem;

namespace {

using fuzz::Bytes;
using fuzz::Require;

constexpr const char* MARKER = "memory/marker";
/** Settings that may be watched. The folder `link` is a link, which may lead nowhere. */
constexpr std::array KEYS = {"memory/a", "memory/b", "memory/folder/a", "memory/folder/deep/a",
                             "memory/link/a"};
constexpr std::array FOLDERS = {"settings",
                                "settings/memory",
                                "settings/memory/folder",
                                "settings/memory/folder/deep",
                                "settings/memory/target",
                                "sound",
                                "sound/zones",
                                "sound/zones/1"};
constexpr std::array NAMES = {"a",
                              "b",
                              "folder",
                              "deep",
                              "link",
                              "target",
                              "route",
                              "zones",
                              "1",
                              "memory",
                              "settings",
                              "",
                              "a name that is longer than all of the others"};
constexpr std::array<std::uint32_t, 12> MASKS = {
    IN_CLOSE_WRITE, IN_MOVED_TO,  IN_MOVED_FROM, IN_CREATE,     IN_CREATE | IN_ISDIR, IN_MOVED_TO | IN_ISDIR,
    IN_DELETE_SELF, IN_MOVE_SELF, IN_UNMOUNT,    IN_Q_OVERFLOW, IN_IGNORED,           0};

/** The kernel's part: the queue, the watches, and the folders that it refuses to watch. */
struct Kernel {
    std::mutex mutex;
    // The mutex guards all below.
    int queue = -1;  // the sending end
    int lastWatch = 0;
    std::map<std::string, int> watches;
    std::set<std::string> refused;
    /** Makes the packets of notifications of the next exchange of files. */
    std::function<std::vector<std::string>()> whileExchanged;
    std::string overwritten;  // the key of a setting that another process writes right after that exchange
};

constexpr const char* OF_ANOTHER = "of another process";
/** The kind of exchange after which another process writes the same file at once. */
constexpr int OVERWRITTEN = 2;

Kernel& TheKernel() {
    static auto& kernel = *std::make_unique<Kernel>().release();  // the platform thread may outlive main()
    return kernel;
}

/** The values as the listeners know them. */
struct Heard {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, std::string> texts;
};

Heard& Listeners() {
    static auto& heard = *std::make_unique<Heard>().release();
    return heard;
}

void OnChange(keynode_t* node, void* /*data*/) {
    const std::lock_guard lock(Listeners().mutex);
    Listeners().texts[vconf_keynode_get_name(node)] = vconf_keynode_get_str(node);
    Listeners().changed.notify_all();
}

void OnZoneRoute(sound_tv_output_route_e /*route*/, int /*zone*/, void* /*data*/) {}

fs::path FileOf(const std::string& key) {
    return fuzz::TvFolder() / "settings" / key;
}

std::optional<std::string> Present(const std::string& key) {
    char* const text = vconf_get_str(key.c_str());
    const auto copy = text == nullptr ? std::nullopt : std::optional<std::string>(text);
    std::free(text);
    return copy;
}

/** A notification as the kernel writes it. */
std::string Event(int watch, std::uint32_t mask, std::uint32_t cookie, const std::string& name) {
    constexpr std::size_t ALIGNED = sizeof(inotify_event);
    inotify_event event = {};
    event.wd = watch;
    event.mask = mask;
    event.cookie = cookie;
    event.len = static_cast<std::uint32_t>(name.empty() ? 0 : (name.size() / ALIGNED + 1) * ALIGNED);
    std::string bytes(sizeof event + event.len, '\0');
    std::memcpy(bytes.data(), &event, sizeof event);
    std::memcpy(bytes.data() + sizeof event, name.data(), name.size());
    return bytes;
}

/** Needs the kernel's mutex. */
int PresentWatchOf(const std::string& folder) {
    const auto found = TheKernel().watches.find(fuzz::TvFolder() / folder);
    return found == TheKernel().watches.end() ? -1 : found->second;
}

int WatchOf(const std::string& folder) {
    const std::lock_guard lock(TheKernel().mutex);
    return PresentWatchOf(folder);
}

int Queue() {
    const std::lock_guard lock(TheKernel().mutex);
    return TheKernel().queue;
}

/** Puts a packet into the queue as soon as it has room. @param flags MSG_DONTWAIT drops it if there is none now */
void Send(const std::string& packet, int flags = 0) {
    if (!packet.empty()) {
        send(Queue(), packet.data(), packet.size(), flags);
    }
}

/** Waits until the platform has taken all packets out of the queue. */
void WaitForEmptyQueue() {
    int unread = 1;
    while (ioctl(Queue(), SIOCOUTQ, &unread) == 0 && unread > 0) {
        std::this_thread::yield();
    }
}

/** Waits until the platform has handled all notifications before this call. */
void Settle() {
    static int last = 0;
    WaitForEmptyQueue();
    for (int round = 0; round < 2; ++round) {
        const std::string text = std::to_string(++last);
        fuzz::Put(FileOf(MARKER), text);
        std::unique_lock lock(Listeners().mutex);
        const auto isHeard = [&] { return Listeners().texts[MARKER] == text; };
        for (int attempt = 0; attempt < 600 && !isHeard(); ++attempt) {
            lock.unlock();
            Send(Event(WatchOf("settings/memory"), IN_CLOSE_WRITE, 0, "marker"));
            lock.lock();
            Listeners().changed.wait_for(lock, std::chrono::milliseconds(100), isHeard);
        }
        Require(isHeard(), "a finished file is reported");
    }
}

void Overflow() {
    Send(Event(-1, IN_Q_OVERFLOW, 0, ""));
    Settle();
}

void SendSome(Bytes& bytes) {
    std::string packet;
    for (int events = 1 + bytes.Byte() % 4; events > 0; --events) {
        const std::uint8_t where = bytes.Byte();
        const int watch = where < 200 ? WatchOf(FOLDERS[where % FOLDERS.size()]) : bytes.Number();
        const std::uint32_t mask = bytes.Pick(MASKS);
        packet += Event(watch, mask, bytes.Byte(), bytes.Pick(NAMES));
    }
    Send(packet);
}

void ChangeFile(Bytes& bytes) {
    const std::string key = bytes.Pick(KEYS);
    fuzz::Put(FileOf(key), bytes.Text(bytes.Byte() % 4));
}

/** Changes a file and sends the notification that the kernel would send. */
void ChangeHonestly(Bytes& bytes) {
    const std::string name = bytes.Byte() % 2 == 0 ? "a" : "b";
    const std::string text = std::to_string(bytes.Number());
    const std::string key = "memory/" + name;
    std::string packet;
    for (int others = bytes.Byte() % 3; others > 0; --others) {
        packet += Event(WatchOf("settings/memory"), IN_CREATE, 0, bytes.Pick(NAMES));
    }
    fs::remove_all(FileOf(key));
    fuzz::Put(FileOf(key), text);
    Send(packet + Event(WatchOf("settings/memory"), IN_CLOSE_WRITE, 0, name));
    Settle();
    const std::lock_guard lock(Listeners().mutex);
    const auto heard = Listeners().texts.find(key);
    Require(heard == Listeners().texts.end() || heard->second == text,
            "a change with its notification is reported");
}

/** Needs the kernel's mutex. @return the packets of notifications that come with an exchange of the value's file */
std::vector<std::string> PacketsOfExchange(const std::string& key, int kind, std::uint32_t cookie) {
    const std::string name = fs::path(key).filename();
    // The number of the watch is that of this moment: the platform thread may have watched the folder anew just now.
    const int watch = PresentWatchOf("settings" / fs::path(key).parent_path());
    const std::string came = Event(watch, IN_MOVED_TO, cookie, name);
    const std::string went = Event(watch, IN_MOVED_FROM, cookie + 1, name);
    switch (kind) {
        case 0:
            return {came};
        case 1:
            return {came + Event(watch, IN_MOVED_FROM, cookie + 3, name)};
        case OVERWRITTEN:
            return {came + went + Event(watch, IN_CLOSE_WRITE, 0, name)};
        case 3:
            return {};
        default:
            return {came + went};
    }
}

/** This process writes. Its exchange of files makes the two notifications of the kernel, or others. */
void Write(Bytes& bytes) {
    const std::string key = bytes.Pick(KEYS);
    const std::uint32_t cookie = bytes.Byte();
    const int kind = bytes.Byte() % 8;
    bool isOverwritten = kind == OVERWRITTEN;
    {
        const std::lock_guard lock(TheKernel().mutex);
        TheKernel().whileExchanged = [=] { return PacketsOfExchange(key, kind, cookie); };
        TheKernel().overwritten = isOverwritten ? key : "";
    }
    const std::string text = std::to_string(bytes.Number());
    const bool isSet = vconf_set_str(key.c_str(), text.c_str()) == 0;
    std::unique_lock lock(TheKernel().mutex);
    TheKernel().whileExchanged = nullptr;
    isOverwritten = isOverwritten && std::exchange(TheKernel().overwritten, {}).empty();
    lock.unlock();
    if (isSet) {
        Require(Present(key) == (isOverwritten ? OF_ANOTHER : text), "a value that was set is read");
    }
    if (isOverwritten) {
        Settle();
        const std::lock_guard heard(Listeners().mutex);
        Require(Listeners().texts[key] == OF_ANOTHER, "a change right after an own one is reported");
    }
}

void Listen(const std::string& key) {
    const auto present = Present(key);
    std::unique_lock lock(Listeners().mutex);
    if (Listeners().texts.contains(key)) {
        return;
    }
    Listeners().texts[key] = present.value_or("");
    lock.unlock();
    Require(vconf_notify_key_changed(key.c_str(), OnChange, nullptr) == 0, "a setting can be watched");
}

void Register(Bytes& bytes) {
    Listen(bytes.Pick(KEYS));
}

void Deregister(Bytes& bytes) {
    const std::string key = bytes.Pick(KEYS);
    std::unique_lock lock(Listeners().mutex);
    const bool isWatched = Listeners().texts.contains(key);
    lock.unlock();
    Require((vconf_ignore_key_changed(key.c_str(), OnChange) == 0) == isWatched,
            "only what is watched is left");
    lock.lock();
    Listeners().texts.erase(key);
}

void MoveFolders(Bytes& bytes) {
    const fs::path memory = FileOf("memory");
    std::error_code ignored;
    switch (bytes.Byte() % 6) {
        case 0:
            fs::create_directories(memory / "folder/deep", ignored);
            break;
        case 1:
            fs::remove_all(memory / "folder", ignored);
            break;
        case 2:
            fs::create_directory(memory / "target", ignored);
            break;
        case 3:
            fs::remove_all(memory / "target", ignored);
            break;
        case 4:
            fs::create_directory(fuzz::TvFolder() / "sound/zones" / std::to_string(bytes.Byte() % 3),
                                 ignored);
            break;
        default:
            fs::remove_all(fuzz::TvFolder() / "sound/zones" / std::to_string(bytes.Byte() % 3), ignored);
    }
}

void ListenToZones(Bytes& bytes) {
    if (bytes.Byte() % 2 == 0) {
        Require(sound_manager_set_multiview_speaker_selection_changed_cb(OnZoneRoute, nullptr) == 0,
                "the routes of zones can be watched");
    } else {
        static_cast<void>(sound_manager_unset_multiview_speaker_selection_changed_cb());
    }
    static_cast<void>(
        sound_manager_set_multiview_speaker_selection_with_zone_id(bytes.Number(), bytes.Byte() % 3));
}

/** The kernel refuses the watch of one folder from now on, or of none. */
void Refuse(Bytes& bytes) {
    constexpr std::array REFUSABLE = {"settings/memory/folder", "settings/memory/folder/deep", "sound/zones",
                                      "settings/memory/target"};
    const std::uint8_t which = bytes.Byte();
    const std::lock_guard lock(TheKernel().mutex);
    TheKernel().refused.clear();
    if (which % 5 < REFUSABLE.size()) {
        TheKernel().refused.insert(fuzz::TvFolder() / REFUSABLE[which % 5]);
    }
}

void PrepareTv() {
    std::error_code ignored;
    fs::create_directories(fuzz::TvFolder() / "settings/memory", ignored);
    fs::create_symlink("target", FileOf("memory/link"), ignored);
    sound_tv_output_route_e route = 0;
    static_cast<void>(sound_manager_get_speaker_selection(&route));
}

/** After an overflow everything is read again, and each listener knows what a read gives. */
void RequireAgreement() {
    {
        const std::lock_guard lock(TheKernel().mutex);
        TheKernel().refused.clear();
    }
    for (const std::string key : {"memory/folder", "memory/a", "memory/b"}) {
        fs::remove_all(FileOf(key));
    }
    fuzz::Put(FileOf("memory/a"), "the end\n");
    fs::create_directories(FileOf("memory/folder/deep"));
    fuzz::Put(FileOf("memory/folder/deep/a"), "the end\n");
    Overflow();
    const std::lock_guard lock(Listeners().mutex);
    for (const std::string key : {"memory/a", "memory/folder/deep/a"}) {
        const auto heard = Listeners().texts.find(key);
        Require(heard == Listeners().texts.end() || heard->second == "the end",
                "after an overflow each listener knows the value of " + key);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static constexpr auto STEPS = {SendSome,   ChangeFile,  ChangeHonestly, Write, Register,
                                   Deregister, MoveFolders, ListenToZones,  Refuse};
    PrepareTv();
    Listen(MARKER);
    Listen("memory/a");
    Bytes bytes(data, size);
    while (!bytes.IsEmpty()) {
        STEPS.begin()[bytes.Byte() % STEPS.size()](bytes);
    }
    RequireAgreement();
    return 0;
}

extern "C" int inotify_init1(int /*flags*/) noexcept {
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return -1;
    }
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    const std::lock_guard lock(TheKernel().mutex);
    if (TheKernel().queue >= 0) {
        close(TheKernel().queue);
    }
    TheKernel().queue = ends[1];
    TheKernel().watches.clear();
    return ends[0];
}

extern "C" int inotify_add_watch(int /*fd*/, const char* name, std::uint32_t /*mask*/) noexcept {
    const std::lock_guard lock(TheKernel().mutex);
    struct stat status {};
    if (TheKernel().refused.contains(name)) {
        errno = ENOSPC;
        return -1;
    }
    if (stat(name, &status) != 0) {
        return -1;
    }
    if (!S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    const auto [watch, isNew] = TheKernel().watches.try_emplace(name, TheKernel().lastWatch + 1);
    TheKernel().lastWatch += isNew ? 1 : 0;
    return watch->second;
}

extern "C" int inotify_rm_watch(int /*fd*/, int wd) noexcept {
    const std::lock_guard lock(TheKernel().mutex);
    return std::erase_if(TheKernel().watches, [wd](const auto& watch) { return watch.second == wd; }) > 0
               ? 0
               : -1;
}

/** Makes the notifications of an exchange where the kernel makes them: before the call returns. */
extern "C" int renameat2(int oldFolder, const char* oldName, int newFolder, const char* newName,
                         unsigned int flags) noexcept {
    const auto result =
        static_cast<int>(syscall(SYS_renameat2, oldFolder, oldName, newFolder, newName, flags));
    std::vector<std::string> packets;
    if (result == 0 && (flags & RENAME_EXCHANGE) != 0) {
        const std::lock_guard lock(TheKernel().mutex);
        if (const auto makePackets = std::exchange(TheKernel().whileExchanged, nullptr)) {
            packets = makePackets();
        }
        if (const std::string key = std::exchange(TheKernel().overwritten, {}); !key.empty()) {
            fuzz::Put(FileOf(key), OF_ANOTHER);
        }
    }
    for (const std::string& packet : packets) {
        Send(packet, MSG_DONTWAIT);  // the platform thread may wait for the writer
    }
    return result;
}
