// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Logging and call tracing, for use on any thread. Every message goes to the platform's log as
 *
 *     FILE: FUNCTION(LINE) > [FUNCTION:LINE] text
 *
 * LOGD, LOGI, LOGW and LOGE take a printf format without the closing newline. Do not use them in a lambda:
 * its function name would be "operator()". A helper that logs in the name of its caller takes a CallSite
 * as its last, defaulted parameter and uses the _AT forms.
 */
#ifndef KVDEBUG_H
#define KVDEBUG_H

#include <dlog.h>

#include <string_view>

namespace NKavrel {

inline constexpr const char* LOG_TAG = "Kavrel";

/** The place that calls a function whose last parameter is `const CallSite& site = {}`. */
struct CallSite {
    const char* path = __builtin_FILE();
    const char* function = __builtin_FUNCTION();
    int line = __builtin_LINE();

    /** `path` without its folders. */
    const char* FileName() const { return path + (std::string_view(path).rfind('/') + 1); }
};

// Do not move: the line numbers below are fixed.
// clang-format off
#define KV_LOG(priority, file, function, line, format, ...)                                              \
    __dlog_print(priority, NKavrel::LOG_TAG, "%s: %s(%d) > [%s:%d] " format "\n", file, function, line,  \
                 function, line __VA_OPT__(,) __VA_ARGS__)
#define KV_LOG_AT(priority, site, ...)                                                                   \
    KV_LOG(priority, (site).FileName(), (site).function, (site).line, __VA_ARGS__)
#define KV_LOG_HERE(priority, ...) KV_LOG(priority, __FILE_NAME__, __FUNCTION__, __LINE__, __VA_ARGS__)
#define LOGI_AT(site, ...) KV_LOG_AT(DLOG_INFO, site, __VA_ARGS__)
#define LOGE_AT(site, ...) KV_LOG_AT(DLOG_ERROR, site, __VA_ARGS__)
#define LOGD(...) KV_LOG_HERE(DLOG_DEBUG, __VA_ARGS__)
#define LOGI(...) KV_LOG_HERE(DLOG_INFO, __VA_ARGS__)
#define LOGW(...) KV_LOG_HERE(DLOG_WARN, __VA_ARGS__)
#define LOGE(...) KV_LOG_HERE(DLOG_ERROR, __VA_ARGS__)

/** Traces one scope. `CALLTRACKER tracker(__PRETTY_FUNCTION__);` opens nearly every function. Log readers
 *  search for lines 53 and 58 of this file: keep the two log calls there. */
class CALLTRACKER {
public:
    [[gnu::noinline]] explicit CALLTRACKER(const char* function) : m_function(function) {
        LOGD("\t[IN]%s", m_function);
    }

    /** A failure to log ends the process, because no exception may leave a destructor. */
    [[gnu::noinline]] ~CALLTRACKER() {
        LOGD("\t[OUT]%s", m_function);
    }

    CALLTRACKER(const CALLTRACKER&) = delete;
    CALLTRACKER& operator=(const CALLTRACKER&) = delete;

private:
    const char* m_function;
};
// clang-format on

/** Whether `pointer` is null. Logs `text` as an error of the caller if it is. */
inline bool IsNull(const void* pointer, const char* text, const CallSite& site = {}) {
    if (pointer != nullptr) {
        return false;
    }
    LOGE_AT(site, "%s", text);
    return true;
}

}  // namespace NKavrel

using NKavrel::CALLTRACKER;

#endif
