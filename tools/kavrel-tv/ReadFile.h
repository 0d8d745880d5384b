// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TV_READFILE_H
#define KAVREL_TV_READFILE_H

#include <string>

#include "Errors.h"
#include "GLibPtr.h"
#include "Print.h"

namespace tv {

/** @throws tools::ToolError if the file cannot be read to its end */
inline std::string ReadFile(const std::string& name) {
    char* contents = nullptr;
    gsize length = 0;
    tools::GLibError error;
    if (!g_file_get_contents(name.c_str(), &contents, &length, error)) {
        throw tools::ToolError(tools::EXIT_REFUSED, tools::Printable(error->message));
    }
    const tools::GLibPtr<char> owner(contents);
    return {contents, length};
}

}  // namespace tv

#endif
