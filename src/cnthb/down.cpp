// The controller down write of an orderly stop: down notices into this
// node's slot on every path, a few times, then a bounded wait for the
// workers.
#include <cstdlib>

#include "cnthb/worker.h"

namespace {

bool anywriting(cnthb_list *list)
{
    for (int32_t i = 0; i < list->currsc; ++i)
        if (hbld(cnthb_rscat(list, i)->bwriting) != 0)
            return true;
    return false;
}

} // namespace

void *cnthb_dpwrite(void *arg)
{
    auto *list = static_cast<cnthb_list *>(arg);
    HBTH_ENTER(HBLOG_CNT);
    // Nothing cancels this thread, and the stop it follows must not cut its
    // pauses short: they are plain sleeps.
    hbth_canceloff(HBLOG_CNT);
    hbtick_t maxloop = 0;
    for (int32_t n = 0; n < list->dpretry; ++n) {
        const hbtick_t start = hbtick_now();
        if (!cnthb_startworkers(list, CNTHB_WK_DPWRITE))
            continue;
        hbsleep_ms(list->dpint);
        cnthb_thwlooptime(start, &maxloop);
    }

    for (int32_t n = 0; n < cnthb_dpthretry; ++n) {
        if (!anywriting(list)) {
            HBTH_EXIT(HBLOG_CNT, 0);
            return nullptr;
        }
        hbsleep_ms(cnthb_dpthwait);
    }
    HBLOG(HBLOG_CNT, HBLV_ERROR, "TIMEOUT(%d msec x %d):wait cnthb_dpwriteth", cnthb_dpthwait, cnthb_dpthretry);
    cnthb_cancelworkers(list, true);
    HBTH_EXIT(HBLOG_CNT, 0);
    return nullptr;
}

void *cnthb_dpwritethread(void *arg)
{
    auto *rsc = static_cast<cnthb_rsc *>(arg);
    cnthb_workerrun run(rsc, true);
    hbth_canceloff(HBLOG_CNT);

    cnthb_hbinf rec;
    cnthb_makedown(&rec);
    const auto cntno = static_cast<uint8_t>(rsc->list->mycntno);
    // A failed down write changes no state: the peers then time out.
    cnthb_countcall(rsc, true, cnthb_fwcall(rsc, [&] { return zemfw_sethbinf(cntno, &rec); }));
    run.finish("write");
    return nullptr;
}
