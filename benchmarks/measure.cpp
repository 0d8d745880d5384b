// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The measuring client: visits several servers in turns with the same code and prints a line per round, with
 * a number for each server in the order of the command line. Each round begins with another server.
 */
#include <spawn.h>
#include <sys/wait.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Client.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using bench::Client;
using bench::Clock;
using bench::RunUntil;

constexpr int VOLUME_MAX = 100;
constexpr auto REST = 5ms;  // after which the server and its bus sleep again

struct Options {
    int rounds = 1;
    int calls = 1;     // of each server in a round
    int inFlight = 1;  // calls of each client at a time
    int clients = 1;
    double seconds = 1;
    std::string file;                  // of the volume; for "start", the TV directory to remove
    std::vector<std::string> servers;  // addresses of buses, or programs
};

enum class Listens { nobody, everybody, allButTheFirst };

/** The clients of one server, and what they have heard. */
class Target {
public:
    Target(const std::string& address, int clients, Listens listens) {
        for (int i = 0; i < clients; ++i) {
            m_clients.push_back(std::make_unique<Client>(address));
            if (listens == Listens::everybody || (listens == Listens::allButTheFirst && i > 0)) {
                m_clients.back()->Listen([this] { ++m_heard; });
            }
        }
        m_volume = First().Volume();
    }

    Client& First() { return *m_clients.front(); }
    const std::vector<std::unique_ptr<Client>>& Clients() const { return m_clients; }

    /** Another volume than the one before. */
    int NextVolume() { return m_volume = m_volume % VOLUME_MAX + 1; }

    /** How many signals have come, each counted once for each client that hears it. */
    int Heard() const { return m_heard; }

private:
    std::vector<std::unique_ptr<Client>> m_clients;
    int m_volume = 0;
    int m_heard = 0;
};

double Microseconds(Clock::duration time) {
    return std::chrono::duration<double, std::micro>(time).count();
}

/** The median time, in microseconds, of operations of which each begins when the one before has ended. */
template <typename Operation>
double MedianTime(int operations, Operation operation) {
    std::vector<double> times;
    for (int i = 0; i < operations; ++i) {
        const auto start = Clock::now();
        operation();
        times.push_back(Microseconds(Clock::now() - start));
    }
    const auto middle = times.begin() + operations / 2;
    std::nth_element(times.begin(), middle, times.end());
    return *middle;
}

double GetTime(Target& target, const Options& options) {
    return MedianTime(options.calls, [&target] { target.First().Volume(); });
}

/** A call of the bus itself, which no server sees. */
double BusTime(Target& target, const Options& options) {
    return MedianTime(options.calls, [&target] {
        bool answered = false;
        target.First().CallBus([&answered] { answered = true; });
        RunUntil([&answered] { return answered; });
    });
}

/** Until the caller has the reply, and everybody who listens has the signal. */
double SetTime(Target& target, const Options& options) {
    const int listeners = options.clients == 1 ? 1 : options.clients - 1;
    return MedianTime(options.calls, [&target, listeners] {
        bool answered = false;
        const int heard = target.Heard() + listeners;
        target.First().SetVolume(target.NextVolume(), [&answered] { answered = true; });
        RunUntil([&] { return answered && target.Heard() == heard; });
    });
}

/** Until a second client has the signal. */
double HearTime(Target& target, const Options& options) {
    return MedianTime(options.calls, [&target] {
        const int heard = target.Heard() + 1;
        target.First().SetVolume(target.NextVolume(), [] {});
        RunUntil([&] { return target.Heard() == heard; });
    });
}

