// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The TV directory as the tool uses it: through the platform's own functions, with its failures as the
 * tool's. */
#ifndef KAVREL_TV_PLATFORM_H
#define KAVREL_TV_PLATFORM_H

#include <directory.h>

#include <string>

namespace tv {

/** Makes the directory the TV of this process; to be called before anything else of the platform.
 *  @throws ToolError if it is none: this tool makes no TV by accident */
void OpenTv(const std::string& directory);

/** Passes 0 on in silence.
 *  @throws ToolError with what the platform has said about a failure */
void Require(int result, const std::string& what);
void Require(const host::Error& error, const std::string& what);

/** What the platform has said last, since the last time it was asked; mostly nothing. */
std::string TakePlatformError();

}  // namespace tv

#endif
