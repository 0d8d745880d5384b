// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Another process on the same TV, which does what its standard input says. It answers each line by a line
 * that begins with "= ". For a report it writes "! NAME VALUE own" or "! NAME VALUE platform", which names the
 * thread of the report.
 */
#include <audio_control.h>
#include <audio_hal.h>
#include <dlog.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <lwipc.h>
#include <resource_center.h>
#include <sched.h>
#include <sound_manager.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <system_info.h>
#include <unistd.h>
#include <vconf.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>

#include "Kernel.h"

namespace {

/** Writes the line with one call: several threads report. */
void Say(const std::string& line) {
    const std::string text = line + '\n';
    if (write(STDOUT_FILENO, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        std::_Exit(EXIT_FAILURE);
    }
}

void Report(const std::string& what) {
    Say("! " + what + (gettid() == getpid() ? " own" : " platform"));
}

/** "RESULT"; "0 VALUE" after a success. */
template <typename Value>
std::string Answer(int result, const Value& value) {
    std::ostringstream text;
    text << result;
    if (result == 0) {
        text << ' ' << value;
    }
    return text.str();
}

template <typename Value>
std::string Get(int (*getter)(Value*)) {
    Value value{};
    return Answer(getter(&value), value);
}

std::string Zones() {
    rc_zone_list_h list = nullptr;
    int result = rc_get_zone_list(&list);
    std::string zones;
    rc_zone_h zone = nullptr;
    while (result == 0 && rc_get_next_zone(list, &zone) == 0) {
        int id = 0;
        result = rc_get_zone_id(zone, &id);
        zones.append(zones.empty() ? "" : ",").append(std::to_string(id));
    }
    return Answer(result != 0 ? result : rc_free_zone_list(list), zones);
}

int HearKey(const std::string& key) {
    return vconf_notify_key_changed(
        key.c_str(),
        [](keynode_t* node, void*) {
            Report(std::string(vconf_keynode_get_name(node)) + ' ' + vconf_keynode_get_str(node));
        },
        nullptr);
}

int Hear(const std::string& what) {
    if (what == "volume") {
        return audio_register_master_volume_changed_cb(
            [](unsigned int value, void*) { Report("volume " + std::to_string(value)); }, nullptr);
    }
    if (what == "zones") {
        return sound_manager_set_multiview_speaker_selection_changed_cb(
            [](int route, int zone, void*) {
                Report("zone " + std::to_string(zone) + ' ' + std::to_string(route));
            },
            nullptr);
    }
    if (what == "route") {
        return sound_manager_set_speaker_changed_cb(
            [](int route, void*) { Report("route " + std::to_string(route)); }, nullptr);
    }
    if (what == "focus") {
        return rc_register_audio_focus_changed_callback(
            [](int zone, void*) { Report("focus " + std::to_string(zone)); }, nullptr);
    }
    return HearKey(what);
}

/** Writes `count` texts (0: without end), each of another letter, so that a mixture of two shows. */
int Storm(const std::string& key, int count, int size) {
    int result = 0;
    for (int i = 0; result == 0 && (i < count || count == 0); ++i) {
        result = vconf_set_str(
            key.c_str(),
            std::string(static_cast<std::size_t>(size), static_cast<char>('a' + i % 26)).c_str());
    }
    return result;
}

/** Writes two keys by turns: the kernel would merge the notifications of one. */
int Noise(int count) {
    int result = 0;
    for (int i = 0; result == 0 && i < count; ++i) {
        result = vconf_set_int(i % 2 == 0 ? "memory/noise" : "memory/clatter", i);
    }
    return result;
}

int VolumeStorm(int count) {
    int result = 0;
    for (int i = 0; result == 0 && i < count; ++i) {
        result = audio_set_master_volume(i % 101, 0);
    }
    return result;
}

/**
 * Makes the rights on files apply to root too. The capabilities stay permitted: when the process ends, LeakSanitizer may
 * stop a thread only if that has no capability which the ending thread lacks. What a thread uses that it could not stop,
 * it takes for a leak.
 */
int DropCapabilities() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct own[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, own) != 0) {
        return -1;
    }
    for (__user_cap_data_struct& part : own) {
        part.effective = 0;
    }
    return static_cast<int>(syscall(SYS_capset, &header, own));
}

