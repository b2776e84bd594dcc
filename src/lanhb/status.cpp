// Turning accepted heartbeats and down packets into node and path states.
#include <cstring>

#include "frame/frame.h"
#include "frame/thread.h"
#include "lanhb/lanhb.h"
#include "services/services.h"

namespace {

// Publishes a node's new state, keeps it in the table whatever the node
// manager says, re-evaluates the path and wakes the cluster.
void changenode(lanhb_list *list, lanhb_rsc *rsc, lanhb_node *node, int32_t st, const char *word)
{
    const int32_t r = shmnm_setrscsvstat(HB_KIND_LANHB, rsc->name, node->pri, st);
    if (r != 0)
        HBLOG(HBLOG_LAN, HBLV_ERROR, "shmnm_setrscsvstat(rsc:%s,nodeid:%d) failed(ret:%d)", rsc->name, node->pri, r);
    hbst(node->stat, st);
    HBLOG(HBLOG_LAN, HBLV_ERROR, " *** %s/node(%s(%d)) : %s ***", rsc->name, node->name, node->pri, word);
    lanhb_setrscstat(list, rsc);
    const int32_t rs = sem_set_statchange();
    if (rs != 0)
        HBLOG(HBLOG_LAN, HBLV_ERROR, "sem_set_statchange() failed(ret:%d)", rs);
}

} // namespace

int32_t lanhb_hbdata(lanhb_list *list, lanhb_rsc *rsc, lanhb_node *node, lanhb_packet *pkt)
{
    if (std::strncmp(pkt->tag, LANHB_TAG_DOWN, sizeof LANHB_TAG_DOWN - 1) == 0) {
        hblock hold(&list->statmx);
        if (hbsvstat_read(HBLOG_LAN, HB_KIND_LANHB, rsc->name, node->pri) == SHMNM_SVSTAT_OFFLINE)
            return 0;
        HBLOG(HBLOG_LAN, HBLV_ERROR, "DOWNPACKET recv(%s,%s(%d))", rsc->name, node->name, node->pri);
        changenode(list, rsc, node, SHMNM_SVSTAT_OFFLINE, "OFFLINE");
        return 0;
    }

    hbtick_t prev, now;
    {
        hblock hold(&list->statmx);
        prev = hbld(node->lastrecv);
        now = hbtick_now();
        hbst(node->lastrecv, now);
        if (hbsvstat_read(HBLOG_LAN, HB_KIND_LANHB, rsc->name, node->pri) != SHMNM_SVSTAT_ONLINE) {
            int32_t hdstat = SHMNM_HDSTAT_PRESET;
            const int32_t r = shmnm_gethdstat(node->name, &hdstat);
            if (r != 0) {
                HBLOG(HBLOG_CNT, HBLV_ERROR, "shmnm_gethdstat(%s/node(%s(%d))) failed(ret:%d)", rsc->name, node->name,
                      node->pri, r);
            } else if (hdstat != SHMNM_HDSTAT_OK) {
                // The controller log, not the LAN log, by design: the
                // hardware-state lines (the failure above and this skip)
                // belong there. Not a slip; keep the module.
                HBLOG(HBLOG_CNT, HBLV_ERROR, " *** %s/node(%s(%d)) : ONLINE SKIP hdstat=%d ***", rsc->name, node->name,
                      node->pri, hdstat);
                return 0;
            }
            changenode(list, rsc, node, SHMNM_SVSTAT_ONLINE, "ONLINE");
            return 0;
        }
    }
    // Already online: only the gap since the previous heartbeat is judged.
    delaywarn(1, rsc->name, node->name, prev, now, list->hbto, LOG_MSG_HBGAP);
    return 0;
}

int32_t lanhb_setrscstat(lanhb_list *list, lanhb_rsc *rsc)
{
    return hbpath_set(HBLOG_LAN, HB_KIND_LANHB, rsc->name, &rsc->stat, list->curnode, list->ownpri,
                      [rsc](int32_t j) { return lanhb_rscnode(rsc, j); }, "shmnm_setrscstat(LANHB,%s,%d) failed(ret:%d)");
}
