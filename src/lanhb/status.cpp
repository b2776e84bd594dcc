// LAN status evaluation: an accepted heartbeat or down packet turned into the
// node's state on its path, and a path's overall state. The rules are the
// node-state layer's; this is where the LAN datagram meets them.
#include <cstring>

#include "frame/frame.h"
#include "frame/nodestate.h"
#include "frame/thread.h"
#include "lanhb/lanhb.h"
#include "services/services.h"

int32_t lanhb_hbdata(lanhb_list *list, lanhb_rsc *rsc, lanhb_node *node, lanhb_packet *pkt)
{
    const hbnoderef n = lanhb_shape::ref(list, rsc, node);
    hbcount_add(node->count[HBEXT_NC_ACCEPTED]);
    hblock hold(&list->statlock);
    // A down packet does not touch lastrecv.
    if (std::strncmp(pkt->tag, LANHB_TAG_DOWN, sizeof LANHB_TAG_DOWN - 1) == 0)
        hbnode_down(LANHB_KIND, n);
    else
        hbnode_heartbeat(LANHB_KIND, n, list->hbto);
    return 0;
}

int32_t lanhb_setrscstat(lanhb_list *list, lanhb_rsc *rsc)
{
    return hbpath_set<lanhb_shape>(LANHB_KIND, list, rsc);
}
