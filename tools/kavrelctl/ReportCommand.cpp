// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

#include "Caller.h"
#include "Errors.h"
#include "Output.h"
#include "Print.h"
#include "Program.h"
#include "Property.h"
#include "Tool.h"

namespace ctl {

namespace {

constexpr size_t TITLE_WIDTH = 15;
constexpr size_t LOG_LINES = 50;

const std::vector<const char*> SYSTEMCTL = {
    "systemctl", "show", "kavrel.service",
    "--property=LoadState,UnitFileState,ActiveState,SubState,Result,NRestarts,MainPID,StateChangeTimestamp"};
const std::vector<const char*> JOURNALCTL = {"journalctl", "--unit=kavrel", "--lines=50", "--no-pager",
                                             "--output=short-iso"};

/** Finds out one part of the report. @throws std::exception to say why it is missing */
using Part = std::function<std::string()>;

/** The part, or why it is missing. */
std::string TextOf(const Part& part) {
    try {
        const std::string text = part();
        return text.empty() ? "missing: there is nothing" : text;
    } catch (const std::exception& error) {
        return std::string("missing: ") + error.what();
    }
}

struct Row {
    std::string title;
    Part part;
};

void PrintRows(const std::string& heading, const std::vector<Row>& rows) {
    tools::PrintLine("\n" + heading);
    for (auto [title, part] : rows) {
        title.resize(TITLE_WIDTH, ' ');
        tools::PrintLine("  " + title + tools::Printable(TextOf(part)));
    }
}

void PrintLines(const std::string& heading, const Part& part) {
    std::istringstream lines(TextOf(part));
    tools::PrintLine("\n" + heading);
    for (std::string line; std::getline(lines, line);) {
        tools::PrintLine("  " + tools::Printable(line));
    }
}

std::string GLibVersion() {
    return tools::Formatted("%u", glib_major_version) + tools::Formatted(".%u", glib_minor_version) +
           tools::Formatted(".%u", glib_micro_version);
}

std::string Kernel() {
    utsname kernel = {};
    uname(&kernel);
    return std::string(kernel.sysname) + " " + kernel.release + " " + kernel.machine;
}

std::string Distribution() {
    const tools::GLibPtr<char> name(g_get_os_info(G_OS_INFO_KEY_PRETTY_NAME));
    return name != nullptr ? name.get() : throw std::runtime_error("there is no /etc/os-release");
}

std::string BusAddress() {
    const char* address = g_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return address != nullptr ? address : "the system's";
}

std::string OutputThatPlays() {
    const auto output = OutputOfTv();
    return output ? InWords(*output) : throw std::runtime_error("no readable route in " + TvDirectory());
}

/** The daemon on the bus. After the first failure it asks no more, so that a report waits for one answer at most. */
class Daemon {
public:
    explicit Daemon(tools::Timeout timeout) : m_timeout(timeout) {}

    Caller Owner() {
        if (!m_owner) {
            m_owner = Ask(
                [](const tools::KavrelClient& client) { return FindCaller(client, client.RequireOwner()); });
        }
        return *m_owner;
    }
    tools::Reading Read(Property property) {
        return Ask([property](const tools::KavrelClient& client) { return client.Read(GetterOf(property)); });
    }

private:
    template <typename Question>
    std::invoke_result_t<Question, const tools::KavrelClient&> Ask(const Question& question) {
        if (m_failure) {
            throw tools::ToolError(*m_failure);
        }
        try {
            if (m_client == nullptr) {
                m_client = std::make_unique<tools::KavrelClient>(m_timeout, tools::WhenBusy::TRY_AGAIN);
            }
            return question(*m_client);
        } catch (const tools::ToolError& error) {
            m_failure = error;
            throw;
        }
    }

