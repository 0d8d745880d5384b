// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Helpers of the seam's functions, which log an error once and return its code. */
#ifndef KAVREL_HOST_SEAM_H
#define KAVREL_HOST_SEAM_H

#include <optional>

#include "directory.h"

namespace host {

/** Logs the error's line, if it has one. The first call also logs the error of the opening of the TV. */
void Log(const Error& error);

/** Logs the error and returns its code. */
int Result(const Error& error);

/** The value of `key` below `folder`; none, after an error line, for a key that could lead out of the folder. */
std::optional<Value> FindKey(const char* folder, const char* key);

}  // namespace host

#endif