/** Gives this process, before it has threads, a table of mounts of its own. */
int OwnMounts() {
    if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return -1;
    }
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
}

/** Writes like `echo`, where this process sees the file. */
int Echo(const std::string& path, const std::string& text) {
    std::ofstream stream(path);
    stream << text << std::endl;
    stream.close();
    return stream ? 0 : -1;
}

int LimitFiles(rlim_t bytes) {
    const rlimit limit{bytes, RLIM_INFINITY};
    return setrlimit(RLIMIT_FSIZE, &limit);
}

int PipePending() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE);
}

/** Reports whether notifications of files wait to be taken: "queued" or "nothing queued". */
int ReportQueue() {
    int sum = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        if (std::filesystem::read_symlink(entry, ignored) == "anon_inode:inotify") {
            int bytes = 0;
            ioctl(std::stoi(entry.path().filename()), FIONREAD, &bytes);
            sum += bytes;
        }
    }
    Report(sum > 0 ? "queued" : "nothing queued");
    return 0;
}

void OwnHandler(int) {}

/** Handles the signals of failed writes before the platform looks at them. */
int HandleSignals() {
    struct sigaction own {};
    own.sa_handler = OwnHandler;
    return sigaction(SIGPIPE, &own, nullptr) | sigaction(SIGXFSZ, &own, nullptr);
}

/** A program that is started inherits only "ignored". */
std::string HandlerOf(int signal) {
    struct sigaction present {};
    sigaction(signal, nullptr, &present);
    if (present.sa_handler == SIG_DFL || present.sa_handler == SIG_IGN) {
        return present.sa_handler == SIG_DFL ? "default" : "ignored";
    }
    return std::string(present.sa_handler == OwnHandler ? "own" : "platform's") +
           ((present.sa_flags & SA_RESTART) != 0 ? " and restarts" : "");
}

/** SIGUSR1 interrupts a system call from now on, and does nothing else. */
int LetSignalsInterrupt() {
    struct sigaction interrupts {};
    interrupts.sa_handler = OwnHandler;
    return sigaction(SIGUSR1, &interrupts, nullptr);
}

/** @return errno after a line was logged, which was 77 before */
int ErrnoAfterLog(int priority) {
    errno = 77;
    static_cast<void>(__dlog_print(priority, "OtherProcess", "text\n"));
    return errno;
}

/** Logs with an argument that ends the process if it is formatted. */
int LogUnreadable(int priority) {
    const auto* const nowhere = reinterpret_cast<const char*>(std::uintptr_t{1});
    return __dlog_print(priority, "OtherProcess", "%s\n", nowhere);
}

std::string Word(std::istream& words) {
    std::string word;
    words >> word;
    return word;
}

int NextInt(std::istream& words) {
    int number = std::numeric_limits<int>::min();
    words >> number;
    return number;
}

std::string Rest(std::istream& words) {
    std::string rest;
    std::getline(words >> std::ws, rest);
    return rest;
}

/** Moves a file to the path from a folder that nobody watches: the kernel may merge this with an own move. */
void Move(const std::string& path, const std::string& text) {
    const std::string aside = std::string(std::getenv("KAVREL_TV_DIR")) + "/events/aside";
    Echo(aside, text);
    std::rename(aside.c_str(), path.c_str());
}

void MakeFolder(const std::string& path, const std::string& /*text*/) {
    std::remove(path.c_str());
    mkdir(path.c_str(), 0777);
}

int cleanedFiles = 0;

/** Removes unfinished files beside a value like a process that starts: those that nobody has locked. */
void Clean(const std::string& path) {
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(path).parent_path())) {
        const int file = open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
        if (entry.path().filename().string().starts_with(".kavrel-") && flock(file, LOCK_EX | LOCK_NB) == 0) {
            ++cleanedFiles;
        }
        close(file);
    }
}

/** How many open files a program started now would inherit, but for the standard streams. */
int FilesToInherit() {
    int count = 0;
    for (int file = STDERR_FILENO + 1; file < 256; ++file) {
        const int flags = fcntl(file, F_GETFD);
        count += flags >= 0 && (flags & FD_CLOEXEC) == 0 ? 1 : 0;
    }
    return count;
}

