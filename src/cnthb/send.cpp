// The controller writer, the sending side: a poller that starts one detached
// write worker per path and cycle once the cluster has said to start, and the
// workers that put this node's heartbeat record into its controller slot.
#include <cstdlib>

#include "cnthb/worker.h"

namespace {

// The writing cycles; returns when the stop has been seen.
void writecycles(cnthb_list *list, hbpace *pace)
{
    hbtick_t maxloop = 0;
    for (;;) {
        const hbtick_t start = hbtick_now();
        if (!cnthb_startworkers(list, CNTHB_WK_WRITE)) {
            hbth_testcancel(HBLOG_CNT);
            if (bsigrecv.load() != 0)
                return;
            hbwait_ms(HBLOG_CNT, list->hbint);
            if (bsigrecv.load() != 0)
                return;
            continue;
        }
        hbth_testcancel(HBLOG_CNT);
        if (bsigrecv.load() != 0)
            return;
        cnthb_pollpause(pace, list->hbint, "write");
        cnthb_thwlooptime(start, &maxloop);
        if (bsigrecv.load() != 0)
            return;
    }
}

} // namespace

int32_t cnthb_thwlooptime(hbtick_t start, hbtick_t *max) { return hblooptime(start, max); }

void cnthb_writethexit(void *arg)
{
    cnthb_cancelworkers(static_cast<cnthb_list *>(arg), true, CNTHB_CLEANUP_MS);
    HBLOG(HBLOG_CNT, HBLV_DETAIL, "cnthb_hbwrite() exit");
}

void *cnthb_hbwrite(void *arg)
{
    auto *list = static_cast<cnthb_list *>(arg);
    HBTH_ENTER(HBLOG_CNT);
    const hbth_progress shown(HBEXT_TH_CNTWRITE, list->hbint, list->hbto);
    pthread_cleanup_push(cnthb_writethexit, list);
    hbth_canceloff(HBLOG_CNT);
    HBLOG(HBLOG_CNT, HBLV_ERROR, "***** WAIT START: cnthb_hbwrite *****");
    hbpace pace;

    // Nothing is written before the cluster says so; the pace counts from
    // the thread's start, the waiting included.
    bool started = cnthb_bhbwrite.load() != 0;
    while (!started) {
        if (bsigrecv.load() != 0) {
            HBLOG(HBLOG_CNT, HBLV_ERROR, "SIGUSR1 already received");
            break;
        }
        hbth_testcancel(HBLOG_CNT);
        cnthb_pollpause(&pace, list->hbint, "start write");
        started = cnthb_bhbwrite.load() != 0;
    }
    if (started) {
        HBLOG(HBLOG_CNT, HBLV_ERROR, "***** START: cnthb_hbwrite *****");
        if (bsigrecv.load() == 0)
            writecycles(list, &pace);
    }
    HBLOG(HBLOG_CNT, HBLV_ERROR, "SIGUSR1 already received");
    HBTH_EXIT(HBLOG_CNT, 0);
    pthread_cleanup_pop(1);
    return nullptr;
}

void *cnthb_writethread(void *arg)
{
    auto *rsc = static_cast<cnthb_rsc *>(arg);
    cnthb_workerrun run(rsc, true);
    hbth_canceloff(HBLOG_CNT);
    cnthb_list *list = rsc->list;

    cnthb_hbinf rec;
    cnthb_makehb(&rec);
    const auto cntno = static_cast<uint8_t>(rsc->list->mycntno);
    const int32_t r = cnthb_fwcall(rsc, [&] { return zemfw_sethbinf(cntno, &rec); });
    cnthb_countcall(rsc, true, r);
    if (r != 0)
        cnthb_seterrstat(list, CNTHB_ERR_WRITE); // this node's own slot failed
    run.finish("write");
    return nullptr;
}
