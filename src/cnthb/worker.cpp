// Pauses, cancellation switches and the bookkeeping of the detached workers
// that make the firmware calls, so that a hanging controller blocks only them.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <ctime>

#include "cnthb/cnthbint.h"

namespace {

constexpr int32_t CNTHB_FAST_POLL_MS = 500;
// How often a pausing poller looks for its cancellation.
constexpr int64_t CNTHB_CANCEL_STEP_MS = 20;
// How often a worker waiting for rwmutex looks for its cancellation.
constexpr long CNTHB_RWWAIT_NS = 10L * 1000 * 1000;

int32_t &cnthb_busy(cnthb_rsc *rsc, bool write)
{
    return write ? rsc->bwriting : rsc->breading;
}

} // namespace

const cnthb_wkind CNTHB_WK_READ = {cnthb_readthread, false,
                                   "pthread_attr_init(cnthb_readthread) failed(ret:%d,errno:%d)",
                                   "pthread_create(cnthb_readthread) failed(ret:%d,errno:%d)",
                                   "pthread_attr_destroy(cnthb_readthread) failed(ret:%d,errno:%d)"};
const cnthb_wkind CNTHB_WK_WRITE = {cnthb_writethread, true,
                                    "pthread_attr_init(cnthb_writethread) failed(ret:%d,errno:%d)",
                                    "pthread_create(cnthb_writethread) failed(ret:%d,errno:%d)",
                                    "pthread_attr_destroy(cnthb_writethread) failed(ret:%d,errno:%d)"};
const cnthb_wkind CNTHB_WK_DPWRITE = {cnthb_dpwritethread, true,
                                      "pthread_attr_init(cnthb_dpwritethread) failed(ret:%d,errno:%d)",
                                      "pthread_create() failed(ret:%d,errno:%d)",
                                      "pthread_attr_destroy() failed(ret:%d,errno:%d)"};

