// Time-outs: nodes whose records stop changing are declared offline, in the
// reader's poller or in a watcher thread of their own.
#include "cnthb/cnthbint.h"

namespace {

// True when the node has been silent past the limit, which is then logged.
// A function of its own, so that the record names it and not a lambda.
bool cnthb_timedout(const cnthb_node *node, hbtick_t limit, int32_t scaled)
{
    const hbtick_t now = hbtick_now();
    const hbtick_t silence = now - node->lastread;
    if (silence <= limit)
        return false;
    HBLOG(HBLOG_CNT, HBLV_ERROR, "**TIMEOUT(cur:0x%08x,last:0x%08x,diff:%d,hbto:%d,tck:%d/sec)",
          static_cast<unsigned>(now), static_cast<unsigned>(node->lastread), static_cast<int>(silence), scaled,
          static_cast<int>(tckconf));
    return true;
}

} // namespace

int32_t cnthb_hbcheck(cnthb_list *list)
{
    int32_t ratio = 0;
    int32_t second = 0;
    const int32_t r = shmcm_getratio(&ratio, &second);
    if (r != 0) {
        HBLOG(HBLOG_CNT, HBLV_ERROR, "shmcm_getratio() failed(ret:%d)", r);
        ratio = 0; // counts as 1
    }
    int32_t scaled = 0;
    const hbtick_t limit = hbtimeout_limit(list->hbto, ratio, &scaled);

    cnthb_offlinepass(list, [&](cnthb_rsc *, cnthb_node *node) { return cnthb_timedout(node, limit, scaled); });
    return 0;
}

void cnthb_watchthexit(void *)
{
    // The same fixed pause as the reader's and writer's clean-up, kept on
    // purpose; the watcher has no workers to wait for, so it only delays its
    // end line (all three pause side by side at a stop).
    hbsleep_ms(CNTHB_CLEANUP_MS);
    HBLOG(HBLOG_CNT, HBLV_DETAIL, "cnthb_hbwatch() exit");
}

void *cnthb_hbwatch(void *arg)
{
    auto *list = static_cast<cnthb_list *>(arg);
    HBTH_ENTER(HBLOG_CNT);
    pthread_cleanup_push(cnthb_watchthexit, list);
    hbth_watchloop(HBLOG_CNT, list->hbint, [list] { cnthb_hbcheck(list); }, cnthb_thmlooptime);
    HBTH_EXIT(HBLOG_CNT, 0);
    pthread_cleanup_pop(1);
    return nullptr;
}
