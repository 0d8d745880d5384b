/**
 * Logging and call tracing.
 *
 * Every message of the daemon goes to the TV platform's system log under one tag and in one form:
 *
 *     FILE: FUNCTION(LINE) > [FUNCTION:LINE] text
 *
 * LOGD, LOGI, LOGW and LOGE take a printf format without the closing newline. They log as the function
 * they stand in, so they are never used inside a lambda, whose function name would be "operator()".
 * Code that several functions share logs as its caller: the caller passes KV_HERE, and the helper uses
 * the _AT forms.
 *
 * All of this may be used from any thread.
 */
#ifndef KVDEBUG_H
#define KVDEBUG_H

#include <dlog.h>

namespace NKavrel {

inline constexpr const char* LOG_TAG = "Kavrel";

/** Where a message counts as issued: base name of the file, bare function name, line. */
struct CallSite {
    const char* file;
    const char* function;
    int line;
};

}  // namespace NKavrel

// clang-format off
#define KV_HERE (NKavrel::CallSite{__FILE_NAME__, __FUNCTION__, __LINE__})
#define KV_LOG_AT(priority, site, format, ...)                                                           \
    __dlog_print(priority, NKavrel::LOG_TAG, "%s: %s(%d) > [%s:%d] " format "\n", (site).file,           \
                 (site).function, (site).line, (site).function, (site).line __VA_OPT__(,) __VA_ARGS__)
#define LOGI_AT(site, ...) KV_LOG_AT(DLOG_INFO, site, __VA_ARGS__)
#define LOGE_AT(site, ...) KV_LOG_AT(DLOG_ERROR, site, __VA_ARGS__)
#define LOGD(...) KV_LOG_AT(DLOG_DEBUG, KV_HERE, __VA_ARGS__)
#define LOGI(...) KV_LOG_AT(DLOG_INFO, KV_HERE, __VA_ARGS__)
#define LOGW(...) KV_LOG_AT(DLOG_WARN, KV_HERE, __VA_ARGS__)
#define LOGE(...) KV_LOG_AT(DLOG_ERROR, KV_HERE, __VA_ARGS__)

namespace NKavrel {

/** Traces one scope: the first statement of nearly every function is
 *  `CALLTRACKER tracker(__PRETTY_FUNCTION__);`. Log readers match the two lines below by number: keep them
 *  on lines 53 and 58. */
class CALLTRACKER {
public:
    explicit CALLTRACKER(const char* function) : m_function(function) {
        LOGD("\t[IN]%s", m_function);
    }

    /** A failure to log ends the process: nothing may escape here. */
    ~CALLTRACKER() {
        LOGD("\t[OUT]%s", m_function);
    }

    CALLTRACKER(const CALLTRACKER&) = delete;
    CALLTRACKER& operator=(const CALLTRACKER&) = delete;

private:
    const char* m_function;
};
// clang-format on

/** Whether the pointer is null; if so, logs `text` as an error of the call site. */
inline bool IsNull(const void* pointer, const char* text, const CallSite& site) {
    if (pointer != nullptr) {
        return false;
    }
    LOGE_AT(site, "%s", text);
    return true;
}

}  // namespace NKavrel

using NKavrel::CALLTRACKER;

#endif
