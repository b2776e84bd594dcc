// The LAN table and its loading from the configuration and the node manager.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "frame/frame.h"
#include "lanhb/lanhb.h"
#include "services/services.h"

// Given their values by lanhb_reset, at start-up as in the tests, so each
// is written down once.
std::atomic<int32_t> lanhb_bhbsend, lanhb_bwatchth;
int32_t lanhb_bsocknbio;

void lanhb_reset()
{
    lanhb_bhbsend.store(0);
    lanhb_bwatchth.store(LANHB_DEF_BWATCHTH);
    lanhb_rready = 0;
    lanhb_bsocknbio = LANHB_DEF_SOCKNBIO;
}

static const bool lanhb_initialised = (lanhb_reset(), true);

namespace {

constexpr char OWN_LOOPBACK[] = "127.0.0.1";

constexpr int32_t DEF_RECVPORT = 29002;
constexpr hbsetting SET_MAXRSC = {"/root/all/num/hbr", 128};
// A port outside the valid range falls back to the default silently.
constexpr hbsetting SET_RECVPORT = {"/root/cluster/heartbeat/port/recv", DEF_RECVPORT, {{.lo = 1, .hi = 65535, .to = DEF_RECVPORT}}};
constexpr hbsetting SET_SENDPORT = {"/root/cluster/heartbeat/port/send", 0, {{.lo = 1, .hi = 65535, .to = 0}}};
constexpr hbsetting SET_SOCKNBIO = {"/root/lanhb/socket/nbio", LANHB_DEF_SOCKNBIO};

void cutat(char *text, char sep)
{
    if (char *p = std::strchr(text, sep))
        *p = '\0';
}

// Header values read from the configuration before the table exists.
struct settings {
    int32_t maxnode, maxrsc, hbto, hbint, recvport, sendport, dpint, dpretry;
};

int32_t readsettings(settings *s)
{
    int32_t r = xmllib_load_policy("all");
    if (r != 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "xmllib_load_policy(all) failed(ret:%d)", r);
        return HBRET_POLICY;
    }
    s->maxnode = hbcfg_read(HBLOG_LAN, HB_SET_MAXNODE);
    s->maxrsc = hbcfg_read(HBLOG_LAN, SET_MAXRSC);
    r = xmllib_unload_policy("all");
    if (r != 0)
        HBLOG(HBLOG_LAN, HBLV_ERROR, "xmllib_unload_policy(all) failed(ret:%d)", r);

    r = xmllib_load_policy("cluster");
    if (r != 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "xmllib_load_policy(nm) failed(ret:%d)", r);
        return HBRET_POLICY;
    }
    // Read only so that a broken key shows in the log; the setting is off.
    (void)hbcfg_read(HBLOG_LAN, HB_SET_MISMATCH);
    s->hbto = hbcfg_read(HBLOG_LAN, HB_SET_HBTO);
    s->hbint = hbcfg_read(HBLOG_LAN, HB_SET_HBINT);
    s->recvport = hbcfg_read(HBLOG_LAN, SET_RECVPORT);
    s->sendport = hbcfg_read(HBLOG_LAN, SET_SENDPORT);
    lanhb_warnrate = hbcfg_read(HBLOG_LAN, HB_SET_WARNRATE);
    s->dpint = hbcfg_read(HBLOG_LAN, LANHB_SET_DPINT);
    s->dpretry = hbcfg_read(HBLOG_LAN, HB_SET_DPRETRY);
    r = xmllib_unload_policy("cluster");
    if (r != 0)
        HBLOG(HBLOG_LAN, HBLV_ERROR, "xmllib_unload_policy(nm) failed(ret:%d)", r);

    r = xmllib_load_policy(HB_KIND_LANHB);
    if (r != 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "xmllib_load_policy(lanhb) failed(ret:%d)", r);
        return HBRET_POLICY;
    }
    loadstacksz(HBLOG_LAN, "/root/lanhb/thread/stacksize");
    lanhb_bsocknbio = hbcfg_read(HBLOG_LAN, SET_SOCKNBIO);
    r = xmllib_unload_policy(HB_KIND_LANHB);
    if (r != 0)
        HBLOG(HBLOG_LAN, HBLV_ERROR, "xmllib_unload_policy(lanhb) failed(ret:%d)", r);
    return 0;
}

