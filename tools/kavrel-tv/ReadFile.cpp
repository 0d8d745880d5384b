// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "ReadFile.h"

#include <gio/gio.h>

#include "Errors.h"
#include "GLibPtr.h"
#include "Print.h"

namespace tv {

std::string ReadFile(const std::string& name) {
    char* contents = nullptr;
    gsize length = 0;
    tools::GLibError error;
    if (!g_file_get_contents(name.c_str(), &contents, &length, error)) {
        throw tools::ToolError(tools::EXIT_REFUSED, tools::Printable(error.Get()->message));
    }
    const tools::GLibPtr<char> owner(contents);
    return {contents, length};
}

}  // namespace tv
