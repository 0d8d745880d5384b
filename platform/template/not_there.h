// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The answer of every function that this platform does not have yet. */
#ifndef NOT_THERE_H
#define NOT_THERE_H

#include <errno.h>

/**
 * A failure code of the platform's own: -1000 minus the errno. kavreld passes it on to its clients, who tell it
 * from the daemon's own -1, -2 and -4.
 */
enum { NOT_THERE = -1000 - ENOSYS };

#endif
