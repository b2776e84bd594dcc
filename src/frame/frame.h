// The daemon frame: process-wide state, logging, timing, scheduling, the
// stop and the configuration helpers. Shared by both heartbeat kinds; it
// knows neither of them (each describes itself in an hbkind, nodestate.h).
#pragma once

#include <pthread.h>

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <span>
#include <type_traits>

// ---- process-wide state ---------------------------------------------------

// Written by main (and the loaders) before any heartbeat thread exists.
extern int32_t brestart;  // 1 = resume mode
extern int32_t bmlock;    // 1 = memory locking configured (and still in force)
extern int32_t thstacksz; // stack size of every thread created; 0 = default
extern int64_t tckconf;   // clock ticks per second
// Delay-warning rate in percent of the time-out when none is configured.
inline constexpr int32_t HB_DEF_WARNRATE = 80;

// Puts the frame's state back as the process starts with it (stop flag and
// event included); for the tests.
void hbframe_reset();

// ---- logging --------------------------------------------------------------

struct log_hdl;
// Handles of the two logs; null while a log is not open. Set by loginit and
// cleared by logterm, read by every thread in hblog.
extern std::atomic<log_hdl *> phlanhblog, phcnthblog;

enum : int {
    HBLOG_LAN = 1,  // LAN heartbeat log
    HBLOG_CNT = 2,  // controller heartbeat log
    HBLOG_BOTH = 3, // both logs
};

// Log levels; a log records the calls at or below its configured level.
enum : int {
    HBLV_ERROR = 1,  // errors and state changes
    HBLV_WARN = 2,   // failures survived with a substitute
    HBLV_INFO = 4,   // start, stop, thread ends
    HBLV_DETAIL = 8, // detail
};

void hblog(int module, int level, const char *file, int line, const char *func, const char *format, ...)
    __attribute__((format(printf, 6, 7)));
// The handle of the log of module 1 or 2; null for another module or a log
// that is not open.
log_hdl *hblog_handle(int module);
void loginit();
void logterm();

#define HBLOG(module, level, ...) hblog((module), (level), __FILE__, __LINE__, __func__, __VA_ARGS__)

// Where a record is logged from. The helpers both heartbeats share take one
// as their last argument, filled in at the call, so that their records name
// the heartbeat function that called them (a path's " *** lan4 : NORMAL ***"
// comes from the kind's re-evaluation of the path, not from the frame's vote).
struct hbwhere {
    const char *file = __builtin_FILE();
    int line = __builtin_LINE();
    const char *func = __builtin_FUNCTION();
};
#define HBLOG_AT(at, module, level, ...) hblog((module), (level), (at).file, (at).line, (at).func, __VA_ARGS__)

// ---- clock and timing -----------------------------------------------------

// A count of clock ticks of times(); differences are taken unsigned, so a
// wrap of the counter between two readings still yields the elapsed ticks.
using hbtick_t = uint64_t;

hbtick_t hbtick_now();
// Where hbtick_now takes its ticks from; the unit tests replace it to drive
// time-outs and counter wraps without waiting.
extern hbtick_t (*hbtick_source)();
// The real clock, hbtick_source's own value.
hbtick_t hbtick_times();

// Tick limit of a time-out in milliseconds: whole seconds (rounded up) times
// the ratio (below 1 counts as 1) times tckconf, each product saturating at
// INT32_MAX. *scaled receives the seconds after the ratio when not null.
hbtick_t hbtimeout_limit(int32_t hbto_ms, int32_t ratio, int32_t *scaled);

// Writes a delay record when end - start reaches the kind's rate of the
// scaled time-out; over the time-out only for the kind's own operations.
// kind is the number of a kind made known with hbkind_set; another writes
// nothing.
int32_t delaywarn(int kind, const char *rsc, const char *node, hbtick_t start, hbtick_t end, int32_t hbto,
                  int32_t msgno);

// The loop timer every heartbeat thread's timers are: raises *max to
// now - start. Returns 0.
int32_t hblooptime(hbtick_t start, hbtick_t *max);
// The operation timer: raises *max to now - start and hands the duration
// to delaywarn as operation msgno of the kind. Returns 0.
int32_t hboptime(int kind, hbtick_t start, hbtick_t *max, const char *rsc, const char *node, int32_t hbto,
                 int32_t msgno);

// ---- scheduling, memory lock, stacks ---------------------------------------

