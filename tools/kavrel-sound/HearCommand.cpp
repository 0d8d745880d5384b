// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <Platform.h>
#include <Recorder.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>
#include <utility>

#include "Commands.h"
#include "Errors.h"
#include "Layout.h"
#include "MainLoop.h"
#include "Print.h"
#include "PulseServer.h"

namespace sound {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::uint32_t RATE = 48000;
constexpr std::uint8_t CHANNELS = 2;
constexpr milliseconds WINDOW{10};
constexpr std::size_t SAMPLES_OF_WINDOW = std::size_t{RATE} * CHANNELS * WINDOW.count() / 1000;
constexpr milliseconds LONGEST_HOLE{500};  // in the sound, until its clock is set anew

/** The loudness of each window of a sound. */
class Envelope {
public:
    using OnWindow = std::function<void(Clock::time_point end, double rms)>;
    explicit Envelope(OnWindow onWindow) : m_onWindow(std::move(onWindow)) {}

    /** Takes samples that have arrived now. Their number is the clock, because the server sends them in lumps: each
     *  window is as late as the one that arrived soonest. */
    void Add(const float* samples, std::size_t count, Clock::time_point now) {
        SetClock(count, now);
        for (std::size_t i = 0; i < count; ++i) {
            const double sample = samples != nullptr ? samples[i] : 0;
            m_squares += sample * sample;
            if (++m_count == SAMPLES_OF_WINDOW) {
                m_end += WINDOW;
                m_onWindow(m_end, std::sqrt(m_squares / SAMPLES_OF_WINDOW));
                m_squares = 0;
                m_count = 0;
            }
        }
    }

private:
    void SetClock(std::size_t count, Clock::time_point now) {
        const auto length = WINDOW * static_cast<long>((m_count + count) / SAMPLES_OF_WINDOW);
        if (m_end == Clock::time_point() || m_end + length > now || m_end + length + LONGEST_HOLE < now) {
            m_end = now - length;
        }
    }

    const OnWindow m_onWindow;
    Clock::time_point m_end;  // of the last window
    double m_squares = 0;
    std::size_t m_count = 0;  // of the samples in them
};

/** Records what is heard on a sink while the object lives. */
class Ear {
public:
    /** @param sink waited for until the server has it */
    Ear(tools::MainLoop& loop, const std::string& server, std::string sink, Envelope::OnWindow onWindow)
        : m_sink(std::move(sink)), m_envelope(std::move(onWindow)), m_server(loop, server) {
        m_server.Connect({[this] { Start(); }, Fail, {}});
    }

private:
    [[noreturn]] static void Fail(const std::string& reason) {
        throw tools::ToolError(tools::EXIT_UNREACHABLE, "no sound server: " + reason);
    }

    void Start() {
        const pa_sample_spec format = {PA_SAMPLE_FLOAT32NE, RATE, CHANNELS};
        m_stream.reset(pa_stream_new(m_server.Context(), "kavrel-hear", &format, nullptr));
        const auto onState = [](pa_stream* /*stream*/, void* ear) {
            auto* const self = static_cast<Ear*>(ear);
            self->m_server.Loop().Guard([self] { self->OnState(); });
        };
        const auto onData = [](pa_stream* /*stream*/, std::size_t /*bytes*/, void* ear) {
            auto* const self = static_cast<Ear*>(ear);
            self->m_server.Loop().Guard([self] { self->Read(); });
        };
        pa_stream_set_state_callback(m_stream.get(), onState, this);
        pa_stream_set_read_callback(m_stream.get(), onData, this);
        pa_buffer_attr lumps;
        std::fill_n(&lumps.maxlength, sizeof(lumps) / sizeof(lumps.maxlength),
                    static_cast<std::uint32_t>(-1));
        lumps.fragsize = SAMPLES_OF_WINDOW * sizeof(float);
        const std::string monitor = m_sink + ".monitor";
        if (pa_stream_connect_record(m_stream.get(), monitor.c_str(), &lumps, PA_STREAM_DONT_MOVE) != 0) {
            OnState();
        }
    }

    void OnState() const {
        const int error = pa_context_errno(pa_stream_get_context(m_stream.get()));
        if (!PA_STREAM_IS_GOOD(pa_stream_get_state(m_stream.get()))) {
            throw tools::ToolError(tools::EXIT_REFUSED, "cannot hear the sink " + tools::Printable(m_sink) +
                                                            ": " + pa_strerror(error));
        }
    }

    /** A hole in the sound has a size and no samples. */
    void Read() {
        const void* data = nullptr;
        std::size_t bytes = 0;
        while (pa_stream_readable_size(m_stream.get()) > 0 &&
               pa_stream_peek(m_stream.get(), &data, &bytes) == 0 && bytes > 0) {
            m_envelope.Add(static_cast<const float*>(data), bytes / sizeof(float), Clock::now());
            pa_stream_drop(m_stream.get());
        }
    }

    const std::string m_sink;
    Envelope m_envelope;
    PulseServer m_server;
    PulsePtr<pa_stream> m_stream;
};

struct HearCommand {
    tv::RecordingOptions options;
    std::string sink;

    void AddOptions(CLI::App& command) {
        options.AddFile(command, "FILE.csv");
        command.add_option("--sink", sink, "Hear this sink (default: that of the output in use)")
            ->type_name("SINK");
        tools::AddSeconds(command, options.seconds);
    }

    int Run(const Scene& scene) const {
        tv::OpenTv(scene.directory);
        const Settings settings = SettingsInForce(scene.settings);
        const std::string heard = sink.empty() ? SinkInUse(settings) : sink;
        tools::MainLoop loop;
        tv::Recorder recorder(loop, options.file, tv::Recorder::Content::CHANGES_AND_SOUND);
        const Ear ear(loop, settings.server, heard,
                      [&](Clock::time_point end, double rms) { recorder.Hear(end, rms * 100); });
        return recorder.RunFor(options.seconds);
    }

    static std::string SinkInUse(const Settings& settings) {
        const tv::Integer route = tv::ReadOutput().route;
        const auto bridge = Claim::Find();
        const std::string defaultSink =
            DefaultSink(AskServer(settings.server), bridge ? bridge->defaultSink : "");
        const Choice choice =
            route ? Outputs(settings.outputs).ChoiceOf(route.value, defaultSink) : Choice{"", "no route"};
        if (choice.sink.empty()) {
            throw tools::ToolError(tools::EXIT_REFUSED,
                                   "the output in use has no sink: " + choice.reason + "; --sink names one");
        }
        return choice.sink;
    }
};

}  // namespace

void AddHear(tools::CommandLine& line, const Scene& scene) {
    const auto command = std::make_shared<HearCommand>();
    command->AddOptions(line.AddCommand(
        "hear",
        "Record what an output lets hear, beside the gains\n\n"
        "The file is a recording as kavrel-tv record makes it, with one more column: heard,\n"
        "the RMS of each 10 ms in percent of the full scale. kavrel-tv plot draws it.",
        "kavrel-sound hear --seconds 5 fade.csv", [command, &scene] { return command->Run(scene); }));
}

}  // namespace sound