/** From the moment in which another program puts a new volume in place until a client has the signal. */
double OutsideTime(Target& target, const Options& options) {
    const fs::path temporary = fs::path(options.file).parent_path() / ".bench";
    std::vector<double> times;
    for (int i = 0; i < options.calls; ++i) {
        std::ofstream(temporary) << target.NextVolume() << '\n';
        std::this_thread::sleep_for(REST);
        times.push_back(MedianTime(1, [&] {
            const int heard = target.Heard() + 1;
            fs::rename(temporary, options.file);
            RunUntil([&] { return target.Heard() == heard; });
        }));
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

/** Keeps calls of several clients in flight until all of a number are done. */
class Stream {
public:
    Stream(Target& target, const Options& options, bool sets)
        : m_target(target), m_options(options), m_sets(sets) {}

    /** @return calls a second */
    double Run() {
        const auto start = Clock::now();
        const int heard = m_target.Heard() + (m_sets ? m_options.calls * m_options.clients : 0);
        for (const auto& client : m_target.Clients()) {
            for (int i = 0; i < m_options.inFlight; ++i) {
                SendNext(*client);
            }
        }
        RunUntil([&] { return m_answered == m_options.calls && m_target.Heard() == heard; });
        return m_options.calls / std::chrono::duration<double>(Clock::now() - start).count();
    }

private:
    void SendNext(Client& client) {
        if (m_sent == m_options.calls) {
            return;
        }
        ++m_sent;
        const auto onReply = [this, &client] {
            ++m_answered;
            SendNext(client);
        };
        if (m_sets) {
            client.SetVolume(m_target.NextVolume(), onReply);
        } else {
            client.GetVolume(onReply);
        }
    }

    Target& m_target;
    const Options& m_options;
    const bool m_sets;
    int m_sent = 0;
    int m_answered = 0;
};

double GetRate(Target& target, const Options& options) {
    return Stream(target, options, false).Run();
}

double SetRate(Target& target, const Options& options) {
    return Stream(target, options, true).Run();
}

double Fade(Target& target, const Options& /*options*/) {
    constexpr int MAIN_OUT = 1;
    bool answered = false;
    target.First().Call("ApplyPlayerFadeIn", MAIN_OUT, [&answered] { answered = true; });
    RunUntil([&answered] { return answered; });
    return 0;
}

/** A server that is started, and ended with the object. */
class Process {
public:
    explicit Process(const std::string& program) {
        std::string name = program;
        const std::array<char*, 2> arguments = {name.data(), nullptr};
        if (posix_spawn(&m_id, program.c_str(), nullptr, nullptr, arguments.data(), environ) != 0) {
            throw std::runtime_error("cannot start " + program);
        }
    }
    ~Process() {
        kill(m_id, SIGTERM);
        waitpid(m_id, nullptr, 0);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

private:
    pid_t m_id = -1;
};

/** Follows whether the daemon's name has an owner on a bus. */
class NameWatch {
public:
    explicit NameWatch(const Client& observer)
        : m_id(g_bus_watch_name_on_connection(observer.Connection(), bench::NAME,
                                              G_BUS_NAME_WATCHER_FLAGS_NONE, OnOwned, OnGone, this,
                                              nullptr)) {}
    ~NameWatch() { g_bus_unwatch_name(m_id); }
    NameWatch(const NameWatch&) = delete;
    NameWatch& operator=(const NameWatch&) = delete;

    void Await(bool owned) const {
        RunUntil([&] { return m_owned == owned; });
    }

private:
    static void OnOwned(GDBusConnection* /*connection*/, const char* /*name*/, const char* /*owner*/,
                        gpointer self) {
        static_cast<NameWatch*>(self)->m_owned = true;
    }
    static void OnGone(GDBusConnection* /*connection*/, const char* /*name*/, gpointer self) {
        static_cast<NameWatch*>(self)->m_owned = false;
    }

    bool m_owned = false;
    const guint m_id;
};

/** From the start of the program until the bus says that it owns the daemon's name, in microseconds. */
double StartTime(const NameWatch& name, const std::string& program) {
    const auto start = Clock::now();
    const Process process(program);
    name.Await(true);
    return Microseconds(Clock::now() - start);
}

/** Calls measure(i) for each of `count` servers, beginning with another one in each round. */
template <typename Measure>
void InTurns(int rounds, std::size_t count, Measure measure) {
    for (int round = 0; round < rounds; ++round) {
        std::vector<double> results(count);
        for (std::size_t turn = 0; turn < count; ++turn) {
            const std::size_t i = (turn + static_cast<std::size_t>(round)) % count;
            results[i] = measure(i);
        }
        for (const double result : results) {
            std::cout << result << ' ';
        }
        std::cout << std::endl;
    }
}

/** All programs start on one bus, one after the other. */
void MeasureStarts(const Options& options) {
    const Client observer(std::getenv("DBUS_SYSTEM_BUS_ADDRESS"));
    const NameWatch name(observer);
    InTurns(options.rounds, options.servers.size(), [&](std::size_t i) {
        if (!options.file.empty()) {
            fs::remove_all(options.file);
        }
        const double time = StartTime(name, options.servers[i]);
        name.Await(false);
        return time;
    });
}

/**
 * Calls one server for some seconds, one call after the other, and prints the milliseconds of each, below
 * zero if the call failed.
 */
void MeasureFor(const Options& options) {
    Client client(options.servers.front());
    int failed = 0;
    client.CountFailures(failed);
    const auto end = Clock::now() + std::chrono::duration<double>(options.seconds);
    while (Clock::now() < end) {
        const auto start = Clock::now();
        const int failedBefore = failed;
        client.Volume();
        const double time = Microseconds(Clock::now() - start) / 1000;
        std::cout << (failed == failedBefore ? time : -time) << '\n';
    }
}

struct Measurement {
    const char* name;
    double (*measure)(Target&, const Options&);
    Listens listens;
    const char* description;
};

constexpr std::array MEASUREMENTS = {
    Measurement{"bus", BusTime, Listens::nobody, "us of one call of the bus itself, median"},
    Measurement{"get", GetTime, Listens::nobody, "us of one GetSpeakerVolume at a time, median"},
    Measurement{"set", SetTime, Listens::everybody, "us of one SetSpeakerVolume with its signal, median"},
    Measurement{"get-rate", GetRate, Listens::nobody, "GetSpeakerVolume a second"},
    Measurement{"set-rate", SetRate, Listens::everybody, "SetSpeakerVolume with signals a second"},
    Measurement{"hear", HearTime, Listens::allButTheFirst, "us from a set to the signal at a second client"},
    Measurement{"hear-all", SetTime, Listens::allButTheFirst, "us from a set to the signal at all others"},
    Measurement{"outside", OutsideTime, Listens::everybody, "us from a new --file to the signal, median"},
    Measurement{"fade", Fade, Listens::nobody, "begin a fade-in of the player's gain on the main output"},
};

void MeasureCalls(const Measurement& measurement, const Options& options) {
    std::vector<std::unique_ptr<Target>> targets;
    for (const std::string& address : options.servers) {
        targets.push_back(std::make_unique<Target>(address, options.clients, measurement.listens));
    }
    InTurns(options.rounds, targets.size(),
            [&](std::size_t i) { return measurement.measure(*targets[i], options); });
}

void AddOptions(CLI::App& command, Options& options) {
    command.add_option("--rounds", options.rounds, "Visits to each server")->check(CLI::PositiveNumber);
    command.add_option("--calls", options.calls, "Calls in each visit")->check(CLI::PositiveNumber);
    command.add_option("--in-flight", options.inFlight, "Calls of each client at a time")
        ->check(CLI::PositiveNumber);
    command.add_option("--clients", options.clients, "Clients of each server")->check(CLI::PositiveNumber);
    command.add_option("--file", options.file, "The file of the volume; for \"start\", what to remove first");
    command.add_option("server", options.servers, "Addresses of buses; for \"start\", programs")->required();
}

int Run(int argc, char** argv) {
    CLI::App app("Measures servers of the daemon's interface side by side; ./bench uses it.");
    app.require_subcommand(1);
    Options options;
    for (const Measurement& measurement : MEASUREMENTS) {
        CLI::App& command = *app.add_subcommand(measurement.name, measurement.description);
        AddOptions(command, options);
        command.callback([&] { MeasureCalls(measurement, options); });
    }
    CLI::App& start = *app.add_subcommand("start", "us from the start of a program to its name on the bus");
    AddOptions(start, options);
    start.callback([&] { MeasureStarts(options); });
    CLI::App& getFor = *app.add_subcommand("get-for", "ms of each GetSpeakerVolume in a time, one at a time");
    getFor.add_option("--seconds", options.seconds, "How long")->check(CLI::PositiveNumber);
    getFor.add_option("server", options.servers, "Address of a bus")->required()->expected(1);
    getFor.callback([&] { MeasureFor(options); });
    CLI11_PARSE(app, argc, argv);
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "measure: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
