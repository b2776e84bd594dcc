// The node-state layer: every change of a node's or a path's state, its
// publication and its announcement, for both heartbeat kinds.
#include "frame/nodestate.h"

#include <algorithm>
#include <climits>

#include "frame/counters.h"

namespace {

constexpr int KIND_NUMBERS = 4; // kinds are numbered from 1

const hbkind *kinds[KIND_NUMBERS] = {};

// A node's state on its path as the node manager has it; `fallback` when it
// cannot be read (logged).
int32_t readnode(const hbkind &k, const hbnoderef &n, int32_t fallback, hbwhere at)
{
    int32_t st = fallback;
    const int32_t r = shmnm_getrscsvstat(k.name, n.rscname, n.pri, &st);
    if (r == 0)
        return st;
    HBLOG_AT(at, k.module, HBLV_ERROR, "shmnm_getrscsvstat(rsc:%s,nodeid:%d) failed(ret:%d)", n.rscname, n.pri, r);
    return fallback;
}

// The one publication of a node's state, its cause told first. A cause the
// platform cannot take goes unlogged: the publication itself fails then and
// says so.
void publishnode(const hbkind &k, const hbnoderef &n, int32_t st, hbcause cause, hbwhere at)
{
    (void)hbext_setcause(k.name, n.rscname, n.pri, cause);
    const int32_t r = shmnm_setrscsvstat(k.name, n.rscname, n.pri, st);
    if (r != 0)
        HBLOG_AT(at, k.module, HBLV_ERROR, "shmnm_setrscsvstat(rsc:%s,nodeid:%d) failed(ret:%d)", n.rscname, n.pri, r);
}

// Whether the node has been silent past the limit, which is then logged.
bool timedout(const hbkind &k, const hbnoderef &n, hbtick_t limit, int32_t scaled, hbwhere at)
{
    const hbtick_t cur = hbtick_now();
    const hbtick_t last = hbld(*n.last);
    const hbtick_t diff = cur - last;
    if (diff <= limit)
        return false;
    // The tick difference is printed as an int: capped, as only a huge
    // limit lets it grow that far.
    HBLOG_AT(at, k.module, HBLV_ERROR, "**TIMEOUT(cur:0x%08x,last:0x%08x,diff:%d,hbto:%d,tck:%d/sec)",
             static_cast<unsigned>(cur), static_cast<unsigned>(last), static_cast<int>(std::min<hbtick_t>(diff, INT_MAX)),
             scaled, static_cast<int>(tckconf));
    return true;
}

} // namespace

void hbheader::take(const hbcommon &c, int32_t own)
{
    mismatch = 0;
    hbto = c.hbto;
    hbint = c.hbint;
    dpint = c.dpint;
    dpretry = c.dpretry;
    ownpri = own;
    maxnode = c.maxnode;
    maxrsc = c.maxrsc;
}

void hbkind_set(const hbkind *kind)
{
    if (kind->number > 0 && kind->number < KIND_NUMBERS)
        kinds[kind->number] = kind;
}

const hbkind *hbkind_of(int number)
{
    return number > 0 && number < KIND_NUMBERS ? kinds[number] : nullptr;
}

void hbkind_reset()
{
    std::fill(std::begin(kinds), std::end(kinds), nullptr);
}

void hbnode_heartbeat(const hbkind &k, const hbnoderef &n, int32_t hbto, hbwhere at)
{
    const hbtick_t prev = hbld(*n.last);
    const hbtick_t now = hbtick_now();
    hbst(*n.last, now);
    hbcount_heartbeat(n);
    // Whether the node is online already is the node manager's view, not
    // the table's.
    if (readnode(k, n, SHMNM_SVSTAT_UNKNOWN, at) == SHMNM_SVSTAT_ONLINE) {
        delaywarn(k.number, n.rscname, n.name, prev, now, hbto, LOG_MSG_HBGAP);
        return;
    }
    int32_t hdstat = SHMNM_HDSTAT_PRESET;
    const int32_t r = shmnm_gethdstat(n.name, &hdstat);
    if (r != 0) {
        // Unreadable counts as allowed.
        HBLOG_AT(at, k.hdmodule, HBLV_ERROR, "shmnm_gethdstat(%s/node(%s(%d))) failed(ret:%d)", n.rscname, n.name,
                 n.pri, r);
    } else if (hdstat != SHMNM_HDSTAT_OK) {
        HBLOG_AT(at, k.hdmodule, HBLV_ERROR, " *** %s/node(%s(%d)) : ONLINE SKIP hdstat=%d ***", n.rscname, n.name,
                 n.pri, hdstat);
        return;
    }
    hbnode_change(k, n, SHMNM_SVSTAT_ONLINE, HBCAUSE_HEARTBEAT, at);
    hbstate_wake(k, HBCAUSE_HEARTBEAT, at);
}

void hbnode_down(const hbkind &k, const hbnoderef &n, hbwhere at)
{
    if (readnode(k, n, SHMNM_SVSTAT_UNKNOWN, at) == SHMNM_SVSTAT_OFFLINE)
        return;
    hblog(k.module, HBLV_ERROR, at.file, at.line, at.func, k.downline, n.rscname, n.name, n.pri);
    hbnode_change(k, n, SHMNM_SVSTAT_OFFLINE, HBCAUSE_DOWN, at);
    hbstate_wake(k, HBCAUSE_DOWN, at);
}

