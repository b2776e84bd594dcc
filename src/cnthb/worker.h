// The controller's worker threads, shared by the reader, the writer and the
// down write: their start, bookkeeping and cancellation, the firmware call
// they make, and the pollers' pause.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "cnthb/cnthb.h"
#include "frame/thread.h"

// The pause of the reader's, writer's and watcher's clean-up handlers: the
// grace of the reader's and writer's workers.
inline constexpr int32_t CNTHB_CLEANUP_MS = 500;

// The reader's and writer's pause between cycles: the frame's pace, with
// "***** start normal polling(<which>) ... *****" logged before the first
// pause of the interval.
void cnthb_pollpause(hbpace *pace, int32_t hbint, const char *which);

// The three kinds of worker and the texts their start failures log.
struct cnthb_wkind {
    void *(*entry)(void *);
    bool write; // uses the write bookkeeping (bwriting, writeth, ...)
    const char *attrinit;
    const char *create;
    const char *attrdestroy;
};
extern const cnthb_wkind CNTHB_WK_READ;
extern const cnthb_wkind CNTHB_WK_WRITE;
extern const cnthb_wkind CNTHB_WK_DPWRITE;

// Starts a detached worker of the given kind on the path unless one still
// runs there.
void cnthb_startworker(cnthb_rsc *rsc, pthread_attr_t *attr, const cnthb_wkind &kind);
// One cycle of worker starts: a worker of the given kind on every path, with
// one attribute object per path. False (logged) when the memory for the
// attribute objects is not there; true also for a table without paths.
bool cnthb_startworkers(cnthb_list *list, const cnthb_wkind &kind);
// Cancels the workers of one kind still running and marks their paths idle,
// after `grace` milliseconds in which they may end by themselves.
void cnthb_cancelworkers(cnthb_list *list, bool write, int32_t grace = 0);

// The bookkeeping of one worker's run, from its first step to its end. Must be
// the worker's first local object, so that its destructor is the last thing
// that touches the table, on a normal end and on cancellation alike.
class cnthb_workerrun {
public:
    cnthb_workerrun(cnthb_rsc *rsc, bool write);
    ~cnthb_workerrun();
    cnthb_workerrun(const cnthb_workerrun &) = delete;
    cnthb_workerrun &operator=(const cnthb_workerrun &) = delete;
    // Records the run's duration under op (none when op is null) and marks
    // the path idle, unless the worker was given up on in the meantime.
    void finish(const char *op);

private:
    cnthb_rsc *rsc_;
    bool write_;
    uint32_t seq_;
    hbtick_t start_;
};

// Holds a path's rwmutex around a firmware call when the table asks for it.
// The wait for the mutex and the call are the worker's only cancellation
// points; a worker cancelled there leaves the mutex free.
class cnthb_rwguard {
public:
    explicit cnthb_rwguard(cnthb_rsc *rsc);
    ~cnthb_rwguard();
    cnthb_rwguard(const cnthb_rwguard &) = delete;
    cnthb_rwguard &operator=(const cnthb_rwguard &) = delete;

private:
    pthread_mutex_t *mutex_ = nullptr;
};

// Counts a firmware read or write of the path and, when r is not 0, its
// failure.
inline void cnthb_countcall(cnthb_rsc *rsc, bool write, int32_t r)
{
    hbcount_add(rsc->count[write ? HBEXT_PC_WRITES : HBEXT_PC_READS]);
    if (r != 0)
        hbcount_add(rsc->count[write ? HBEXT_PC_WRITEFAIL : HBEXT_PC_READFAIL]);
}

// Makes one firmware call in a worker: the wait for rwmutex and the call
// itself are the only places where the worker can be cancelled.
template <class F> int32_t cnthb_fwcall(cnthb_rsc *rsc, F call)
{
    int32_t r;
    {
        hbth_cancelon(HBLOG_CNT);
        cnthb_rwguard hold(rsc);
        hbth_cancelpoint();
        r = call();
        hbth_canceloff(HBLOG_CNT);
    }
    return r;
}
