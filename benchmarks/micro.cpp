// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Times single functions in one process: the log, the tracer, the host platform, the dispatch tables. */
#include <audio_control.h>
#include <audio_hal.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <gio/gio.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "KVDbusEventHandler.h"
#include "KVDebug.h"

namespace {

namespace fs = std::filesystem;

/** A TV directory and the log's file on a tmpfs, while it lives. */
class Scene {
public:
    Scene() {
        const fs::path place = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string name = place / "kavrel-micro.XXXXXX";
        m_folder = mkdtemp(name.data());
        // NOLINTBEGIN(concurrency-mt-unsafe): there is no other thread yet
        setenv("KAVREL_TV_DIR", (m_folder / "tv").c_str(), 1);
        setenv("KAVREL_LOG", "info", 1);
        // NOLINTEND(concurrency-mt-unsafe)
        m_log = open((m_folder / "log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    }
    ~Scene() {
        close(m_log);
        fs::remove_all(m_folder);
    }
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    /** Standard error goes to the log's file from now on, as a service's does. */
    void BecomeService() const { dup2(m_log, STDERR_FILENO); }

private:
    fs::path m_folder;
    int m_log = -1;
};

void LogWritten(benchmark::State& state) {
    for (auto _ : state) {
        LOGI("Return volume %d. ret:%d", 30, 0);
    }
}

void LogFiltered(benchmark::State& state) {
    for (auto _ : state) {
        LOGD("Return volume %d. ret:%d", 30, 0);
    }
}

void ScopeTraceFiltered(benchmark::State& state) {
    for (auto _ : state) {
        const CALLTRACKER tracker(__PRETTY_FUNCTION__);
    }
}

void Read(benchmark::State& state) {
    int volume = 0;
    for (auto _ : state) {
        audio_get_master_volume(&volume);
        benchmark::DoNotOptimize(volume);
    }
}

/** Writes a value that has no registration. */
void Write(benchmark::State& state) {
    int gain = 0;
    for (auto _ : state) {
        gain = gain % 100 + 1;
        AudioControl_getInstance()->set_main_out_gain2(gain);
    }
}

/** Writes a value that has one, and so calls its callback. */
void WriteAndReport(benchmark::State& state) {
    static int written = 0;  // goes on from run to run, so that no value equals the one before
    const int first = written;
    int heard = 0;
    audio_register_master_volume_changed_cb([](unsigned int, void* count) { ++*static_cast<int*>(count); },
                                            &heard);
    for (auto _ : state) {
        audio_set_master_volume(++written % 101, 1);
    }
    audio_unregister_master_volume_changed_cb();
    if (heard != written - first) {
        state.SkipWithError("some writes were not reported");
    }
}

/** The look-up, the unpacking and the one log line of the smallest handler. */
void Dispatch(benchmark::State& state) {
    NKavrel::KVDbusEventHandler handler;
    handler.Init();
    g_autoptr(GVariant) parameters = g_variant_ref_sink(g_variant_new("(i)", 1));
    int userData = 0;  // this handler only looks whether there is any
    for (auto _ : state) {
        handler.OnSignal("BudsConnected", parameters, &userData);
    }
}

BENCHMARK(LogWritten);
BENCHMARK(LogFiltered);
BENCHMARK(ScopeTraceFiltered);
BENCHMARK(Read);
BENCHMARK(Write);
BENCHMARK(WriteAndReport);
BENCHMARK(Dispatch);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return EXIT_FAILURE;
    }
    const Scene scene;
    scene.BecomeService();
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
