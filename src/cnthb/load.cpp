// Building the controller table at start-up, and releasing it at exit.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "cnthb/cnthbint.h"

namespace {

constexpr int32_t CNTHB_DEF_DPINT = 100; // also the lowest interval taken
constexpr hbsetting CNTHB_SET_MAXRSC = {"/root/all/num/hbr", 16};
constexpr hbsetting CNTHB_SET_DPINT = {
    "/root/cluster/downpacket/interval",
    CNTHB_DEF_DPINT,
    {{.lo = 0, .to = CNTHB_DEF_DPINT, .msg = "invalid DPINT(%d). set to %d msec."},
     {.lo = CNTHB_DEF_DPINT, .to = CNTHB_DEF_DPINT, .msg = "small DPINT(%d). set to %d msec.", .level = HBLV_DETAIL}}};
constexpr hbsetting CNTHB_SET_WATCHTH = {"/root/cnthb/watchth", CNTHB_DEF_BWATCHTH};
constexpr hbsetting CNTHB_SET_DPTHWAIT = {"/root/cnthb/downpacket/wait",
                                          CNTHB_DEF_DPTHWAIT,
                                          {{.lo = 0, .to = CNTHB_DEF_DPTHWAIT, .msg = "invalid DPTHWAIT(%d). set to %d."}}};
constexpr hbsetting CNTHB_SET_DPTHRETRY = {
    "/root/cnthb/downpacket/retry",
    CNTHB_DEF_DPTHRETRY,
    {{.lo = 0, .to = CNTHB_DEF_DPTHRETRY, .msg = "invalid DPTHRETRY(%d). set to %d."}}};
constexpr hbsetting CNTHB_SET_RWLOCK = {"/root/cnthb/rwlock", 0};

} // namespace

// Given their values by cnthb_reset, at start-up as in the tests, so each
// is written down once.
std::atomic<int32_t> cnthb_bhbwrite, cnthb_bwatchth;
uint8_t cnthb_mycntno;
int32_t cnthb_dpthwait, cnthb_dpthretry;

void cnthb_reset()
{
    cnthb_bhbwrite.store(0);
    cnthb_bwatchth.store(CNTHB_DEF_BWATCHTH);
    cnthb_mycntno = 0;
    cnthb_dpthwait = CNTHB_DEF_DPTHWAIT;
    cnthb_dpthretry = CNTHB_DEF_DPTHRETRY;
    cnthb_ctimedummy.store(0);
}

static const bool cnthb_initialised = (cnthb_reset(), true);

