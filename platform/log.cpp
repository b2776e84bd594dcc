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
//
// The system log: errors, survived failures, state changes and the start
// and stop records also go, whatever the level setting, to the journal's
// native socket, or to /dev/log where no journal runs, unless the log's key
// "/root/<name>/log/syslog" is 0. A copy is one datagram sent without
// waiting: a journal that is gone, slow or full costs that copy, never the
// record in the file nor the caller's time. (libsystemd's own sender waits
// on a full journal socket, which a heartbeat thread must not.)
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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
#include <string_view>
#include <vector>

#include "plat.h"

struct log_hdl {
    std::mutex mx;
    std::string path; // <root>/log/<name>.log
    int32_t level = 0;
    int64_t size = 0;
    int fd = -1;      // under mx; -1 once terminated
    int64_t cur = 0;  // bytes in the current file, under mx
    std::string name;  // as given to log_init
    // Whether records are copied to the system log: set before the handle is
    // handed out, cleared by log_term; a lone flag, so relaxed.
    std::atomic<bool> syscopy{false};
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

// The record's line, written with one write(2) under the handle's lock.
// Not inlined, like sys_copy: their buffers are never on the stack at once.
[[gnu::noinline]] int32_t write_line(log_hdl *h, int32_t level, const char *file, int32_t line, const char *func,
                                     const char *text)
{
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

// ---- the copy to the system log ------------------------------------------------

// What a record tells the system log; prio 0: no copy.
struct sysrec {
    int prio = 0;
    std::string_view path, node, nodeid, state;
};

constexpr std::string_view startstop[] = {"lanhb/cnthb starting", "lanhb/cnthb shutting down",
                                          "lanhb shutting down"};
constexpr std::string_view nodestates[] = {"ONLINE", "OFFLINE"};
constexpr std::string_view pathstates[] = {"NORMAL", "CAUTION", "ERROR", "UNUSED", "UNKNOWN"};
// A level-1 record that says it went on with a substitute, or one that names
// a failure; every other level-1 record is an event of operation (a state
// change, a time-out, a down notice, the start of sending).
constexpr std::string_view survived[] = {"IGNORE:", "-> use ", ". set to "};
constexpr std::string_view failures[] = {"failed", "invalid", "refused", "must be", "too long"};

template <size_t N> bool any_in(std::string_view t, const std::string_view (&words)[N])
{
    return std::ranges::any_of(words, [t](std::string_view w) { return t.find(w) != std::string_view::npos; });
}

template <size_t N> bool one_of(std::string_view t, const std::string_view (&words)[N])
{
    return std::ranges::find(words, t) != std::end(words);
}

// The path and node a record names: "<path>/node(<name>(<id>))" anywhere,
// or a down notice's "recv(<path>,<name>(<id>))" and "read(...)".
void sys_where(std::string_view t, sysrec &r)
{
    size_t node;
    if (size_t at = t.find("/node("); at != std::string_view::npos) {
        size_t b = t.find_last_of(" (", at);
        b = b == std::string_view::npos ? 0 : b + 1;
        r.path = t.substr(b, at - b);
        node = at + 6;
    } else if (t.starts_with("DOWNPACKET ")) {
        size_t open = t.find('('), comma = t.find(',');
        if (open == std::string_view::npos || comma == std::string_view::npos || comma < open)
            return;
        r.path = t.substr(open + 1, comma - open - 1);
        node = comma + 1;
    } else {
        return;
    }
    size_t close = t.find("))", node);
    size_t open = close == std::string_view::npos ? close : t.rfind('(', close);
    if (open == std::string_view::npos || open < node)
        return;
    std::string_view id = t.substr(open + 1, close - open - 1);
    if (id.empty() || id.find_first_not_of("0123456789") != std::string_view::npos)
        return;
    r.node = t.substr(node, open - node);
    r.nodeid = id;
}

sysrec sys_classify(int32_t level, std::string_view t)
{
    sysrec r;
    if (one_of(t, startstop))
        r.prio = LOG_INFO;
    else if (level == 2)
        r.prio = LOG_WARNING;
    else if (level != 1)
        return r;
    else if (any_in(t, survived))
        r.prio = LOG_WARNING;
    else if (any_in(t, failures) || t.starts_with("TIMEOUT("))
        r.prio = LOG_ERR;
    else
        r.prio = LOG_NOTICE;
    sys_where(t, r);
    // " *** <path>/node(<name>(<id>)) : ONLINE ***", " *** <path> : NORMAL ***"
    if (level == 1 && t.starts_with(" *** ") && t.ends_with(" ***") && t.size() > 8) {
        size_t c = t.rfind(" : ");
        std::string_view word = c == std::string_view::npos || c < 5 ? "" : t.substr(c + 3, t.size() - 4 - (c + 3));
        if (!r.node.empty() && one_of(word, nodestates)) {
            r.path = t.substr(5, t.find("/node(") - 5); // a path name may hold blanks
            r.state = word;
        } else if (r.path.empty() && one_of(word, pathstates)) {
            r.path = t.substr(5, c - 5);
            r.state = word;
        }
    }
    return r;
}

// One socket for every copy of the process, never waiting.
int sys_socket()
{
    static const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    return fd;
}

bool sys_sendto(const char *path, iovec *iov, size_t n)
{
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path);
    msghdr mh{};
    mh.msg_name = &sa;
    mh.msg_namelen = sizeof sa;
    mh.msg_iov = iov;
    mh.msg_iovlen = n;
    return sendmsg(sys_socket(), &mh, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

// Fields "NAME=value\n" in a fixed buffer, each value cut at 128 bytes and
// any newline in it made a blank, so that they all have the plain form; a
// field that no longer fits is left out.
struct sys_fields {
    char buf[768];
    size_t len = 0;

    void add(const char *name, std::string_view value)
    {
        value = value.substr(0, 128);
        size_t n = strlen(name);
        if (len + n + value.size() + 2 > sizeof buf)
            return;
        memcpy(buf + len, name, n);
        buf[len + n] = '=';
        len += n + 1;
        for (char c : value)
            buf[len++] = c == '\n' ? ' ' : c;
        buf[len++] = '\n';
    }
    void add(const char *name, long long value)
    {
        char v[24];
        snprintf(v, sizeof v, "%lld", value);
        add(name, v);
    }
};

// The journal's native protocol: the message, which may hold a newline, as
// "MESSAGE\n", its length (64-bit little endian), its bytes and "\n", then
// the other fields. Where no journal listens, a syslog datagram.
void sys_send(const log_hdl *h, const sysrec &r, int32_t level, const char *file, int32_t line, const char *func,
              std::string_view text)
{
    sys_fields f;
    f.buf[f.len++] = '\n';
    f.add("PRIORITY", r.prio);
    f.add("SYSLOG_FACILITY", LOG_DAEMON >> 3);
    f.add("SYSLOG_IDENTIFIER", program_invocation_short_name);
    f.add("CODE_FILE", file != nullptr ? file : "-");
    f.add("CODE_LINE", line);
    f.add("CODE_FUNC", func != nullptr ? func : "-");
    f.add("ZEM_KIND", h->name);
    f.add("ZEM_LEVEL", level);
    for (auto [name, v] : {std::pair{"ZEM_PATH", r.path}, std::pair{"ZEM_NODE", r.node},
                           std::pair{"ZEM_NODEID", r.nodeid}, std::pair{"ZEM_STATE", r.state}})
        if (!v.empty())
            f.add(name, v);
    uint64_t len = htole64(text.size());
    iovec iov[] = {{const_cast<char *>("MESSAGE\n"), 8},
                   {&len, sizeof len},
                   {const_cast<char *>(text.data()), text.size()},
                   {f.buf, f.len}};
    // Only a journal that is not there sends the copy to /dev/log; a full
    // or failing one costs it.
    if (sys_sendto("/run/systemd/journal/socket", iov, std::size(iov)) || (errno != ENOENT && errno != ECONNREFUSED))
        return;
    // "<pri>Mmm dd hh:mm:ss tag[pid]: kind: text", the form of syslog(3).
    time_t now = time(nullptr);
    struct tm tm {};
    localtime_r(&now, &tm);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%b %e %H:%M:%S", &tm);
    char head[160];
    int n = snprintf(head, sizeof head, "<%d>%s %s[%d]: %s: ", LOG_DAEMON | r.prio, stamp,
                     program_invocation_short_name, static_cast<int>(getpid()), h->name.c_str());
    iovec sl[] = {{head, std::min(static_cast<size_t>(std::max(n, 0)), sizeof head - 1)},
                  {const_cast<char *>(text.data()), text.size()}};
    sys_sendto("/dev/log", sl, std::size(sl));
}

// A record the daemon writes to several logs arrives here once per log, one
// right after the other on the same thread: the system log gets it once.
struct sys_last {
    const log_hdl *h;
    const char *file, *func;
    int32_t line;
    uint64_t hash;
};
thread_local sys_last lastcopy;

[[gnu::noinline]] void sys_copy(const log_hdl *h, int32_t level, const char *file, int32_t line, const char *func,
              std::string_view text)
{
    uint64_t hash = 14695981039346656037ull; // FNV-1a
    for (char c : text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    sys_last cur{h, file, func, line, hash};
    sys_last prev = std::exchange(lastcopy, cur);
    if (prev.h != nullptr && prev.h != h && prev.file == file && prev.func == func && prev.line == line &&
        prev.hash == hash) {
        lastcopy = {};
        return;
    }
    sysrec r = sys_classify(level, text);
    if (r.prio == 0)
        lastcopy = {};
    else
        sys_send(h, r, level, file, line, func, text);
}

// "/root/<name>/log/syslog": 0 keeps the log out of the system log, any
// other value, a missing key or a malformed one leaves the copy on. A log
// opened while no configuration is loaded (not by the daemon) has none.
bool sys_wanted(const char *name)
{
    std::string key = std::string("/root/") + name + "/log/syslog";
    int32_t v = 1;
    int32_t len = sizeof v;
    int32_t r = xmllib_get_value(key.c_str(), XMLLIB_KIND_INT, &v, &len);
    return r != PLAT_ENOTREADY && (r != 0 || v != 0);
}

} // namespace

int32_t log_init(const char *name, log_hdl **handle, int32_t level, int32_t size, void *)
{
    if (handle == nullptr || !name_ok(name))
        return PLAT_EINVAL;
    std::string dir = plat_path("log");
    auto *h = new log_hdl;
    h->path = dir + "/" + name + ".log";
    h->level = level;
    h->size = size;
    h->name = name;
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
    h->syscopy.store(sys_wanted(name), std::memory_order_relaxed);
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
    const bool copy = level != LOG_LEVEL_CATALOG && h->syscopy.load(std::memory_order_relaxed);
    const bool kept = keep(h->level, level);
    if (!kept && !copy)
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
    nocancel nc;
    const int32_t r = kept ? write_line(h, level, file, line, func, text) : 0;
    if (copy)
        sys_copy(h, level, file, line, func, text);
    return r;
}

bool plat_log_failure(std::string_view text)
{
    return any_in(text, failures) && !any_in(text, survived);
}

void plat_notice(const char *log, int32_t level, const char *func, const std::string &text, const char *file, int line)
{
    fprintf(stderr, "%s: %s\n", program_invocation_short_name, text.c_str());
    std::lock_guard lk(regmx);
    for (log_hdl *h = reghead; h != nullptr; h = h->next)
        if (h->name == log)
            log_write(h, level, 0, file, line, func, text.c_str());
}

int32_t log_term(log_hdl *h)
{
    if (h == nullptr)
        return PLAT_EINVAL;
    h->syscopy.store(false, std::memory_order_relaxed);
    std::lock_guard lk(h->mx);
    if (h->fd < 0)
        return 0;
    fdatasync(h->fd);
    close(h->fd);
    h->fd = -1;
    return 0;
}
