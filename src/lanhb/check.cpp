// Time-outs of silent nodes, the watcher thread, and the exit handlers of
// the LAN threads.
#include <algorithm>
#include <cerrno>
#include <climits>

#include "frame/frame.h"
#include "frame/thread.h"
#include "lanhb/lanhb.h"
#include "services/services.h"

namespace {

// Takes one node OFFLINE when it has been silent past the limit. Runs under
// the table's lock, so a heartbeat evaluated just before is seen here.
bool timeout(lanhb_list *list, lanhb_rsc *rsc, lanhb_node *node, hbtick_t limit, int32_t scaled)
{
    hblock hold(&list->statmx);
    bool out = false;
    if (hbld(node->stat) == SHMNM_SVSTAT_ONLINE) {
        const hbtick_t cur = hbtick_now();
        const hbtick_t last = hbld(node->lastrecv);
        const hbtick_t diff = cur - last;
        if (diff > limit) {
            HBLOG(HBLOG_LAN, HBLV_ERROR, "**TIMEOUT(cur:0x%08x,last:0x%08x,diff:%d,hbto:%d,tck:%d/sec)",
                  static_cast<unsigned>(cur), static_cast<unsigned>(last),
                  static_cast<int>(std::min<hbtick_t>(diff, INT_MAX)), scaled, static_cast<int>(tckconf));
            const int32_t r = shmnm_setrscsvstat(HB_KIND_LANHB, rsc->name, node->pri, SHMNM_SVSTAT_OFFLINE);
            if (r != 0)
                HBLOG(HBLOG_LAN, HBLV_ERROR, "shmnm_setrscsvstat(rsc:%s,nodeid:%d) failed(ret:%d)", rsc->name, node->pri,
                      r);
            hbst(node->stat, SHMNM_SVSTAT_OFFLINE);
            HBLOG(HBLOG_LAN, HBLV_ERROR, " *** %s/node(%s(%d)) : OFFLINE ***", rsc->name, node->name, node->pri);
            lanhb_setrscstat(list, rsc);
            out = true;
        }
    }
    return out;
}

} // namespace

int32_t lanhb_hbcheck(lanhb_list *list)
{
    int32_t ratio = 0, second = 0;
    const int32_t r = shmcm_getratio(&ratio, &second);
    if (r != 0)
        HBLOG(HBLOG_LAN, HBLV_ERROR, "shmcm_getratio() failed(ret:%d)", r);
    int32_t scaled = 0;
    const hbtick_t limit = hbtimeout_limit(list->hbto, ratio, &scaled);

    bool changed = false;
    for (int32_t i = 0; i < list->currsc; ++i) {
        lanhb_rsc *rsc = lanhb_getrsc(list, i);
        for (int32_t j = 0; j < list->curnode; ++j) {
            lanhb_node *node = lanhb_rscnode(rsc, j);
            if (hbld(node->stat) == SHMNM_SVSTAT_ONLINE && timeout(list, rsc, node, limit, scaled))
                changed = true;
        }
    }
    if (changed) {
        const int32_t rs = sem_set_statchange();
        if (rs != 0)
            HBLOG(HBLOG_LAN, HBLV_ERROR, "sem_set_statchange() failed(ret:%d)", rs);
    }
    return 0;
}

void lanhb_sendthexit(void *) { HBLOG(HBLOG_LAN, HBLV_INFO, "lanhb_hbsend() exit"); }
void lanhb_recvthexit(void *) { HBLOG(HBLOG_LAN, HBLV_INFO, "lanhb_hbrecv() exit"); }
void lanhb_watchthexit(void *) { HBLOG(HBLOG_LAN, HBLV_INFO, "lanhb_hbwatch() exit"); }

void *lanhb_hbwatch(void *arg)
{
    lanhb_list *list = static_cast<lanhb_list *>(arg);
    HBTH_ENTER(HBLOG_LAN);
    void *ret = nullptr;
    pthread_cleanup_push(lanhb_watchthexit, nullptr);
    hbth_watchloop(HBLOG_LAN, list->hbint, [list] { lanhb_hbcheck(list); }, lanhb_thwlooptime);
    ret = lanhb_exit(LANHB_EXIT_OK);
    pthread_cleanup_pop(1);
    return ret;
}
