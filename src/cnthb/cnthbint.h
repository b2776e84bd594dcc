// Internals shared by the controller heartbeat's sources: the offline pass,
// the pollers' pause and the bookkeeping of worker threads.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "cnthb/cnthb.h"
#include "frame/thread.h"

// sem_set_statchange, its failure logged.
void cnthb_statchange();
// Takes a node offline on its path after a time-out or a failed firmware
// call: publication, not-ready mark, lastrec cleared, path state. The caller
// holds statlock and signals the change.
void cnthb_takeoffline(cnthb_list *list, cnthb_rsc *rsc, cnthb_node *node);

// One pass under statlock over every ONLINE node of every path: takes
// offline those for which gone(rsc, node) holds, and signals once when any
// changed. A record evaluated in between can therefore not be overwritten
// by a decision taken on older data.
template <class Gone> void cnthb_offlinepass(cnthb_list *list, Gone gone)
{
    bool changed = false;
    {
        hblock hold(&list->statlock);
        for (int32_t i = 0; i < list->currsc; ++i) {
            cnthb_rsc *rsc = cnthb_rscat(list, i);
            for (int32_t j = 0; j < list->curnode; ++j) {
                cnthb_node *node = cnthb_nodeat(rsc, j);
                if (hbld(node->stat) == SHMNM_SVSTAT_ONLINE && gone(rsc, node)) {
                    cnthb_takeoffline(list, rsc, node);
                    changed = true;
                }
            }
        }
    }
    if (changed)
        cnthb_statchange();
}

// The pause of the reader's, writer's and watcher's clean-up handlers.
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
// Cancels the workers of one kind still running and marks their paths idle.
void cnthb_cancelworkers(cnthb_list *list, bool write);

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
