// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/// What the daemon costs its TV: the latency of its methods, its start, its memory, and what it does while
/// idle.
///
/// The real daemon, named by KAVRELD, on a bus of its own. Times are seen from a client.
#include <benchmark/benchmark.h>
#include <gio/gio.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr guint PATIENCE = 20;  // seconds, for a daemon to start
constexpr const char* NAME = "org.olvane.kavrel";
constexpr const char* PATH = "/Org/Olvane/KavrelInternal";

struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
struct UnrefVariant {
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using Connection = std::unique_ptr<GDBusConnection, Unref>;
using Reply = std::unique_ptr<GVariant, UnrefVariant>;

/// A private bus and an empty TV on a tmpfs, for as long as it lives.
class Scene {
public:
    Scene() {
        const fs::path memory = "/dev/shm";
        const fs::path place = access(memory.c_str(), W_OK) == 0 ? memory : fs::temp_directory_path();
        std::string name = place / "kavrel-bench.XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no folder in " + place.string());
        }
        m_folder = name;
        const auto flags =
            static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_SILENCE);
        m_bus.reset(g_subprocess_new(
            flags, nullptr, "setpriv", "--pdeathsig", "TERM", "dbus-daemon", "--session", "--nofork",
            "--print-address=1", ("--address=unix:path=" + (m_folder / "bus").string()).c_str(), nullptr));
        const std::unique_ptr<GDataInputStream, Unref> output(
            g_data_input_stream_new(g_subprocess_get_stdout_pipe(m_bus.get())));
        g_autofree char* address = g_data_input_stream_read_line(output.get(), nullptr, nullptr, nullptr);
        m_address = address != nullptr ? address : throw std::runtime_error("dbus-daemon did not start");
    }

    ~Scene() {
        g_subprocess_send_signal(m_bus.get(), SIGTERM);
        g_subprocess_wait(m_bus.get(), nullptr, nullptr);
        fs::remove_all(m_folder);
    }

    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    const std::string& Address() const { return m_address; }
    std::string Tv() const { return m_folder / "tv"; }
    std::string Log() const { return m_folder / "kavreld.log"; }

    Connection Connect() const {
        const auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        return Connection(
            g_dbus_connection_new_for_address_sync(m_address.c_str(), flags, nullptr, nullptr, nullptr));
    }

private:
    fs::path m_folder;
    std::unique_ptr<GSubprocess, Unref> m_bus;
    std::string m_address;
};

/// The daemon from its start until it owns its name; ended with the object.
class Daemon {
public:
    Daemon(const Scene& scene, GDBusConnection* observer) {
        const char* program = std::getenv("KAVRELD");
        const std::unique_ptr<GSubprocessLauncher, Unref> launcher(
            g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_NONE));
        g_subprocess_launcher_setenv(launcher.get(), "KAVREL_TV_DIR", scene.Tv().c_str(), TRUE);
        g_subprocess_launcher_setenv(launcher.get(), "DBUS_SYSTEM_BUS_ADDRESS", scene.Address().c_str(),
                                     TRUE);
        g_subprocess_launcher_set_stderr_file_path(launcher.get(), scene.Log().c_str());
        if (program == nullptr) {
            throw std::runtime_error("KAVRELD does not name the daemon");
        }
        bool owned = false;
        bool late = false;
        const guint watch = g_bus_watch_name_on_connection(observer, NAME, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                                           OnOwned, nullptr, &owned, nullptr);
        const guint timer = g_timeout_add_seconds(PATIENCE, OnLate, &late);
        m_process.reset(g_subprocess_launcher_spawn(launcher.get(), nullptr, "setpriv", "--pdeathsig", "TERM",
                                                    program, nullptr));
        while (m_process != nullptr && !owned && !late) {
            g_main_context_iteration(nullptr, TRUE);
        }
        g_bus_unwatch_name(watch);
        if (!owned) {
            throw std::runtime_error("the daemon did not start");
        }
        g_source_remove(timer);
    }

    ~Daemon() {
        g_subprocess_send_signal(m_process.get(), SIGTERM);
        g_subprocess_wait(m_process.get(), nullptr, nullptr);
    }

    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    /// The sum of a "Key:  number" line over one file of the process, or of each of its threads.
    long Sum(const std::string& key, const std::string& file) const {
        std::ifstream stream(fs::path("/proc") / g_subprocess_get_identifier(m_process.get()) / file);
        std::string word;
        while (stream >> word) {
            if (long number = 0; word == key && stream >> number) {
                return number;
            }
        }
        return 0;
    }

    long ContextSwitches() const {
        const fs::path tasks = fs::path("/proc") / g_subprocess_get_identifier(m_process.get()) / "task";
        long sum = 0;
        for (const auto& task : fs::directory_iterator(tasks)) {
            const std::string status = "task/" + task.path().filename().string() + "/status";
            sum += Sum("voluntary_ctxt_switches:", status) + Sum("nonvoluntary_ctxt_switches:", status);
        }
        return sum;
    }

