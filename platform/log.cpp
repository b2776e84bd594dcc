// The log library: one text file per log under log/, one record per line:
//
//   2024-05-01 12:00:00.123 0004 4711 lanhb/send.cpp:120 lanhb_hbsend: text
//
// (local time with milliseconds, level in hex, thread id, source file:line,
// function, then the record's text verbatim; a newline inside the text
// becomes a blank so that a record stays one line).
//
// Level rule: a configured level of 0 or below keeps nothing; otherwise a
// record is kept when its level is at most the configured level, and
// catalogued records (level 0x8000) are always kept. The default 4 thus
// keeps errors and state changes (1), survived failures (2), start and stop
// (4) and the delay warnings, and drops detail (8).
//
// Rotation: when a record would take the file past the configured size, the
// file becomes <name>.log.1 (older generations move up to .3, the oldest is
// dropped) and a new file is started. A size of 0 or below never rotates.
//
// Records go to the file with one write(2) each under the handle's lock, so
// lines never interleave and nothing is buffered in the process: a crash
// loses no record. log_term and exit additionally sync the file to disk.
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "plat.h"

struct log_hdl {
    std::mutex mx;
    std::string name;
    std::string path; // <root>/log/<name>.log
    int32_t level = 0;
    int64_t size = 0;
    int fd = -1;      // under mx; -1 once terminated
    int64_t cur = 0;  // bytes in the current file, under mx
    log_hdl *next = nullptr;
};

namespace {

constexpr int LOG_GENERATIONS = 3;
constexpr size_t LOG_LINEMAX = 4096;

// Handles are never freed: a thread that still holds one after log_term
// finds it closed instead of freed memory. The list also lets exit sync
// every open log.
std::mutex regmx;
log_hdl *reghead;

void sync_all()
{
    std::lock_guard lk(regmx);
    for (log_hdl *h = reghead; h != nullptr; h = h->next) {
        std::lock_guard hl(h->mx);
        if (h->fd >= 0)
            fdatasync(h->fd);
    }
}

bool name_ok(const char *name)
{
    if (name == nullptr || name[0] == '\0' || name[0] == '.')
        return false;
    size_t n = strnlen(name, LOG_NAME_SIZE);
    if (n >= static_cast<size_t>(LOG_NAME_SIZE))
        return false;
    for (size_t i = 0; i < n; i++) {
        char c = name[i];
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
              c == '.'))
            return false;
    }
    return true;
}

// O_NONBLOCK: a FIFO planted in place of the log fails at once instead of
// hanging the open until someone reads it; a symlink is not followed.
int open_log(const std::string &path, int64_t *cur, std::string *why = nullptr)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0640);
    struct stat st {};
    if (fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        *cur = st.st_size;
        return fd;
    }
    if (why != nullptr)
        *why = fd >= 0 || errno == ENXIO ? "not a regular file"
               : errno == ELOOP          ? "a symbolic link"
                                         : strerror(errno);
    if (fd >= 0)
        close(fd);
    return -1;
}

// Why logs of this process could not be opened: said on standard error and
// as a record in every log that is or gets open, so a lost log is never
// silent.
std::vector<std::string> lost; // under regmx

void record_lost(log_hdl *h, const std::string &text)
{
    log_write(h, 1, 0, __FILE__, __LINE__, "log_init", text.c_str());
}

// Under h->mx.
void rotate(log_hdl *h)
{
    for (int g = LOG_GENERATIONS - 1; g >= 1; g--)
        rename((h->path + "." + std::to_string(g)).c_str(), (h->path + "." + std::to_string(g + 1)).c_str());
    rename(h->path.c_str(), (h->path + ".1").c_str());
    int64_t cur = 0;
    int fd = open_log(h->path, &cur);
    if (fd < 0)
        return; // keep writing to the renamed file rather than lose records
    close(h->fd);
    h->fd = fd;
    h->cur = cur;
}

bool keep(int32_t configured, int32_t level)
{
    if (configured <= 0)
        return false;
    return level == LOG_LEVEL_CATALOG || level <= configured;
}

constexpr std::pair<int32_t, const char *> catalog_whats[] = {
    {LOG_MSG_HBGAP, "heartbeat gap"},       {LOG_MSG_LANSEND, "LAN send"},
    {LOG_MSG_LANRECV, "LAN receive"},       {LOG_MSG_CNTWRITE, "controller write"},
    {LOG_MSG_CNTREAD, "controller read"},
};