void cnthb_sleepms(int32_t ms)
{
    if (ms <= 0)
        return;
    struct timespec left = {ms / 1000, static_cast<long>(ms % 1000) * 1000 * 1000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

void cnthb_cancelstate(int state)
{
    int old = 0;
    const int r = pthread_setcancelstate(state, &old);
    if (r == 0)
        return;
    if (state == PTHREAD_CANCEL_DISABLE)
        HBLOG(HBLOG_CNT, 1, "pthread_setcancelstate(DISABLE) failed(ret:%d,errno:%d)", r, errno);
    else
        HBLOG(HBLOG_CNT, 1, "pthread_setcancelstate(ENABLE) failed(ret:%d,errno:%d)", r, errno);
}

void cnthb_cancelpoint()
{
    cnthb_cancelstate(PTHREAD_CANCEL_ENABLE);
    pthread_testcancel();
    cnthb_cancelstate(PTHREAD_CANCEL_DISABLE);
}

void cnthb_cancelsleep(int32_t ms)
{
    // The pause itself runs with cancellation off, in short steps, and the
    // cancellation is taken between them at pthread_testcancel. Acted on
    // inside a blocking call, it would unwind through frames of the C library
    // and of instrumentation layers, not all of which run their own clean-up;
    // from pthread_testcancel only the daemon's own frames unwind.
    struct timespec until;
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += ms / 1000;
    until.tv_nsec += static_cast<long>(ms % 1000) * 1000 * 1000;
    if (until.tv_nsec >= 1000L * 1000 * 1000) {
        until.tv_nsec -= 1000L * 1000 * 1000;
        ++until.tv_sec;
    }
    for (;;) {
        cnthb_cancelpoint();
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        const int64_t left = (static_cast<int64_t>(until.tv_sec) - now.tv_sec) * 1000 +
                             (until.tv_nsec - now.tv_nsec) / (1000 * 1000);
        if (left <= 0)
            break;
        cnthb_sleepms(static_cast<int32_t>(std::min<int64_t>(left, CNTHB_CANCEL_STEP_MS)));
    }
}

void cnthb_pollpause(cnthb_pollpace *pace, int32_t hbint, const char *which)
{
    if (pace->counter >= 0) {
        cnthb_cancelsleep(CNTHB_FAST_POLL_MS);
        --pace->counter;
        return;
    }
    if (pace->announced == 0) {
        HBLOG(HBLOG_CNT, 8, "***** start normal polling(%s) %d msec. *****", which, hbint);
        pace->announced = 1;
    }
    cnthb_cancelsleep(hbint);
}

bool cnthb_startworkers(cnthb_list *list, const cnthb_wkind &kind)
{
    if (list->currsc <= 0)
        return true;
    const size_t size = static_cast<size_t>(list->currsc) * sizeof(pthread_attr_t);
    std::unique_ptr<pthread_attr_t, hbfree> attrs(static_cast<pthread_attr_t *>(std::malloc(size)));
    if (!attrs) {
        HBLOG(HBLOG_CNT, 1, "malloc(%d) failed(errno:%d)", static_cast<int>(size), errno);
        return false;
    }
    for (int32_t i = 0; i < list->currsc; ++i)
        cnthb_startworker(cnthb_rscat(list, i), &attrs.get()[i], kind);
    return true;
}

void cnthb_startworker(cnthb_rsc *rsc, pthread_attr_t *attr, const cnthb_wkind &kind)
{
    cnthb_list *list = rsc->list;
    // The new worker's first step waits for this lock, so it sees its path's
    // bookkeeping complete.
    cnthb_statguard hold(list);
    int32_t &busy = cnthb_busy(rsc, kind.write);
    if (cnthb_get(busy) != 0)
        return; // the previous worker still runs: none is stacked on it
    cnthb_put(busy, 1);
    if (kind.write) {
        rsc->writestart = hbtick_now();
        ++rsc->writeseq;
    } else {
        rsc->readstart = hbtick_now();
        ++rsc->readseq;
    }

    int r = pthread_attr_init(attr);
    if (r != 0) {
        cnthb_put(busy, 0);
        HBLOG(HBLOG_CNT, 1, kind.attrinit, r, errno);
        return;
    }
    setstacksz(attr);
    r = pthread_attr_setdetachstate(attr, PTHREAD_CREATE_DETACHED);
    if (r != 0) {
        cnthb_put(busy, 0);
        HBLOG(HBLOG_CNT, 1, "pthread_attr_setdetachstate() failed(ret:%d,errno:%d)", r, errno);
        pthread_attr_destroy(attr);
        return;
    }
    std::atomic_ref<int32_t>(list->nworkers).fetch_add(1);
    pthread_t th = 0;
    r = pthread_create(&th, attr, kind.entry, rsc);
    if (r != 0) {
        std::atomic_ref<int32_t>(list->nworkers).fetch_sub(1);
        cnthb_put(busy, 0);
        HBLOG(HBLOG_CNT, 1, kind.create, r, errno);
        pthread_attr_destroy(attr);
        return;
    }
    cnthb_put(kind.write ? rsc->writeth : rsc->readth, th);
    r = pthread_attr_destroy(attr);
    if (r != 0)
        HBLOG(HBLOG_CNT, 1, kind.attrdestroy, r, errno);
}

void cnthb_cancelworkers(cnthb_list *list, bool write)
{
    // Under the lock a busy flag still set means its worker has not reached
    // its end yet, so the thread id is still valid to cancel.
    cnthb_statguard hold(list);
    for (int32_t i = 0; i < list->currsc; ++i) {
        cnthb_rsc *rsc = cnthb_rscat(list, i);
        int32_t &busy = cnthb_busy(rsc, write);
        if (cnthb_get(busy) == 0)
            continue;
        const pthread_t th = cnthb_get(write ? rsc->writeth : rsc->readth);
        if (th != 0) {
            const int r = pthread_cancel(th);
            if (r != 0)
                HBLOG(HBLOG_CNT, 1, "pthread_cancel() failed(ret:%d,errno:%d)", r, errno);
        }
        cnthb_put(busy, 0);
    }
}

cnthb_workerrun::cnthb_workerrun(cnthb_rsc *rsc, bool write) : rsc_(rsc), write_(write)
{
    cnthb_statguard hold(rsc->list);
    seq_ = write ? rsc->writeseq : rsc->readseq;
    start_ = write ? rsc->writestart : rsc->readstart;
}

cnthb_workerrun::~cnthb_workerrun()
{
    // The very last touch of the table by this worker.
    std::atomic_ref<int32_t>(rsc_->list->nworkers).fetch_sub(1);
}

void cnthb_workerrun::finish(const char *op)
{
    cnthb_list *list = rsc_->list;
    cnthb_statguard hold(list);
    if (op != nullptr)
        cnthb_threadtime(start_, write_ ? &rsc_->maxwrite : &rsc_->maxread, op, rsc_->name, list->hostname,
                         list->ownpri, list->hbto);
    // A worker that was given up on meanwhile leaves its path's flag to the
    // one started after it.
    if (seq_ == (write_ ? rsc_->writeseq : rsc_->readseq))
        cnthb_put(cnthb_busy(rsc_, write_), 0);
}

cnthb_rwguard::cnthb_rwguard(cnthb_rsc *rsc)
{
    if (rsc->list->rwlock == 0)
        return;
    for (;;) {
        struct timespec until;
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_nsec += CNTHB_RWWAIT_NS;
        if (until.tv_nsec >= 1000L * 1000 * 1000) {
            until.tv_nsec -= 1000L * 1000 * 1000;
            ++until.tv_sec;
        }
        const int r = pthread_mutex_timedlock(&rsc->rwmutex, &until);
        if (r == 0) {
            mutex_ = &rsc->rwmutex;
            return;
        }
        if (r != ETIMEDOUT) {
            HBLOG(HBLOG_CNT, 1, "pthread_mutex_lock() failed(ret:%d,errno:%d)", r, errno);
            return; // the call is made without the lock rather than not at all
        }
        pthread_testcancel();
    }
}

cnthb_rwguard::~cnthb_rwguard()
{
    if (mutex_ != nullptr)
        pthread_mutex_unlock(mutex_);
}
