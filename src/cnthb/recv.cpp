// The controller reader, the receiving side: a poller that starts one
// detached read worker per path and cycle, and the workers that fetch every
// slot and hand each node's record to the status evaluation. Without a
// watcher the poller also checks the time-outs.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "cnthb/worker.h"

namespace {

// Records the read buffer holds: every slot the storage library fills, every
// node's slot and one per node priority up to the path's highest.
size_t readslots(cnthb_list *list, cnthb_rsc *rsc)
{
    size_t n = std::max<size_t>(static_cast<size_t>(rsc->maxnodepri) + 1, ZEMFW_HBSLOTS);
    for (int32_t j = 0; j < list->curnode; ++j) {
        const int32_t cntno = cnthb_nodeat(rsc, j)->cntno;
        if (cntno >= 0)
            n = std::max(n, static_cast<size_t>(cntno) + 1);
    }
    return n;
}

} // namespace

int32_t cnthb_thrlooptime(hbtick_t start, hbtick_t *max) { return hblooptime(start, max); }

void cnthb_readthexit(void *arg)
{
    cnthb_cancelworkers(static_cast<cnthb_list *>(arg), false, CNTHB_CLEANUP_MS);
    HBLOG(HBLOG_CNT, HBLV_DETAIL, "cnthb_hbread() exit");
}

void *cnthb_hbread(void *arg)
{
    auto *list = static_cast<cnthb_list *>(arg);
    HBTH_ENTER(HBLOG_CNT);
    const hbth_progress shown(HBEXT_TH_CNTREAD, list->hbint, list->hbto);
    pthread_cleanup_push(cnthb_readthexit, list);
    hbth_canceloff(HBLOG_CNT);
    hbpace pace;
    hbtick_t maxloop = 0;
    for (;;) {
        const hbtick_t start = hbtick_now();
        if (!cnthb_startworkers(list, CNTHB_WK_READ)) {
            hbth_testcancel(HBLOG_CNT);
            if (bsigrecv.load() != 0)
                break;
            cnthb_pollpause(&pace, list->hbint, "read1");
            continue;
        }
        // Without a watcher the poller checks the time-outs, also while a
        // worker hangs in the controller.
        if (cnthb_bwatchth.load() == 0)
            cnthb_hbcheck(list);
        hbth_testcancel(HBLOG_CNT);
        if (bsigrecv.load() != 0)
            break;
        cnthb_pollpause(&pace, list->hbint, "read2");
        cnthb_thrlooptime(start, &maxloop);
    }
    HBLOG(HBLOG_CNT, HBLV_ERROR, "SIGUSR1 already received");
    HBTH_EXIT(HBLOG_CNT, 0);
    pthread_cleanup_pop(1);
    return nullptr;
}

void *cnthb_readthread(void *arg)
{
    auto *rsc = static_cast<cnthb_rsc *>(arg);
    cnthb_workerrun run(rsc, false);
    hbth_canceloff(HBLOG_CNT);
    cnthb_list *list = rsc->list;
    void *const failed = reinterpret_cast<void *>(static_cast<intptr_t>(5));

    size_t nrec = 0;
    {
        hblock hold(&list->statlock);
        if (rsc->maxnodepri < 0) {
            HBLOG(HBLOG_CNT, HBLV_ERROR, "maxnodepri is invalid(%d)", rsc->maxnodepri);
            rsc->maxnodepri = list->curnode;
        }
        nrec = readslots(list, rsc);
    }
    std::unique_ptr<cnthb_hbinf, hbfree> buf(static_cast<cnthb_hbinf *>(std::calloc(nrec, sizeof(cnthb_hbinf))));
    if (!buf) {
        HBLOG(HBLOG_CNT, HBLV_ERROR, "malloc(%d) failed(errno:%d)", static_cast<int>(nrec * sizeof(cnthb_hbinf)), errno);
        run.finish("read");
        return failed;
    }

    const int32_t r = cnthb_fwcall(rsc, [&] { return zemfw_gethbinf(buf.get()); });
    cnthb_countcall(rsc, false, r);
    if (r != 0) {
        cnthb_seterrstat(list, CNTHB_ERR_READ); // all paths read the same controller
        buf.reset();
        run.finish(nullptr);
        return failed;
    }
    for (int32_t j = 0; j < list->curnode; ++j) {
        cnthb_node *node = cnthb_nodeat(rsc, j);
        if (hbld(node->stat) == SHMNM_SVSTAT_UNUSED || node->cntno < 0)
            continue;
        cnthb_hbdata(list, rsc, node, buf.get() + node->cntno);
    }
    buf.reset();
    run.finish("read");
    return nullptr;
}
