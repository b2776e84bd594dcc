// Controller heartbeat: the table of controller paths and nodes (table.cpp),
// the status evaluation (status.cpp), the time-out check and watcher
// (watch.cpp), the reader (recv.cpp), the writer (send.cpp) and the down
// write (down.cpp); the heartbeat record (record.cpp) and the worker threads
// that make the firmware calls (worker.h, worker.cpp).
#pragma once

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <ctime>

#include "frame/counters.h"
#include "frame/frame.h"
#include "frame/table.h"
#include "services/services.h"

// Flags read afresh by the controller threads.
extern std::atomic<int32_t> cnthb_bhbwrite; // 1 once SIGUSR2 came: the writer may write
extern std::atomic<int32_t> cnthb_bwatchth; // the controller watcher runs (else the reader checks)
inline constexpr int32_t CNTHB_DEF_BWATCHTH = 0;
// This node's controller number, from the storage library at start-up.
extern uint8_t cnthb_mycntno;

// Puts the controller heartbeat's globals back as the process starts with
// them; for the tests.
void cnthb_reset();

// ---- the heartbeat record ---------------------------------------------------

// One controller slot: text only, so no byte order. A slot never written
// reads as 40 NUL bytes and carries neither tag.
struct cnthb_hbinf {
    char tag[8];    // "cnthb" (heartbeat) or "hbdown" (down notice), NUL-padded
    char stamp[32]; // NUL-terminated time text; differs from record to record
};
static_assert(sizeof(cnthb_hbinf) == ZEMFW_HBINF_SIZE, "a record fills exactly one controller slot");

inline constexpr char CNTHB_TAG_HB[] = "cnthb";
inline constexpr char CNTHB_TAG_DOWN[] = "hbdown";

// What a record read from the controller is.
enum : int {
    CNTHB_REC_NONE = 0, // neither tag: ignored
    CNTHB_REC_HB = 1,
    CNTHB_REC_DOWN = 2,
};

// Shared by every writer of records; the next fallback stamp is its value
// after adding 1.
extern std::atomic<int32_t> cnthb_ctimedummy;

// Builds a heartbeat record from the current clock.
void cnthb_makehb(cnthb_hbinf *rec);
// Builds a down notice from the current clock.
void cnthb_makedown(cnthb_hbinf *rec);
// The same from given clock readings: tv is the time of day (null when it
// could not be read), now the calendar time ((time_t)-1 when unreadable).
void cnthb_fillhb(cnthb_hbinf *rec, const struct timeval *tv, time_t now);
void cnthb_filldown(cnthb_hbinf *rec, time_t now);
// The reader's view: clears bytes 7 and 39 of rec and names its tag.
int cnthb_rectag(cnthb_hbinf *rec);
// Two records are the same heartbeat when their stamps are equal.
bool cnthb_samestamp(const cnthb_hbinf *a, const cnthb_hbinf *b);

// ---- the table ----------------------------------------------------------------

// One zero-filled heap block: the header, then per path one cnthb_rsc
// immediately followed by curnode cnthb_node records (cnthb_shape).
//
// Locking: statlock guards every field that changes after loading (node and
// path states, lastread, lastrec, the worker bookkeeping of each path); every
// read-decide-publish of a state happens under it, in the node-state layer.
// It is never held across a firmware call. Fields that are also read without
// it (stat, lastread, bwriting, breading, nworkers) are accessed through
// hbld/hbst/hbadd.
// The header: the settings, counts and lock both kinds have (hbheader; the
// down-write interval and retry are refreshed by lanhb_loadexit before the
// down write), and the controller's own.
struct cnthb_list : hbheader {
    char clustername[32];
    char edition[16];
    char version[16];
    char hostname[46]; // short host name: cut at its first "."
    int32_t rwlock;    // non-zero: each path's firmware read and write take rwmutex
    int32_t mycntno;   // cnthb_mycntno when the table was built: the slot this node writes
    int32_t nworkers;  // worker threads alive that may still touch this block
};

struct cnthb_rsc {
    cnthb_list *list;
    char name[32];
    int32_t pri;
    int32_t stat; // SHMNM_RSCSTAT_*
    int32_t maxnodepri;
    pthread_t writeth; // current write or down-write worker
    pthread_t readth;  // current read worker
    int32_t bwriting;
    int32_t breading;
    hbtick_t writestart;
    hbtick_t maxwrite;
    hbtick_t readstart;
    hbtick_t maxread;
    pthread_mutex_t rwmutex; // initialised only when rwlock is non-zero
    // Bumped at every worker start: a worker that was given up on (cancelled
    // and its busy flag cleared) must not clear the flag of its successor.
    uint32_t writeseq;
    uint32_t readseq;
    uint64_t count[HBEXT_PC_COUNT]; // the workers' reads and writes (frame/counters.h)
};

