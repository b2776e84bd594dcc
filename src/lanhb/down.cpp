// The LAN down packets of an orderly stop: a few bursts of "hbdown"
// datagrams to every peer of every path, so that the peers take this node
// offline at once instead of waiting for their time-out.
#include "frame/frame.h"
#include "frame/thread.h"
#include "lanhb/lanhb.h"
#include "services/services.h"

void *lanhb_dpsend(void *arg)
{
    lanhb_list *list = static_cast<lanhb_list *>(arg);
    HBTH_ENTER(HBLOG_LAN);
    const lanhb_ports pt(list);
    lanhb_pktptr pkt = lanhb_newpacket(list, LANHB_TAG_DOWN);
    if (!pkt)
        return lanhb_exit(LANHB_EXIT_NOMEM);
    const size_t len = lanhb_pktlen(list->maxnode);
    hbtick_t maxloop = 0;
    for (int32_t n = 0; n < list->dpretry; ++n) {
        const hbtick_t t0 = hbtick_now();
        lanhb_pktnodeinf(pkt.get(), list, false);
        HBLOG(HBLOG_LAN, HBLV_ERROR, "lanhb_plist->currsc=%d", list->currsc);
        lanhb_sendround(list, pkt.get(), len, pt, false);
        // The stop has been raised by now: this pause must not end on it.
        hbsleep_ms(list->dpint);
        lanhb_thslooptime(t0, &maxloop);
    }
    pkt.reset();
    return lanhb_exit(LANHB_EXIT_OK);
}
