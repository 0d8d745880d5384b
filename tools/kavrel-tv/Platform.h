// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The TV directory, through the core of the host platform, whose errors become the tool's. */
#ifndef KAVREL_TV_PLATFORM_H
#define KAVREL_TV_PLATFORM_H

#include <directory.h>

#include <string>

namespace tv {

/** Makes the directory the TV of this process; everything else here and in the host core needs that.
 *  @throws tools::ToolError if it is not a TV directory, so that this tool never makes one by mistake */
void OpenTv(const std::string& directory);

/** @throws tools::ToolError if there is an error */
void ThrowIfFailed(const host::Error& error);

}  // namespace tv

#endif