private:
    static gboolean OnLate(gpointer late) {
        *static_cast<bool*>(late) = true;
        return G_SOURCE_REMOVE;
    }
    static void OnOwned(GDBusConnection*, const char*, const char*, gpointer owned) {
        *static_cast<bool*>(owned) = true;
    }

    std::unique_ptr<GSubprocess, Unref> m_process;
};

/// Whether a measurement has failed: the exit status tells.
bool failed = false;

void Fail(benchmark::State& state, const char* why) {
    failed = true;
    state.SkipWithError(why);
}

/// The status of a call: the last value of its reply.
int Call(GDBusConnection* connection, const char* method, GVariant* arguments) {
    const Reply reply(g_dbus_connection_call_sync(connection, NAME, PATH, NAME, method, arguments, nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
    if (reply == nullptr) {
        return -1;
    }
    const Reply status(g_variant_get_child_value(reply.get(), g_variant_n_children(reply.get()) - 1));
    return g_variant_get_int32(status.get());
}

template <typename MakeArguments>
void MeasureCall(benchmark::State& state, const char* method, MakeArguments makeArguments) {
    const Scene scene;
    const Connection client = scene.Connect();
    const Daemon daemon(scene, client.get());
    for (auto _ : state) {
        if (Call(client.get(), method, makeArguments()) != 0) {
            Fail(state, "a call failed");
            return;
        }
    }
    state.counters["calls/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void GetVolume(benchmark::State& state) {
    MeasureCall(state, "GetSpeakerVolume", [] { return static_cast<GVariant*>(nullptr); });
}

/// Always to another value: a write to the TV, a report and a signal in every call.
void SetVolume(benchmark::State& state) {
    MeasureCall(state, "SetSpeakerVolume", [volume = 0]() mutable {
        volume = volume % 100 + 1;
        return g_variant_new("(i)", volume);
    });
}

/// The bus alone: what of the two above is not the daemon's.
void PingBus(benchmark::State& state) {
    const Scene scene;
    const Connection client = scene.Connect();
    for (auto _ : state) {
        const Reply reply(g_dbus_connection_call_sync(client.get(), "org.freedesktop.DBus", "/",
                                                      "org.freedesktop.DBus", "GetId", nullptr, nullptr,
                                                      G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
        if (reply == nullptr) {
            Fail(state, "the bus does not answer");
            return;
        }
    }
}

/// From the start of the process until its name is owned, and what it then takes of memory.
void Start(benchmark::State& state) {
    const Scene scene;
    const Connection observer = scene.Connect();
    for (auto _ : state) {
        const auto started = Clock::now();
        const Daemon daemon(scene, observer.get());
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - started).count());
        state.counters["PSS_KiB"] = static_cast<double>(daemon.Sum("Pss:", "smaps_rollup"));
        state.counters["RSS_KiB"] = static_cast<double>(daemon.Sum("VmRSS:", "status"));
        state.counters["threads"] = static_cast<double>(daemon.Sum("Threads:", "status"));
    }
}

/// Five seconds in which nothing happens: how often any thread of the daemon runs.
void Idle(benchmark::State& state) {
    const Scene scene;
    const Connection client = scene.Connect();
    const Daemon daemon(scene, client.get());
    Call(client.get(), "GetSpeakerVolume", nullptr);
    std::this_thread::sleep_for(std::chrono::seconds(2));  // the workers of the gain come to rest
    for (auto _ : state) {
        const long before = daemon.ContextSwitches();
        std::this_thread::sleep_for(std::chrono::seconds(5));
        state.counters["context_switches"] = static_cast<double>(daemon.ContextSwitches() - before);
    }
}

BENCHMARK(PingBus)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(GetVolume)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(SetVolume)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(Start)->Unit(benchmark::kMillisecond)->UseManualTime();
BENCHMARK(Idle)->Unit(benchmark::kSecond)->UseRealTime()->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return EXIT_FAILURE;
    }
    try {
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception& error) {
        std::cerr << "daemon-benchmark: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
    return failed ? EXIT_FAILURE : EXIT_SUCCESS;
}
