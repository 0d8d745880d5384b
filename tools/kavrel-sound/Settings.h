// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The settings of a bridge, and the claim by which it is the only one on its TV. */
#ifndef KAVREL_SOUND_SETTINGS_H
#define KAVREL_SOUND_SETTINGS_H

#include <file_descriptor.h>

#include <optional>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Outputs.h"

namespace sound {

struct Settings {
    std::string server;                // empty: the one that libpulse finds
    std::vector<std::string> outputs;  // ROUTE=SINK
    std::string sub;                   // empty: no sink plays the sub output
    int latency = 60;                  // milliseconds
    bool isDefault = false;            // whether "kavrel" becomes the server's default sink
    bool isRough = false;              // whether gains change in the daemon's own steps

    void AddOptions(CLI::App& app);
};

/** The file in which a running bridge keeps its settings, locked as long as it runs. */
class Claim {
public:
    /** @throws tools::ToolError if another bridge runs on the open TV, or the TV directory cannot be written */
    explicit Claim(const Settings& settings);

    /** The server's default sink before it became "kavrel". At first it is the one that the last bridge on this TV noted:
     *  that bridge may have been killed before it could restore it. Empty: there is none. */
    const std::string& DefaultSink() const { return m_defaultSink; }
    // Both are noted for other programs, and for the next bridge; a failure of the write changes nothing for this one.
    void NoteDefaultSink(const std::string& sink);
    void NoteGuard(bool isGuarding);

    /** Whether "kavrel" is muted until the gains are in force. At first it may be the last bridge that has muted it. */
    bool IsGuarding() const { return m_isGuarding; }

    /** The bridge on the open TV; nothing if there is none. */
    struct Holder {
        int process;
        Settings settings;
        std::string defaultSink;
        bool isGuarding;
    };
    static std::optional<Holder> Find();

private:
    bool Write() const;

    /** Stays in its folder: removing it would let two bridges lock one file each. */
    host::FileDescriptor m_file;
    const Settings m_settings;
    std::string m_defaultSink;
    bool m_isGuarding = false;
};

}  // namespace sound

#endif
