// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Terminal.h"

#include <glib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <limits>

#include "Errors.h"
#include "Print.h"

namespace tools {

namespace {

constexpr std::string_view ENTER = "\033[?1049h\033[?25l";
constexpr std::string_view LEAVE = "\033[?25h\033[?1049l";
constexpr std::string_view TO_THE_TOP = "\033[H";
constexpr std::string_view CLEAR_LINE = "\033[K";
constexpr std::string_view CLEAR_REST_OF_SCREEN = "\033[J";
constexpr std::string_view ELLIPSIS = "...";

/** A terminal that understands more than text. */
bool IsScreen() {
    const char* terminal = g_getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && (terminal == nullptr || std::string_view(terminal) != "dumb");
}

bool ColourIsWanted() {
    const char* noColour = g_getenv("NO_COLOR");
    return IsScreen() && (noColour == nullptr || *noColour == '\0');
}

/** 80x24 without a terminal or an answer. */
winsize SizeOfTerminal() {
    winsize size = {};
    const bool isKnown = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0;
    return isKnown ? size : winsize{.ws_row = 24, .ws_col = 80, .ws_xpixel = 0, .ws_ypixel = 0};
}

}  // namespace

int ColumnsOfOutput() {
    return isatty(STDOUT_FILENO) == 1 ? SizeOfTerminal().ws_col : std::numeric_limits<int>::max();
}

std::string Clipped(std::string_view line, int columns) {
    const char* begin = line.data();
    const auto bytes = static_cast<gssize>(line.size());
    if (g_utf8_strlen(begin, bytes) <= columns) {
        return std::string(line);
    }
    const long kept = std::max(0L, columns - static_cast<long>(ELLIPSIS.size()));
    const char* end = g_utf8_offset_to_pointer(begin, kept);
    return std::string(begin, end).append(ELLIPSIS);
}

Style::Style() : m_coloured(ColourIsWanted()) {}

std::string Style::Wrapped(std::string_view code, std::string_view text) const {
    if (!m_coloured) {
        return std::string(text);
    }
    return "\033[" + std::string(code) + "m" + std::string(text) + "\033[0m";
}

FullScreen::FullScreen() : m_isScreen(IsScreen()) {
    Enter();
}

FullScreen::~FullScreen() {
    try {
        Leave();
    } catch (const std::exception&) {
        // The terminal has gone, so there is nothing to put back.
    }
}

void FullScreen::Enter() {
    if (!m_isScreen) {
        return;
    }
    tcgetattr(STDOUT_FILENO, &m_before);
    termios silent = m_before;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON);
    silent.c_cc[VQUIT] = _POSIX_VDISABLE;  // would end the process before it can put the terminal back
    tcsetattr(STDOUT_FILENO, TCSAFLUSH, &silent);
    Print(ENTER);
}

void FullScreen::Leave() const {
    if (m_isScreen) {
        tcsetattr(STDOUT_FILENO, TCSAFLUSH, &m_before);
        Print(LEAVE);
    }
}

void FullScreen::Suspend() {
    Leave();
    kill(getpid(), SIGSTOP);
    Enter();
}

void FullScreen::Show(std::string_view lines) const {
    if (!m_isScreen) {
        Print(lines);
        return;
    }
    std::string frame(TO_THE_TOP);
    for (int rows = SizeOfTerminal().ws_row; rows > 0 && !lines.empty(); --rows) {
        const size_t end = lines.find('\n');
        const bool isCut = rows == 1 && end != std::string_view::npos && end + 1 < lines.size();
        // Clears the row before it writes the line: after a line as wide as the screen the cursor is still on
        // the last column, which a later clearing would blank.
        frame.append(CLEAR_LINE).append(isCut ? ELLIPSIS : lines.substr(0, end));
        lines.remove_prefix(end == std::string_view::npos ? lines.size() : end + 1);
        if (rows > 1) {  // a newline in the last row would scroll the first one away
            frame += lines.empty() ? std::string("\r\n").append(CLEAR_REST_OF_SCREEN) : "\r\n";
        }
    }
    Print(frame);
}

}  // namespace tools