// Names, priorities and device ids of paths and nodes, in enumeration order.
int32_t fillnames(lanhb_list *list)
{
    hbmsz rsclist;
    int32_t r = hbcfg_enum(HBLOG_LAN, HB_KIND_LANHB, true, &rsclist);
    if (r != 0)
        return r;
    int32_t i = 0;
    for (const char *p = mszfirst(rsclist.get()); p != nullptr && i < list->currsc; p = msznext(p), ++i) {
        lanhb_rsc *rsc = lanhb_getrsc(list, i);
        rsc->pri = hbcfg_namepri(HBLOG_LAN, HB_KIND_LANHB, p, rsc->name, sizeof rsc->name);
    }

    hbmsz nodelist;
    r = hbcfg_enum(HBLOG_LAN, HB_KIND_LANHB, false, &nodelist);
    if (r != 0)
        return r;
    for (i = 0; i < list->currsc; ++i) {
        lanhb_rsc *rsc = lanhb_getrsc(list, i);
        int32_t j = 0;
        for (const char *p = mszfirst(nodelist.get()); p != nullptr && j < list->curnode; p = msznext(p), ++j) {
            lanhb_node *node = lanhb_rscnode(rsc, j);
            node->pri = hbcfg_namepri(HBLOG_LAN, nullptr, p, node->name, sizeof node->name);
            HBLOG(HBLOG_LAN, HBLV_ERROR, "rsc:%s(pri:%d),node:%s(pri:%d)", rsc->name, rsc->pri, node->name, node->pri);
        }
    }

    for (i = 0; i < list->currsc; ++i) {
        lanhb_rsc *rsc = lanhb_getrsc(list, i);
        char key[128];
        std::snprintf(key, sizeof key, "/root/heartbeat/%s@%s/device", HB_KIND_LANHB, rsc->name);
        rsc->devid = hbcfg_getint(HBLOG_LAN, key, -1);
    }
    return 0;
}

bool resumemode()
{
    int32_t action = 0;
    unsigned char actinfo[SHMCM_ACTINFO_SIZE] = {};
    const int32_t r = shmcm_getaction(&action, actinfo, nullptr);
    bool resume;
    if (r == 0 && (action == SHMCM_ACTION_RESUME_A || action == SHMCM_ACTION_RESUME_B)) {
        resume = true;
    } else {
        if (r != 0) {
            HBLOG(HBLOG_LAN, HBLV_ERROR, "shmcm_getaction() failed(ret:%d)", r);
            action = SHMCM_ACTION_UNREADABLE;
        }
        resume = brestart == 1;
    }
    if (resume)
        HBLOG(HBLOG_LAN, HBLV_ERROR, "change mode to resume(act:0x%08x)", static_cast<unsigned>(action));
    return resume;
}

// Reads every node's address on every valid path; the own node (named like
// the full host name) is reached over the loopback where it has an address.
void selectaddrs(lanhb_list *list, const char *mycntname)
{
    char ownip[LANHB_NAME_SIZE] = {};
    for (int32_t i = 0; i < list->currsc; ++i) {
        lanhb_rsc *rsc = lanhb_getrsc(list, i);
        if (rsc->devid < 0) {
            HBLOG(HBLOG_LAN, HBLV_WARN, "device id(%d) is invalid", rsc->devid);
            continue;
        }
        HBLOG(HBLOG_LAN, HBLV_INFO, "rsc[%d].name=(%s)", i, rsc->name);
        for (int32_t j = 0; j < list->curnode; ++j) {
            lanhb_node *node = lanhb_rscnode(rsc, j);
            char key[128];
            std::snprintf(key, sizeof key, "/root/server@%s/device@%d/info", node->name, rsc->devid);
            int32_t len = sizeof node->ip;
            const int32_t r = xmllib_get_value(key, XMLLIB_KIND_TEXT, node->ip, &len);
            if (r != 0) {
                HBLOG(HBLOG_LAN, HBLV_ERROR, "xmllib_get_value(%s) failed(ret:%d)", key, r);
                node->ip[0] = '\0';
            }
            node->ip[sizeof node->ip - 1] = '\0';
            HBLOG(HBLOG_LAN, HBLV_INFO, "  pnode[%d].name=(%s) ip=(%s)", j, node->name, node->ip);
            // Without an own address the entry stays empty, so that initstates
            // makes the path unused for every node.
            if (std::strcmp(node->name, mycntname) == 0) {
                hbcopytext(ownip, sizeof ownip, node->ip);
                if (node->ip[0] != '\0') {
                    hbcopytext(node->ip, sizeof node->ip, OWN_LOOPBACK);
                    HBLOG(HBLOG_LAN, HBLV_DETAIL, "    ---> change ip [%s] to [%s] (MYCNT)", ownip, node->ip);
                }
            }
            cutat(node->ip, '/');
            if (node->pri == list->ownpri) {
                hbcopytext(rsc->myip, sizeof rsc->myip, ownip);
                hbcopytext(rsc->myname, sizeof rsc->myname, node->name);
                HBLOG(HBLOG_LAN, HBLV_DETAIL, "    ownnode=%s (pri=%d ip=%s)", node->name, node->pri, rsc->myip);
            }
            HBLOG(HBLOG_LAN, HBLV_DETAIL, "    node=(%s) ip=(%s)", node->name, node->ip);
        }
    }
}

