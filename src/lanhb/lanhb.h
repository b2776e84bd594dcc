// LAN heartbeat: the table of LAN paths and nodes (table.cpp), the status
// evaluation (status.cpp), the time-out check and watcher (watch.cpp), the
// receiver (recv.cpp), the sender (send.cpp) and the down packets (down.cpp);
// the datagram (packet.cpp) and the exit-time reload (loadexit.cpp). The
// cluster key, socket filter and refusal counters are in key.h.
#pragma once

#include <pthread.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "frame/counters.h"
#include "frame/frame.h"
#include "frame/table.h"
#include "frame/thread.h"

struct lanhb_list;

// Flags read afresh by the LAN threads.
extern std::atomic<int32_t> lanhb_bhbsend;  // 1 once SIGUSR2 came: the sender may send
extern std::atomic<int32_t> lanhb_bwatchth; // the LAN watcher thread runs (else the receiver checks)
inline constexpr int32_t LANHB_DEF_BWATCHTH = 1;

// The receiver's readiness handshake with main. lanhb_rready is set to 1 by
// the receiver, under lanhb_rmutex, before it signals lanhb_rcond: a signal
// given before main waits is not lost.
extern pthread_mutex_t lanhb_rmutex;
extern pthread_cond_t lanhb_rcond;
extern int32_t lanhb_rready;

// Puts the LAN heartbeat's globals back as the process starts with them; for
// the tests.
void lanhb_reset();

int32_t lanhb_loadinfo(lanhb_list **out);
// Releases a table built by lanhb_loadinfo (null is fine).
void lanhb_freelist(lanhb_list *list);

// The down-packet interval, read at start-up and again at an orderly stop.
inline constexpr hbsetting LANHB_SET_DPINT = {
    "/root/cluster/downpacket/interval", 0, {{.lo = 0, .to = 0, .msg = "invalid DPINT(%d). set to %d msec."}}};

// Re-reads the down-packet interval and retry into *dpint and *dpretry; both
// null: there is no table (logged, and success).
int32_t lanhb_loadexit(int32_t *dpint, int32_t *dpretry);
// The same into a table of either kind (its dpint and dpretry fields), or
// null.
template <class Table> int32_t lanhb_loadexit(Table *table)
{
    return table == nullptr ? lanhb_loadexit(static_cast<int32_t *>(nullptr), nullptr)
                            : lanhb_loadexit(&table->dpint, &table->dpretry);
}

// ---- the table ----------------------------------------------------------------
//
// One zero-filled heap block: the header, then per path one lanhb_rsc
// immediately followed by curnode lanhb_node records (lanhb_shape). Only the
// states and tick stamps change once the threads run; `stat` and `lastrecv`
// are touched by several threads and are accessed only through hbld/hbst,
// and every read-decide-publish of them happens under the header's
// `statlock`, in the node-state layer.

inline constexpr int LANHB_RSCNAME_SIZE = 32;
inline constexpr int LANHB_NAME_SIZE = 46; // node names and addresses
inline constexpr int LANHB_TEXT_SIZE = 16; // edition and version

struct lanhb_rsc {
    char name[LANHB_RSCNAME_SIZE];
    int32_t pri;
    int32_t devid; // negative: the path is invalid
    char myname[LANHB_NAME_SIZE];
    char myip[LANHB_NAME_SIZE];
    int32_t stat; // SHMNM_RSCSTAT_*
    uint64_t count[HBEXT_PC_COUNT]; // frame/counters.h; none counted on a LAN path
};

struct alignas(8) lanhb_node {
    char name[LANHB_NAME_SIZE];
    char ip[LANHB_NAME_SIZE];
    int32_t pri;
    int32_t stat; // SHMNM_SVSTAT_*, 0 on invalid paths
    hbtick_t lastrecv;
    hbtick_t lastsend;
    hbtick_t maxsend;
    uint64_t count[HBEXT_NC_COUNT]; // frame/counters.h
};

// The header: the settings, counts and lock both kinds have (hbheader), and
// the LAN's own. statlock serialises the receiver's evaluation with the
// time-out check.
struct lanhb_list : hbheader {
    char edition[LANHB_TEXT_SIZE];
    char version[LANHB_TEXT_SIZE];
    uint16_t recvport;
    uint16_t sendport; // 0: any
};

static_assert(sizeof(lanhb_list) % alignof(lanhb_node) == 0);
static_assert(sizeof(lanhb_rsc) % alignof(lanhb_node) == 0);

// The LAN heartbeat as the node-state layer and the delay warnings see it,
// made known by lanhb_loadinfo; its delay-warning rate, set there too.
extern const hbkind LANHB_KIND;
extern int32_t lanhb_warnrate;

