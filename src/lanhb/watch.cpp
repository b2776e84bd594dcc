// LAN time-outs of silent nodes and the watcher thread that checks them once
// per interval (without it, the receiver checks after every pass).
#include "frame/frame.h"
#include "frame/nodestate.h"
#include "frame/thread.h"
#include "lanhb/lanhb.h"

int32_t lanhb_hbcheck(lanhb_list *list) { return hbstate_check(lanhb_shape::table(LANHB_KIND, list)); }

void lanhb_watchthexit(void *) { HBLOG(HBLOG_LAN, HBLV_INFO, "lanhb_hbwatch() exit"); }

int32_t lanhb_thwlooptime(hbtick_t start, hbtick_t *max) { return hblooptime(start, max); }

void *lanhb_hbwatch(void *arg)
{
    return hbth_watch(HBLOG_LAN, HBEXT_TH_LANWATCH, static_cast<lanhb_list *>(arg), lanhb_hbcheck, lanhb_thwlooptime, lanhb_watchthexit,
                      nullptr, const_cast<char *>(LANHB_EXITS[LANHB_EXIT_OK].text));
}
