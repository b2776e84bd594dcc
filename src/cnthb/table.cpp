// The controller table: building it at start-up from the configuration and
// the node manager, with the first states of every node, and releasing it at
// exit; the controller heartbeat's hbkind.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "cnthb/worker.h"

namespace {

constexpr int32_t DEF_DPINT = 100; // also the lowest interval taken
constexpr hbsetting SET_MAXRSC = {"/root/all/num/hbr", 16};
constexpr hbsetting SET_DPINT = {
    "/root/cluster/downpacket/interval",
    DEF_DPINT,
    {{.lo = 0, .to = DEF_DPINT, .msg = "invalid DPINT(%d). set to %d msec."},
     {.lo = DEF_DPINT, .to = DEF_DPINT, .msg = "small DPINT(%d). set to %d msec.", .level = HBLV_DETAIL}}};
constexpr hbsetting SET_WATCHTH = {"/root/cnthb/watchth", CNTHB_DEF_BWATCHTH};
constexpr hbsetting SET_DPTHWAIT = {"/root/cnthb/downpacket/wait",
                                          CNTHB_DEF_DPTHWAIT,
                                          {{.lo = 0, .to = CNTHB_DEF_DPTHWAIT, .msg = "invalid DPTHWAIT(%d). set to %d."}}};
constexpr hbsetting SET_DPTHRETRY = {
    "/root/cnthb/downpacket/retry",
    CNTHB_DEF_DPTHRETRY,
    {{.lo = 0, .to = CNTHB_DEF_DPTHRETRY, .msg = "invalid DPTHRETRY(%d). set to %d."}}};
constexpr hbsetting SET_RWLOCK = {"/root/cnthb/rwlock", 0};

} // namespace

// Given their values by cnthb_reset, at start-up as in the tests, so each
// is written down once.
std::atomic<int32_t> cnthb_bhbwrite, cnthb_bwatchth;
uint8_t cnthb_mycntno;
int32_t cnthb_dpthwait, cnthb_dpthretry;
int32_t cnthb_warnrate;

// The controller heartbeat as the node-state layer and delaywarn see it.
const hbkind CNTHB_KIND = {
    .number = 2, .name = HB_KIND_CNTHB, .module = HBLOG_CNT, .hdmodule = HBLOG_CNT,
    .downline = "DOWNPACKET read(%s,%s(%d))", .rscfail = "shmnm_cnthb_setrscstat(CNTHB,%s,%d) failed(ret:%d)",
    .notready = true, // a time-out or a failed firmware call marks the node manager not ready
    .unreadable = 0,  // a state unreadable at resume counts for nothing in its path's state
    .warnrate = &cnthb_warnrate, .ownops = {LOG_MSG_CNTWRITE, LOG_MSG_CNTREAD},
    // A node taken offline has its last record forgotten.
    .table = cnthb_shape::ops<cnthb_setrscstat>(cnthb_forget),
};

void cnthb_reset()
{
    cnthb_bhbwrite.store(0);
    cnthb_bwatchth.store(CNTHB_DEF_BWATCHTH);
    cnthb_mycntno = 0;
    cnthb_dpthwait = CNTHB_DEF_DPTHWAIT;
    cnthb_dpthretry = CNTHB_DEF_DPTHRETRY;
    cnthb_ctimedummy.store(0);
    cnthb_warnrate = HB_DEF_WARNRATE;
}

