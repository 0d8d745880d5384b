// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The system log. */
#ifndef DLOG_H
#define DLOG_H

#ifdef __cplusplus
extern "C" {
#endif

enum {
    DLOG_DEBUG = 3,
    DLOG_INFO = 4,
    DLOG_WARN = 5,
    DLOG_ERROR = 6,
};

/**
 * Writes one message. The text ends in a newline of its own: the log adds none.
 *
 * Any thread may call this, also from within a callback, and callers may hold locks of their own: it waits
 * for nothing but the reader of the log. The log filters by priority before it formats. `errno` is left as it
 * was, and a reader that has gone never ends the process.
 *
 * @param priority one of the four above
 * @param tag      the component that speaks, for logs that keep it; may be null
 * @return 0, also for a message that the log filters out; non-zero if it could not be written
 */
#ifdef __GNUC__
__attribute__((format(printf, 3, 4)))
#endif
int __dlog_print(int priority, const char* tag, const char* fmt, ...);

#ifdef __cplusplus
}
#endif

#endif