void hbnode_change(const hbkind &k, const hbnoderef &n, int32_t st, hbcause cause, hbwhere at)
{
    publishnode(k, n, st, cause, at);
    const bool failed = cause == HBCAUSE_TIMEOUT || cause == HBCAUSE_READFAIL || cause == HBCAUSE_WRITEFAIL;
    if (k.notready && failed && st == SHMNM_SVSTAT_OFFLINE) {
        const int32_t r = shmnm_setnonvolstat(SHMNM_NONVOL_NOTREADY);
        if (r != 0)
            HBLOG_AT(at, k.module, HBLV_ERROR, "shmnm_setnonvolstat SHMNM_NONVOL_NOTREADY failed(ret:%d)", r);
    }
    // The table takes the new state whatever the node manager said.
    hbst(*n.stat, st);
    HBLOG_AT(at, k.module, HBLV_ERROR, " *** %s/node(%s(%d)) : %s ***", n.rscname, n.name, n.pri,
             st == SHMNM_SVSTAT_ONLINE ? "ONLINE" : "OFFLINE");
    if (st == SHMNM_SVSTAT_OFFLINE && k.table.offline != nullptr)
        k.table.offline(n.node);
    k.table.setrscstat(n.list, n.rsc);
}

void hbnode_resume(const hbkind &k, const hbnoderef &n, hbwhere at)
{
    const int32_t st = readnode(k, n, k.unreadable, at);
    hbst(*n.stat, st);
    hbst(*n.last, hbtick_now());
    HBLOG_AT(at, k.module, HBLV_ERROR, " *** %s/node(%s(%d)) prev stat:0x%08x ***", n.rscname, n.name, n.pri,
             static_cast<unsigned>(st));
}

void hbnode_keep(const hbnoderef &n, int32_t st)
{
    hbst(*n.stat, st);
}

void hbnode_publish(const hbkind &k, const hbnoderef &n, hbcause cause, hbwhere at)
{
    publishnode(k, n, hbld(*n.stat), cause, at);
}

void hbstate_paths(const hbtable &t)
{
    for (int32_t i = 0; i < t.header->currsc; ++i)
        t.kind->table.setrscstat(t.list, t.kind->table.rscat(t.list, i));
}

void hbstate_wake(const hbkind &k, hbcause /*cause*/, hbwhere at)
{
    const int32_t r = sem_set_statchange();
    if (r != 0)
        HBLOG_AT(at, k.module, HBLV_ERROR, "sem_set_statchange() failed(ret:%d)", r);
}

int32_t hbstate_check(const hbtable &t, hbwhere at)
{
    const hbkind &k = *t.kind;
    int32_t ratio = 0;
    int32_t second = 0;
    const int32_t r = shmcm_getratio(&ratio, &second);
    if (r != 0) {
        HBLOG_AT(at, k.module, HBLV_ERROR, "shmcm_getratio() failed(ret:%d)", r);
        ratio = 0; // counts as 1
    }
    int32_t scaled = 0;
    const hbtick_t limit = hbtimeout_limit(t.header->hbto, ratio, &scaled);
    hbstate_pass(t, HBCAUSE_TIMEOUT, [&](const hbnoderef &n) { return timedout(k, n, limit, scaled, at); }, at);
    return 0;
}

void hbpathvote::add(int32_t svstat, bool own)
{
    switch (svstat) {
    case SHMNM_SVSTAT_ONLINE:
        online_ = true;
        break;
    case SHMNM_SVSTAT_OFFLINE:
    case SHMNM_SVSTAT_UNKNOWN:
        (own ? owndown_ : peerdown_) = true;
        break;
    case SHMNM_SVSTAT_UNUSED:
        unused_ = true;
        break;
    default: // never set, or not readable at resume
        break;
    }
}

int32_t hbpathvote::publish(const hbkind &k, const char *rsc, int32_t *stat, hbwhere at) const
{
    int32_t st;
    const char *word;
    if (owndown_)
        st = SHMNM_RSCSTAT_ERROR, word = "ERROR";
    else if (peerdown_)
        st = SHMNM_RSCSTAT_CAUTION, word = "CAUTION";
    else if (online_)
        st = SHMNM_RSCSTAT_NORMAL, word = "NORMAL";
    else if (unused_)
        st = SHMNM_RSCSTAT_UNUSED, word = "UNUSED";
    else
        st = SHMNM_RSCSTAT_UNKNOWN, word = "UNKNOWN";
    // Logged and published on every call, changed or not.
    HBLOG_AT(at, k.module, HBLV_ERROR, " *** %s : %s ***", rsc, word);
    hbst(*stat, st);
    const int32_t r = shmnm_setrscstat(k.name, rsc, st);
    if (r != 0)
        hblog(k.module, HBLV_ERROR, at.file, at.line, at.func, k.rscfail, rsc, st, r);
    return 0;
}
