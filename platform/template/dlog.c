// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/*
 * Writes to standard error, so that the daemon's error lines name what is missing from the first start on. Leaves
 * out priority debug, a trace of every call.
 */
#include <dlog.h>

#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>

enum { LINE_MAX_SIZE = 4096 };

static char letter_of(int priority) {
    return priority >= DLOG_ERROR ? 'E' : priority == DLOG_WARN ? 'W' : 'I';
}

/* One call of fputs() for each line, so that lines of different threads do not mix. */
static int print_line(int priority, const char* fmt, va_list arguments) {
    char line[LINE_MAX_SIZE] = {letter_of(priority), ' '};
    const int length = vsnprintf(line + 2, sizeof line - 2, fmt, arguments);
    signal(SIGPIPE, SIG_IGN); /* a reader that has gone must not end the process */
    return length >= 0 && fputs(line, stderr) >= 0 ? 0 : -1;
}

int __dlog_print(int priority, const char* tag, const char* fmt, ...) {
    const int saved_errno = errno;
    va_list arguments;
    int result = 0;
    (void)tag;
    if (priority >= DLOG_INFO) {
        va_start(arguments, fmt);
        result = print_line(priority, fmt, arguments);
        va_end(arguments);
    }
    errno = saved_errno;
    return result;
}
