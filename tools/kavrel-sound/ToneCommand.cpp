// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cmath>
#include <numbers>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Errors.h"
#include "MainLoop.h"
#include "Print.h"
#include "PulseServer.h"

namespace sound {

namespace {

constexpr std::uint32_t RATE = 48000;
constexpr float LOUDNESS = 0.25F;  // of the full scale: 12 dB below it

/** A tone that plays into "kavrel" while the object lives. */
class Tone {
public:
    Tone(tools::MainLoop& loop, const std::string& server, int frequency)
        : m_step(2 * std::numbers::pi * frequency / RATE), m_server(loop, server) {
        m_server.Connect({[this] { Start(); }, Fail, {}});
    }

private:
    [[noreturn]] static void Fail(const std::string& reason) {
        throw tools::ToolError(tools::EXIT_UNREACHABLE, "no sound server: " + reason);
    }

    void Start() {
        const pa_sample_spec format = {PA_SAMPLE_FLOAT32NE, RATE, 1};
        m_stream.reset(pa_stream_new(m_server.Context(), "tone", &format, nullptr));
        const auto onState = [](pa_stream* /*stream*/, void* tone) {
            auto* const self = static_cast<Tone*>(tone);
            self->m_server.Loop().Guard([self] { self->OnState(); });
        };
        const auto onNeed = [](pa_stream* stream, std::size_t bytes, void* tone) {
            static_cast<Tone*>(tone)->Write(stream, bytes);
        };
        pa_stream_set_state_callback(m_stream.get(), onState, this);
        pa_stream_set_write_callback(m_stream.get(), onNeed, this);
        if (pa_stream_connect_playback(m_stream.get(), KAVREL_SINK, nullptr, PA_STREAM_NOFLAGS, nullptr,
                                       nullptr) != 0) {
            OnState();
        }
    }

    void OnState() const {
        const int error = pa_context_errno(pa_stream_get_context(m_stream.get()));
        const pa_stream_state_t state = pa_stream_get_state(m_stream.get());
        if (PA_STREAM_IS_GOOD(state)) {
            return;
        }
        throw tools::ToolError(tools::EXIT_REFUSED,
                               error == PA_ERR_NOENTITY
                                   ? "the server has no sink \"kavrel\"; kavrel-sound makes it while it runs"
                                   : "the tone has ended: " + std::string(pa_strerror(error)));
    }

    void Write(pa_stream* stream, std::size_t bytes) {
        std::vector<float> samples(bytes / sizeof(float));
        for (float& sample : samples) {
            sample = LOUDNESS * static_cast<float>(std::sin(m_phase));
            m_phase = std::fmod(m_phase + m_step, 2 * std::numbers::pi);
        }
        pa_stream_write(stream, samples.data(), samples.size() * sizeof(float), nullptr, 0, PA_SEEK_RELATIVE);
    }

    const double m_step;  // between two samples, in radians
    double m_phase = 0;
    PulseServer m_server;
    PulsePtr<pa_stream> m_stream;
};

struct ToneCommand {
    int frequency = 440;
    std::optional<double> seconds;

    void AddOptions(CLI::App& command) {
        command.add_option("HZ", frequency, "The frequency, 20 to 20000 (default: 440)")
            ->transform(tools::WholeNumber(20, 20000));
        tools::AddSeconds(command, seconds);
    }

    int Run(const Scene& scene) const {
        tools::MainLoop loop;
        const Tone tone(loop, scene.settings.server, frequency);
        return loop.RunUntilInterrupted(seconds);
    }
};

}  // namespace

void AddTone(tools::CommandLine& line, const Scene& scene) {
    const auto command = std::make_shared<ToneCommand>();
    command->AddOptions(
        line.AddCommand("tone",
                        "Play a tone into \"kavrel\", until Ctrl-C\n\n"
                        "Each sample of the tone is at most a quarter of the full scale (-12 dB).",
                        "kavrel-sound tone 1000", [command, &scene] { return command->Run(scene); }));
}

}  // namespace sound
