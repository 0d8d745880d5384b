// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Print.h"

#include <glib.h>
#include <json/writer.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <ctime>
#include <system_error>

#include "Errors.h"

namespace tools {

namespace {

constexpr int BETWEEN_LOOKS = 100;  // milliseconds

std::function<void()> whileStalled;

/** Returns when a little can be written without waiting, or the write will tell why not. */
void AwaitReader(int file) {
    pollfd writable = {file, POLLOUT, 0};
    while (poll(&writable, 1, BETWEEN_LOOKS) <= 0) {
        if (whileStalled) {
            whileStalled();
        }
    }
}

/** @return 0 or the errno */
int WriteAll(int file, std::string_view text) {
    while (!text.empty()) {
        AwaitReader(file);
        const ssize_t written = write(file, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
        if (written < 0 && errno != EINTR && errno != EAGAIN) {
            return errno;
        }
        text.remove_prefix(written < 0 ? 0 : static_cast<size_t>(written));
    }
    return 0;
}

/** @param zone what follows the milliseconds, as a format of strftime() */
std::string LocalTime(WallTime time, const std::string& format, const std::string& zone) {
    const std::time_t seconds = time / 1'000'000;
    const std::string milliseconds = Formatted(".%03d", static_cast<int>(time / 1'000 % 1'000));
    std::tm local = {};
    localtime_r(&seconds, &local);
    std::array<char, 64> text = {};
    std::strftime(text.data(), text.size(), (format + milliseconds + zone).c_str(), &local);
    return text.data();
}

}  // namespace

void WhileStalled(std::function<void()> look) {
    whileStalled = std::move(look);
}

void Print(std::string_view text) {
    const int error = WriteAll(STDOUT_FILENO, text);
    if (error == EPIPE) {
        throw ReaderGone();
    }
    if (error != 0) {
        throw ToolError(EXIT_REFUSED,
                        "cannot write to standard output: " + std::generic_category().message(error));
    }
}

void PrintLine(std::string_view line) {
    Print(std::string(line) + "\n");
}

void PrintJson(const Json::Value& value) {
    PrintLine(JsonLine(value));
}

void Complain(std::string_view line) {
    WriteAll(STDERR_FILENO, std::string(g_get_prgname()) + ": " + std::string(line) + "\n");
}

std::string JsonLine(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["precision"] = 15;
    return Json::writeString(builder, value);
}

std::string TimeOfDay(WallTime time) {
    return LocalTime(time, "%H:%M:%S", "");
}

std::string Timestamp(WallTime time) {
    return LocalTime(time, "%Y-%m-%dT%H:%M:%S", "%z");
}

void PrintWithTime(std::string_view line) {
    PrintLine(TimeOfDay(g_get_real_time()).append(" ").append(line));
}

std::string Joined(const std::vector<std::string>& parts, std::string_view between) {
    std::string text;
    for (const std::string& part : parts) {
        text.append(text.empty() ? "" : between).append(part);
    }
    return text;
}

std::string Printable(std::string_view text) {
    const GLibPtr<char> valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
    std::string printable;
    for (const char* at = valid.get(); *at != '\0';) {
        const char* next = g_utf8_next_char(at);
        const gunichar character = g_utf8_get_char(at);
        const bool isShown = character != 0xFFFD && !g_unichar_iscntrl(character);
        printable += isShown ? std::string(at, next) : "?";
        at = next;
    }
    return printable;
}

std::string Quoted(std::string_view text) {
    return "\"" + Printable(text) + "\"";
}

}  // namespace tools
