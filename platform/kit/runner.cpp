// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Runs each rule in a process of its own, so that a platform that crashes or hangs fails the rule at which it
 * does, and that no rule finds what another one has left.
 */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "adapter.h"
#include "kit.h"

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto LONGEST_RULE =
    std::chrono::seconds(60);  // no rule needs nearly as much, even on a slow machine
constexpr int MOST_HANGS = 5;  // then the rest would hang, too
constexpr auto A_LOOK = std::chrono::milliseconds(2);

constexpr std::string_view USAGE =
    R"(Usage: platform-kit [--list] [--strict] [--directory] [--jobs N] [--here] [RULE...]

Judges the platform that it is linked with by the rules of the seam's headers. RULE is a name or its beginning.
  --list       print the names of the rules
  --strict     a rule that is not judged is a failure
  --directory  judge also what only the TV in a directory promises: the rules TvInADirectory.*
  --jobs N     run N rules at once (2)
  --here       run one rule in this process, for a debugger

The exit status is 0 if no rule is broken, else 1.
)";

struct Options {
    bool isList = false;
    bool isStrict = false;
    bool isDirectory = false;
    bool isHere = false;
    bool isHelp = false;
    unsigned int jobs = 2;
    std::vector<std::string> names;
};

/** The command line is wrong. */
struct WrongUsage {};

unsigned int ParseJobs(const std::string& text) {
    unsigned int jobs = 0;
    const char* const end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, jobs);
    if (error != std::errc() || at != end || jobs == 0) {
        throw WrongUsage();
    }
    return jobs;
}

Options Parse(const std::vector<std::string>& arguments) {
    Options options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--list") {
            options.isList = true;
        } else if (argument == "--strict") {
            options.isStrict = true;
        } else if (argument == "--directory") {
            options.isDirectory = true;
        } else if (argument == "--here") {
            options.isHere = true;
        } else if (argument == "--jobs" && i + 1 < arguments.size()) {
            options.jobs = ParseJobs(arguments[++i]);
        } else if (argument == "--help" || argument == "-h") {
            options.isHelp = true;
        } else if (argument.starts_with("-")) {
            throw WrongUsage();
        } else {
            options.names.push_back(argument);
        }
    }
    return options;
}

/** Begins the names of the rules that no other platform has to keep. */
constexpr std::string_view DIRECTORY_ALONE = "TvInADirectory.";

bool IsChosen(const std::string& name, const Options& options) {
    if (options.names.empty()) {
        return options.isDirectory || !name.starts_with(DIRECTORY_ALONE);
    }
    return std::any_of(options.names.begin(), options.names.end(),
                       [&](const auto& beginning) { return name.starts_with(beginning); });
}

/** The names of the rules that begin with one of the names in `options`; without any, all of this platform. */
std::vector<std::string> Rules(const Options& options) {
    std::vector<std::string> names;
    const testing::UnitTest& all = *testing::UnitTest::GetInstance();
    for (int i = 0; i < all.total_test_suite_count(); ++i) {
        const testing::TestSuite& suite = *all.GetTestSuite(i);
        for (int j = 0; j < suite.total_test_count(); ++j) {
            const std::string name = std::string(suite.name()) + '.' + suite.GetTestInfo(j)->name();
            if (IsChosen(name, options)) {
                names.push_back(name);
            }
        }
    }
    return names;
}

// --- The process of one rule

/** Judges one rule in this process. The rule has written its transcript to standard output. */
[[noreturn]] void Judge(const std::string& name) {
    testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
    const std::unique_ptr<testing::TestEventListener> silenced(
        listeners.Release(listeners.default_result_printer()));
    GTEST_FLAG_SET(filter, name);
    if (const int answer = kit_start()) {
        std::cout << "BROKEN: the adapter failed, which says nothing of the platform: kit_start() gave "
                  << answer << std::endl;
        std::_Exit(kit::BROKEN);
    }
    const int result = RUN_ALL_TESTS();
    kit_stop();
    std::cout << std::flush;
    // Not exit(): no rule says that the platform's threads can bear the end of main().
    std::_Exit(result != 0 ? kit::BROKEN : kit::Outcome());
}

// --- The process that runs the others