namespace {

const bool initialised = (cnthb_reset(), true);

// How long cnthb_freelist waits for cancelled workers to unwind.
constexpr int FREE_WAIT_STEPS = 300;
constexpr int32_t FREE_WAIT_MS = 10;

// The settings of the header, read under the policies "all", "cluster" and
// "cnthb" (first load). Returns 0 or 9.
int32_t loadkeys(hbcommon *c)
{
    if (const int32_t r = hbcfg_common(HBLOG_CNT, SET_MAXRSC, SET_DPINT, "cluster", {}, nullptr, c))
        return r;
    cnthb_warnrate = c->warnrate;
    if (hbcfg_load(HBLOG_CNT, HB_KIND_CNTHB, "cnthb") != 0)
        return HBRET_POLICY;
    cnthb_bwatchth.store(hbcfg_read(HBLOG_CNT, SET_WATCHTH));
    loadstacksz(HBLOG_CNT, "/root/cnthb/thread/stacksize");
    hbcfg_unload(HBLOG_CNT, HB_KIND_CNTHB, "cnthb");
    return 0;
}

// The down-write settings and the lock switch, from the second load of
// "cnthb"; a policy that cannot be loaded leaves the defaults.
void loadlate(cnthb_list *list)
{
    cnthb_dpthwait = CNTHB_DEF_DPTHWAIT;
    cnthb_dpthretry = CNTHB_DEF_DPTHRETRY;
    list->rwlock = 0;
    if (hbcfg_load(HBLOG_CNT, HB_KIND_CNTHB, "cnthb") != 0)
        return;
    cnthb_dpthwait = hbcfg_read(HBLOG_CNT, SET_DPTHWAIT);
    cnthb_dpthretry = hbcfg_read(HBLOG_CNT, SET_DPTHRETRY);
    list->rwlock = hbcfg_read(HBLOG_CNT, SET_RWLOCK);
    hbcfg_unload(HBLOG_CNT, HB_KIND_CNTHB, "cnthb");
}

// Allocates the zeroed block and links every record to the table and its
// path, whatever the second enumerations later fill in.
cnthb_list *alloclist(int32_t currsc, int32_t curnode)
{
    const size_t rscsize = sizeof(cnthb_rsc) + static_cast<size_t>(curnode) * sizeof(cnthb_node);
    const size_t limit = static_cast<size_t>(INT32_MAX);
    size_t total = 0;
    if (static_cast<size_t>(currsc) <= (limit - sizeof(cnthb_list)) / rscsize)
        total = sizeof(cnthb_list) + static_cast<size_t>(currsc) * rscsize;
    cnthb_list *list = total != 0 ? static_cast<cnthb_list *>(std::calloc(1, total)) : nullptr;
    if (list == nullptr) {
        HBLOG(HBLOG_CNT, HBLV_ERROR, "malloc(%d) failed(errno:%d)", total != 0 ? static_cast<int>(total) : -1,
              total != 0 ? errno : ENOMEM);
        return nullptr;
    }
    list->curnode = curnode;
    list->currsc = currsc;
    pthread_mutex_init(&list->statlock, nullptr);
    for (int32_t i = 0; i < currsc; ++i) {
        cnthb_rsc *rsc = cnthb_rscat(list, i);
        rsc->list = list;
        for (int32_t j = 0; j < curnode; ++j) {
            cnthb_nodeat(rsc, j)->list = list;
            cnthb_nodeat(rsc, j)->rsc = rsc;
        }
    }
    return list;
}

void destroylist(cnthb_list *list)
{
    if (list->rwlock != 0)
        for (int32_t i = 0; i < list->currsc; ++i)
            pthread_mutex_destroy(&cnthb_rscat(list, i)->rwmutex);
    pthread_mutex_destroy(&list->statlock);
    std::free(list);
}

struct listfree {
    void operator()(cnthb_list *list) const { destroylist(list); }
};

// Names and priorities of paths and nodes, in enumeration order, each node's
// controller slot and each path's highest node priority (at least 0).
int32_t fillnames(cnthb_list *list)
{
    const int32_t peercntno = cnthb_mycntno == 0 ? 1 : 0;
    const hbwhere at{};
    return cnthb_shape::names(
        HBLOG_CNT, HB_KIND_CNTHB, list,
        [&](cnthb_rsc *rsc, cnthb_node *node) {
            node->cntno = std::strcmp(node->name, list->hostname) == 0 ? cnthb_mycntno : peercntno;
            HBLOG_AT(at, HBLOG_CNT, HBLV_ERROR, "rsc:%s(pri:%d),node:%s(pri:%d,cntno:%d)", rsc->name, rsc->pri,
                     node->name, node->pri, node->cntno);
            rsc->maxnodepri = std::max(rsc->maxnodepri, node->pri);
        },
        [&](cnthb_rsc *rsc) { HBLOG_AT(at, HBLOG_CNT, HBLV_DETAIL, "rsc:%s(max nodepri:%d)", rsc->name, rsc->maxnodepri); },
        at);
}

// Normal start: every node OFFLINE until its records are seen to change.
// Resume: the states of shared memory stay in force, timed from now.
void initstates(cnthb_list *list, bool resume)
{
    for (int32_t i = 0; i < list->currsc; ++i) {
        cnthb_rsc *rsc = cnthb_rscat(list, i);
        for (int32_t j = 0; j < list->curnode; ++j) {
            const hbnoderef n = cnthb_shape::ref(list, rsc, cnthb_nodeat(rsc, j));
            if (resume)
                hbnode_resume(CNTHB_KIND, n); // an online peer keeps its state, with a full time-out
            else
                hbnode_keep(n, SHMNM_SVSTAT_OFFLINE);
            hbnode_publish(CNTHB_KIND, n, resume ? HBCAUSE_RESUME : HBCAUSE_START);
        }
    }
}

} // namespace