struct cnthb_node {
    cnthb_list *list;
    cnthb_rsc *rsc;
    char name[46];
    int32_t pri; // node id
    int32_t stat; // SHMNM_SVSTAT_*
    int32_t cntno; // controller slot of this node's records
    hbtick_t lastread; // when a new record of this node was last seen
    cnthb_hbinf lastrec; // first byte 0: no record kept yet
    uint64_t count[HBEXT_NC_COUNT]; // frame/counters.h
};

using cnthb_shape = hbshape<cnthb_list, cnthb_rsc, cnthb_node, &cnthb_node::lastread>;
// Path i of the table; node j of a path.
inline cnthb_rsc *cnthb_rscat(cnthb_list *list, int32_t i) { return cnthb_shape::rscat(list, i); }
inline cnthb_node *cnthb_nodeat(cnthb_rsc *rsc, int32_t j) { return cnthb_shape::nodeat(rsc, j); }

// The controller heartbeat as the node-state layer and the delay warnings
// see it, made known by cnthb_loadinfo; its delay-warning rate, set there too.
extern const hbkind CNTHB_KIND;
extern int32_t cnthb_warnrate;

// Settings of the down write's bounded wait for its workers.
extern int32_t cnthb_dpthwait;  // msec per wait step
extern int32_t cnthb_dpthretry; // wait steps
inline constexpr int32_t CNTHB_DEF_DPTHWAIT = 20;
inline constexpr int32_t CNTHB_DEF_DPTHRETRY = 100;

int32_t cnthb_loadinfo(cnthb_list **out);
// Releases a table built by cnthb_loadinfo (null is fine), once no worker
// thread can touch it any more.
void cnthb_freelist(cnthb_list *list);

// ---- status evaluation and time-outs ---------------------------------------------

enum : int32_t {
    CNTHB_ERR_READ = 18,  // a firmware read failed
    CNTHB_ERR_WRITE = 19, // a firmware write failed
};

// Judges one node's record read from the controller; rec is modified (two
// bytes cleared). Returns 8 when the record carries neither tag.
int32_t cnthb_hbdata(cnthb_list *list, cnthb_rsc *rsc, cnthb_node *node, cnthb_hbinf *rec);
// Recomputes and publishes a path's state. The caller holds statlock (or no
// other thread uses the table yet).
int32_t cnthb_setrscstat(cnthb_list *list, cnthb_rsc *rsc);
// Takes nodes offline after a failed firmware read or write.
int32_t cnthb_seterrstat(cnthb_list *list, int32_t kind);
// What the controller does to a node it has taken offline (the node-state
// layer's hook): it forgets the node's last record, so that the next one
// only primes the comparison again.
void cnthb_forget(void *node);
// One time-out pass over the whole table.
int32_t cnthb_hbcheck(cnthb_list *list);

// ---- threads ---------------------------------------------------------------------
//
// Each poller takes the controller table and ends with an integer exit
// value; its clean-up handler takes the table too, and its loop timer keeps
// its longest cycle. A worker takes its path record.

// The reader (recv.cpp) and its read workers.
void *cnthb_hbread(void *list);
void cnthb_readthexit(void *list);
int32_t cnthb_thrlooptime(hbtick_t start, hbtick_t *max);
void *cnthb_readthread(void *rsc);

// The writer (send.cpp) and its write workers; the down writer (down.cpp)
// times its cycles with the writer's timer.
void *cnthb_hbwrite(void *list);
void cnthb_writethexit(void *list);
int32_t cnthb_thwlooptime(hbtick_t start, hbtick_t *max);
void *cnthb_writethread(void *rsc);
void *cnthb_dpwrite(void *list);
void *cnthb_dpwritethread(void *rsc);

// The watcher (watch.cpp).
void *cnthb_hbwatch(void *list);
void cnthb_watchthexit(void *list);
int32_t cnthb_thmlooptime(hbtick_t start, hbtick_t *max);

// The timer of one worker's run (worker.cpp): "write" (delay record 74) or
// any other name, a read (75). Returns 0.
int32_t cnthb_threadtime(hbtick_t start, hbtick_t *max, const char *op, const char *rsc, const char *node,
                         long unused, int32_t hbto);
