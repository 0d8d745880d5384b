// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <unistd.h>

#include <array>
#include <csignal>
#include <memory>
#include <string>

#include "Commands.h"
#include "Emulator.h"
#include "Errors.h"
#include "MainLoop.h"
#include "Print.h"

namespace tv {

namespace {

constexpr const char* DESCRIPTION = R"(play the speaker behind one of kavreld's emulators

kavreld takes an emulator for a speaker while /opt/etc/.enable_tv_spk or
/opt/etc/.enable_bt_spk exists. A number typed here turns the speaker's own
knob; both emulators hear of that. Ctrl-C ends it.

The Bluetooth emulator works in full once its support word is set, which
"kavrel-tv devices" does. The TV emulator calls GetSpkVolume and SetSpkVolume
under kavreld's own name, where nobody else can answer: they fail as long as
kavreld owns it. The speaker is therefore beside it, as org.olvane.kavrel.tv,
for any other caller.)";

struct Given {
    std::string which;
    std::string volume = "10";
    std::string result = "0";
};

/** Lines of text from a file without blocking on it. */
class Lines {
public:
    using Handler = std::function<void(const std::string& line)>;

    Lines(tools::MainLoop& loop, int file, Handler handler)
        : m_file(file),
          m_handler(std::move(handler)),
          m_source(loop.WhenReadable(file, [this] { Read(); })) {}

private:
    void Read() {
        std::array<char, 256> chunk = {};
        const ssize_t size = read(m_file, chunk.data(), chunk.size());
        if (size <= 0) {
            m_source.reset();  // the end, or a terminal that other programs read from
            if (!m_begun.empty()) {
                m_handler(m_begun);
            }
            return;
        }
        m_begun.append(chunk.data(), static_cast<std::size_t>(size));
        for (std::size_t end = 0; (end = m_begun.find('\n')) != std::string::npos;) {
            const std::string line = m_begun.substr(0, end);
            m_begun.erase(0, end + 1);
            m_handler(line);
        }
    }

    const int m_file;
    const Handler m_handler;
    std::string m_begun;
    tools::GLibPtr<GSource> m_source;
};

int Emulate(const Given& given) {
    const bool isTv = tools::Choice("the speaker", given.which, {"tv", "bt"}) == 0;
    const int volume = tools::Number("--volume", given.volume);
    const int result = tools::Number("--result", given.result);
    std::signal(SIGTTIN,
                SIG_IGN);  // in the background, reading from the terminal fails instead of stopping it
    tools::MainLoop loop;
    Emulator emulator(loop, isTv ? TV_PEER : BT_PEER, volume, result);
    const Lines knob(loop, STDIN_FILENO, [&](const std::string& line) {
        try {
            emulator.Turn(tools::Number("a volume", line));
        } catch (const tools::UsageError& error) {
            tools::Complain(error.what());
        }
    });
    return loop.RunUntilInterrupted();
}

}  // namespace

void AddEmulator(tools::CommandLine& line) {
    auto given = std::make_shared<Given>();
    CLI::App& command = line.AddCommand("emulator", DESCRIPTION, "kavrel-tv emulator bt --volume 20",
                                        [given] { return Emulate(*given); });
    command.add_option("SPEAKER", given->which, "tv or bt")->required();
    command.add_option("--volume", given->volume, "what it begins with (default: 10)")->type_name("N");
    command.add_option("--result", given->result, "what GetSpkVolume answers as its result (default: 0)")
        ->type_name("N");
}

}  // namespace tv
