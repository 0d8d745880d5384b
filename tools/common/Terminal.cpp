#include "Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <glib.h>

#include "Errors.h"
#include "Output.h"

namespace tools {

namespace {

constexpr std::string_view ENTER = "\033[?1049h\033[?25l";
constexpr std::string_view LEAVE = "\033[?25h\033[?1049l";
constexpr std::string_view TO_THE_TOP = "\033[H";
constexpr std::string_view CLEAR_REST_OF_LINE = "\033[K";
constexpr std::string_view CLEAR_REST_OF_SCREEN = "\033[J";

bool ColourIsWanted() {
    const char* noColour = g_getenv("NO_COLOR");
    const char* terminal = g_getenv("TERM");
    const bool isDumb = terminal != nullptr && std::string_view(terminal) == "dumb";
    return isatty(STDOUT_FILENO) == 1 && !isDumb && (noColour == nullptr || *noColour == '\0');
}

}  // namespace

TerminalSize SizeOfTerminal() {
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        return {};
    }
    return {size.ws_col, size.ws_row};
}

Style::Style() : m_coloured(ColourIsWanted()) {}

std::string Style::Wrapped(std::string_view code, std::string_view text) const {
    if (!m_coloured) {
        return std::string(text);
    }
    return "\033[" + std::string(code) + "m" + std::string(text) + "\033[0m";
}

FullScreen::FullScreen() : m_isTerminal(isatty(STDOUT_FILENO) == 1) {
    if (m_isTerminal) {
        Print(ENTER);
    }
}

FullScreen::~FullScreen() {
    if (!m_isTerminal) {
        return;
    }
    try {
        Print(LEAVE);
    } catch (const std::exception&) {
        // The terminal has gone, so there is nothing to put back.
    }
}

void FullScreen::Show(std::string_view lines) const {
    if (!m_isTerminal) {
        Print(lines);
        return;
    }
    std::string frame(TO_THE_TOP);
    for (int rows = SizeOfTerminal().rows; rows > 0 && !lines.empty(); --rows) {
        const size_t end = lines.find('\n');
        frame += lines.substr(0, end);
        frame += CLEAR_REST_OF_LINE;
        lines.remove_prefix(end == std::string_view::npos ? lines.size() : end + 1);
        // A newline in the last row would scroll the first one away.
        frame += rows > 1 && !lines.empty() ? "\r\n" : "";
    }
    Print(frame.append(CLEAR_REST_OF_SCREEN));
}

}  // namespace tools
