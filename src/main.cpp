// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <glib.h>

#include <new>

#include "KVDebug.h"
#include "KVServer.h"

int main() {
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
