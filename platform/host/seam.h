// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Shared by the functions of the seam: they log an error once and answer with its code. */
#ifndef KAVREL_HOST_SEAM_H
#define KAVREL_HOST_SEAM_H

#include <optional>

#include "directory.h"

namespace host {

/** Logs the error's line, if it has one; before the first one, what went wrong when the TV was opened. */
void Log(const Error& error);

/** Logs the error and gives its code. */
int Result(const Error& error);

/** The value of `key` below `folder`; none, with an error line, for a key that could leave it. */
std::optional<Value> FindKey(const char* folder, const char* key);

}  // namespace host

#endif