namespace {

// How long cnthb_freelist waits for cancelled workers to unwind.
constexpr int CNTHB_FREE_WAIT_STEPS = 300;
constexpr int32_t CNTHB_FREE_WAIT_MS = 10;

int32_t cnthb_loadpolicy(const char *policy, const char *name)
{
    const int32_t r = xmllib_load_policy(policy);
    if (r != 0)
        HBLOG(HBLOG_CNT, HBLV_ERROR, "xmllib_load_policy(%s) failed(ret:%d)", name, r);
    return r;
}

void cnthb_unloadpolicy(const char *policy, const char *name)
{
    const int32_t r = xmllib_unload_policy(policy);
    if (r != 0)
        HBLOG(HBLOG_CNT, HBLV_ERROR, "xmllib_unload_policy(%s) failed(ret:%d)", name, r);
}

// The key settings of the header, read under the policies "all", "cluster"
// and "cnthb" (first load). Returns 0 or 9.
int32_t cnthb_loadkeys(cnthb_list *hdr)
{
    if (cnthb_loadpolicy("all", "all") != 0)
        return HBRET_POLICY;
    hdr->maxnode = hbcfg_read(HBLOG_CNT, HB_SET_MAXNODE);
    hdr->maxrsc = hbcfg_read(HBLOG_CNT, CNTHB_SET_MAXRSC);
    cnthb_unloadpolicy("all", "all");

    if (cnthb_loadpolicy("cluster", "cluster") != 0)
        return HBRET_POLICY;
    (void)hbcfg_read(HBLOG_CNT, HB_SET_MISMATCH); // read for its message only
    hdr->mismatch = 0;
    hdr->hbto = hbcfg_read(HBLOG_CNT, HB_SET_HBTO);
    hdr->hbint = hbcfg_read(HBLOG_CNT, HB_SET_HBINT);
    cnthb_warnrate = hbcfg_read(HBLOG_CNT, HB_SET_WARNRATE);
    hdr->dpint = hbcfg_read(HBLOG_CNT, CNTHB_SET_DPINT);
    hdr->dpretry = hbcfg_read(HBLOG_CNT, HB_SET_DPRETRY);
    cnthb_unloadpolicy("cluster", "nm");

    if (cnthb_loadpolicy(HB_KIND_CNTHB, "cnthb") != 0)
        return HBRET_POLICY;
    cnthb_bwatchth.store(hbcfg_read(HBLOG_CNT, CNTHB_SET_WATCHTH));
    loadstacksz(HBLOG_CNT, "/root/cnthb/thread/stacksize");
    cnthb_unloadpolicy(HB_KIND_CNTHB, "cnthb");
    return 0;
}

// The down-write settings and the lock switch, from the second load of
// "cnthb"; a policy that cannot be loaded leaves the defaults.
void cnthb_loadlate(cnthb_list *list)
{
    cnthb_dpthwait = CNTHB_DEF_DPTHWAIT;
    cnthb_dpthretry = CNTHB_DEF_DPTHRETRY;
    list->rwlock = 0;
    if (cnthb_loadpolicy(HB_KIND_CNTHB, "cnthb") != 0)
        return;
    cnthb_dpthwait = hbcfg_read(HBLOG_CNT, CNTHB_SET_DPTHWAIT);
    cnthb_dpthretry = hbcfg_read(HBLOG_CNT, CNTHB_SET_DPTHRETRY);
    list->rwlock = hbcfg_read(HBLOG_CNT, CNTHB_SET_RWLOCK);
    cnthb_unloadpolicy(HB_KIND_CNTHB, "cnthb");
}

// Allocates the zeroed block and links every record to the table and its
// path, whatever the second enumerations later fill in.
cnthb_list *cnthb_alloclist(int32_t currsc, int32_t curnode)
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

void cnthb_destroylist(cnthb_list *list)
{
    if (list->rwlock != 0)
        for (int32_t i = 0; i < list->currsc; ++i)
            pthread_mutex_destroy(&cnthb_rscat(list, i)->rwmutex);
    pthread_mutex_destroy(&list->statlock);
    std::free(list);
}

struct cnthb_listfree {
    void operator()(cnthb_list *list) const { cnthb_destroylist(list); }
};

int32_t cnthb_fillrsc(cnthb_list *list)
{
    hbmsz names;
    if (int32_t r = hbcfg_enum(HBLOG_CNT, HB_KIND_CNTHB, true, &names))
        return r;
    int32_t i = 0;
    for (const char *p = mszfirst(names.get()); p != nullptr && i < list->currsc; p = msznext(p), ++i) {
        cnthb_rsc *rsc = cnthb_rscat(list, i);
        rsc->pri = hbcfg_namepri(HBLOG_CNT, HB_KIND_CNTHB, p, rsc->name, sizeof rsc->name);
    }
    return 0;
}

int32_t cnthb_fillnode(cnthb_list *list)
{
    hbmsz names;
    if (int32_t r = hbcfg_enum(HBLOG_CNT, HB_KIND_CNTHB, false, &names))
        return r;
    const int32_t peercntno = cnthb_mycntno == 0 ? 1 : 0;
    for (int32_t i = 0; i < list->currsc; ++i) {
        cnthb_rsc *rsc = cnthb_rscat(list, i);
        rsc->maxnodepri = 0;
        int32_t j = 0;
        for (const char *p = mszfirst(names.get()); p != nullptr && j < list->curnode; p = msznext(p), ++j) {
            cnthb_node *node = cnthb_nodeat(rsc, j);
            node->pri = hbcfg_namepri(HBLOG_CNT, nullptr, p, node->name, sizeof node->name);
            node->cntno = std::strcmp(node->name, list->hostname) == 0 ? cnthb_mycntno : peercntno;
            HBLOG(HBLOG_CNT, HBLV_ERROR, "rsc:%s(pri:%d),node:%s(pri:%d,cntno:%d)", rsc->name, rsc->pri, node->name,
                  node->pri, node->cntno);
            if (node->pri > rsc->maxnodepri)
                rsc->maxnodepri = node->pri;
        }
        HBLOG(HBLOG_CNT, HBLV_DETAIL, "rsc:%s(max nodepri:%d)", rsc->name, rsc->maxnodepri);
    }
    return 0;
}

void cnthb_publish(const cnthb_rsc *rsc, const cnthb_node *node)
{
    const int32_t r = shmnm_setrscsvstat(HB_KIND_CNTHB, rsc->name, node->pri, node->stat);
    if (r != 0)
        HBLOG(HBLOG_CNT, HBLV_ERROR, "shmnm_setrscsvstat(rsc:%s,nodeid:%d) failed(ret:%d)", rsc->name, node->pri, r);
}

// Normal start: every node OFFLINE until its records are seen to change.
// Resume: the states of shared memory stay in force, timed from now.
void cnthb_initstates(cnthb_list *list, bool resume)
{
    const hbtick_t now = hbtick_now();
    for (int32_t i = 0; i < list->currsc; ++i) {
        cnthb_rsc *rsc = cnthb_rscat(list, i);
        for (int32_t j = 0; j < list->curnode; ++j) {
            cnthb_node *node = cnthb_nodeat(rsc, j);
            if (resume) {
                int32_t stat = 0;
                const int32_t r = shmnm_getrscsvstat(HB_KIND_CNTHB, rsc->name, node->pri, &stat);
                if (r != 0) {
                    HBLOG(HBLOG_CNT, HBLV_ERROR, "shmnm_getrscsvstat(rsc:%s,nodeid:%d) failed(ret:%d)", rsc->name,
                          node->pri, r);
                    stat = 0;
                }
                node->stat = stat;
                node->lastread = now;
                HBLOG(HBLOG_CNT, HBLV_ERROR, " *** %s/node(%s(%d)) prev stat:0x%08x ***", rsc->name, node->name,
                      node->pri, static_cast<unsigned>(node->stat));
            } else {
                node->stat = SHMNM_SVSTAT_OFFLINE;
            }
            cnthb_publish(rsc, node);
        }
    }
}

} // namespace

