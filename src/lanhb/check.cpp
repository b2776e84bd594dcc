// Time-outs of silent nodes, the watcher thread, and the exit handlers and
// cancellation switches of the LAN threads.
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "frame/frame.h"
#include "lanhb/lanhb.h"
#include "services/services.h"

namespace {

char RET_OK[] = "0";

void setcancel(int state, const char *failmsg)
{
    int old = 0;
    const int r = pthread_setcancelstate(state, &old);
    if (r != 0)
        HBLOG(HBLOG_LAN, 1, failmsg, r, errno);
}

// Takes one node OFFLINE when it has been silent past the limit. Runs under
// the table's lock, so a heartbeat evaluated just before is seen here.
bool timeout(lanhb_list *list, lanhb_rsc *rsc, lanhb_node *node, hbtick_t limit, int32_t scaled)
{
    pthread_mutex_lock(&list->statmx);
    bool out = false;
    if (lanhb_ld(node->stat) == SHMNM_SVSTAT_ONLINE) {
        const hbtick_t cur = hbtick_now();
        const hbtick_t last = lanhb_ld(node->lastrecv);
        const hbtick_t diff = cur - last;
        if (diff > limit) {
            HBLOG(HBLOG_LAN, 1, "**TIMEOUT(cur:0x%08x,last:0x%08x,diff:%d,hbto:%d,tck:%d/sec)",
                  static_cast<unsigned>(cur), static_cast<unsigned>(last),
                  static_cast<int>(std::min<hbtick_t>(diff, INT_MAX)), scaled, static_cast<int>(tckconf));
            const int32_t r = shmnm_setrscsvstat(HB_KIND_LANHB, rsc->name, node->pri, SHMNM_SVSTAT_OFFLINE);
            if (r != 0)
                HBLOG(HBLOG_LAN, 1, "shmnm_setrscsvstat(rsc:%s,nodeid:%d) failed(ret:%d)", rsc->name, node->pri,
                      r);
            lanhb_st(node->stat, SHMNM_SVSTAT_OFFLINE);
            HBLOG(HBLOG_LAN, 1, " *** %s/node(%s(%d)) : OFFLINE ***", rsc->name, node->name, node->pri);
            lanhb_setrscstat(list, rsc);
            out = true;
        }
    }
    pthread_mutex_unlock(&list->statmx);
    return out;
}

} // namespace

void lanhb_cancelon() { setcancel(PTHREAD_CANCEL_ENABLE, "pthread_setcancelstate(ENABLE) failed(ret:%d,errno:%d)"); }

void lanhb_canceloff()
{
    setcancel(PTHREAD_CANCEL_DISABLE, "pthread_setcancelstate(DISABLE) failed(ret:%d,errno:%d)");
}

void lanhb_testcancel()
{
    lanhb_cancelon();
    pthread_testcancel();
    lanhb_canceloff();
}

void lanhb_sleepms(int32_t ms)
{
    for (int32_t left = ms;; left -= LANHB_WAITSLICE_MS) {
        lanhb_testcancel();
        if (left <= 0)
            return;
        const int32_t slice = std::min(left, LANHB_WAITSLICE_MS);
        struct timespec ts = {slice / 1000, static_cast<long>(slice % 1000) * 1000000L};
        while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
        }
    }
}

int32_t lanhb_hbcheck(lanhb_list *list)
{
    int32_t ratio = 0, second = 0;
    const int32_t r = shmcm_getratio(&ratio, &second);
    if (r != 0)
        HBLOG(HBLOG_LAN, 1, "shmcm_getratio() failed(ret:%d)", r);
    int32_t scaled = 0;
    const hbtick_t limit = hbtimeout_limit(list->hbto, ratio, &scaled);

    bool changed = false;
    for (int32_t i = 0; i < list->currsc; ++i) {
        lanhb_rsc *rsc = lanhb_getrsc(list, i);
        for (int32_t j = 0; j < list->curnode; ++j) {
            lanhb_node *node = lanhb_rscnode(rsc, j);
            if (lanhb_ld(node->stat) == SHMNM_SVSTAT_ONLINE && timeout(list, rsc, node, limit, scaled))
                changed = true;
        }
    }
    if (changed) {
        const int32_t rs = sem_set_statchange();
        if (rs != 0)
            HBLOG(HBLOG_LAN, 1, "sem_set_statchange() failed(ret:%d)", rs);
    }
    return 0;
}

void lanhb_sendthexit(void *) { HBLOG(HBLOG_LAN, 4, "lanhb_hbsend() exit"); }
void lanhb_recvthexit(void *) { HBLOG(HBLOG_LAN, 4, "lanhb_hbrecv() exit"); }
void lanhb_watchthexit(void *) { HBLOG(HBLOG_LAN, 4, "lanhb_hbwatch() exit"); }

void *lanhb_hbwatch(void *arg)
{
    lanhb_list *list = static_cast<lanhb_list *>(arg);
    HBLOG(HBLOG_LAN, 4, "<<< ENTER >>>");
    pthread_cleanup_push(lanhb_watchthexit, nullptr);
    lanhb_canceloff();
    hbtick_t maxloop = 0;
    for (;;) {
        const hbtick_t t0 = hbtick_now();
        lanhb_testcancel();
        if (bsigrecv.load() != 0)
            break;
        lanhb_sleepms(list->hbint);
        // A check is never cancelled half-way.
        lanhb_hbcheck(list);
        lanhb_thwlooptime(t0, &maxloop);
    }
    HBLOG(HBLOG_LAN, 1, "SIGUSR1 already received");
    HBLOG(HBLOG_LAN, 4, "<<< EXIT >>> : 0x%08lx", 0L);
    pthread_cleanup_pop(1);
    return RET_OK;
}
