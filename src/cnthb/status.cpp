// Turning controller records and failed firmware calls into node and path
// states. Read workers of several paths, write workers and the time-out check
// all change states: each change runs whole under the table's statlock.
#include <cstring>

#include "cnthb/cnthbint.h"

namespace {

void cnthb_publishsv(const cnthb_rsc *rsc, const cnthb_node *node, int32_t stat)
{
    const int32_t r = shmnm_setrscsvstat(HB_KIND_CNTHB, rsc->name, node->pri, stat);
    if (r != 0)
        HBLOG(HBLOG_CNT, HBLV_ERROR, "shmnm_setrscsvstat(rsc:%s,nodeid:%d) failed(ret:%d)", rsc->name, node->pri, r);
}

// A new heartbeat from a node: online unless shared memory already shows it
// online (then only the gap is timed) or its node status forbids it.
void cnthb_newhb(cnthb_list *list, cnthb_rsc *rsc, cnthb_node *node)
{
    const hbtick_t prev = node->lastread;
    node->lastread = hbtick_now();
    if (hbsvstat_read(HBLOG_CNT, HB_KIND_CNTHB, rsc->name, node->pri) == SHMNM_SVSTAT_ONLINE) {
        delaywarn(2, rsc->name, node->name, prev, node->lastread, list->hbto, LOG_MSG_HBGAP);
        return;
    }
    int32_t hdstat = SHMNM_HDSTAT_PRESET;
    const int32_t r = shmnm_gethdstat(node->name, &hdstat);
    if (r != 0) {
        HBLOG(HBLOG_CNT, HBLV_ERROR, "shmnm_gethdstat(%s/node(%s(%d))) failed(ret:%d)", rsc->name, node->name, node->pri,
              r);
        hdstat = SHMNM_HDSTAT_OK;
    }
    if (hdstat != SHMNM_HDSTAT_OK) {
        HBLOG(HBLOG_CNT, HBLV_ERROR, " *** %s/node(%s(%d)) : ONLINE SKIP hdstat=%d ***", rsc->name, node->name, node->pri,
              hdstat);
        return;
    }
    cnthb_publishsv(rsc, node, SHMNM_SVSTAT_ONLINE);
    hbst(node->stat, static_cast<int32_t>(SHMNM_SVSTAT_ONLINE));
    HBLOG(HBLOG_CNT, HBLV_ERROR, " *** %s/node(%s(%d)) : ONLINE ***", rsc->name, node->name, node->pri);
    cnthb_setrscstat(list, rsc);
    cnthb_statchange();
}

// A down notice: the node shuts down in order, offline at once.
void cnthb_newdown(cnthb_list *list, cnthb_rsc *rsc, cnthb_node *node)
{
    if (hbsvstat_read(HBLOG_CNT, HB_KIND_CNTHB, rsc->name, node->pri) == SHMNM_SVSTAT_OFFLINE)
        return;
    HBLOG(HBLOG_CNT, HBLV_ERROR, "DOWNPACKET read(%s,%s(%d))", rsc->name, node->name, node->pri);
    cnthb_publishsv(rsc, node, SHMNM_SVSTAT_OFFLINE);
    hbst(node->stat, static_cast<int32_t>(SHMNM_SVSTAT_OFFLINE));
    HBLOG(HBLOG_CNT, HBLV_ERROR, " *** %s/node(%s(%d)) : OFFLINE ***", rsc->name, node->name, node->pri);
    node->lastrec.tag[0] = '\0';
    cnthb_setrscstat(list, rsc);
    cnthb_statchange();
}

} // namespace

void cnthb_statchange()
{
    const int32_t r = sem_set_statchange();
    if (r != 0)
        HBLOG(HBLOG_CNT, HBLV_ERROR, "sem_set_statchange() failed(ret:%d)", r);
}

void cnthb_takeoffline(cnthb_list *list, cnthb_rsc *rsc, cnthb_node *node)
{
    cnthb_publishsv(rsc, node, SHMNM_SVSTAT_OFFLINE);
    const int32_t r = shmnm_setnonvolstat(SHMNM_NONVOL_NOTREADY);
    if (r != 0)
        HBLOG(HBLOG_CNT, HBLV_ERROR, "shmnm_setnonvolstat SHMNM_NONVOL_NOTREADY failed(ret:%d)", r);
    hbst(node->stat, static_cast<int32_t>(SHMNM_SVSTAT_OFFLINE));
    HBLOG(HBLOG_CNT, HBLV_ERROR, " *** %s/node(%s(%d)) : OFFLINE ***", rsc->name, node->name, node->pri);
    // The node's next record only primes the comparison again.
    node->lastrec.tag[0] = '\0';
    cnthb_setrscstat(list, rsc);
}

int32_t cnthb_hbdata(cnthb_list *list, cnthb_rsc *rsc, cnthb_node *node, cnthb_hbinf *rec)
{
    const int kind = cnthb_rectag(rec);
    if (kind == CNTHB_REC_NONE)
        return 8;
    hblock hold(&list->statlock);
    if (node->lastrec.tag[0] == '\0') {
        node->lastrec = *rec; // the first record seen only primes
        return 0;
    }
    if (cnthb_samestamp(rec, &node->lastrec))
        return 0;
    node->lastrec = *rec;
    if (kind == CNTHB_REC_HB)
        cnthb_newhb(list, rsc, node);
    else
        cnthb_newdown(list, rsc, node);
    return 0;
}

int32_t cnthb_setrscstat(cnthb_list *list, cnthb_rsc *rsc)
{
    return hbpath_set(HBLOG_CNT, HB_KIND_CNTHB, rsc->name, &rsc->stat, list->curnode, list->ownpri,
                      [rsc](int32_t j) { return cnthb_nodeat(rsc, j); },
                      "shmnm_cnthb_setrscstat(CNTHB,%s,%d) failed(ret:%d)");
}

int32_t cnthb_seterrstat(cnthb_list *list, int32_t kind)
{
    if (kind != CNTHB_ERR_READ && kind != CNTHB_ERR_WRITE)
        return 0;
    // A failed write concerns only the slot this node writes: its own.
    cnthb_offlinepass(list, [&](cnthb_rsc *, cnthb_node *node) {
        return kind == CNTHB_ERR_READ || node->cntno == list->mycntno;
    });
    return 0;
}