// Applies the scheduling keys and reads the LAN watcher switch that sits
// with them into *bwatchth (left alone when the policy cannot be loaded).
int32_t setsched(int32_t *bwatchth);
int32_t setstacksz(pthread_attr_t *attr);
// Reads a stack-size key (its policy already loaded) into thstacksz and
// corrects it; failures are logged on the given module. Both loaders call
// it, the controller's last: its key governs every thread.
int32_t loadstacksz(int module, const char *key, hbwhere at = {});

// ---- configuration ---------------------------------------------------------

// Owns a block from malloc/calloc.
struct hbfree {
    void operator()(void *p) const { std::free(p); }
};
using hbmsz = std::unique_ptr<char, hbfree>;

// Result codes of the table loaders, the exit-time reload, setsched and
// attachipc; 0 is success everywhere. The process's exit statuses are not
// among them: those are services/hbexit.h's.
enum hbret : int32_t {
    HBRET_OK = 0,
    HBRET_SEM = 1,   // attachipc: the semaphores
    HBRET_SHMCM = 2, // attachipc: cluster-manager shared memory
    HBRET_SHMNM = 3, // attachipc: node-manager shared memory
    HBRET_NOMEM = 5,
    HBRET_POLICY = 9,
    HBRET_ENUMRSC = 10,
    HBRET_ENUMNODE = 11,
    HBRET_CONFIG = 12, // the configuration could not be loaded
    HBRET_OWNPRI = 15,
    HBRET_HOSTNAME = 16,
};

// Reads an integer key of the loaded policy; a failed read is logged on the
// given module and yields dflt.
int32_t hbcfg_getint(int module, const char *key, int32_t dflt, hbwhere at = {});

// Loads a policy; a failure is logged as "xmllib_load_policy(<name>)
// failed(ret:%d)" and yields HBRET_POLICY. hbcfg_unload unloads one, a
// failure logged likewise.
int32_t hbcfg_load(int module, const char *policy, const char *name, hbwhere at = {});
void hbcfg_unload(int module, const char *policy, const char *name, hbwhere at = {});

// What both loaders learn first: the release texts ("unknown" when
// unreadable, a failure logged at HBLV_WARN), the counts of paths of their
// kind and of nodes, and this node's short host name (cut at its first ".")
// and priority. The counts and the host return 0 or a loader code.
struct hbrelease {
    char edition[16];
    char version[16];
};
hbrelease hbcfg_release(int module, hbwhere at = {});
int32_t hbcfg_counts(int module, const char *kind, int32_t *currsc, int32_t *curnode, hbwhere at = {});
int32_t hbcfg_ownnode(int module, char *host, size_t size, int32_t *ownpri, hbwhere at = {});

// Copies a path's (kind non-null) or node's name from an enumeration into
// name and returns its priority from the node manager; -1 when that cannot
// be read (logged on module).
int32_t hbcfg_namepri(int module, const char *kind, const char *from, char *name, size_t size, hbwhere at = {});

// ---- settings ----------------------------------------------------------------------

// A correction of an integer setting: a value outside [lo, hi] becomes `to`,
// logged with the value and `to` by `msg` at `level`, or silently without a
// message.
struct hbbound {
    int32_t lo = INT32_MIN;
    int32_t hi = INT32_MAX;
    int32_t to = 0;
    const char *msg = nullptr;
    int level = HBLV_ERROR;
};
// One integer setting: its key, the default a failed read yields (logged),
// and up to two corrections, of which the first that applies is made.
struct hbsetting {
    const char *key;
    int32_t dflt;
    hbbound fix[2] = {};
};
int32_t hbcfg_read(int module, const hbsetting &set, hbwhere at = {});

// The settings both heartbeat kinds read alike; each kind has its own
// interval of down notices and its own path limit.
inline constexpr int32_t HB_DEF_HBTO = 90000;   // msec
inline constexpr int32_t HB_DEF_HBINT = 3000;   // msec
inline constexpr int32_t HB_ZERO_HBINT = 100;   // what an interval of 0 becomes
inline constexpr int32_t HB_DEF_MAXNODE = 32;
inline constexpr int32_t HB_DEF_DPRETRY = 5;
inline constexpr hbsetting HB_SET_MAXNODE = {"/root/all/num/server", HB_DEF_MAXNODE};
inline constexpr hbsetting HB_SET_MISMATCH = {"/root/cluster/heartbeat/mismatch", 0}; // read, not used
inline constexpr hbsetting HB_SET_HBTO = {
    "/root/cluster/heartbeat/timeout", HB_DEF_HBTO, {{.lo = 1, .to = HB_DEF_HBTO, .msg = "invalid HBTO(%d). set to %d msec."}}};
