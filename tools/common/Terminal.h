// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The terminal of the tools: its size, its colours, and a full screen that restores it at the end. */
#ifndef KAVREL_TOOLS_TERMINAL_H
#define KAVREL_TOOLS_TERMINAL_H

#include <termios.h>

#include <string>
#include <string_view>

namespace tools {

/** Columns of the terminal behind standard output; no limit if it is not a terminal. */
int ColumnsOfOutput();

/** The first `columns` characters of a line of plain text; if it is longer, the last three are "...". */
std::string Clipped(std::string_view line, int columns);

/** Colours for standard output, which are plain text unless it is a terminal and NO_COLOR is unset or empty. */
class Style {
public:
    Style();

    std::string Bold(std::string_view text) const { return Wrapped("1", text); }
    std::string Dim(std::string_view text) const { return Wrapped("2", text); }
    std::string Red(std::string_view text) const { return Wrapped("31", text); }
    std::string Green(std::string_view text) const { return Wrapped("32", text); }
    std::string Yellow(std::string_view text) const { return Wrapped("33", text); }
    std::string Blue(std::string_view text) const { return Wrapped("34", text); }
    std::string Cyan(std::string_view text) const { return Wrapped("36", text); }

private:
    std::string Wrapped(std::string_view code, std::string_view text) const;

    bool m_coloured;
};

/**
 * Shows the alternate screen of the terminal, without a cursor and without the typed text. The destructor
 * restores the terminal; with a MainLoop it runs after Ctrl-C, too. Does nothing if standard output is no
 * terminal, or a dumb one.
 */
class FullScreen {
public:
    FullScreen();
    ~FullScreen();
    FullScreen(const FullScreen&) = delete;
    FullScreen& operator=(const FullScreen&) = delete;

    /** Shows the lines from the top on, in one write and without flicker. If they are too many, the last row
     *  is "...".
     *  @throws ReaderGone, ToolError as Print() does */
    void Show(std::string_view lines) const;

    /** For Ctrl-Z: gives the terminal back and stops the process. Returns once it goes on, to be shown anew. */
    void Suspend();

private:
    void Enter();
    void Leave() const;

    bool m_isScreen;
    termios m_before = {};
};

}  // namespace tools

#endif
