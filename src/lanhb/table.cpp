// The LAN table and its loading from the configuration and the node manager,
// with the first states of every node entry; the LAN heartbeat's hbkind.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "frame/frame.h"
#include "frame/nodestate.h"
#include "lanhb/lanhb.h"
#include "services/services.h"

// Given their values by lanhb_reset, at start-up as in the tests, so each
// is written down once.
std::atomic<int32_t> lanhb_bhbsend, lanhb_bwatchth;
int32_t lanhb_bsocknbio;
int32_t lanhb_warnrate;
pid_t lanhb_parent;

void lanhb_reset()
{
    lanhb_warnrate = HB_DEF_WARNRATE;
    lanhb_bsocknbio = LANHB_DEF_SOCKNBIO;
    lanhb_bhbsend.store(0);
    lanhb_bwatchth.store(LANHB_DEF_BWATCHTH);
    lanhb_rready = 0;
    lanhb_parent = 0;
}

// The LAN heartbeat as the node-state layer and delaywarn see it.
const hbkind LANHB_KIND = {
    .number = 1, .name = HB_KIND_LANHB, .module = HBLOG_LAN,
    .hdmodule = HBLOG_CNT, // the node-status lines belong to the controller log, by design
    .downline = "DOWNPACKET recv(%s,%s(%d))", .rscfail = "shmnm_setrscstat(LANHB,%s,%d) failed(ret:%d)",
    .notready = false, .unreadable = SHMNM_SVSTAT_UNKNOWN,
    .warnrate = &lanhb_warnrate, .ownops = {LOG_MSG_LANSEND, LOG_MSG_LANRECV},
    .table = lanhb_shape::ops<lanhb_setrscstat>(),
};

