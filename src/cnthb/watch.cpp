// Controller time-outs: nodes whose records stop changing are declared
// offline, in the reader's poller or in a watcher thread of their own.
#include "cnthb/worker.h"

int32_t cnthb_hbcheck(cnthb_list *list) { return hbstate_check(cnthb_shape::table(CNTHB_KIND, list)); }

void cnthb_watchthexit(void *)
{
    // The same fixed pause as the reader's and writer's clean-up, kept on
    // purpose; the watcher has no workers to wait for, so it only delays its
    // end line (all three pause side by side at a stop).
    hbsleep_ms(CNTHB_CLEANUP_MS);
    HBLOG(HBLOG_CNT, HBLV_DETAIL, "cnthb_hbwatch() exit");
}

int32_t cnthb_thmlooptime(hbtick_t start, hbtick_t *max) { return hblooptime(start, max); }

void *cnthb_hbwatch(void *arg)
{
    return hbth_watch(HBLOG_CNT, HBEXT_TH_CNTWATCH, static_cast<cnthb_list *>(arg), cnthb_hbcheck, cnthb_thmlooptime, cnthb_watchthexit,
                      arg, nullptr);
}