using lanhb_shape = hbshape<lanhb_list, lanhb_rsc, lanhb_node, &lanhb_node::lastrecv>;
// Path i of the table; node j of a path.
inline lanhb_rsc *lanhb_rscat(lanhb_list *list, int32_t i) { return lanhb_shape::rscat(list, i); }
inline lanhb_node *lanhb_nodeat(lanhb_rsc *rsc, int32_t j) { return lanhb_shape::nodeat(rsc, j); }

// Non-blocking sockets for the sender and receiver ("/root/lanhb/socket/nbio").
extern int32_t lanhb_bsocknbio;
inline constexpr int32_t LANHB_DEF_SOCKNBIO = 1;

// ---- status evaluation and time-outs -------------------------------------------

struct lanhb_packet;

// Evaluates one accepted datagram of the node `node` on the path `rsc`.
int32_t lanhb_hbdata(lanhb_list *list, lanhb_rsc *rsc, lanhb_node *node, lanhb_packet *pkt);
// Derives, stores and publishes the overall state of one path. Once threads
// run, the caller holds list->statlock.
int32_t lanhb_setrscstat(lanhb_list *list, lanhb_rsc *rsc);
// One time-out pass over the whole table.
int32_t lanhb_hbcheck(lanhb_list *list);

// ---- threads ---------------------------------------------------------------------
//
// Each takes the LAN table and ends with a pointer to a short decimal text
// ("0" on a normal stop); its loop timer keeps its longest cycle, and its
// clean-up handler (the argument is not used) logs its end.

// The watcher (watch.cpp).
void *lanhb_hbwatch(void *list);
int32_t lanhb_thwlooptime(hbtick_t start, hbtick_t *max);
void lanhb_watchthexit(void *arg);

// The receiver (recv.cpp); the timer of one receive writes delay record 73.
void *lanhb_hbrecv(void *list);
int32_t lanhb_thrlooptime(hbtick_t start, hbtick_t *max);
int32_t lanhb_threcvtime(hbtick_t start, hbtick_t *max, const char *rsc, const char *node, const char *ip,
                         int32_t hbto);
void lanhb_recvthexit(void *arg);

// The sender (send.cpp); the timer of one send writes delay record 72. The
// down-packet sender (down.cpp) uses the sender's timers.
void *lanhb_hbsend(void *list);
int32_t lanhb_thslooptime(hbtick_t start, hbtick_t *max);
int32_t lanhb_thsendtime(hbtick_t start, hbtick_t *max, const char *rsc, const char *node, const char *ip,
                         int32_t hbto);
void lanhb_sendthexit(void *arg);
void *lanhb_dpsend(void *list);

// ---- the datagram ------------------------------------------------------------
//
// Integers are big-endian on the wire; texts NUL-padded. 320 bytes, then
// maxnode entries of 8 bytes.

struct lanhb_nodeinf {
    int32_t pri;
    int32_t stat;
};

struct lanhb_packet {
    char tag[8]; // "lanhb" or "hbdown"
    char edition[LANHB_TEXT_SIZE];
    char version[LANHB_TEXT_SIZE];
    char reserved1[256];
    uint32_t sendtime; // time(), low 32 bits
    int32_t nodepri;   // sender's own node id
    int32_t rscpri;    // identifies the path
    int32_t rscstat;   // sender's state of the path
    int32_t reserved2;
    int32_t nodelen; // maxnode * 8
    lanhb_nodeinf nodeinf[];
};

static_assert(offsetof(lanhb_packet, edition) == 8);
static_assert(offsetof(lanhb_packet, version) == 24);
static_assert(offsetof(lanhb_packet, sendtime) == 296);
static_assert(offsetof(lanhb_packet, nodelen) == 316);
static_assert(offsetof(lanhb_packet, nodeinf) == 320);
static_assert(sizeof(lanhb_packet) == 320);

inline constexpr char LANHB_TAG_HB[] = "lanhb";
inline constexpr char LANHB_TAG_DOWN[] = "hbdown";

// Length of a datagram with room for maxnode entries (a negative maxnode
// counts as 0).
size_t lanhb_pktlen(int32_t maxnode);
// Zeroes the buffer (lanhb_pktlen(list->maxnode) bytes) and writes the fixed
// fields: tag, edition, version, nodepri, nodelen.
void lanhb_pktinit(lanhb_packet *pkt, const lanhb_list *list, const char *tag);
// Rewrites nodeinf from the node manager, never beyond maxnode entries.
// `named` selects the sender's failure text (with the node name) over the
// down-packet sender's (code only).
void lanhb_pktnodeinf(lanhb_packet *pkt, lanhb_list *list, bool named);
// Sets rscpri and rscstat for the peers of one path.
void lanhb_pktrsc(lanhb_packet *pkt, lanhb_rsc *rsc);