    const tools::Timeout m_timeout;
    std::unique_ptr<tools::KavrelClient> m_client;
    std::optional<tools::ToolError> m_failure;
    std::optional<Caller> m_owner;
};

/** The folder in /proc of the daemon that this user runs; nothing if there is none, or another user runs it. */
std::optional<std::string> OwnProcess(Daemon& daemon) {
    try {
        const std::string process = "/proc/" + std::to_string(daemon.Owner().process.value());
        struct stat status {};
        return stat(process.c_str(), &status) == 0 && status.st_uid == geteuid() ? std::optional(process)
                                                                                 : std::nullopt;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

/** Never runs a program that another user chose, so that root may report safely. */
std::string DaemonVersion(Daemon& daemon, tools::Timeout timeout) {
    const auto own = OwnProcess(daemon);
    const std::string program = own ? *own + "/exe" : "kavreld";
    const std::string answer = OutputOf({program.c_str(), "--version"}, timeout);
    return answer.substr(answer.find(' ') + 1) + (own ? " (the one that runs)" : " (the one in PATH)");
}

std::string OwnerOfName(Daemon& daemon) {
    const Caller owner = daemon.Owner();
    const std::string process = owner.process ? "pid " + std::to_string(*owner.process) : "which has gone";
    return tools::Joined({owner.name, process, tools::Joined(owner.command)}, ", ");
}

/** Whether the unit runs another daemon than the one on the bus, or none. @param unit as systemctl shows it */
bool IsOfOtherDaemon(const std::string& unit, Daemon& daemon) {
    std::istringstream lines(unit);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("MainPID=")) {
            const auto process = daemon.Owner().process;
            return process && line != "MainPID=" + std::to_string(*process);
        }
    }
    return false;
}

/** A line about a part of the report that is not about the daemon on the bus; empty if it is, or nobody knows.
 *  @param part "this unit" */
std::string RemarkOn(const std::string& part, const std::string& unit, Daemon& daemon) {
    try {
        return IsOfOtherDaemon(unit, daemon)
                   ? "The daemon on this bus is another one than that of " + part + ".\n"
                   : "";
    } catch (const std::exception&) {
        return "";  // there is no daemon on the bus
    }
}

std::string LastLinesOf(const std::string& name) {
    std::deque<std::string> lines;
    std::ifstream file(name);
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
        if (lines.size() > LOG_LINES) {
            lines.pop_front();
        }
    }
    return tools::Joined({lines.begin(), lines.end()}, "\n");
}

/** The errors say what is missing: that there is no journal, or that the user may not read all of it. */
std::string LastLinesOfJournal(tools::Timeout timeout) {
    const auto [output, errors] = RunProgram(JOURNALCTL, timeout);
    if (errors.empty()) {
        return output;
    }
    if (output.empty() || output == "-- No entries --") {
        throw std::runtime_error(errors);
    }
    return errors + "\n" + output;
}

/** The end of the file into which this user's own daemon logs, as under ./run, or else of the journal. */
std::string LastLinesOfLog(const std::string& unit, Daemon& daemon, tools::Timeout timeout) {
    const auto own = OwnProcess(daemon);
    const std::string file = own ? *own + "/fd/2" : "";
    std::error_code ignored;
    return std::filesystem::is_regular_file(file, ignored)
               ? LastLinesOf(file)
               : RemarkOn("this journal", unit, daemon) + LastLinesOfJournal(timeout);
}

struct Report {
    void AddArguments(CLI::App& /*command*/) {}

    int Run(const Tool& tool) const {
        const tools::Timeout timeout = tool.Timeout();
        Daemon daemon(timeout);
        tools::PrintLine("Report of kavrelctl, " + tools::Timestamp(g_get_real_time()));
        PrintRows("Versions", {{"kavrelctl", tools::Version},
                               {"kavreld", [&] { return DaemonVersion(daemon, timeout); }},
                               {"GLib", GLibVersion},
                               {"kernel", Kernel},
                               {"distribution", Distribution}});
        PrintRows("Daemon", {{"bus", BusAddress},
                             {"owner of name", [&] { return OwnerOfName(daemon); }},
                             {"reported by", [] { return std::string(g_get_user_name()); }}});
        PrintRows("State", StateRows(daemon));
        std::string unit;
        PrintLines("Unit", [&] {
            unit = OutputOf(SYSTEMCTL, timeout);
            return RemarkOn("this unit", unit, daemon) + unit;
        });
        PrintLines("Last lines of the log", [&] { return LastLinesOfLog(unit, daemon, timeout); });
        return tools::EXIT_DONE;
    }

private:
    static std::vector<Row> StateRows(Daemon& daemon) {
        std::vector<Row> rows;
        rows.reserve(PROPERTIES.size() + 1);
        for (const Property property : PROPERTIES) {
            rows.push_back(
                {NameOf(property), [&daemon, property] { return InWords(property, daemon.Read(property)); }});
        }
        rows.push_back({"output", OutputThatPlays});
        return rows;
    }
};

}  // namespace

void AddReportCommand(Tool& tool) {
    tool.Add<Report>("report",
                     "Write a text to attach to a bug report\n"
                     "It holds versions, the owner of the daemon's name, volume, mute, support and\n"
                     "output, the state of the unit kavrel.service, and the last lines of the log:\n"
                     "from the file into which your own daemon logs, or else from the journal. It\n"
                     "says what is missing; root sees most. Read it before you send it: the log\n"
                     "names programs.",
                     "kavrelctl report");
}

}  // namespace ctl