int32_t cnthb_loadinfo(cnthb_list **out)
{
    const hbrelease rel = hbcfg_release(HBLOG_CNT);
    hbcommon keys{};
    if (int32_t rk = loadkeys(&keys))
        return rk;

    int32_t counts[2] = {};
    if (int32_t re = hbcfg_counts(HBLOG_CNT, HB_KIND_CNTHB, &counts[0], &counts[1]))
        return re;

    std::unique_ptr<cnthb_list, listfree> hold(alloclist(counts[0], counts[1]));
    if (!hold)
        return HBRET_NOMEM;
    cnthb_list *list = hold.get();

    char host[XMLLIB_HOSTNAME_SIZE] = {};
    if (int32_t ro = hbcfg_ownnode(HBLOG_CNT, host, sizeof host, &list->ownpri))
        return ro;

    char cluster[sizeof list->clustername] = {};
    int32_t len = sizeof cluster;
    int32_t r = xmllib_get_value("/root/cluster/name", XMLLIB_KIND_TEXT, cluster, &len);
    if (r != 0) {
        HBLOG(HBLOG_CNT, HBLV_ERROR, "xmllib_get_value(%s) failed(ret:%d)", "/root/cluster/name", r);
        hbcopytext(cluster, sizeof cluster, "unknown");
    }
    cluster[sizeof cluster - 1] = '\0';

    list->mycntno = cnthb_mycntno;
    list->take(keys, list->ownpri);
    hbcopytext(list->hostname, sizeof list->hostname, host);
    hbcopytext(list->edition, sizeof list->edition, rel.edition);
    hbcopytext(list->version, sizeof list->version, rel.version);
    hbcopytext(list->clustername, sizeof list->clustername, cluster);
    HBLOG(HBLOG_CNT, HBLV_DETAIL, "maxnode:%d,maxrsc:%d", list->maxnode, list->maxrsc);
    hbcfg_logcommon(HBLOG_CNT, keys, list->currsc, list->curnode, "cnthb_warnrate");

    if (int32_t rf = fillnames(list))
        return rf;

    // Only this action resumes the controller table; the LAN table also
    // resumes on SHMCM_ACTION_RESUME_A.
    const bool resume = hbcfg_resume(HBLOG_CNT, {SHMCM_ACTION_RESUME_B});
    hbkind_set(&CNTHB_KIND);
    initstates(list, resume);
    hbstate_paths(cnthb_shape::table(CNTHB_KIND, list));

    loadlate(list);
    if (list->rwlock != 0)
        for (int32_t i = 0; i < list->currsc; ++i)
            pthread_mutex_init(&cnthb_rscat(list, i)->rwmutex, nullptr);

    if (resume)
        hbstate_wake(CNTHB_KIND, HBCAUSE_RESUME);
    hbcount_track(cnthb_shape::table(CNTHB_KIND, list));
    *out = hold.release();
    return 0;
}

void cnthb_freelist(cnthb_list *list)
{
    if (list == nullptr)
        return;
    hbcount_untrack(list);
    // Workers cancelled at shutdown may still be unwinding; they hold
    // pointers into the block until their very last step.
    int32_t alive = hbld(list->nworkers);
    for (int i = 0; alive > 0 && i < FREE_WAIT_STEPS; ++i) {
        usleep(FREE_WAIT_MS * 1000);
        alive = hbld(list->nworkers);
    }
    if (alive > 0) {
        // A worker stuck for good in the controller: better a leak than a
        // worker writing into freed memory.
        HBLOG(HBLOG_CNT, HBLV_ERROR, "cnthb_freelist: %d worker(s) still running, table kept", alive);
        return;
    }
    destroylist(list);
}