inline constexpr hbsetting HB_SET_HBINT = {"/root/cluster/heartbeat/interval",
                                           HB_DEF_HBINT,
                                           {{.lo = 0, .to = HB_DEF_HBINT, .msg = "invalid HBINT(%d). set to %d msec."},
                                            {.lo = 1, .to = HB_ZERO_HBINT, .msg = "HBINT(%d). set to %d msec."}}};
inline constexpr hbsetting HB_SET_WARNRATE = {"/root/cluster/delaywarn/heartbeat",
                                              HB_DEF_WARNRATE,
                                              {{.lo = 0, .to = 0}, {.hi = 100, .to = 100}}};
inline constexpr hbsetting HB_SET_DPRETRY = {
    "/root/cluster/downpacket/retry", HB_DEF_DPRETRY, {{.lo = 0, .to = HB_DEF_DPRETRY, .msg = "invalid DPRETRY(%d). set to %d."}}};

// The settings both loaders read alike, for the header of their table.
struct hbcommon {
    int32_t maxnode, maxrsc, hbto, hbint, warnrate, dpint, dpretry;
};
// Reads them under the policies "all" and "cluster" (the mismatch key only
// for its message): a kind has its own path limit and down-packet interval,
// its name for a failed load of "cluster", and keys of its own read after
// the interval (own, into ownvals). Returns 0 or HBRET_POLICY.
int32_t hbcfg_common(int module, const hbsetting &maxrsc, const hbsetting &dpint, const char *clustername,
                     std::span<const hbsetting> own, int32_t *ownvals, hbcommon *out, hbwhere at = {});
// Logs the settings of a header at detail level after its first line: the
// counts, the times with the rate (under the name of the kind's rate
// variable) and the down packets.
void hbcfg_logcommon(int module, const hbcommon &c, int32_t currsc, int32_t curnode, const char *ratename,
                     hbwhere at = {});
// Whether loading resumes: the cluster's action is one of `actions`, or the
// wait status asked for it (brestart). An unreadable action is logged and
// taken as SHMCM_ACTION_UNREADABLE; resuming logs its action.
bool hbcfg_resume(int module, std::initializer_list<int32_t> actions, hbwhere at = {});

// Fetches the path list (rsc, of the given heartbeat kind) or the node list
// in the two calls of a list of unknown length. The buffer gets two spare
// NULs, so a list the platform did not close still ends. Returns 0,
// HBRET_ENUMRSC or HBRET_ENUMNODE when a call fails, or HBRET_NOMEM
// (failures logged on module).
int32_t hbcfg_enum(int module, const char *kind, bool rsc, hbmsz *out, hbwhere at = {});

// ---- shared fields ------------------------------------------------------------------

// Table fields that one thread writes and another reads, with or without the
// lock. Stores release and loads acquire: a thread that reads a value also
// sees everything its writer did before storing it (a worker's last touch of
// the table before its count drops, a state before the flag that announces
// it).
template <class T> T hbld(T &field)
{
    return std::atomic_ref<T>(field).load(std::memory_order_acquire);
}
template <class T> void hbst(T &field, std::type_identity_t<T> value)
{
    std::atomic_ref<T>(field).store(value, std::memory_order_release);
}
template <class T> T hbadd(T &field, std::type_identity_t<T> delta)
{
    return std::atomic_ref<T>(field).fetch_add(delta, std::memory_order_acq_rel);
}

// ---- stop ----------------------------------------------------------------------

// 1 once the stop routine has run (or a thread stopped the daemon itself).
extern std::atomic<int32_t> bsigrecv;
// Sets bsigrecv, makes the stop event readable (waits end at once) and lets
// hbstop_wait return. The stop routine calls it after its cancellations.
void hbstop_raise();
// Waits until the stop has been raised. main calls it before joining the
// heartbeat threads, so that no thread is cancelled after it has been joined.
void hbstop_wait();
// Descriptor that becomes readable once the stop is raised, or -1 when none
// could be made (waits then run their full length).
int hbstop_fd();
// The daemon's stop routine, for a heartbeat thread that stops the daemon
// itself (a sender whose parent has gone). main points it at usr1_recv; unset,
// it only raises the stop.
extern void (*hbstop_request)(int sig);
// Clears the stop again; part of hbframe_reset.
void hbstop_reset();

// ---- multi-string lists -----------------------------------------------------

const char *mszfirst(const char *list);
const char *msznext(const char *cur);
int32_t mszcount(const char *list);
// Copies at most size - 1 characters and always terminates.
void hbcopytext(char *dst, size_t size, const char *src);