std::string Do(const std::string& line);

std::thread aside;
std::string answerAside;

bool IsAsleep(pid_t thread) {
    std::ifstream stream("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string stat;
    std::getline(stream, stat);
    return stat.find(") S") != std::string::npos;
}

/** Does what the line says on another thread, and returns when that has ended, or sleeps because it waits for this one. */
void StartAside(const std::string& line) {
    std::atomic<pid_t> thread = 0;
    static std::atomic<bool> hasEnded;
    hasEnded = false;
    aside = std::thread([&thread, line] {
        thread = gettid();
        answerAside = Do(line);
        hasEnded = true;
    });
    while (!hasEnded && (thread == 0 || !IsAsleep(thread))) {
        std::this_thread::yield();
    }
}

/** "PATH LINE": another thread does the line before the path is opened. "new-file": before a file is made. */
std::string CrossOpening(std::istream& words) {
    const std::string path = Word(words);
    kernel::CrossOpening(path == "new-file" ? "" : path, [line = Rest(words)] { StartAside(line); });
    return "0";
}

/** "TIMES LINE": another thread does the line right after this one has unlocked so many times. */
std::string CrossUnlock(std::istream& words) {
    const int times = NextInt(words);
    kernel::CrossUnlock(times, [line = Rest(words)] { StartAside(line); });
    return "0";
}

std::string EndAside() {
    aside.join();
    return answerAside;
}

/**
 * "before HOW PATH TEXT" or "after HOW PATH TEXT": somebody else crosses the next write of this file. "do": the
 * writer itself does the lines of the text, with a ';' between them.
 */
std::string Cross(std::istream& words) {
    const std::string when = Word(words);
    const std::string how = Word(words);
    const std::string path = Word(words);
    const auto act = [path, text = Rest(words), how] {
        if (how == "echo") {
            Echo(path, text);
        } else if (how == "move") {
            Move(path, text);
        } else if (how == "mute") {
            audio_set_master_mute(true);
        } else if (how == "clean") {
            Clean(path);
        } else if (how == "do") {
            std::istringstream lines(text);
            for (std::string line; std::getline(lines, line, ';');) {
                Do(line);
            }
        } else if (how == "remove") {
            std::filesystem::remove_all(std::filesystem::path(path).parent_path());
        } else if (how == "pipe") {
            std::remove(path.c_str());
            mkfifo(path.c_str(), 0666);
        } else if (how == "link") {
            Echo(path + ".aside", text);
            std::remove(path.c_str());
            static_cast<void>(symlink((path + ".aside").c_str(), path.c_str()));
        } else if (how == "empty") {
            std::ofstream(path, std::ios::trunc);
        } else if (how == "lock") {
            MakeFolder(path, text);
            chmod(path.c_str(), S_IWUSR | S_IXUSR);  // the kernel moves only a folder that may be written
        } else {
            MakeFolder(path, text);
        }
    };
    const std::string name = path.substr(path.rfind('/') + 1);
    kernel::Cross(when == "before" ? kernel::Crossing{name, act, nullptr}
                                   : kernel::Crossing{name, nullptr, act});
    return "0";
}

using Command = std::function<std::string(std::istream&)>;

Command Does(int (*call)(int)) {
    return [call](std::istream& words) { return std::to_string(call(NextInt(words))); };
}

Command Does(int (*call)(const char*)) {
    return [call](std::istream& words) { return std::to_string(call(Word(words).c_str())); };
}

using Commands = std::map<std::string, Command>;

Commands SoundCommands() {
    return {
        {"volume", [](std::istream&) { return Get(audio_get_master_volume); }},
        {"set-volume", Does([](int volume) { return audio_set_master_volume(volume, 0); })},
        {"mute", [](std::istream&) { return Get(audio_get_master_mute); }},
        {"set-mute", Does([](int mute) { return audio_set_master_mute(mute != 0); })},
        {"route", [](std::istream&) { return Get(sound_manager_get_speaker_selection); }},
        {"set-route", Does(sound_manager_set_speaker_selection)},
        {"zones", [](std::istream&) { return Zones(); }},
        {"zone-route",
         [](std::istream& words) {
             int route = 0;
             const int result =
                 sound_manager_get_multiview_speaker_selection_with_zone_id(&route, NextInt(words));
             return Answer(result, route);
         }},
        {"set-zone-route",
         [](std::istream& words) {
             const int zone = NextInt(words);
             return std::to_string(
                 sound_manager_set_multiview_speaker_selection_with_zone_id(NextInt(words), zone));
         }},
        {"focus", [](std::istream&) { return Get(rc_get_audio_focus); }},
        {"gain", [](std::istream&) { return Get(AudioControl_getInstance()->get_main_out_gain2); }},
        {"set-gain", Does(AudioControl_getInstance()->set_main_out_gain2)},
        {"sub-gain", [](std::istream&) { return Get(AudioControl_getInstance()->get_sub_out_gain2); }},
        {"set-sub-gain", Does(AudioControl_getInstance()->set_sub_out_gain2)},
    };
}

Commands KeyCommands() {
    return {
        {"flag",
         [](std::istream& words) {
             bool value = false;
             const int result = system_info_get_custom_bool(Word(words).c_str(), &value);
             return Answer(result, value);
         }},
        {"int",
         [](std::istream& words) {
             int value = 0;
             const int result = vconf_get_int(Word(words).c_str(), &value);
             return Answer(result, value);
         }},
        {"set-int",
         [](std::istream& words) {
             const std::string key = Word(words);
             return std::to_string(vconf_set_int(key.c_str(), NextInt(words)));
         }},
        {"text",
         [](std::istream& words) {
             const std::unique_ptr<char, decltype(&std::free)> text(vconf_get_str(Word(words).c_str()),
                                                                    &std::free);
             return text ? "0 " + std::string(text.get()) : "null";
         }},
        {"set-text",
         [](std::istream& words) {
             const std::string key = Word(words);
             return std::to_string(vconf_set_str(key.c_str(), Rest(words).c_str()));
         }},
        {"done", Does(LwipcEventDone)},
        {"reset", Does(LwipcResetEvent)},
        {"is-done", Does(LwipcIsDone)},
    };
}

Commands ReportCommands() {
    return {
        {"hear", [](std::istream& words) { return std::to_string(Hear(Word(words))); }},
        {"ignore-volume",
         [](std::istream&) { return std::to_string(audio_unregister_master_volume_changed_cb()); }},
        {"storm",
         [](std::istream& words) {
             const std::string key = Word(words);
             const int count = NextInt(words);
             return std::to_string(Storm(key, count, NextInt(words)));
         }},
        {"noise", Does(Noise)},
        {"volume-storm", Does(VolumeStorm)},
    };
}

Commands ProcessCommands() {
    return {
        {"drop-capabilities", [](std::istream&) { return std::to_string(DropCapabilities()); }},
        {"refuse",
         [](std::istream& words) {
             const std::string call = Word(words);
             return std::to_string(kernel::Refuse(call, NextInt(words)));
         }},
        {"refuse-watches-of",
         [](std::istream& words) {
             kernel::RefuseWatchesOf(Word(words));
             return std::string("0");
         }},
        {"hide-file",
         [](std::istream& words) {
             kernel::HideFile(Word(words));
             return std::string("0");
         }},
        {"refuse-syncs-of",
         [](std::istream& words) {
             kernel::RefuseSyncsOf(Word(words));
             return std::string("0");
         }},
        {"refuse-waits", Does([](int times) { return kernel::RefuseWaits(times); })},
        {"next-timeout", [](std::istream&) { return std::to_string(kernel::NextTimeout()); }},
        {"rename-meanwhile", Does([](int times) { return kernel::RenameMeanwhile(times); })},
        {"cleaned", [](std::istream&) { return std::to_string(cleanedFiles); }},
        {"files-to-inherit", [](std::istream&) { return std::to_string(FilesToInherit()); }},
        {"files-opened-to-inherit",
         [](std::istream&) { return std::to_string(kernel::FilesOpenedToInherit()); }},
        {"change-directory", Does([](const char* path) { return chdir(path); })},
        {"handle-signals", [](std::istream&) { return std::to_string(HandleSignals()); }},
        {"signals", [](std::istream&) { return HandlerOf(SIGPIPE) + ", " + HandlerOf(SIGXFSZ); }},
        {"let-signals-interrupt", [](std::istream&) { return std::to_string(LetSignalsInterrupt()); }},
        {"take-steps", [](std::istream&) { return kernel::TakeSteps(); }},
        {"cross", [](std::istream& words) { return Cross(words); }},
        {"cross-opening", CrossOpening},
        {"cross-unlock", CrossUnlock},
        {"pause",
         [](std::istream&) {
             Report("paused");
             std::string next;
             std::getline(std::cin, next);
             return std::string("0");
         }},
        {"hold-waits", [](std::istream&) { return std::to_string(kernel::HoldWaits()); }},
        {"await-held-wait", [](std::istream&) { return std::to_string(kernel::AwaitHeldWait()); }},
        {"end-held-wait", [](std::istream&) { return std::to_string(kernel::EndHeldWait()); }},
        {"end-aside", [](std::istream&) { return EndAside(); }},
        {"own-mounts", [](std::istream&) { return std::to_string(OwnMounts()); }},
        {"mount", Does([](const char* path) { return mount("none", path, "tmpfs", 0, nullptr); })},
        {"unmount", Does([](const char* path) { return umount2(path, UMOUNT_NOFOLLOW); })},
        {"echo",
         [](std::istream& words) {
             const std::string path = Word(words);
             return std::to_string(Echo(path, Rest(words)));
         }},
        {"limit-files", Does([](int bytes) { return LimitFiles(static_cast<rlim_t>(bytes)); })},
        {"start-and-end-a-thread",
         [](std::istream&) {
             std::thread([] {}).join();
             return std::string("0");
         }},
        {"report-queue", [](std::istream&) { return std::to_string(ReportQueue()); }},
        {"pipe-pending", [](std::istream&) { return std::to_string(PipePending()); }},
    };
}

Commands LogCommands() {
    return {
        {"log",
         [](std::istream& words) {
             const int priority = NextInt(words);
             return std::to_string(__dlog_print(priority, "OtherProcess", "%s\n", Rest(words).c_str()));
         }},
        {"errno-after-log", Does(ErrnoAfterLog)},
        {"log-lines",
         Does([](int priority) { return __dlog_print(priority, "OtherProcess", "one\ntwo\n"); })},
        {"log-controls", Does([](int priority) {
             std::string text = "a\tb\xC3\xA4\x7F";
             for (char control = 1; control < ' '; ++control) {
                 text += control;
             }
             return __dlog_print(priority, "OtherProcess", "%s\n", text.c_str());
         })},
        {"log-many", Does([](int count) {
             int result = 0;
             for (int i = 0; i < count; ++i) {
                 result += __dlog_print(DLOG_INFO, "OtherProcess", "%0999d\n", i);
             }
             return result;
         })},
        {"log-unended",
         Does([](int priority) { return __dlog_print(priority, "OtherProcess", "no newline"); })},
        {"log-empty", Does([](int priority) { return __dlog_print(priority, "OtherProcess", "%s", ""); })},
        {"log-long", Does([](int size) {
             return __dlog_print(DLOG_INFO, "OtherProcess", "%s\n",
                                 std::string(static_cast<std::size_t>(size), 'x').c_str());
         })},
        {"log-unformattable", Does([](int priority) {
             return __dlog_print(priority, "OtherProcess", "%ls\n", L"\xD800");  // no character
         })},
        {"log-unreadable", Does(LogUnreadable)},
    };
}

Commands AllCommands() {
    Commands all;
    for (Commands part :
         {SoundCommands(), KeyCommands(), ReportCommands(), ProcessCommands(), LogCommands()}) {
        all.merge(part);
    }
    return all;
}

std::string Do(const std::string& line) {
    static const Commands commands = AllCommands();
    std::istringstream words(line);
    return commands.at(Word(words))(words);
}

}  // namespace

int main() {
    std::string line;
    while (std::getline(std::cin, line)) {
        Say("= " + Do(line));
    }
    return EXIT_SUCCESS;
}
