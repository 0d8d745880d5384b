#include "Output.h"

#include <glib.h>
#include <json/writer.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "Errors.h"
#include "GLibPtr.h"

namespace tools {

namespace {

/** @return 0 or the errno */
int WriteAll(int file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(file, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return errno;
        }
        text.remove_prefix(written < 0 ? 0 : static_cast<size_t>(written));
    }
    return 0;
}

}  // namespace

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
    return Json::writeString(builder, value);
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

}  // namespace tools
