// The controller's detached workers, which make the firmware calls so that a
// hanging controller blocks only them: their start, bookkeeping, timing and
// cancellation, and the pollers' pause.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "cnthb/worker.h"

namespace {

// How often a worker waiting for rwmutex looks for its cancellation.
constexpr int64_t RWWAIT_MS = 10;

int32_t &busyflag(cnthb_rsc *rsc, bool write)
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

void cnthb_pollpause(hbpace *pace, int32_t hbint, const char *which)
{
    if (pace->budget < 0)
        hbpace_announce(pace, HBLOG_CNT, which, hbint);
    hbwait_ms(HBLOG_CNT, hbpace_pause(pace, hbint));
}

bool cnthb_startworkers(cnthb_list *list, const cnthb_wkind &kind)
{
    if (list->currsc <= 0)
        return true;
    const size_t size = static_cast<size_t>(list->currsc) * sizeof(pthread_attr_t);
    std::unique_ptr<pthread_attr_t, hbfree> attrs(static_cast<pthread_attr_t *>(std::malloc(size)));
    if (!attrs) {
        HBLOG(HBLOG_CNT, HBLV_ERROR, "malloc(%d) failed(errno:%d)", static_cast<int>(size), errno);
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
    hblock hold(&list->statlock);
    int32_t &busy = busyflag(rsc, kind.write);
    if (hbld(busy) != 0)
        return; // the previous worker still runs: none is stacked on it
    hbst(busy, 1);
    if (kind.write) {
        rsc->writestart = hbtick_now();
        ++rsc->writeseq;
    } else {
        rsc->readstart = hbtick_now();
        ++rsc->readseq;
    }

    int r = pthread_attr_init(attr);
    if (r != 0) {
        hbst(busy, 0);
        HBLOG(HBLOG_CNT, HBLV_ERROR, kind.attrinit, r, errno);
        return;
    }
    setstacksz(attr);
    r = pthread_attr_setdetachstate(attr, PTHREAD_CREATE_DETACHED);
    if (r != 0) {
        hbst(busy, 0);
        HBLOG(HBLOG_CNT, HBLV_ERROR, "pthread_attr_setdetachstate() failed(ret:%d,errno:%d)", r, errno);
        pthread_attr_destroy(attr);
        return;
    }
    hbadd(list->nworkers, 1);
    pthread_t th = 0;
    r = pthread_create(&th, attr, kind.entry, rsc);
    if (r != 0) {
        hbadd(list->nworkers, -1);
        hbst(busy, 0);
        HBLOG(HBLOG_CNT, HBLV_ERROR, kind.create, r, errno);
        pthread_attr_destroy(attr);
        return;
    }
    hbst(kind.write ? rsc->writeth : rsc->readth, th);
    r = pthread_attr_destroy(attr);
    if (r != 0)
        HBLOG(HBLOG_CNT, HBLV_ERROR, kind.attrdestroy, r, errno);
}

void cnthb_cancelworkers(cnthb_list *list, bool write, int32_t grace)
{
    // A fixed pause, not cut short by the stop (which has been raised when a
    // clean-up handler runs): the workers still in a controller call get that
    // long to end by themselves. It delays only the controller side's stop;
    // the LAN down packets have gone out by then.
    hbsleep_ms(grace);
    // Under the lock a busy flag still set means its worker has not reached
    // its end yet, so the thread id is still valid to cancel.
    hblock hold(&list->statlock);
    for (int32_t i = 0; i < list->currsc; ++i) {
        cnthb_rsc *rsc = cnthb_rscat(list, i);
        int32_t &busy = busyflag(rsc, write);
        if (hbld(busy) == 0)
            continue;
        const pthread_t th = hbld(write ? rsc->writeth : rsc->readth);
        if (th != 0) {
            const int r = pthread_cancel(th);
            if (r != 0)
                HBLOG(HBLOG_CNT, HBLV_ERROR, "pthread_cancel() failed(ret:%d,errno:%d)", r, errno);
        }
        hbst(busy, 0);
    }
}

int32_t cnthb_threadtime(hbtick_t start, hbtick_t *max, const char *op, const char *rsc, const char *node,
                         long /*unused*/, int32_t hbto)
{
    const bool write = op != nullptr && std::strcmp(op, "write") == 0;
    return hboptime(CNTHB_KIND.number, start, max, rsc, node, hbto, write ? LOG_MSG_CNTWRITE : LOG_MSG_CNTREAD);
}

cnthb_workerrun::cnthb_workerrun(cnthb_rsc *rsc, bool write) : rsc_(rsc), write_(write)
{
    hblock hold(&rsc->list->statlock);
    seq_ = write ? rsc->writeseq : rsc->readseq;
    start_ = write ? rsc->writestart : rsc->readstart;
}

cnthb_workerrun::~cnthb_workerrun()
{
    // The very last touch of the table by this worker.
    hbadd(rsc_->list->nworkers, -1);
}

void cnthb_workerrun::finish(const char *op)
{
    cnthb_list *list = rsc_->list;
    hblock hold(&list->statlock);
    if (op != nullptr)
        cnthb_threadtime(start_, write_ ? &rsc_->maxwrite : &rsc_->maxread, op, rsc_->name, list->hostname,
                         list->ownpri, list->hbto);
    // A worker that was given up on meanwhile leaves its path's flag to the
    // one started after it.
    if (seq_ == (write_ ? rsc_->writeseq : rsc_->readseq))
        hbst(busyflag(rsc_, write_), 0);
}

cnthb_rwguard::cnthb_rwguard(cnthb_rsc *rsc)
{
    if (rsc->list->rwlock == 0)
        return;
    for (;;) {
        const struct timespec until = hbts_after(CLOCK_REALTIME, RWWAIT_MS);
        const int r = pthread_mutex_timedlock(&rsc->rwmutex, &until);
        if (r == 0) {
            mutex_ = &rsc->rwmutex;
            return;
        }
        if (r != ETIMEDOUT) {
            HBLOG(HBLOG_CNT, HBLV_ERROR, "pthread_mutex_lock() failed(ret:%d,errno:%d)", r, errno);
            return; // the call is made without the lock rather than not at all
        }
        hbth_cancelpoint();
    }
}

cnthb_rwguard::~cnthb_rwguard()
{
    if (mutex_ != nullptr)
        pthread_mutex_unlock(mutex_);
}
