// The thread toolkit: cancellation switches, waits on the stop event and
// the progress they stamp, time arithmetic and the polling pace.
#include <sys/select.h>

#include <algorithm>
#include <cerrno>

#include "frame/counters.h"
#include "frame/thread.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define HBTH_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/asan_interface.h>
#define HBTH_ASAN 1
#endif
#endif

namespace {

constexpr int64_t NS_PER_MS = 1000 * 1000;
constexpr int64_t NS_PER_S = 1000 * NS_PER_MS;

// The kind of heartbeat thread this is (hbth_progress); -1 for any other.
thread_local int32_t progress_kind = -1;

void setcancel(int module, int state)
{
    int old = 0;
    const int r = pthread_setcancelstate(state, &old);
    if (r == 0)
        return;
    if (state == PTHREAD_CANCEL_DISABLE)
        HBLOG(module, HBLV_ERROR, "pthread_setcancelstate(DISABLE) failed(ret:%d,errno:%d)", r, errno);
    else
        HBLOG(module, HBLV_ERROR, "pthread_setcancelstate(ENABLE) failed(ret:%d,errno:%d)", r, errno);
}

// select on fd (or none: -1) and the stop event until the deadline; the
// result for fd as hbwait_fd gives it.
int waituntil(int fd, const struct timespec &deadline)
{
    if (progress_kind >= 0) {
        (void)hbext_progress(progress_kind); // nothing to do when the platform cannot show it
        hbcount_sync();
    }
    const int stopfd = hbstop_fd();
    if (fd >= FD_SETSIZE) {
        errno = EBADF;
        return -1;
    }
    for (;;) {
        fd_set rd;
        FD_ZERO(&rd);
        if (stopfd >= 0 && stopfd < FD_SETSIZE)
            FD_SET(stopfd, &rd);
        if (fd >= 0)
            FD_SET(fd, &rd);
        const int64_t left = hbts_leftus(deadline);
        struct timeval tv = {static_cast<time_t>(left / 1000000), static_cast<suseconds_t>(left % 1000000)};
        const int n = select(std::max(fd, stopfd) + 1, &rd, nullptr, nullptr, &tv);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        return fd >= 0 && FD_ISSET(fd, &rd) ? 1 : 0;
    }
}

} // namespace

hbth_progress::hbth_progress(int32_t thread, int32_t hbint, int32_t hbto) : thread_(thread)
{
    progress_kind = thread;
    (void)hbext_progress_start(thread, hbint, hbto);
}

hbth_progress::~hbth_progress()
{
    progress_kind = -1;
    (void)hbext_progress_end(thread_);
}

void hbth_canceloff(int module) { setcancel(module, PTHREAD_CANCEL_DISABLE); }
void hbth_cancelon(int module) { setcancel(module, PTHREAD_CANCEL_ENABLE); }

#ifdef HBTH_ASAN
// The first clean-up of the unwinding, while only the C library's frames
// (not instrumented) lie below: the hook clears the whole stack's marks
// before any instrumented frame is left.
static void hbth_clearmarks(void *) { __asan_handle_no_return(); }
#endif

void hbth_cancelpoint()
{
#ifdef HBTH_ASAN
    pthread_cleanup_push(hbth_clearmarks, nullptr);
    pthread_testcancel();
    pthread_cleanup_pop(0);
#else
    pthread_testcancel();
#endif
}

void hbth_testcancel(int module)
{
    hbth_cancelon(module);
    hbth_cancelpoint();
    hbth_canceloff(module);
}

struct timespec hbts_after(clockid_t clock, int64_t ms)
{
    struct timespec t;
    clock_gettime(clock, &t);
    const int64_t ns = t.tv_nsec + (ms % 1000) * NS_PER_MS;
    t.tv_sec += static_cast<time_t>(ms / 1000 + ns / NS_PER_S);
    t.tv_nsec = static_cast<long>(ns % NS_PER_S);
    return t;
}

int64_t hbts_leftus(const struct timespec &deadline)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t ns = (static_cast<int64_t>(deadline.tv_sec) - now.tv_sec) * NS_PER_S + (deadline.tv_nsec - now.tv_nsec);
    return ns <= 0 ? 0 : (ns + 999) / 1000;
}

void hbwait_ms(int module, int32_t ms)
{
    (void)waituntil(-1, hbts_after(CLOCK_MONOTONIC, std::max<int32_t>(ms, 0)));
    hbth_testcancel(module);
}

int hbwait_fd(int module, int fd, int32_t ms)
{
    const int n = waituntil(fd, hbts_after(CLOCK_MONOTONIC, std::max<int32_t>(ms, 0)));
    const int err = errno;
    hbth_testcancel(module);
    errno = err;
    return n;
}

void hbsleep_ms(int32_t ms)
{
    if (ms <= 0)
        return;
    const struct timespec deadline = hbts_after(CLOCK_MONOTONIC, ms);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

int32_t hbpace_pause(hbpace *pace, int32_t hbint)
{
    if (pace->budget < 0)
        return hbint;
    --pace->budget;
    return HBPACE_FAST_MS;
}

bool hbpace_announce(hbpace *pace, int module, const char *which, int32_t hbint, hbwhere at)
{
    if (pace->normal != 0)
        return false;
    HBLOG_AT(at, module, HBLV_DETAIL, "***** start normal polling(%s) %d msec. *****", which, hbint);
    pace->normal = 1;
    return true;
}