struct Folder {
    fs::path path;
    Folder() {
        std::string name =
            (access("/dev/shm", W_OK) == 0 ? fs::path("/dev/shm") : fs::temp_directory_path()) /
            "kavrel-kit-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), name);
        }
        path = name;
    }
    ~Folder() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
};

struct Verdict {
    enum Kind { KEPT, BROKEN, CANNOT, UNMET } kind;
    std::string words;  // the reason, in one line
};

/** A rule that runs. */
class Run {
public:
    explicit Run(std::string name) : m_name(std::move(name)) {
        const std::string self = fs::read_symlink("/proc/self/exe");
        fs::create_directory(m_folder.path / "work");
        const std::string transcript = m_folder.path / "transcript";
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, transcript.c_str(),
                                         O_WRONLY | O_CREAT | O_APPEND, 0600);
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
        posix_spawn_file_actions_addchdir_np(&actions, (m_folder.path / "work").c_str());
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        // An ignored SIGPIPE that this process has inherited would hide a log that ends the process.
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF);
        std::array<std::string, 3> arguments = {self, "--here", m_name};
        std::array<char*, 4> pointers = {arguments[0].data(), arguments[1].data(), arguments[2].data(),
                                         nullptr};
        const int error =
            posix_spawn(&m_process, self.c_str(), &actions, &attributes, pointers.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
        if (error != 0) {
            throw std::system_error(error, std::generic_category(), self);
        }
    }

    const std::string& Name() const { return m_name; }

    /** @return whether the rule has ended. Ends it if it hangs. */
    bool HasEnded() {
        const bool isLate = Clock::now() - m_start > LONGEST_RULE;
        if (isLate && !std::exchange(m_hasHung, true)) {
            kill(-m_process, SIGKILL);
        }
        if (waitpid(m_process, &m_status, WNOHANG) == 0) {
            return false;
        }
        kill(-m_process, SIGKILL);  // whatever it or the adapter may have started
        return true;
    }

    bool HasHung() const { return m_hasHung; }
    auto Milliseconds() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - m_start).count();
    }

    Verdict Judge() const {
        if (m_hasHung) {
            return {Verdict::BROKEN, "it hung: its last step did not return within " +
                                         std::to_string(LONGEST_RULE.count()) + " seconds"};
        }
        if (WIFSIGNALED(m_status)) {
            return {Verdict::BROKEN, std::string("the process crashed after its last step: ") +
                                         sigdescr_np(WTERMSIG(m_status))};
        }
        switch (WEXITSTATUS(m_status)) {
            case kit::KEPT:
                return {Verdict::KEPT, ""};
            case kit::CANNOT:
                return {Verdict::CANNOT, LineOf("NOT JUDGED: ")};
            case kit::UNMET:
                return {Verdict::UNMET, LineOf("NOT JUDGED, OTHER RULE: ")};
            case kit::BROKEN:
                return {Verdict::BROKEN, LineOf("BROKEN: ")};
            default:
                return {Verdict::BROKEN, "the process ended after its last step, with status " +
                                             std::to_string(WEXITSTATUS(m_status))};
        }
    }

    std::string Transcript() const {
        std::ifstream stream(m_folder.path / "transcript");
        return {std::istreambuf_iterator<char>(stream), {}};
    }

private:
    /** The rest of the first line of the transcript that begins so. */
    std::string LineOf(const std::string& beginning) const {
        std::istringstream stream(Transcript());
        for (std::string line; std::getline(stream, line);) {
            if (line.starts_with(beginning)) {
                return line.substr(beginning.size());
            }
        }
        return "the process ended after its last step, with status " + std::to_string(WEXITSTATUS(m_status));
    }

    const std::string m_name;
    const Folder m_folder;
    const Clock::time_point m_start = Clock::now();
    pid_t m_process = -1;
    int m_status = 0;
    bool m_hasHung = false;
};

/** Prints how rules have ended, and counts. */
class Summary {
public:
    explicit Summary(bool isStrict) : m_isStrict(isStrict) {}

