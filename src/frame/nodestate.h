// The node-state layer: the one road by which a node's state on a path and a
// path's overall state change, are kept in the table, published to the node
// manager and announced with the state-change semaphore, whatever the cause.
// Both heartbeat kinds go through it. What differs between them is data a
// kind gives (hbkind), never a second copy of a rule; what only one kind
// does around a change (priming a comparison of records, paths unused at
// loading) stays with that kind.
//
// Publication order: the node (shmnm_setrscsvstat), then its path
// (shmnm_setrscstat), then one wake-up (sem_set_statchange) per event or
// pass. Records are signed with the caller's place (hbwhere), so each names
// the heartbeat function that acted.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "frame/frame.h"
#include "frame/thread.h"
#include "services/hbext.h"
#include "services/services.h"

// Why a state changes or is published. Told to the platform with every
// publication of a node's state (hbext_setcause); a time-out or a failed controller call
// also marks the node manager not ready where a kind asks for it.
enum hbcause : int {
    HBCAUSE_HEARTBEAT = HBEXT_CAUSE_HEARTBEAT, // a heartbeat arrived
    HBCAUSE_DOWN = HBEXT_CAUSE_DOWN,           // the node announced its orderly stop
    HBCAUSE_TIMEOUT = HBEXT_CAUSE_TIMEOUT,     // silence past the time-out
    HBCAUSE_START = HBEXT_CAUSE_START,         // first states of a fresh start
    HBCAUSE_RESUME = HBEXT_CAUSE_RESUME,       // states taken over at resume
    HBCAUSE_READFAIL = HBEXT_CAUSE_READFAIL,   // a read from the controller failed
    HBCAUSE_WRITEFAIL = HBEXT_CAUSE_WRITEFAIL, // a write to the controller failed
};

// One node on one path as the layer sees it: pointers into a kind's table.
struct hbnoderef {
    void *list; // the kind's table, path record and node record, handed back
    void *rsc;  // to the kind's hooks
    void *node;
    const char *rscname;
    const char *name;
    int32_t pri;
    int32_t *stat;  // SHMNM_SVSTAT_*; read and written with hbld/hbst
    hbtick_t *last; // tick of the last heartbeat taken from the node
    uint64_t *count;    // the node's HBEXT_NC_COUNT counters (frame/counters.h)
    uint64_t *rsccount; // its path's HBEXT_PC_COUNT counters
};

// How the layer walks a kind's table (hbshape::ops gives them): path i, node
// j of a path, the path's re-evaluation (which logs and publishes its state),
// and what the kind does to a node record just taken OFFLINE (null: nothing).
struct hbtableops {
    void *(*rscat)(void *list, int32_t i);
    hbnoderef (*nodeat)(void *list, void *rsc, int32_t j);
    int32_t (*setrscstat)(void *list, void *rsc);
    void (*offline)(void *node);
};

// What differs between the heartbeat kinds, as each kind's module gives it.
struct hbkind {
    int number;           // the kind's number for delaywarn
    const char *name;     // the path kind of every node-manager call
    int module;           // the kind's log
    int hdmodule;         // the log of the node-status (hdstat) lines
    const char *downline; // logged as a down notice takes a node offline (path, node, pri)
    const char *rscfail;  // a failed path publication (path, state, result)
    bool notready;        // a time-out or failed call also marks the node manager not ready
    int32_t unreadable;   // a node's state at resume when shared memory cannot be read
    const int32_t *warnrate; // delay-warning rate in percent of the time-out
    int32_t ownops[2];    // message numbers of the kind's own timed operations
    hbtableops table;
};

// Makes a kind known by its number (the loaders do); hbkind_of gives null for
// a number no kind has. hbframe_reset forgets them.
void hbkind_set(const hbkind *kind);
const hbkind *hbkind_of(int number);
void hbkind_reset();

// The part of the header both tables have: the settings both loaders read
// alike, this node's id, the counts, and the lock of the states.
struct hbheader {
    int32_t mismatch; // always 0: the setting is read, not used
    int32_t hbto;     // msec
    int32_t hbint;    // msec
    int32_t dpint;    // msec; read again for the down notices of an orderly stop
    int32_t dpretry;  // read again likewise
    int32_t ownpri;   // this node's priority, also its node id
    int32_t maxnode;  // configured maximum of servers
    int32_t maxrsc;   // configured maximum of heartbeat paths
    int32_t curnode;  // node records per path
    int32_t currsc;   // path records
    // Every read-decide-publish of a node's or a path's state happens under
    // it, in the node-state layer, so that a heartbeat evaluated during a
    // time-out pass is never overwritten by a decision taken on older data.
    // Held around node-manager calls, never around a socket or firmware call.
    pthread_mutex_t statlock;

