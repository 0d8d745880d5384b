// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TV_READFILE_H
#define KAVREL_TV_READFILE_H

#include <string>

namespace tv {

/** @throws ToolError if the file cannot be read to its end */
std::string ReadFile(const std::string& name);

}  // namespace tv

#endif