    void Add(const Run& run) {
        const Verdict verdict = run.Judge();
        m_verdicts[verdict.kind].emplace_back(run.Name(), verdict.words);
        const bool isFailure =
            verdict.kind == Verdict::BROKEN || (m_isStrict && verdict.kind != Verdict::KEPT);
        if (isFailure || verdict.kind == Verdict::UNMET) {
            std::cout << "\n" << run.Name() << "\n" << run.Transcript();
            if (verdict.kind == Verdict::BROKEN && run.Transcript().find("BROKEN: ") == std::string::npos) {
                std::cout << "BROKEN: " << verdict.words << '\n';
            }
            std::cout << '\n';
        }
        // A line in GoogleTest's form, for programs that count cases.
        constexpr std::array MARKS = {"[       OK ] ", "[  FAILED  ] ", "[ NOT DONE ] ", "[ NOT DONE ] "};
        std::cout << (isFailure ? MARKS[Verdict::BROKEN] : MARKS.at(verdict.kind)) << run.Name() << " ("
                  << run.Milliseconds() << " ms)" << std::endl;
    }

    /** @return the exit status */
    int Finish(std::size_t left) const {
        std::cout << '\n';
        Print(Verdict::CANNOT, "not judged");
        Print(Verdict::UNMET, "not judged, because another rule is broken");
        Print(Verdict::BROKEN, "broken");
        if (left > 0) {
            std::cout << left << " rules were not run: " << MOST_HANGS << " before them hung.\n";
        }
        const std::size_t broken = Count(Verdict::BROKEN);
        const std::size_t cannot = Count(Verdict::CANNOT);
        const std::size_t unmet = Count(Verdict::UNMET);
        std::cout << "The rules of the seam, for " << kit_platform() << ": " << Count(Verdict::KEPT)
                  << " kept, " << broken << " broken, " << cannot + unmet + left << " not judged.\n";
        const bool isJudged =
            Count(Verdict::KEPT) > 0 && unmet == 0 && left == 0 && (!m_isStrict || cannot == 0);
        return broken == 0 && isJudged ? 0 : 1;
    }

private:
    std::size_t Count(Verdict::Kind kind) const {
        const auto found = m_verdicts.find(kind);
        return found != m_verdicts.end() ? found->second.size() : 0;
    }
    void Print(Verdict::Kind kind, const char* what) const {
        if (Count(kind) > 0) {
            for (const auto& [name, words] : m_verdicts.at(kind)) {
                std::cout << what << ": " << name << ": " << words << '\n';
            }
        }
    }

    const bool m_isStrict;
    std::map<Verdict::Kind, std::vector<std::pair<std::string, std::string>>> m_verdicts;
};

int RunAll(const std::vector<std::string>& names, const Options& options) {
    Summary summary(options.isStrict);
    std::vector<std::unique_ptr<Run>> running;
    auto next = names.begin();
    int hangs = 0;
    while (!running.empty() || (next != names.end() && hangs < MOST_HANGS)) {
        while (running.size() < options.jobs && next != names.end() && hangs < MOST_HANGS) {
            running.push_back(std::make_unique<Run>(*next++));
        }
        std::erase_if(running, [&](const auto& run) {
            const bool hasEnded = run->HasEnded();
            if (hasEnded) {
                hangs += static_cast<int>(run->HasHung());
                summary.Add(*run);
            }
            return hasEnded;
        });
        std::this_thread::sleep_for(A_LOOK);
    }
    return summary.Finish(static_cast<std::size_t>(names.end() - next));
}

int Main(const Options& options) {
    if (options.isHelp) {
        std::cout << USAGE;
        return 0;
    }
    testing::InitGoogleTest();
    const std::vector<std::string> names = Rules(options);
    if (names.empty()) {
        std::cerr << "platform-kit: no rule has such a name; --list prints them\n";
        return 64;
    }
    if (options.isList) {
        for (const std::string& name : names) {
            std::cout << name << '\n';
        }
        return 0;
    }
    if (options.isHere && !options.names.empty()) {
        const bool isName = std::find(names.begin(), names.end(), options.names.at(0)) != names.end();
        Judge(isName ? options.names.front() : names.front());
    }
    return RunAll(names, options);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Main(Parse({argv + 1, argv + argc}));
    } catch (const WrongUsage&) {
        std::cerr << USAGE;
        return 64;
    } catch (const std::exception& error) {
        std::cerr << "platform-kit: " << error.what() << '\n';
        return 1;
    }
}