    // The settings read alike, and this node's id.
    void take(const hbcommon &c, int32_t own);
};

// A whole table, for the passes over every node of every path.
struct hbtable {
    const hbkind *kind;
    void *list;
    hbheader *header; // the same block
};

// ---- events, with the table's lock held (or before any thread uses it) ------

// A heartbeat from the node: stamps `last` first. When shared memory shows the
// node ONLINE already, only the gap since the previous heartbeat is timed
// (delay record 71); otherwise the node goes ONLINE unless its node status
// (hdstat) forbids it, and the change is announced.
void hbnode_heartbeat(const hbkind &kind, const hbnoderef &n, int32_t hbto, hbwhere at = {});
// A down notice: OFFLINE at once and announced, unless shared memory shows
// the node OFFLINE already.
void hbnode_down(const hbkind &kind, const hbnoderef &n, hbwhere at = {});
// Moves a node to st for cause: publication, (not-ready mark), the table,
// its line, the kind's offline hook, the path. The caller announces.
void hbnode_change(const hbkind &kind, const hbnoderef &n, int32_t st, hbcause cause, hbwhere at = {});

// ---- loading ---------------------------------------------------------------------

// Resume: the node's state taken over from shared memory (the kind's
// fallback when unreadable) and timed from now; logs its previous state.
void hbnode_resume(const hbkind &kind, const hbnoderef &n, hbwhere at = {});
// Keeps a state in the table only; hbnode_publish publishes it.
void hbnode_keep(const hbnoderef &n, int32_t st);
// Publishes the node's state as the table has it.
void hbnode_publish(const hbkind &kind, const hbnoderef &n, hbcause cause, hbwhere at = {});
// Re-evaluates and publishes every path of a table.
void hbstate_paths(const hbtable &t);

// Wakes the cluster's state watchers (sem_set_statchange), its failure logged.
void hbstate_wake(const hbkind &kind, hbcause cause, hbwhere at = {});

// ---- passes over a whole table, each under its lock with one wake-up -------------

// The time-out pass: the ratio read afresh, then every node the table has
// ONLINE whose silence (one tick reading per such node) exceeds the scaled
// limit goes OFFLINE, its "**TIMEOUT(...)" line first. Returns 0.
int32_t hbstate_check(const hbtable &t, hbwhere at = {});

// Takes OFFLINE, for cause, every node the table has ONLINE for which
// gone(n) holds, and announces once when any changed. Under the lock for the
// whole pass, so a heartbeat evaluated in between is never overwritten by a
// decision taken on older data.
template <class Gone> void hbstate_pass(const hbtable &t, hbcause cause, Gone gone, hbwhere at = {})
{
    bool changed = false;
    {
        hblock hold(&t.header->statlock);
        for (int32_t i = 0; i < t.header->currsc; ++i) {
            void *rsc = t.kind->table.rscat(t.list, i);
            for (int32_t j = 0; j < t.header->curnode; ++j) {
                const hbnoderef n = t.kind->table.nodeat(t.list, rsc, j);
                if (hbld(*n.stat) == SHMNM_SVSTAT_ONLINE && gone(n)) {
                    hbnode_change(*t.kind, n, SHMNM_SVSTAT_OFFLINE, cause, at);
                    changed = true;
                }
            }
        }
    }
    if (changed)
        hbstate_wake(*t.kind, cause, at);
}

// ---- path state --------------------------------------------------------------------

// The overall state of a path, voted by the states of its nodes: ERROR when
// the own node is down, else CAUTION when a peer is, else NORMAL when one is
// online, else UNUSED when one is unused, else UNKNOWN.
class hbpathvote {
public:
    void add(int32_t svstat, bool own);
    // Logs " *** <path> : <state> ***", stores the state into *stat and
    // publishes it (a failure logged with the kind's text).
    int32_t publish(const hbkind &kind, const char *rsc, int32_t *stat, hbwhere at = {}) const;

private:
    bool owndown_ = false, peerdown_ = false, online_ = false, unused_ = false;
};

// Votes and publishes the state of path rsc of a table of the given shape;
// the kind's setrscstat. The caller holds the table's lock once threads run.
template <class Shape, class List, class Rsc>
int32_t hbpath_set(const hbkind &kind, List *list, Rsc *rsc, hbwhere at = {})
{
    hbpathvote vote;
    for (int32_t j = 0; j < list->curnode; ++j) {
        const auto *node = Shape::nodeat(rsc, j);
        vote.add(hbld(node->stat), node->pri == list->ownpri);
    }
    return vote.publish(kind, rsc->name, &rsc->stat, at);
}
