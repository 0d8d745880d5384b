#include <dlog.h>

#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

namespace {

enum class Style { plain, terminal, journal };

struct Marks {
    const char* plain;
    const char* journal;
    const char* colour;
};

constexpr std::array<Marks, 4> MARKS = {{
    {"D ", "<7>", "\033[2m"},
    {"I ", "<6>", ""},
    {"W ", "<4>", "\033[33m"},
    {"E ", "<3>", "\033[31m"},
}};

const Marks& MarksOf(int priority) {
    if (priority <= DLOG_DEBUG)
        return MARKS.front();
    return priority >= DLOG_ERROR ? MARKS.back() : MARKS.at(static_cast<std::size_t>(priority - DLOG_DEBUG));
}

int LowestPriority() {
    const char* const name = std::getenv("KAVREL_LOG");
    const std::string_view lowest = name != nullptr ? name : "";
    if (lowest == "debug")
        return DLOG_DEBUG;
    if (lowest == "warn")
        return DLOG_WARN;
    return lowest == "error" ? DLOG_ERROR : DLOG_INFO;
}

/**
 * JOURNAL_STREAM is inherited by every descendant of a service: it counts only where it names this very
 * stream.
 */
bool IsJournal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) == stream;
}

Style FindStyle() {
    if (IsJournal())
        return Style::journal;
    return isatty(STDERR_FILENO) == 1 ? Style::terminal : Style::plain;
}

void AppendLine(std::string& out, Style style, const Marks& marks, std::string_view line) {
    if (style == Style::journal)
        out.append(marks.journal).append(line);
    else if (style == Style::plain || *marks.colour == '\0')
        out.append(marks.plain).append(line);
    else
        out.append(marks.colour).append(marks.plain).append(line).append("\033[0m");
}

/** Marks each line of the text, so that none can pass for one of another priority. */
std::string Mark(std::string_view text, Style style, const Marks& marks) {
    std::string out;
    out.reserve(text.size() + 16);
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        AppendLine(out, style, marks, text.substr(0, end));
        if (end == std::string_view::npos)
            break;
        out += '\n';
        text.remove_prefix(end + 1);
    }
    return out;
}

std::string Format(const char* fmt, va_list arguments) {
    std::array<char, 1024> shortText;
    va_list again;
    va_copy(again, arguments);
    const int size = std::vsnprintf(shortText.data(), shortText.size(), fmt, arguments);
    std::string text;
    if (size >= 0 && static_cast<std::size_t>(size) < shortText.size()) {
        text.assign(shortText.data(), static_cast<std::size_t>(size));
    } else if (size >= 0) {
        text.resize(static_cast<std::size_t>(size));
        std::vsnprintf(text.data(), text.size() + 1, fmt, again);
    }
    va_end(again);
    return text;
}

/**
 * Keeps a reader that has gone from ending the process, without a word to the rest of it: SIGPIPE goes to
 * the writing thread, so it is enough to block it here and to take away the one that came.
 */
class NoBrokenPipe {
public:
    NoBrokenPipe() {
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        m_wasPending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before);
    }
    ~NoBrokenPipe() {
        const timespec now{};
        if (m_broken && !m_wasPending)
            sigtimedwait(&m_pipe, nullptr, &now);
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
    NoBrokenPipe(const NoBrokenPipe&) = delete;
    NoBrokenPipe& operator=(const NoBrokenPipe&) = delete;

    void Broken() { m_broken = true; }

private:
    sigset_t m_pipe{};
    sigset_t m_before{};
    bool m_wasPending = false;
    bool m_broken = false;
};

/** @return 0 or an errno */
int Write(std::string_view text) {
    NoBrokenPipe guard;
    while (!text.empty()) {
        const ssize_t count = write(STDERR_FILENO, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {  // a terminal that another program has made non-blocking
            pollfd stream{STDERR_FILENO, POLLOUT, 0};
            poll(&stream, 1, -1);
        } else if (errno != EINTR) {
            if (errno == EPIPE)
                guard.Broken();
            return errno;
        }
    }
    return 0;
}

}  // namespace

int __dlog_print(int priority, const char* /*tag*/, const char* fmt, ...) {
    static const int lowest = LowestPriority();
    if (priority < lowest)
        return 0;
    const int savedErrno = errno;
    static const Style style = FindStyle();
    va_list arguments;
    va_start(arguments, fmt);
    const int error = Write(Mark(Format(fmt, arguments), style, MarksOf(priority)));
    va_end(arguments);
    errno = savedErrno;
    return error == 0 ? 0 : -1000 - error;
}