// Copies a configured address text without its zone suffix ("%net0").
void lanhb_ipnozone(const char *ip, char out[LANHB_NAME_SIZE]);
// Whether the source address `from` (AF_INET in IPv4 mode, AF_INET6 in IPv6
// mode) matches the configured address text `ip`. `exact` (keyed mode): an
// IPv4 address must be the whole mapped address, not a part of its text.
bool lanhb_ipmatch(const char *ip, const struct sockaddr *from, bool v6mode, bool exact = false);
// Whether the datagram's tag is "lanhb" or "hbdown" (over the word's length).
bool lanhb_tagok(const lanhb_packet *pkt);
// Converts the six 32-bit words from 296 on to host order, in place.
void lanhb_pktorder(lanhb_packet *pkt);
// Acceptance of one received datagram of `count` bytes in a buffer of
// `buflen` bytes: length, tag, byte order (converted in place), path, node,
// sender address; keyed, lanhb_keyaccept's rules (on `clock` when given).
// On success (0) *rsc and
// *node are the matched records; otherwise the LANHB_REFUSE_* reason.
struct lanhb_keyclock;
int32_t lanhb_accept(lanhb_list *list, lanhb_packet *pkt, ssize_t count, size_t buflen, const struct sockaddr *from,
                     bool v6mode, lanhb_rsc **rsc, lanhb_node **node, const lanhb_keyclock *clock = nullptr);

// ---- sending -----------------------------------------------------------------

// A sending thread's datagram buffer (lanhb_wirelen bytes) with its fixed
// fields, or null (logged).
using lanhb_pktptr = std::unique_ptr<lanhb_packet, hbfree>;
lanhb_pktptr lanhb_newpacket(const lanhb_list *list, const char *tag);

// The port texts of a sending thread: from sendport and recvport.
struct lanhb_ports {
    char from[8];
    char to[8];
    explicit lanhb_ports(const lanhb_list *list);
    // The bind address's service: none when sendport is 0 (any port).
    const char *fromservice(const lanhb_list *list) const { return list->sendport == 0 ? nullptr : from; }
};

// Sends the datagram to one node entry of one path: bind-address and
// destination lookups, a fresh socket, optional bind and non-blocking mode,
// one sendto, close, timing. `from_port` is null when sendport is 0.
// `bindok_level` is the level of the bind-address lookup's success line.
void lanhb_sendpeer(lanhb_list *list, lanhb_rsc *rsc, lanhb_node *node, lanhb_packet *pkt, size_t len,
                    const char *from_port, const char *to_port, int bindok_level);
// Serves every peer of every path once with the datagram as it stands; the
// sender traces each path and node (`trace`), the down-packet sender not.
void lanhb_sendround(lanhb_list *list, lanhb_packet *pkt, size_t len, const lanhb_ports &ports, bool trace);

// A thread's socket, closed on every way out, cancellation unwinding included.
struct lanhb_sockfd {
    int fd = -1;
    lanhb_sockfd() = default;
    lanhb_sockfd(const lanhb_sockfd &) = delete;
    lanhb_sockfd &operator=(const lanhb_sockfd &) = delete;
    ~lanhb_sockfd()
    {
        if (fd >= 0)
            close(fd);
    }
};

// The daemon's parent as main saw it at start (0: not known). Written before
// any thread starts.
extern pid_t lanhb_parent;

// The sender's pacing (the frame's pace), counting polls in which the
// parent process has gone: its pid is no longer the parent's (a subreaper,
// or init with pid 1, took the daemon over).
struct lanhb_pace {
    hbpace pace;
    int32_t hbint = 0;
    int32_t countover1 = 0;
    int32_t countover2 = 0;
    int32_t orphan = 0; // consecutive polls without the parent
    pid_t parent = 0;   // lanhb_parent, taken by lanhb_paceinit
    void (*sleepms)(int32_t ms) = nullptr; // null: a wait that ends on the stop
    pid_t (*ppid)() = nullptr;             // null: getppid
};
// Fills hbint, the self-down limits and the parent.
void lanhb_paceinit(lanhb_pace *pace, int32_t hbint);
// One pacing step; in the send phase `maxloop` is non-null and the loop time
// from t0 is recorded after the sleep. True when the parent has been gone
// long enough: the caller stops the daemon.
bool lanhb_pacestep(lanhb_pace *pace, hbtick_t t0, hbtick_t *maxloop);

// How a LAN thread ends: the text it returns (what the main line's join
// prints) and the code its "<<< EXIT >>>" line shows.
enum : int {
    LANHB_EXIT_OK,
    LANHB_EXIT_NOSOCK,
    LANHB_EXIT_NOBIND,
    LANHB_EXIT_NOMEM,
};
struct lanhb_exitcode {
    const char *text;
    long logged;
};
inline constexpr lanhb_exitcode LANHB_EXITS[] = {{"0", 0}, {"1", 6}, {"2", 7}, {"3", 5}};
// Logs the EXIT line of an end and yields the thread's exit value.
#define lanhb_exit(kind)                                                                                               \
    (HBTH_EXIT(HBLOG_LAN, LANHB_EXITS[kind].logged), const_cast<char *>(LANHB_EXITS[kind].text))
