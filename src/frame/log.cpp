// The one log call of the daemon and the opening and closing of its two logs.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "frame/frame.h"
#include "services/services.h"

// The walk in hblog takes every value that is not a floating-point one as a
// 64-bit integer. That relies on the calling convention of the 64-bit targets
// below: each integer or pointer argument of a variadic call occupies one
// 8-byte slot (register save area or stack), whatever its declared width,
// while doubles travel in a separate area. Review the walk on any other ABI.
#if !(defined(__x86_64__) || defined(__aarch64__))
#error "hblog's walk of the values assumes 8-byte integer slots (x86-64 or aarch64)"
#endif

std::atomic<log_hdl *> phlanhblog{nullptr};
std::atomic<log_hdl *> phcnthblog{nullptr};

namespace {

constexpr size_t HBLOG_FORMAT_SIZE = 96;  // a longer format is cut to 95 characters
constexpr size_t HBLOG_MESSAGE_SIZE = 392; // a longer message is cut to 391 characters

constexpr int32_t LOG_DEFAULT_LEVEL = 4;
constexpr int32_t LOG_DEFAULT_SIZE = 1000000;

// Rewrites "%s" and "%c" whose value is zero into "%d", so that a null text
// or a zero character prints as 0 instead of being dereferenced or written
// as a NUL. Only the character right after '%' is looked at.
void hblog_rewrite(char *fmt, va_list ap)
{
    for (char *p = fmt; *p != '\0'; ++p) {
        if (*p != '%')
            continue;
        const char c = p[1];
        if (c == '\0')
            break;
        if (c == '\n')
            continue; // takes no value
        ++p;          // the walk goes on after the examined character
        if (c == '%')
            continue;
        if (c == 'e' || c == 'f') {
            (void)va_arg(ap, double);
        } else if (c == 's') {
            if (va_arg(ap, uint64_t) == 0)
                *p = 'd';
        } else if (c == 'c') {
            // A character is promoted to int: only the low 32 bits are defined.
            if (static_cast<uint32_t>(va_arg(ap, uint64_t)) == 0)
                *p = 'd';
        } else {
            (void)va_arg(ap, uint64_t);
        }
    }
}

void loginit_one(std::atomic<log_hdl *> &handle, const char *name, const char *levelkey, const char *sizekey)
{
    if (handle.load() != nullptr)
        return;
    int32_t level = LOG_DEFAULT_LEVEL;
    int32_t size = LOG_DEFAULT_SIZE;
    // No log is open yet, so failed reads can only fall back silently.
    if (xmllib_load_policy(name) == 0) {
        int32_t value = 0;
        int32_t len = sizeof value;
        if (xmllib_get_value(levelkey, XMLLIB_KIND_INT, &value, &len) == 0)
            level = value;
        len = sizeof value;
        if (xmllib_get_value(sizekey, XMLLIB_KIND_INT, &value, &len) == 0)
            size = value;
        (void)xmllib_unload_policy(name);
    }
    char logname[LOG_NAME_SIZE];
    std::snprintf(logname, sizeof logname, "%s", name);
    log_hdl *opened = nullptr;
    (void)log_init(logname, &opened, level, size, nullptr);
    handle.store(opened);
}

} // namespace

void hblog(int module, int level, const char *file, int line, const char *func, const char *format, ...)
{
    log_hdl *const lan = phlanhblog.load();
    log_hdl *const cnt = phcnthblog.load();
    log_hdl *targets[2] = {nullptr, nullptr};
    switch (module) {
    case HBLOG_LAN:
        targets[0] = lan;
        break;
    case HBLOG_CNT:
        targets[1] = cnt;
        break;
    case HBLOG_BOTH:
        targets[0] = lan;
        targets[1] = cnt;
        break;
    default:
        return;
    }
    if ((targets[0] == nullptr && targets[1] == nullptr) || format == nullptr)
        return;

    char fmt[HBLOG_FORMAT_SIZE];
    std::strncpy(fmt, format, sizeof fmt - 1);
    fmt[sizeof fmt - 1] = '\0';

    va_list ap;
    va_start(ap, format);
    va_list walk;
    va_copy(walk, ap);
    hblog_rewrite(fmt, walk);
    va_end(walk);

    char msg[HBLOG_MESSAGE_SIZE];
    std::vsnprintf(msg, sizeof msg, fmt, ap);
    va_end(ap);

    // The finished text goes in the format position with no values: the log
    // library writes it literally.
    for (log_hdl *h : targets)
        if (h != nullptr)
            (void)log_write(h, level, 0, file, line, func, msg);
}

log_hdl *hblog_handle(int module)
{
    if (module == HBLOG_LAN)
        return phlanhblog.load();
    if (module == HBLOG_CNT)
        return phcnthblog.load();
    return nullptr;
}

void loginit()
{
    loginit_one(phlanhblog, HB_KIND_LANHB, "/root/lanhb/log/level", "/root/lanhb/log/size");
    loginit_one(phcnthblog, HB_KIND_CNTHB, "/root/cnthb/log/level", "/root/cnthb/log/size");
}

void logterm()
{
    // Only the LAN log's handle is handed to log_term; what the log library
    // keeps per log beyond that is its own matter at process exit.
    log_hdl *const lan = phlanhblog.load();
    if (lan != nullptr)
        (void)log_term(lan);
    phcnthblog.store(nullptr);
    phlanhblog.store(nullptr);
}