// First states of every node entry; true when resume mode corrected one.
bool initstates(lanhb_list *list, const char *shortname, bool resume)
{
    bool changed = false;
    for (int32_t i = 0; i < list->currsc; ++i) {
        lanhb_rsc *rsc = lanhb_getrsc(list, i);
        if (rsc->devid < 0) {
            HBLOG(HBLOG_LAN, HBLV_WARN, "device id(%d) is invalid", rsc->devid);
            continue;
        }
        // Whether the own node has no address on this path, and its name.
        const char *ownunused = nullptr;
        for (int32_t j = 0; j < list->curnode; ++j) {
            lanhb_node *n = lanhb_rscnode(rsc, j);
            if (std::strcmp(n->name, shortname) == 0 && n->ip[0] == '\0') {
                ownunused = n->name;
                break;
            }
        }
        for (int32_t j = 0; j < list->curnode; ++j) {
            lanhb_node *e = lanhb_rscnode(rsc, j);
            if (resume) {
                int32_t st = SHMNM_SVSTAT_UNKNOWN;
                const int32_t r = shmnm_getrscsvstat(HB_KIND_LANHB, rsc->name, e->pri, &st);
                if (r != 0) {
                    HBLOG(HBLOG_LAN, HBLV_ERROR, "shmnm_getrscsvstat(rsc:%s,nodeid:%d) failed(ret:%d)", rsc->name, e->pri, r);
                    st = SHMNM_SVSTAT_UNKNOWN;
                }
                e->stat = st;
                e->lastrecv = hbtick_now();
                HBLOG(HBLOG_LAN, HBLV_ERROR, " *** %s/node(%s(%d)) prev stat:0x%08x ***", rsc->name, e->name, e->pri,
                      static_cast<unsigned>(st));
            }
            if (e->ip[0] == '\0') {
                HBLOG(HBLOG_LAN, HBLV_ERROR, " *** %s/node(%s(%d)) unused ***", rsc->name, e->name, e->pri);
                if (resume && e->stat != SHMNM_SVSTAT_UNUSED) {
                    HBLOG(HBLOG_LAN, HBLV_ERROR, "---> %s/node(%s(%d)) change to unused", rsc->name, e->name, e->pri);
                    changed = true;
                }
                e->stat = SHMNM_SVSTAT_UNUSED;
                if (std::strcmp(e->name, shortname) == 0)
                    for (int32_t k = 0; k < list->curnode; ++k)
                        lanhb_rscnode(rsc, k)->stat = SHMNM_SVSTAT_UNUSED;
            } else if (ownunused != nullptr) {
                if (!resume || e->stat != SHMNM_SVSTAT_UNUSED) {
                    HBLOG(HBLOG_LAN, HBLV_ERROR, " *** %s/node(own:%s) unused ***", rsc->name, ownunused);
                    HBLOG(HBLOG_LAN, HBLV_ERROR, "---> %s/node(%s(%d)) change to unused", rsc->name, e->name, e->pri);
                    e->stat = SHMNM_SVSTAT_UNUSED;
                    changed = changed || resume;
                }
            } else if (!resume) {
                e->stat = SHMNM_SVSTAT_OFFLINE;
            } else if (e->stat == SHMNM_SVSTAT_UNUSED) {
                HBLOG(HBLOG_LAN, HBLV_ERROR, " *** %s/node(%s(%d)) used ***", rsc->name, e->name, e->pri);
                HBLOG(HBLOG_LAN, HBLV_ERROR, "---> %s/node(%s(%d)) change to offline", rsc->name, e->name, e->pri);
                e->stat = SHMNM_SVSTAT_OFFLINE;
                changed = true;
            }
            const int32_t r = shmnm_setrscsvstat(HB_KIND_LANHB, rsc->name, e->pri, e->stat);
            if (r != 0)
                HBLOG(HBLOG_LAN, HBLV_ERROR, "shmnm_setrscsvstat(rsc:%s,nodeid:%d) failed(ret:%d)", rsc->name, e->pri, r);
        }
    }
    return changed;
}

} // namespace

size_t lanhb_listsize(int32_t currsc, int32_t curnode)
{
    const size_t stride = sizeof(lanhb_rsc) + static_cast<size_t>(curnode) * sizeof(lanhb_node);
    return sizeof(lanhb_list) + static_cast<size_t>(currsc) * stride;
}

lanhb_rsc *lanhb_getrsc(lanhb_list *list, int32_t i)
{
    const size_t stride = sizeof(lanhb_rsc) + static_cast<size_t>(list->curnode) * sizeof(lanhb_node);
    return reinterpret_cast<lanhb_rsc *>(reinterpret_cast<char *>(list + 1) + static_cast<size_t>(i) * stride);
}

