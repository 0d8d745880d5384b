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

    /** The settings of the bridge on the open TV; nothing if there is none. */
    struct Holder {
        int process;
        Settings settings;
    };
    static std::optional<Holder> Find();

private:
    /** Stays in its folder: removing it would let two bridges lock one file each. */
    host::FileDescriptor m_file;
};

}  // namespace sound

#endif
