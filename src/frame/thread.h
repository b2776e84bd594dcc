// The thread toolkit every heartbeat thread is built from: its first and
// last log lines, cancellation taken only at its waits, waits that sleep the
// whole pause and end at once on the stop, the progress it shows the
// platform, the polling pace, the table lock and access to fields shared
// between threads.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <ctime>

#include "frame/frame.h"
#include "services/hbext.h"

// ---- first and last lines -----------------------------------------------------

#define HBTH_ENTER(module) HBLOG((module), HBLV_INFO, "<<< ENTER >>>")
#define HBTH_EXIT(module, code) HBLOG((module), HBLV_INFO, "<<< EXIT >>> : 0x%08lx", static_cast<long>(code))

// ---- cancellation -----------------------------------------------------------------
//
// A heartbeat thread keeps cancellation disabled while it works and takes a
// pending one only in hbth_testcancel, which every wait below ends with. It
// is never unwound from inside a blocking call, whose interceptors (the
// thread sanitizer's, for one) cannot follow such an unwinding. Failures of
// the switch are logged on the thread's module.

void hbth_canceloff(int module);
void hbth_cancelon(int module);
void hbth_testcancel(int module);
// pthread_testcancel, the one call at which a pending cancellation takes
// effect. In the address sanitizer's build it first clears the stack's
// marks when the cancellation is acted on: the sanitizer's no-return hook,
// run at each clean-up of the unwinding, reads through its own sigaltstack
// interceptor the marks of the frames already unwound and reports them
// (without it the frame's thread tests fail in that build).
// Live frames keep their overflow checks until then. Elsewhere just
// pthread_testcancel.
void hbth_cancelpoint();

// ---- progress shown to the platform --------------------------------------------------
//
// A heartbeat thread names its kind (an HBEXT_TH_ constant) for its whole
// life with an hbth_progress, first thing in its entry; every wait below then
// stamps the kind's progress (hbext_progress: a clock read and a store). A
// thread that waits at least once per interval thus shows progress at least
// that often, also while it waits for its start or for a stuck controller
// worker, and a daemon whose threads stop stamping has stalled. The end, by
// return or cancellation, is told too.
class hbth_progress {
public:
    hbth_progress(int32_t thread, int32_t hbint, int32_t hbto);
    ~hbth_progress();
    hbth_progress(const hbth_progress &) = delete;
    hbth_progress &operator=(const hbth_progress &) = delete;

private:
    int32_t thread_;
};

// ---- waits ---------------------------------------------------------------------------
//
// A wait blocks until its time is up or the stop event fires (the stop
// routine raises it after requesting the cancellations), then takes a
// pending cancellation. No wait wakes in between: an idle thread costs one
// wake-up per pause.

// Pauses ms milliseconds, or until the stop.
void hbwait_ms(int module, int32_t ms);
// Waits until fd is readable, the stop, or ms milliseconds. Returns 1 when fd
// is readable, 0 when it is not (time up or stop), -1 when select failed
// (errno kept).
int hbwait_fd(int module, int fd, int32_t ms);
// A pause nothing cuts short, with no cancellation point: for the threads of
// the orderly stop and for clean-up handlers.
void hbsleep_ms(int32_t ms);

// ---- time ------------------------------------------------------------------------------

// The time on clock `clock` ms milliseconds from now.
struct timespec hbts_after(clockid_t clock, int64_t ms);
// Microseconds from now until deadline on CLOCK_MONOTONIC, 0 when past.
int64_t hbts_leftus(const struct timespec &deadline);

// ---- polling pace ------------------------------------------------------------------

// Polls 500 ms apart during the start-up stretch (1201 polls), then the
// heartbeat interval apart: peers that start together see each other soon.
inline constexpr int32_t HBPACE_FAST_MS = 500;
inline constexpr int32_t HBPACE_FAST_POLLS = 1200; // the stretch ends when this drops below 0
// The budget a pace starts with: HBPACE_FAST_POLLS but in tests, which
// shorten the stretch to see the interval after it. Sequentially
// consistent, and only set while no heartbeat thread runs.
inline std::atomic<int32_t> hbpace_fastpolls{HBPACE_FAST_POLLS};

struct hbpace {
    int32_t budget = hbpace_fastpolls.load();
    int32_t normal = 0; // 1 once the first pause of the interval was announced
};
// Length of the next pause; counts the start-up polls down.
int32_t hbpace_pause(hbpace *pace, int32_t hbint);
// Logs "***** start normal polling(<which>) <hbint> msec. *****" the first
// time it is called after the start-up stretch; true that once.
bool hbpace_announce(hbpace *pace, int module, const char *which, int32_t hbint, hbwhere at = {});

// ---- the table lock ------------------------------------------------

// Holds a table's lock for a scope. Taken with cancellation disabled, never
// around a socket or firmware call.
class hblock {
public:
    explicit hblock(pthread_mutex_t *mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
    ~hblock() { pthread_mutex_unlock(mutex_); }
    hblock(const hblock &) = delete;
    hblock &operator=(const hblock &) = delete;

private:
    pthread_mutex_t *mutex_;
};

// ---- the watcher ---------------------------------------------------------------------

// A watcher thread's loop: until the stop, one pause of the interval, then
// one time-out pass (never cancelled half-way), timed by looptime. Logs
// "SIGUSR1 already received" when the stop ends it.
template <class Check>
void hbth_watchloop(int module, int32_t hbint, Check check, int32_t (*looptime)(hbtick_t, hbtick_t *),
                    hbwhere at = {})
{
    hbth_canceloff(module);
    hbtick_t maxloop = 0;
    for (;;) {
        const hbtick_t t0 = hbtick_now();
        hbth_testcancel(module);
        if (bsigrecv.load() != 0)
            break;
        hbwait_ms(module, hbint);
        check();
        looptime(t0, &maxloop);
    }
    HBLOG_AT(at, module, HBLV_ERROR, "SIGUSR1 already received");
}

// A whole watcher thread over a table, showing its progress as the given
// kind of thread: its first line, its clean-up handler thexit(arg), the loop
// above with check(list) every list->hbint, its last line with 0; ends with
// ret.
template <class List>
void *hbth_watch(int module, int32_t thread, List *list, int32_t (*check)(List *),
                 int32_t (*looptime)(hbtick_t, hbtick_t *), void (*thexit)(void *), void *arg, void *ret,
                 hbwhere at = {})
{
    HBLOG_AT(at, module, HBLV_INFO, "<<< ENTER >>>");
    const hbth_progress shown(thread, list->hbint, list->hbto);
    pthread_cleanup_push(thexit, arg);
    hbth_watchloop(module, list->hbint, [list, check] { check(list); }, looptime, at);
    HBLOG_AT(at, module, HBLV_INFO, "<<< EXIT >>> : 0x%08lx", 0L);
    pthread_cleanup_pop(1);
    return ret;
}