lanhb_node *lanhb_rscnode(lanhb_rsc *rsc, int32_t j)
{
    return reinterpret_cast<lanhb_node *>(rsc + 1) + j;
}

lanhb_node *lanhb_getnode(lanhb_list *list, int32_t i, int32_t j)
{
    return lanhb_rscnode(lanhb_getrsc(list, i), j);
}

int32_t lanhb_loadinfo(lanhb_list **out)
{
    char hostname[XMLLIB_HOSTNAME_SIZE] = {};
    const hbrelease rel = hbcfg_release(HBLOG_LAN);

    settings s{};
    int32_t r = readsettings(&s);
    if (r != 0)
        return r;

    int32_t currsc = 0, curnode = 0;
    r = hbcfg_counts(HBLOG_LAN, HB_KIND_LANHB, &currsc, &curnode);
    if (r != 0)
        return r;

    const size_t size = lanhb_listsize(currsc, curnode);
    std::unique_ptr<lanhb_list, void (*)(lanhb_list *)> list(static_cast<lanhb_list *>(std::calloc(size, 1)),
                                                             [](lanhb_list *l) { std::free(l); });
    if (!list) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "malloc(%d) failed(errno:%d)", static_cast<int>(size), errno);
        return HBRET_NOMEM;
    }
    int32_t ownpri = 0;
    r = hbcfg_ownnode(HBLOG_LAN, hostname, sizeof hostname, &ownpri);
    if (r != 0)
        return r;

    lanhb_list *l = list.get();
    static_assert(sizeof l->edition == sizeof rel.edition && sizeof l->version == sizeof rel.version);
    std::memcpy(l->edition, rel.edition, sizeof rel.edition);
    std::memcpy(l->version, rel.version, sizeof rel.version);
    l->recvport = static_cast<uint16_t>(s.recvport);
    l->sendport = static_cast<uint16_t>(s.sendport);
    l->mismatch = 0;
    l->hbto = s.hbto;
    l->hbint = s.hbint;
    l->dpint = s.dpint;
    l->dpretry = s.dpretry;
    l->ownpri = ownpri;
    l->maxnode = s.maxnode;
    l->maxrsc = s.maxrsc;
    l->curnode = curnode;
    l->currsc = currsc;
    HBLOG(HBLOG_LAN, HBLV_DETAIL, "maxnode:%d,maxrsc:%d,port(recv:%d,send:%d)", l->maxnode, l->maxrsc, l->recvport,
          l->sendport);
    HBLOG(HBLOG_LAN, HBLV_DETAIL, "currsc:%d,curnode:%d", l->currsc, l->curnode);
    HBLOG(HBLOG_LAN, HBLV_DETAIL, "hbto:%d(msec),hbint:%d(msec),mismatch:%d,lanhb_warnrate:%d", l->hbto, l->hbint,
          l->mismatch, lanhb_warnrate);
    HBLOG(HBLOG_LAN, HBLV_DETAIL, "dpint:%d(msec),dpretry:%d", l->dpint, l->dpretry);
    HBLOG(HBLOG_LAN, HBLV_DETAIL, "edition:%s,version:%s", l->edition, l->version);
    HBLOG(HBLOG_LAN, HBLV_DETAIL, "thstacksz:%d,lanhb_bsocknbio:%d", thstacksz, lanhb_bsocknbio);

    r = fillnames(l);
    if (r != 0)
        return r;

    const bool resume = resumemode();

    char mycntname[XMLLIB_HOSTNAME_SIZE] = {};
    r = xmllib_gethostname(mycntname, XMLLIB_HOSTNAME_SIZE);
    if (r != 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "xmllib_gethostname failed(%#x).", static_cast<unsigned>(r));
        return HBRET_ENUMNODE;
    }
    mycntname[sizeof mycntname - 1] = '\0';
    HBLOG(HBLOG_LAN, HBLV_DETAIL, "### mycntname=%s ###", mycntname);

    selectaddrs(l, mycntname);
    const bool changed = initstates(l, hostname, resume);
    for (int32_t i = 0; i < l->currsc; ++i)
        lanhb_setrscstat(l, lanhb_getrsc(l, i));
    if (resume && changed) {
        r = sem_set_statchange();
        if (r != 0)
            HBLOG(HBLOG_LAN, HBLV_ERROR, "sem_set_statchange() failed(ret:%d)", r);
    }

    pthread_mutex_init(&l->statmx, nullptr);
    *out = list.release();
    return 0;
}

void lanhb_freelist(lanhb_list *list)
{
    if (list == nullptr)
        return;
    pthread_mutex_destroy(&list->statmx);
    std::free(list);
}
