// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * A bare C++20 program with the daemon's libraries, a connection to its bus and its number of threads, all
 * idle: the memory that none of its kind can do without. Usage: bare THREADS
 */
#include <gio/gio.h>
#include <json/json.h>

#include <cstdlib>
#include <semaphore>
#include <sstream>
#include <thread>
#include <vector>

namespace {

constexpr int GLIB_THREADS = 2;  // the main one and GDBus's

std::binary_semaphore never(0);

}  // namespace

int main(int argc, char** argv) {
    Json::Value root;
    std::istringstream("{}") >> root;
    g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
    g_bus_own_name(G_BUS_TYPE_SYSTEM, "org.olvane.kavrel", G_BUS_NAME_OWNER_FLAGS_NONE, nullptr, nullptr,
                   nullptr, nullptr, nullptr);
    std::vector<std::thread> threads;
    for (int i = GLIB_THREADS; i < (argc > 1 ? std::atoi(argv[1]) : 0); ++i) {
        threads.emplace_back([] { never.acquire(); });
    }
    g_main_loop_run(loop);
}
