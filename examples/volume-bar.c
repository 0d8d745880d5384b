/* SPDX-FileCopyrightText: The kavrel developers */
/* SPDX-License-Identifier: MIT */
/* Prints a volume bar at the start and on each change. README.md says how each example works. */
#include <kavrel/kavrel.h>
#include <stdio.h>

#include "kavrel-proxy.h" /* made by gdbus-codegen, see Makefile */

enum {
    SWITCH_MS = 500,   /* the time in which another program switches the output that the daemon requests */
    TIMEOUT_MS = 5000, /* of each question */
    FIRST_PAUSE_MS = 50,
    QUESTIONS = 6, /* to a busy daemon; the pause doubles after each */
    SUPPORT_UNKNOWN = -1,
    BAR_LENGTH = 20
};

typedef struct {
    Kavrel* daemon; /* the proxy of the methods and change signals */
    int support;    /* the support word of the output in use */
    int volume;
    int status; /* of the volume */
    gboolean is_muted;
    char* shown;
} Bar;

static const char* in_words(int status) {
    switch (status) {
        case KAVREL_FAILED:
            return "it failed, or the daemon was busy";
        case KAVREL_INVALID_ARGUMENT:
            return "an argument was invalid";
        case KAVREL_NOT_SUPPORTED:
            return "the output does not support it";
        default:
            return "the TV refuses it";
    }
}

/* Prints a line unless it repeats the last one. Takes the line over. */
static void show(Bar* bar, char* line) {
    if (g_strcmp0(line, bar->shown) != 0) {
        puts(line);
        fflush(stdout);
    }
    g_free(bar->shown);
    bar->shown = line;
}

static char* volume_line(const Bar* bar) {
    char blocks[] = "....................";
    for (int i = 0; i < MIN(bar->volume * BAR_LENGTH / KAVREL_VOLUME_MAX, BAR_LENGTH); ++i) {
        blocks[i] = '#';
    }
    return g_strdup_printf("[%s] %3d%%%s", blocks, bar->volume, bar->is_muted ? " muted" : "");
}

static void show_state(Bar* bar) {
    if (bar->status != KAVREL_DONE) {
        show(bar, g_strdup_printf("volume unknown: %s (%d)", in_words(bar->status), bar->status));
    } else if (bar->support != SUPPORT_UNKNOWN && (bar->support & KAVREL_SUPPORT_GET_VOLUME) == 0) {
        show(bar, g_strdup("this output has no volume"));
    } else if (bar->volume < KAVREL_VOLUME_MIN) {
        show(bar, g_strdup("volume unknown: the output has published none"));
    } else {
        show(bar, volume_line(bar));
    }
}

typedef gboolean Getter(Kavrel* proxy, gint* value, gint* status, GCancellable* cancellable, GError** error);

/* Returns the status, and the value with the status 0. Asks a busy daemon again, a few times. */
static int ask(Bar* bar, Getter* getter, int* value) {
    int status = KAVREL_FAILED;
    int pause_ms = FIRST_PAUSE_MS;
    for (int question = 1; question <= QUESTIONS; ++question, pause_ms *= 2) {
        if (!getter(bar->daemon, value, &status, NULL, NULL)) {
            status = KAVREL_FAILED; /* LimitsExceeded, or the daemon has gone */
        }
        if (status != KAVREL_FAILED || question == QUESTIONS) {
            break;
        }
        g_usleep(pause_ms * 1000);
    }
    return status;
}

/* Asks the daemon for everything, and shows it. */
static void refresh(Bar* bar) {
    int mute = 0;
    bar->support = SUPPORT_UNKNOWN;
    bar->status = ask(bar, kavrel_call_get_speaker_volume_sync, &bar->volume);
    if (bar->status == KAVREL_DONE) {
        ask(bar, kavrel_call_get_speaker_mute_sync, &mute);
        bar->is_muted = mute == 1;
        if (ask(bar, kavrel_call_get_speaker_support_type_sync, &bar->support) != KAVREL_DONE) {
            bar->support = SUPPORT_UNKNOWN;
        }
    }
    show_state(bar);
}

static void on_change(Bar* bar, int support) {
    if (support == bar->support) {
        show_state(bar);
    } else { /* another output may be in use: ask for its mute, too */
        refresh(bar);
    }
}

static void on_volume_changed(Kavrel* proxy, int support, int volume, Bar* bar) {
    (void)proxy;
    bar->volume = volume;
    on_change(bar, support);
}

static void on_mute_changed(Kavrel* proxy, int support, gboolean is_muted, Bar* bar) {
    (void)proxy;
    bar->is_muted = is_muted;
    on_change(bar, support);
}

static void on_owner_changed(Bar* bar) {
    char* owner = g_dbus_proxy_get_name_owner(G_DBUS_PROXY(bar->daemon));
    if (owner != NULL) {
        refresh(bar);
    } else {
        show(bar, g_strdup("kavreld is not on the bus"));
    }
    g_free(owner);
}

static gboolean on_switched(gpointer bar) {
    on_owner_changed(bar);
    return G_SOURCE_REMOVE;
}

static void on_change_request(Kavrel* proxy, int route, int reserved, Bar* bar) {
    (void)proxy, (void)route, (void)reserved;
    g_timeout_add(SWITCH_MS, on_switched, bar);
}

static Kavrel* new_proxy(const char* path) {
    const GDBusProxyFlags flags =
        G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES | G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START;
    GError* error = NULL;
    Kavrel* proxy =
        kavrel_proxy_new_for_bus_sync(G_BUS_TYPE_SYSTEM, flags, KAVREL_BUS_NAME, path, NULL, &error);
    if (proxy == NULL) {
        g_error("no bus: %s", error->message);
    }
    return proxy;
}

int main(void) {
    Bar bar = {.daemon = new_proxy(KAVREL_OBJECT_PATH), .support = SUPPORT_UNKNOWN, .status = KAVREL_FAILED};
    Kavrel* requests = new_proxy(KAVREL_PUBLIC_PATH);
    g_dbus_proxy_set_default_timeout(G_DBUS_PROXY(bar.daemon), TIMEOUT_MS);
    g_signal_connect(bar.daemon, "speaker-volume-changed", G_CALLBACK(on_volume_changed), &bar);
    g_signal_connect(bar.daemon, "speaker-mute-changed", G_CALLBACK(on_mute_changed), &bar);
    g_signal_connect(requests, "speaker-change-request", G_CALLBACK(on_change_request), &bar);
    g_signal_connect_swapped(bar.daemon, "notify::g-name-owner", G_CALLBACK(on_owner_changed), &bar);
    on_owner_changed(&bar);
    g_main_loop_run(g_main_loop_new(NULL, FALSE)); /* until a signal ends the program */
}
