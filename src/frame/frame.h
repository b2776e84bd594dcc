// The daemon frame: process-wide state, logging, timing, scheduling,
// signals and the main line. Shared by the LAN and controller heartbeats.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

// ---- process-wide state ---------------------------------------------------

// Flags written by one thread (or the stop routine) and polled by others.
extern std::atomic<int32_t> bsigrecv;       // 1 once the stop routine has run
extern std::atomic<int32_t> lanhb_bhbsend;  // 1 once SIGUSR2 came: LAN sender may send
extern std::atomic<int32_t> cnthb_bhbwrite; // 1 once SIGUSR2 came: controller writer may write
extern std::atomic<int32_t> lanhb_bwatchth; // LAN watcher thread runs (initially 1)
extern std::atomic<int32_t> cnthb_bwatchth; // controller watcher thread runs (initially 0)

// Written by main (and the loaders) before any heartbeat thread exists.
extern int32_t brestart;  // 1 = resume mode
extern int32_t bmlock;    // 1 = memory locking configured (and still in force)
extern int32_t thstacksz; // stack size of every thread created; 0 = default
extern int64_t tckconf;   // clock ticks per second
extern uint8_t cnthb_mycntno;
extern int32_t lanhb_warnrate; // delay-warning rate in percent of the time-out
extern int32_t cnthb_warnrate;

// Handles of the six heartbeat threads; 0 = not started. Atomic because the
// stop routine reads them while main may still be starting threads.
extern std::atomic<pthread_t> lanhb_recvpth, lanhb_sendpth, lanhb_watchpth;
extern std::atomic<pthread_t> cnthb_readpth, cnthb_writepth, cnthb_watchpth;

// The LAN receiver's readiness handshake.
extern pthread_mutex_t lanhb_rmutex;
extern pthread_cond_t lanhb_rcond;
// Set to 1 by the receiver, under lanhb_rmutex, before it signals lanhb_rcond:
// a signal given before main waits is not lost.
extern int32_t lanhb_rready;

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

void hblog(int module, int level, const char *file, int line, const char *func, const char *format, ...)
    __attribute__((format(printf, 6, 7)));
void loginit();
void logterm();

#define HBLOG(module, level, ...) hblog((module), (level), __FILE__, __LINE__, __func__, __VA_ARGS__)

// ---- clock and timing -----------------------------------------------------

// A count of clock ticks of times(); differences are taken unsigned, so a
// wrap of the counter between two readings still yields the elapsed ticks.
using hbtick_t = uint64_t;

hbtick_t hbtick_now();
// Where hbtick_now takes its ticks from; the unit tests replace it to drive
// time-outs and counter wraps without waiting.
extern hbtick_t (*hbtick_source)();

// Tick limit of a time-out in milliseconds: whole seconds (rounded up) times
// the ratio (below 1 counts as 1) times tckconf, each product saturating at
// INT32_MAX. *scaled receives the seconds after the ratio when not null.
hbtick_t hbtimeout_limit(int32_t hbto_ms, int32_t ratio, int32_t *scaled);

int32_t delaywarn(int kind, const char *rsc, const char *node, hbtick_t start, hbtick_t end, int32_t hbto,
                  int32_t msgno);

// Loop-cycle timers: raise *max to now - start.
int32_t lanhb_thslooptime(hbtick_t start, hbtick_t *max);
int32_t lanhb_thrlooptime(hbtick_t start, hbtick_t *max);
int32_t lanhb_thwlooptime(hbtick_t start, hbtick_t *max);
int32_t cnthb_thmlooptime(hbtick_t start, hbtick_t *max);
int32_t cnthb_thrlooptime(hbtick_t start, hbtick_t *max);
int32_t cnthb_thwlooptime(hbtick_t start, hbtick_t *max);

// Operation timers: raise *max and hand the duration to delaywarn.
int32_t lanhb_thsendtime(hbtick_t start, hbtick_t *max, const char *rsc, const char *node, const char *ip,
                         int32_t hbto);
int32_t lanhb_threcvtime(hbtick_t start, hbtick_t *max, const char *rsc, const char *node, const char *ip,
                         int32_t hbto);
int32_t cnthb_threadtime(hbtick_t start, hbtick_t *max, const char *op, const char *rsc, const char *node,
                         long unused, int32_t hbto);

// ---- scheduling, memory lock, stacks ---------------------------------------

int32_t setsched();
int32_t setstacksz(pthread_attr_t *attr);
// Reads a stack-size key (its policy already loaded) into thstacksz and
// corrects it; failures are logged on the given module.
int32_t loadstacksz(int module, const char *key);

// ---- configuration ---------------------------------------------------------

// Owns a block from malloc/calloc.
struct hbfree {
    void operator()(void *p) const { std::free(p); }
};
using hbmsz = std::unique_ptr<char, hbfree>;

// What the two table loaders return when they fail.
enum : int32_t {
    HBLOAD_NOMEM = 5,
    HBLOAD_POLICY = 9,
    HBLOAD_ENUMRSC = 10,
    HBLOAD_ENUMNODE = 11,
    HBLOAD_OWNPRI = 15,
    HBLOAD_HOSTNAME = 16,
};

// Reads an integer key of the loaded policy; a failed read is logged on the
// given module and yields dflt.
int32_t hbcfg_getint(int module, const char *key, int32_t dflt);

// Fetches the path list (rsc, of the given heartbeat kind) or the node list
// in the two calls of a list of unknown length. The buffer gets two spare
// NULs, so a list the platform did not close still ends. Returns 0,
// HBLOAD_ENUMRSC or HBLOAD_ENUMNODE when a call fails, or HBLOAD_NOMEM
// (failures logged on module).
int32_t hbcfg_enum(int module, const char *kind, bool rsc, hbmsz *out);

// ---- signals and stop -------------------------------------------------------

void usr1_recv(int sig);
void usr2_recv(int sig);
// Blocks SIGUSR1 and SIGUSR2 in the calling thread (and so in every thread it
// creates later) and starts the thread that takes them with sigwaitinfo.
// Called by main before it creates any other thread; returns 0 or the
// pthread_create result.
int32_t hbsig_start();
// Waits until the stop routine has run to its end (by SIGUSR1 or a direct
// call). main calls it before joining the heartbeat threads, so that no
// thread is cancelled after it has been joined.
void hbsig_waitstop();

// ---- multi-string lists -----------------------------------------------------

const char *mszfirst(const char *list);
const char *msznext(const char *cur);
int32_t mszcount(const char *list);
// Copies at most size - 1 characters and always terminates.
void hbcopytext(char *dst, size_t size, const char *src);

// ---- main line ----------------------------------------------------------------

int32_t attachipc();
int32_t detachipc();
int zemlanhb_main();