int32_t cnthb_loadinfo(cnthb_list **out)
{
    const hbrelease rel = hbcfg_release(HBLOG_CNT);
    cnthb_list keys{};
    if (int32_t rk = cnthb_loadkeys(&keys))
        return rk;

    int32_t counts[2] = {};
    if (int32_t re = hbcfg_counts(HBLOG_CNT, HB_KIND_CNTHB, &counts[0], &counts[1]))
        return re;

    std::unique_ptr<cnthb_list, cnthb_listfree> hold(cnthb_alloclist(counts[0], counts[1]));
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
    list->maxnode = keys.maxnode;
    list->maxrsc = keys.maxrsc;
    list->mismatch = 0;
    list->hbto = keys.hbto;
    list->hbint = keys.hbint;
    list->dpint = keys.dpint;
    list->dpretry = keys.dpretry;
    hbcopytext(list->hostname, sizeof list->hostname, host);
    hbcopytext(list->edition, sizeof list->edition, rel.edition);
    hbcopytext(list->version, sizeof list->version, rel.version);
    hbcopytext(list->clustername, sizeof list->clustername, cluster);
    HBLOG(HBLOG_CNT, HBLV_DETAIL, "maxnode:%d,maxrsc:%d", list->maxnode, list->maxrsc);
    HBLOG(HBLOG_CNT, HBLV_DETAIL, "currsc:%d,curnode:%d", list->currsc, list->curnode);
    HBLOG(HBLOG_CNT, HBLV_DETAIL, "hbto:%d(msec),hbint:%d(msec),mismatch:%d,cnthb_warnrate:%d", list->hbto, list->hbint,
          list->mismatch, cnthb_warnrate);
    HBLOG(HBLOG_CNT, HBLV_DETAIL, "dpint:%d(msec),dpretry:%d", list->dpint, list->dpretry);

    if (int32_t rf = cnthb_fillrsc(list))
        return rf;
    if (int32_t rf = cnthb_fillnode(list))
        return rf;

    int32_t action = 0;
    char actinfo[SHMCM_ACTINFO_SIZE] = {};
    r = shmcm_getaction(&action, actinfo, nullptr);
    if (r != 0) {
        HBLOG(HBLOG_CNT, HBLV_ERROR, "shmcm_getaction() failed(ret:%d)", r);
        action = SHMCM_ACTION_UNREADABLE;
    }
    // Only this action resumes the controller table; the LAN table also
    // resumes on SHMCM_ACTION_RESUME_A.
    const bool resume = action == SHMCM_ACTION_RESUME_B || brestart == 1;
    if (resume)
        HBLOG(HBLOG_CNT, HBLV_ERROR, "change mode to resume(act:0x%08x)", static_cast<unsigned>(action));
    cnthb_initstates(list, resume);
    for (int32_t i = 0; i < list->currsc; ++i)
        cnthb_setrscstat(list, cnthb_rscat(list, i));

    cnthb_loadlate(list);
    if (list->rwlock != 0)
        for (int32_t i = 0; i < list->currsc; ++i)
            pthread_mutex_init(&cnthb_rscat(list, i)->rwmutex, nullptr);

    if (resume) {
        r = sem_set_statchange();
        if (r != 0)
            HBLOG(HBLOG_CNT, HBLV_ERROR, "sem_set_statchange() failed(ret:%d)", r);
    }
    *out = hold.release();
    return 0;
}

void cnthb_freelist(cnthb_list *list)
{
    if (list == nullptr)
        return;
    // Workers cancelled at shutdown may still be unwinding; they hold
    // pointers into the block until their very last step.
    int32_t alive = hbld(list->nworkers);
    for (int i = 0; alive > 0 && i < CNTHB_FREE_WAIT_STEPS; ++i) {
        usleep(CNTHB_FREE_WAIT_MS * 1000);
        alive = hbld(list->nworkers);
    }
    if (alive > 0) {
        // A worker stuck for good in the controller: better a leak than a
        // worker writing into freed memory.
        HBLOG(HBLOG_CNT, HBLV_ERROR, "cnthb_freelist: %d worker(s) still running, table kept", alive);
        return;
    }
    cnthb_destroylist(list);
}
