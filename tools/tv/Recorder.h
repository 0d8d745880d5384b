// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TOOLS_TV_RECORDER_H
#define KAVREL_TOOLS_TV_RECORDER_H

#include <CLI/App.hpp>
#include <chrono>
#include <deque>
#include <fstream>
#include <map>
#include <optional>
#include <string>

#include "DirectoryWatch.h"
#include "Recording.h"

namespace tv {

/** The name of a file that means standard output. */
inline constexpr const char* STANDARD_OUTPUT = "-";

/** The options that all commands that record have. */
struct RecordingOptions {
    std::string file;
    std::optional<double> seconds;

    void AddFile(CLI::App& command, const std::string& name);
};

/** Records the open TV: writes a line for each change, at once; or, if it records sound, when the sound before the change
 *  has come. */
class Recorder {
public:
    using Clock = std::chrono::steady_clock;
    enum class Content { CHANGES, CHANGES_AND_SOUND };

    /** @param name of the file, which is replaced; or STANDARD_OUTPUT
     *  @throws tools::ToolError if it cannot be written */
    Recorder(tools::MainLoop& loop, std::string name, Content content);

    /** Writes a line for a window of sound, behind the changes before its end.
     *  @param end not before the end of the last window
     *  @param heard RMS, in percent of the full scale */
    void Hear(Clock::time_point end, double heard);

    /** Runs the loop until the time is over, or Ctrl-C. Then writes the last line, and says how many there are.
     *  @param seconds empty: only Ctrl-C ends the recording
     *  @return the exit status */
    int RunFor(std::optional<double> seconds);

private:
    void On(DirectoryWatch::Event event, const std::string& path);
    void Record(const std::string& event, Clock::time_point time);
    bool IsOldSupport(const std::string& path, const std::string& value);
    double SecondsAt(Clock::time_point time) const;
    void Write(const Sample& sample);
    void Write(const std::string& text);
    void End();

    const Clock::time_point m_start = Clock::now();
    tools::MainLoop& m_loop;
    const std::string m_name;
    const bool m_hasSound;
    std::ofstream m_file;
    DirectoryWatch m_watch;
    std::map<std::string, std::string> m_support;  // the last value of each device's support word, by path
    Sample m_last;                                 // of all lines
    Sample m_written;                              // the last line written
    std::deque<Sample> m_waiting;                  // for the sound before them
    int m_count = 0;
};

}  // namespace tv

#endif
