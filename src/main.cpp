// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <glib.h>
#include <malloc.h>

#include <cstdio>
#include <new>
#include <string_view>

#include "KVDebug.h"
#include "KVServer.h"

/** The version as text. The build makes it. */
extern "C" const char kavrel_version[];

namespace {

constexpr int EXIT_WRONG_USAGE = 64;

constexpr const char* HELP = R"(Usage: kavreld [--help | --version]

Serves org.olvane.kavrel on the D-Bus system bus: one place to read and change
the volume and mute of the TV's audio output. It runs until it is killed.

  --help      Show this text
  --version   Show the version

Environment of a TV in a directory:
  KAVREL_TV_DIR   The directory with the TV's state (default /run/kavrel)
  KAVREL_LOG      The lowest priority to log: debug, info (default), warn, error
)";

/** Bounds what the heaps of eleven threads keep, and gives the memory of a large message back at its end. */
void LimitHeaps() {
    constexpr int HEAPS_MAX = 2;
    constexpr int LARGE = 128 * 1024;  // in bytes; without a fixed bound each larger block raises it
    // NOLINTBEGIN(concurrency-mt-unsafe): there is one thread yet
    mallopt(M_ARENA_MAX, HEAPS_MAX);
    mallopt(M_MMAP_THRESHOLD, LARGE);
    // NOLINTEND(concurrency-mt-unsafe)
}

/** @return the exit status of an answer on standard output: 1 if it could not be written */
int Flush() {
    return std::fflush(stdout) == 0 ? 0 : 1;
}

/** Answers a start with arguments, without touching the bus or the TV. @return the exit status */
int AnswerArguments(int count, char** arguments) {
    const std::string_view first = arguments[1];
    if (count == 2 && first == "--help") {
        std::fputs(HELP, stdout);
        return Flush();
    }
    if (count == 2 && first == "--version") {
        std::printf("kavreld %s\n", kavrel_version);
        return Flush();
    }
    std::fputs("kavreld: it takes no argument except --help or --version\n", stderr);
    return EXIT_WRONG_USAGE;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        return AnswerArguments(argc, argv);
    }
    LimitHeaps();
    LOGI("Started");
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    if (loop == nullptr) {
        LOGE("Failed to create a main loop");
        return 0;
    }
    // Nothing deletes the server: it lives until the process ends.
    auto* server = new (std::nothrow) NKavrel::KVServer();
    if (server == nullptr) {
        LOGE("Failed to create KVServer");
        g_main_loop_unref(loop);
        return 0;
    }
    server->Init();  // if it fails, the process idles
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    LOGI("Stopped");
    return 0;
}
