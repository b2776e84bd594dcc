// Controller status evaluation: records read from the controller and failed
// firmware calls turned into node and path states. The rules are the
// node-state layer's; what is the controller's own is the record priming (a
// node's first record, and its first after going offline, only primes the
// comparison) and which nodes a failed call concerns.
#include "cnthb/worker.h"

int32_t cnthb_hbdata(cnthb_list *list, cnthb_rsc *rsc, cnthb_node *node, cnthb_hbinf *rec)
{
    const int kind = cnthb_rectag(rec);
    if (kind == CNTHB_REC_NONE)
        return 8;
    const hbnoderef n = cnthb_shape::ref(list, rsc, node);
    hblock hold(&list->statlock);
    if (node->lastrec.tag[0] == '\0') {
        node->lastrec = *rec;
        return 0;
    }
    if (cnthb_samestamp(rec, &node->lastrec))
        return 0;
    node->lastrec = *rec;
    if (kind == CNTHB_REC_HB)
        hbnode_heartbeat(CNTHB_KIND, n, list->hbto);
    else
        hbnode_down(CNTHB_KIND, n);
    return 0;
}

int32_t cnthb_setrscstat(cnthb_list *list, cnthb_rsc *rsc)
{
    return hbpath_set<cnthb_shape>(CNTHB_KIND, list, rsc);
}

void cnthb_forget(void *node)
{
    static_cast<cnthb_node *>(node)->lastrec.tag[0] = '\0';
}

int32_t cnthb_seterrstat(cnthb_list *list, int32_t kind)
{
    if (kind != CNTHB_ERR_READ && kind != CNTHB_ERR_WRITE)
        return 0;
    // All paths read the same controller; a failed write concerns only the
    // slot this node writes: its own.
    const bool read = kind == CNTHB_ERR_READ;
    hbstate_pass(cnthb_shape::table(CNTHB_KIND, list), read ? HBCAUSE_READFAIL : HBCAUSE_WRITEFAIL,
                 [&](const hbnoderef &n) { return read || static_cast<cnthb_node *>(n.node)->cntno == list->mycntno; });
    return 0;
}
