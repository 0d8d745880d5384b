// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** A helper for adapters: the log of a platform that writes it to standard error. */
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "adapter.h"

namespace {

struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

int kit_log_of_stderr(void (*write)(), char* text, size_t size) {
    const std::unique_ptr<std::FILE, Close> file(std::tmpfile());
    const int kept = file ? dup(STDERR_FILENO) : -1;
    if (kept < 0) {
        return KIT_CANNOT;
    }
    dup2(fileno(file.get()), STDERR_FILENO);
    write();
    dup2(kept, STDERR_FILENO);
    close(kept);
    std::rewind(file.get());
    text[std::fread(text, 1, size - 1, file.get())] = '\0';
    return KIT_DONE;
}