void catalog_text(char *buf, size_t size, int32_t msgno, va_list ap)
{
    const char *what = plat_name_of(catalog_whats, msgno);
    if (what == nullptr) {
        snprintf(buf, size, "catalogued record %d", msgno);
        return;
    }
    const char *rsc = va_arg(ap, const char *);
    const char *node = va_arg(ap, const char *);
    int32_t scaled = va_arg(ap, int32_t);
    int64_t tck = va_arg(ap, int64_t);
    uint64_t elapsed = va_arg(ap, uint64_t);
    int32_t rate = va_arg(ap, int32_t);
    // The same limit the daemon applies: seconds times ticks, saturated.
    uint64_t limit = INT32_MAX;
    if (scaled >= 0 && tck > 0 && scaled <= INT32_MAX / tck)
        limit = static_cast<uint64_t>(scaled) * static_cast<uint64_t>(tck);
    snprintf(buf, size,
             "%s(%d) %s: rsc(%s) node(%s) elapsed(%" PRIu64 " ticks) timeout(%d sec) clock(%" PRId64
             " per sec) rate(%d%%)",
             elapsed > limit ? "over timeout" : "delay warning", msgno, what, rsc != nullptr ? rsc : "(null)",
             node != nullptr ? node : "(null)", elapsed, scaled, tck, rate);
}

// Keeps a cancellation in a write from cutting a record in half.
struct nocancel {
    int old;
    nocancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old); }
    ~nocancel() { pthread_setcancelstate(old, nullptr); }
};

} // namespace

int32_t log_init(const char *name, log_hdl **handle, int32_t level, int32_t size, void *)
{
    if (handle == nullptr || !name_ok(name))
        return PLAT_EINVAL;
    std::string dir = plat_path("log");
    auto *h = new log_hdl;
    h->name = name;
    h->path = dir + "/" + name + ".log";
    h->level = level;
    h->size = size;
    std::string why;
    if (mkdir(dir.c_str(), 0750) != 0 && errno != EEXIST)
        why = dir + ": " + strerror(errno);
    else if (h->fd = open_log(h->path, &h->cur, &why); h->fd < 0)
        why = h->path + ": " + why;
    if (h->fd < 0) {
        delete h;
        why = "log " + std::string(name) + " cannot be opened as a regular file (" + why + "); its records are lost";
        fprintf(stderr, "%s: %s\n", program_invocation_short_name, why.c_str());
        std::lock_guard lk(regmx);
        lost.push_back(why);
        for (log_hdl *o = reghead; o != nullptr; o = o->next)
            record_lost(o, why);
        return PLAT_EIO;
    }
    static std::once_flag atexit_once;
    std::call_once(atexit_once, [] { atexit(sync_all); });
    {
        std::lock_guard lk(regmx);
        h->next = reghead;
        reghead = h;
        for (const std::string &w : lost)
            record_lost(h, w);
    }
    *handle = h;
    return 0;
}

int32_t log_write(log_hdl *h, int32_t level, int32_t msgno, const char *file, int32_t line, const char *func,
                  const char *format, ...)
{
    if (h == nullptr)
        return PLAT_EINVAL;
    if (!keep(h->level, level))
        return 0;
    char cat[512];
    const char *text = format != nullptr ? format : "";
    if (level == LOG_LEVEL_CATALOG && format == nullptr) {
        va_list ap;
        va_start(ap, format);
        catalog_text(cat, sizeof cat, msgno, ap);
        va_end(ap);
        text = cat;
    }

    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm {};
    localtime_r(&ts.tv_sec, &tm);
    char buf[LOG_LINEMAX];
    int n = snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%03ld %04x %d %s:%d %s: ", tm.tm_year + 1900,
                     tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ts.tv_nsec / 1000000,
                     static_cast<unsigned>(level), static_cast<int>(gettid()), file != nullptr ? file : "-", line,
                     func != nullptr ? func : "-");
    size_t len = n < 0 ? 0 : std::min(static_cast<size_t>(n), sizeof buf - 2);
    for (const char *p = text; *p != '\0' && len < sizeof buf - 1; p++)
        buf[len++] = (*p == '\n' || *p == '\r') ? ' ' : *p;
    buf[len++] = '\n';

    nocancel nc;
    std::lock_guard lk(h->mx);
    if (h->fd < 0)
        return PLAT_ENOTREADY;
    if (h->size > 0 && h->cur > 0 && h->cur + static_cast<int64_t>(len) > h->size)
        rotate(h);
    const char *p = buf;
    size_t left = len;
    while (left > 0) {
        ssize_t w = write(h->fd, p, left);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return PLAT_EIO;
        p += w;
        left -= static_cast<size_t>(w);
        h->cur += w;
    }
    return 0;
}

void plat_notice(const char *log, int32_t level, const char *func, const std::string &text, std::source_location at)
{
    fprintf(stderr, "%s: %s\n", program_invocation_short_name, text.c_str());
    std::lock_guard lk(regmx);
    for (log_hdl *h = reghead; h != nullptr; h = h->next)
        if (h->name == log)
            log_write(h, level, 0, at.file_name(), static_cast<int32_t>(at.line()), func, text.c_str());
}

int32_t log_term(log_hdl *h)
{
    if (h == nullptr)
        return PLAT_EINVAL;
    std::lock_guard lk(h->mx);
    if (h->fd < 0)
        return 0;
    fdatasync(h->fd);
    close(h->fd);
    h->fd = -1;
    return 0;
}
