// The tick clock, the loop and operation timers, and the delay warnings.
// What differs per heartbeat kind (rate, log, own operations) comes from the
// kind's hbkind.
#include <sys/times.h>

#include <cstdint>

#include "frame/counters.h"
#include "frame/frame.h"
#include "frame/nodestate.h"
#include "services/services.h"

namespace {

constexpr int64_t HB_TICK_LIMIT_MAX = INT32_MAX;

} // namespace

hbtick_t hbtick_times()
{
    struct tms unused;
    return static_cast<hbtick_t>(times(&unused));
}

namespace {

// Shared form of all timers: the duration of one cycle or operation, kept as
// the maximum when it is the longest seen so far.
hbtick_t hbtime_raise(hbtick_t start, hbtick_t end, hbtick_t *max)
{
    const hbtick_t elapsed = end - start;
    if (max != nullptr && *max < elapsed)
        *max = elapsed;
    return elapsed;
}

void delaywarn_record(int kind, log_hdl *log, int line, int32_t msgno, const char *rsc, const char *node,
                      int32_t scaled, hbtick_t elapsed, int32_t rate)
{
    if (msgno >= LOG_MSG_HBGAP && msgno <= LOG_MSG_CNTREAD)
        hbcount_kind(kind, HBEXT_KC_DELAY71 + (msgno - LOG_MSG_HBGAP));
    if (log == nullptr)
        return;
    (void)log_write(log, LOG_LEVEL_CATALOG, msgno, __FILE__, line, "delaywarn", nullptr, rsc, node, scaled,
                    static_cast<int64_t>(tckconf), static_cast<uint64_t>(elapsed), rate);
}

} // namespace

hbtick_t (*hbtick_source)() = hbtick_times;

hbtick_t hbtick_now()
{
    return hbtick_source();
}

hbtick_t hbtimeout_limit(int32_t hbto_ms, int32_t ratio, int32_t *scaled)
{
    if (ratio <= 0)
        ratio = 1;
    // A part of a second counts as a whole one; a negative time-out as none.
    int64_t secs = (static_cast<int64_t>(hbto_ms) + 999) / 1000;
    if (secs < 0)
        secs = 0;
    const int64_t scaledsecs = secs > HB_TICK_LIMIT_MAX / ratio ? HB_TICK_LIMIT_MAX : secs * ratio;
    const int64_t tck = tckconf > 0 ? tckconf : 1;
    const int64_t limit = HB_TICK_LIMIT_MAX / tck < scaledsecs ? HB_TICK_LIMIT_MAX : scaledsecs * tck;
    if (scaled != nullptr)
        *scaled = static_cast<int32_t>(scaledsecs);
    return static_cast<hbtick_t>(limit);
}

int32_t delaywarn(int kind, const char *rsc, const char *node, hbtick_t start, hbtick_t end, int32_t hbto,
                  int32_t msgno)
{
    const hbkind *k = hbkind_of(kind);
    if (k == nullptr)
        return 0;
    const hbtick_t elapsed = end - start;

    // The ratio is asked afresh on every call so that each check uses the
    // one in force at that moment.
    int32_t ratio = 0;
    int32_t second = 0;
    const int32_t r = shmcm_getratio(&ratio, &second);
    if (r != 0)
        HBLOG(k->module, HBLV_ERROR, "shmcm_getratio() failed(ret:%d)", r);

    int32_t scaled = 0;
    const hbtick_t limit = hbtimeout_limit(hbto, ratio, &scaled);
    const int32_t rate = *k->warnrate;
    log_hdl *const log = hblog_handle(k->module);
    const bool ownop = msgno == k->ownops[0] || msgno == k->ownops[1]; // not a heartbeat gap
    const hbtick_t threshold =
        rate >= 100 ? limit : (limit / 100) * static_cast<hbtick_t>(rate > 0 ? rate : 0);

    if (elapsed < threshold)
        return 0;
    if (elapsed > limit) {
        if (ownop)
            delaywarn_record(kind, log, __LINE__, msgno, rsc, node, scaled, elapsed, rate); // over-time
        return 0;
    }
    delaywarn_record(kind, log, __LINE__, msgno, rsc, node, scaled, elapsed, rate); // warning
    return 0;
}

int32_t hblooptime(hbtick_t start, hbtick_t *max)
{
    hbtime_raise(start, hbtick_now(), max);
    return 0;
}

int32_t hboptime(int kind, hbtick_t start, hbtick_t *max, const char *rsc, const char *node, int32_t hbto,
                 int32_t msgno)
{
    const hbtick_t end = hbtick_now();
    hbtime_raise(start, end, max);
    return delaywarn(kind, rsc, node, start, end, hbto, msgno);
}
