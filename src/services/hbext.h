// Operations the daemon needs beyond the cluster platform's own (services.h
// lists exactly those). Bound, like services.h, by the stand-alone platform
// (platform/hbext.cpp) and by the unit tests' fake (tests/fake/).
#pragma once

#include <cstdint>

// Bytes of the cluster key; "zemctl keygen" writes key files of this size.
inline constexpr int HBEXT_KEY_SIZE = 32;
// Where "zemctl keygen" writes by default (under the platform's root).
inline constexpr char HBEXT_KEY_DEFAULT[] = "etc/authkey";

// Counters of refused LAN datagrams, one per reason, in this order.
inline constexpr int HBEXT_REFUSED_COUNT = 6;
inline constexpr const char *HBEXT_REFUSED_NAMES[HBEXT_REFUSED_COUNT] = {"length", "sender", "code",
                                                                         "replay", "filter", "stale"};

// The heartbeat threads that show their progress (hbext_progress), by kind,
// and the names the platform shows them by: those of their entry functions,
// as their log lines have them. The controller's workers and the down-notice
// threads show none: a worker may legitimately hang in the controller, and
// the others live only for a moment of the stop.
enum : int32_t {
    HBEXT_TH_LANRECV,
    HBEXT_TH_LANSEND,
    HBEXT_TH_LANWATCH,
    HBEXT_TH_CNTREAD,
    HBEXT_TH_CNTWRITE,
    HBEXT_TH_CNTWATCH,
    HBEXT_TH_COUNT,
};
inline constexpr const char *HBEXT_TH_NAMES[HBEXT_TH_COUNT] = {"lanhb_hbrecv", "lanhb_hbsend",  "lanhb_hbwatch",
                                                               "cnthb_hbread", "cnthb_hbwrite", "cnthb_hbwatch"};

// Why a node's state is published on a path; told by hbext_setcause just
// before the publication, and kept beside the state for the platform's
// displays. A start reset (every node OFFLINE at an ordinary start) is no
// down of the node. NONE: not told.
enum : int32_t {
    HBEXT_CAUSE_NONE,
    HBEXT_CAUSE_HEARTBEAT, // a heartbeat arrived
    HBEXT_CAUSE_DOWN,      // the node announced its orderly stop
    HBEXT_CAUSE_TIMEOUT,   // silence past the time-out
    HBEXT_CAUSE_START,     // first states of an ordinary start
    HBEXT_CAUSE_RESUME,    // states taken over at a resume start
    HBEXT_CAUSE_READFAIL,  // a read from the controller failed
    HBEXT_CAUSE_WRITEFAIL, // a write to the controller failed
    HBEXT_CAUSE_COUNT,
};
inline constexpr const char *HBEXT_CAUSE_NAMES[HBEXT_CAUSE_COUNT] = {
    "none", "heartbeat", "down", "timeout", "start", "resume", "read_failure", "write_failure"};

// Counters the daemon keeps from its start and publishes (hbext_setcounts)
// for the platform's displays, in three sets. Of a kind:
enum : int32_t {
    HBEXT_KC_RECEIVED, // datagrams the LAN receiver took from its socket
    HBEXT_KC_DELAY71,  // delay records written, by catalogue number 71 to 75
    HBEXT_KC_DELAY72,
    HBEXT_KC_DELAY73,
    HBEXT_KC_DELAY74,
    HBEXT_KC_DELAY75,
    HBEXT_KC_COUNT,
};
// Of a path: its controller calls, made and failed.
enum : int32_t {
    HBEXT_PC_READS,
    HBEXT_PC_READFAIL,
    HBEXT_PC_WRITES,
    HBEXT_PC_WRITEFAIL,
    HBEXT_PC_COUNT,
};
// Of a node on a path.
enum : int32_t {
    HBEXT_NC_ACCEPTED, // LAN datagrams accepted from it (heartbeats and down packets)
    HBEXT_NC_SENT,     // LAN datagrams sent to it
    HBEXT_NC_SENDFAIL, // LAN datagrams not sent: lookup, socket or sendto failed
    HBEXT_NC_BINDFAIL, // LAN datagrams sent unbound: the bind address's lookup or bind failed
    HBEXT_NC_LASTHB,   // wall clock (ms since the epoch) of its last heartbeat; 0: none yet
    HBEXT_NC_COUNT,
};
// hbext_setcounts's node id for the counters of the path itself.
inline constexpr int32_t HBEXT_PATH = -1;

extern "C" {

// Resolves a file name from the configuration: an absolute name is copied,
// a relative one is taken under the platform's root directory. Fails when
// the result does not fit `size` bytes.
int32_t hbext_path(const char *name, char *out, int32_t size);

// Publishes the receiver's refusal counters (HBEXT_REFUSED_COUNT values,
// counted from the daemon's start) for the platform's status display.
int32_t hbext_setrefused(const uint64_t *counts);

// The cause (HBEXT_CAUSE_*) of the next publication of node nodeid's state on
// path rsc of kind `kind` (shmnm_setrscsvstat).
int32_t hbext_setcause(const char *kind, const char *rsc, int32_t nodeid, int32_t cause);

// Publishes one set of counters of kind `kind`: the kind's (rsc null,
// HBEXT_KC_COUNT values), path rsc's (nodeid HBEXT_PATH, HBEXT_PC_COUNT
// values) or those of node nodeid on path rsc (HBEXT_NC_COUNT values).
int32_t hbext_setcounts(const char *kind, const char *rsc, int32_t nodeid, const uint64_t *counts);

// A heartbeat thread of that kind has started, pacing itself by the heartbeat
// interval hbint and serving the time-out hbto (msec, as its table has them):
// from these the platform judges how long a silence of a thread means that
// the daemon has stalled. Counts as its first progress.
int32_t hbext_progress_start(int32_t thread, int32_t hbint, int32_t hbto);
// The thread moves on: called at every wait of the thread, so it must cost
// next to nothing (a clock read and a store; no other system call, no lock).
int32_t hbext_progress(int32_t thread);
// The thread has ended (the stop, or an error of its own): its silence from
// now on is no stall.
int32_t hbext_progress_end(int32_t thread);

} // extern "C"