namespace {

const bool initialised = (lanhb_reset(), true);

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

// What the header takes from the configuration: the settings both kinds
// read, and the ports, read under "cluster" after the interval.
constexpr hbsetting SET_PORTS[] = {SET_RECVPORT, SET_SENDPORT};
struct settings {
    hbcommon common;
    int32_t ports[2]; // recv, send
};

int32_t readsettings(settings *s)
{
    if (const int32_t r = hbcfg_common(HBLOG_LAN, SET_MAXRSC, LANHB_SET_DPINT, "nm", SET_PORTS, s->ports, &s->common))
        return r;
    lanhb_warnrate = s->common.warnrate;
    if (hbcfg_load(HBLOG_LAN, HB_KIND_LANHB, "lanhb") != 0)
        return HBRET_POLICY;
    loadstacksz(HBLOG_LAN, "/root/lanhb/thread/stacksize");
    lanhb_bsocknbio = hbcfg_read(HBLOG_LAN, SET_SOCKNBIO);
    hbcfg_unload(HBLOG_LAN, HB_KIND_LANHB, "lanhb");
    return 0;
}

// Names, priorities and device ids of paths and nodes, in enumeration order.
int32_t fillnames(lanhb_list *list)
{
    const hbwhere at{};
    const int32_t r = lanhb_shape::names(
        HBLOG_LAN, HB_KIND_LANHB, list,
        [at](lanhb_rsc *rsc, lanhb_node *node) {
            HBLOG_AT(at, HBLOG_LAN, HBLV_ERROR, "rsc:%s(pri:%d),node:%s(pri:%d)", rsc->name, rsc->pri, node->name,
                     node->pri);
        },
        [](lanhb_rsc *) {}, at);
    if (r != 0)
        return r;
    for (int32_t i = 0; i < list->currsc; ++i) {
        lanhb_rsc *rsc = lanhb_rscat(list, i);
        char key[128];
        std::snprintf(key, sizeof key, "/root/heartbeat/%s@%s/device", HB_KIND_LANHB, rsc->name);
        rsc->devid = hbcfg_getint(HBLOG_LAN, key, -1);
    }
    return 0;
}

// Reads every node's address on every valid path; the own node (named like
// the full host name) is reached over the loopback where it has an address.
void selectaddrs(lanhb_list *list, const char *mycntname)
{
    char ownip[LANHB_NAME_SIZE] = {};
    for (int32_t i = 0; i < list->currsc; ++i) {
        lanhb_rsc *rsc = lanhb_rscat(list, i);
        if (rsc->devid < 0) {
            HBLOG(HBLOG_LAN, HBLV_WARN, "device id(%d) is invalid", rsc->devid);
            continue;
        }
        HBLOG(HBLOG_LAN, HBLV_INFO, "rsc[%d].name=(%s)", i, rsc->name);
        for (int32_t j = 0; j < list->curnode; ++j) {
            lanhb_node *node = lanhb_nodeat(rsc, j);
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

// First states of every node entry, published; true when resume mode
// corrected one. Entries of invalid paths keep state 0, unpublished.
bool initstates(lanhb_list *list, const char *shortname, bool resume)
{
    const hbcause cause = resume ? HBCAUSE_RESUME : HBCAUSE_START;
    bool changed = false;
    for (int32_t i = 0; i < list->currsc; ++i) {
        lanhb_rsc *rsc = lanhb_rscat(list, i);
        if (rsc->devid < 0) {
            HBLOG(HBLOG_LAN, HBLV_WARN, "device id(%d) is invalid", rsc->devid);
            continue;
        }
        // Whether the own node has no address on this path, and its name.
        const char *ownunused = nullptr;
        for (int32_t j = 0; j < list->curnode; ++j) {
            lanhb_node *n = lanhb_nodeat(rsc, j);
            if (std::strcmp(n->name, shortname) == 0 && n->ip[0] == '\0') {
                ownunused = n->name;
                break;
            }
        }
        for (int32_t j = 0; j < list->curnode; ++j) {
            lanhb_node *e = lanhb_nodeat(rsc, j);
            const hbnoderef n = lanhb_shape::ref(list, rsc, e);
            if (resume)
                hbnode_resume(LANHB_KIND, n);
            if (e->ip[0] == '\0') {
                HBLOG(HBLOG_LAN, HBLV_ERROR, " *** %s/node(%s(%d)) unused ***", rsc->name, e->name, e->pri);
                if (resume && e->stat != SHMNM_SVSTAT_UNUSED) {
                    HBLOG(HBLOG_LAN, HBLV_ERROR, "---> %s/node(%s(%d)) change to unused", rsc->name, e->name, e->pri);
                    changed = true;
                }
                hbnode_keep(n, SHMNM_SVSTAT_UNUSED);
                // Without an own address the path is unused for every node.
                if (std::strcmp(e->name, shortname) == 0)
                    for (int32_t k = 0; k < list->curnode; ++k)
                        hbnode_keep(lanhb_shape::ref(list, rsc, lanhb_nodeat(rsc, k)), SHMNM_SVSTAT_UNUSED);
            } else if (ownunused != nullptr) {
                if (!resume || e->stat != SHMNM_SVSTAT_UNUSED) {
                    HBLOG(HBLOG_LAN, HBLV_ERROR, " *** %s/node(own:%s) unused ***", rsc->name, ownunused);
                    HBLOG(HBLOG_LAN, HBLV_ERROR, "---> %s/node(%s(%d)) change to unused", rsc->name, e->name, e->pri);
                    hbnode_keep(n, SHMNM_SVSTAT_UNUSED);
                    changed = changed || resume;
                }
            } else if (!resume) {
                hbnode_keep(n, SHMNM_SVSTAT_OFFLINE);
            } else if (e->stat == SHMNM_SVSTAT_UNUSED) {
                HBLOG(HBLOG_LAN, HBLV_ERROR, " *** %s/node(%s(%d)) used ***", rsc->name, e->name, e->pri);
                HBLOG(HBLOG_LAN, HBLV_ERROR, "---> %s/node(%s(%d)) change to offline", rsc->name, e->name, e->pri);
                hbnode_keep(n, SHMNM_SVSTAT_OFFLINE);
                changed = true;
            }
            hbnode_publish(LANHB_KIND, n, cause);
        }
    }
    return changed;
}

} // namespace

void lanhb_freelist(lanhb_list *list)
{
    if (list == nullptr)
        return;
    hbcount_untrack(list);
    pthread_mutex_destroy(&list->statlock);
    std::free(list);
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

    const size_t size = lanhb_shape::size(currsc, curnode);
    std::unique_ptr<lanhb_list, void (*)(lanhb_list *)> list(static_cast<lanhb_list *>(std::calloc(size, 1)),
                                                             lanhb_freelist);
    if (!list) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "malloc(%d) failed(errno:%d)", static_cast<int>(size), errno);
        return HBRET_NOMEM;
    }
    pthread_mutex_init(&list->statlock, nullptr);
    int32_t ownpri = 0;
    r = hbcfg_ownnode(HBLOG_LAN, hostname, sizeof hostname, &ownpri);
    if (r != 0)
        return r;

    lanhb_list *l = list.get();
    static_assert(sizeof l->edition == sizeof rel.edition && sizeof l->version == sizeof rel.version);
    std::memcpy(l->edition, rel.edition, sizeof rel.edition);
    std::memcpy(l->version, rel.version, sizeof rel.version);
    l->recvport = static_cast<uint16_t>(s.ports[0]);
    l->sendport = static_cast<uint16_t>(s.ports[1]);
    l->curnode = curnode;
    l->currsc = currsc;
    l->take(s.common, ownpri);
    HBLOG(HBLOG_LAN, HBLV_DETAIL, "maxnode:%d,maxrsc:%d,port(recv:%d,send:%d)", l->maxnode, l->maxrsc, l->recvport,
          l->sendport);
    hbcfg_logcommon(HBLOG_LAN, s.common, l->currsc, l->curnode, "lanhb_warnrate");
    HBLOG(HBLOG_LAN, HBLV_DETAIL, "edition:%s,version:%s", l->edition, l->version);
    HBLOG(HBLOG_LAN, HBLV_DETAIL, "thstacksz:%d,lanhb_bsocknbio:%d", thstacksz, lanhb_bsocknbio);

    r = fillnames(l);
    if (r != 0)
        return r;

    const bool resume = hbcfg_resume(HBLOG_LAN, {SHMCM_ACTION_RESUME_A, SHMCM_ACTION_RESUME_B});

    char mycntname[XMLLIB_HOSTNAME_SIZE] = {};
    r = xmllib_gethostname(mycntname, XMLLIB_HOSTNAME_SIZE);
    if (r != 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "xmllib_gethostname failed(%#x).", static_cast<unsigned>(r));
        return HBRET_ENUMNODE;
    }
    mycntname[sizeof mycntname - 1] = '\0';
    HBLOG(HBLOG_LAN, HBLV_DETAIL, "### mycntname=%s ###", mycntname);

    selectaddrs(l, mycntname);
    hbkind_set(&LANHB_KIND);
    const bool changed = initstates(l, hostname, resume);
    hbstate_paths(lanhb_shape::table(LANHB_KIND, l));
    if (resume && changed) // a fresh start never signals here
        hbstate_wake(LANHB_KIND, HBCAUSE_RESUME);
    hbcount_track(lanhb_shape::table(LANHB_KIND, l));
    *out = list.release();
    return 0;
}
