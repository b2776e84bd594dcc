// What keeps a hostile LAN from faking, hiding or drowning a node: the
// cluster key with the datagram trailer, the freshness rule and the replay
// window, the keyed receiver's batches and loopback socket, the kernel
// socket filter, and the counters of refused datagrams.
//
// Without a key nothing here changes a byte on the wire or an acceptance
// decision; the receive buffer size and the refusal counters apply always.
#pragma once

#include <linux/filter.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "lanhb/lanhb.h"
#include "services/hbext.h"

// ---- the cluster key and the trailer ----------------------------------------------
//
// A keyed datagram is the plain one followed by the trailer:
//   +0  8 bytes  sequence, big-endian: the sender's wall-clock time in
//                nanoseconds, kept increasing (lanhb_seqnext)
//   +8 32 bytes  BLAKE2b-256 keyed with the cluster key, over every byte before it

inline constexpr size_t LANHB_KEY_SIZE = HBEXT_KEY_SIZE;
inline constexpr size_t LANHB_SEQ_SIZE = 8;
inline constexpr size_t LANHB_MAC_SIZE = 32;
inline constexpr size_t LANHB_TRAILER_SIZE = LANHB_SEQ_SIZE + LANHB_MAC_SIZE;

// Configuration key naming the key file (text; relative names are taken
// under the platform's root). Absent or empty: no key.
inline constexpr char LANHB_KEYCFG[] = "/root/cluster/heartbeat/authkey";
// For changing keys on a running cluster, with a key only: a second key file
// whose datagrams are accepted too, and (1) acceptance of unsigned datagrams.
inline constexpr char LANHB_KEYCFG_ALSO[] = "/root/cluster/heartbeat/authalso";
inline constexpr char LANHB_KEYCFG_UNSIGNED[] = "/root/cluster/heartbeat/authunsigned";
// With a key: how far (ms) a sequence may lie from the receiver's clock.
// Absent: the heartbeat time-out.
inline constexpr char LANHB_KEYCFG_WINDOW[] = "/root/cluster/heartbeat/authwindow";
inline constexpr int32_t LANHB_WINDOW_MIN = 100;      // ms
inline constexpr int32_t LANHB_WINDOW_MAX = 3600000;  // ms

// Result codes of lanhb_keyload and lanhb_keyfile.
enum : int32_t {
    LANHB_KEY_OK = 0,
    LANHB_KEY_MISSING = 2,  // cannot be opened
    LANHB_KEY_SYMLINK = 3,  // the name is a symbolic link
    LANHB_KEY_MODE = 4,     // not a regular file, or open to group or others
    LANHB_KEY_NOMEM = 5,
    LANHB_KEY_SIZE_BAD = 6, // not exactly LANHB_KEY_SIZE bytes
    LANHB_KEY_READ = 7,     // reading failed
};

// Reads the key file's name and the window from the configuration (policy
// "cluster") and, when a key is named, checks and reads it and prepares the
// receiving state of the table. The receiver's freshness floor is this
// moment. Runs on the main thread before any LAN thread; non-zero means the
// daemon must not start (logged here).
int32_t lanhb_keyload(lanhb_list *list);
// Checks and reads one key file: a regular file, no symlink, no access for
// group or others, exactly LANHB_KEY_SIZE bytes. Opened without blocking, so
// a FIFO or device is refused at once. Logs the reason of a refusal (never
// the key).
int32_t lanhb_keyfile(const char *path, unsigned char key[LANHB_KEY_SIZE]);
// Switches keyed mode on with the given key (the tests' way in) or off
// (null); `also` is a second key accepted on receipt, `open` accepts
// unsigned datagrams too. Forgets every replay window and takes this moment
// as the receiver's start.
void lanhb_keyset(const unsigned char *key, const unsigned char *also = nullptr, bool open = false);
// The freshness window in ms (lanhb_keyload sets it; 2000 until then).
void lanhb_keywindow(int32_t ms);
bool lanhb_keyed();
// Keyed, and unsigned datagrams are accepted as well.
bool lanhb_keyunsigned();

// Bytes a datagram occupies on the wire: the plain length, plus the trailer
// when keyed. Sending and receiving buffers have this size.
size_t lanhb_wirelen(int32_t maxnode);
// Appends the trailer with the next sequence to the plain datagram of `len`
// bytes (the buffer has room for it); returns the length to send. Unkeyed:
// returns len and writes nothing.
size_t lanhb_keyseal(lanhb_packet *pkt, size_t len);
// The same with a given sequence.
void lanhb_keysealseq(lanhb_packet *pkt, size_t len, uint64_t seq);
// Whether the trailer of the keyed datagram of `wirelen` bytes verifies with
// the key or the second key; its sequence into *seq.
bool lanhb_keyverify(const lanhb_packet *pkt, size_t wirelen, uint64_t *seq);

// ---- freshness ------------------------------------------------------------------------
//
// Clocks are taken to agree within the window. A receiver accepts a sequence
// only within `window` of its own clock and not from before its own start, so
// no capture made before either side restarted, and no datagram held back
// longer than the window, is ever accepted; per node and path the replay
// window below then refuses what was accepted once already.

// The sender's next sequence after `prev` at wall-clock time `now` (ns):
// the clock, or one more than prev while the clock has not passed it. A clock
// set back by more than the window is followed, so a node whose clock was
// ahead for a while is not refused until it catches up.
uint64_t lanhb_seqnext(uint64_t prev, uint64_t now, uint64_t window);
// Whether `seq` is fresh at the receiver's wall-clock time `now` (ns), the
// receiver having started `up` ns ago: at most `window` ahead of now, and at
// most `window` and at most `up` behind it.
bool lanhb_seqfresh(uint64_t seq, uint64_t now, uint64_t up, uint64_t window);

// Replay window of one node on one path: the newest sequence accepted and a
// bit per each of the LANHB_SEQWIN sequences below it that was accepted too.
inline constexpr uint64_t LANHB_SEQWIN = 64;
struct lanhb_seqwin {
    uint64_t last = 0;
    uint64_t seen = 0; // bit k: last - 1 - k was accepted
};
// Whether seq would be accepted: newer than last, or within the window below
// it and not seen yet. Changes nothing.
bool lanhb_seqwin_new(const lanhb_seqwin *w, uint64_t seq);
// The same, and records seq when it is new; false for a replay.
bool lanhb_seqwin_accept(lanhb_seqwin *w, uint64_t seq);

// ---- the keyed receiver -------------------------------------------------------------

// The receiver's clocks as the freshness rule reads them (ns): the wall
// clock, and CLOCK_MONOTONIC. A batch takes them once for all its datagrams.
struct lanhb_keyclock {
    uint64_t now = 0;
    uint64_t mono = 0;
};
lanhb_keyclock lanhb_keyclocknow();

// Acceptance of a datagram of the keyed length (lanhb_accept's keyed part):
// length, tag, path, node, address and the sequence's freshness and replay
// window, all on the datagram as received, before the costly code; the
// replay window is advanced, and the six words converted, only once the code
// verifies. Returns 0 with *rsc and *node set, or the reason.
int32_t lanhb_keyaccept(lanhb_list *list, lanhb_packet *pkt, ssize_t count, size_t buflen,
                        const struct sockaddr *from, bool v6mode, lanhb_rsc **rsc, lanhb_node **node,
                        const lanhb_keyclock *clock = nullptr);

// Datagrams one receive call takes at most.
inline constexpr int LANHB_BATCH = 64;
struct lanhb_batch;
// The buffers of one batch of datagrams of `wirelen` bytes; null when they
// cannot be allocated.
lanhb_batch *lanhb_batchnew(size_t wirelen);
void lanhb_batchfree(lanhb_batch *b);
// Takes what is queued on fd, up to LANHB_BATCH datagrams, without waiting;
// hands each accepted one to lanhb_hbdata and times it (*maxrecv), counts
// each refused one. Returns the count received, or -1 (errno) when the
// receive call failed.
int lanhb_recvbatch(lanhb_list *list, lanhb_batch *b, int fd, bool v6mode, hbtick_t *maxrecv);

// A second receive socket bound to the loopback address on recvport, which
// the kernel prefers for datagrams to 127.0.0.1: the node's own heartbeats
// get a queue of their own that a flood on the LAN cannot fill. `fd` is the
// bound wildcard socket; nobody else can bind the port afterwards. Returns
// the socket or -1 (logged).
int lanhb_loopsock(const lanhb_list *list, int fd);

// ---- refusals ---------------------------------------------------------------------

// Why a datagram was refused (0: accepted). The counters of hbext.h are
// indexed by reason - 1.
enum : int32_t {
    LANHB_ACCEPTED = 0,
    LANHB_REFUSE_LENGTH = 1, // wrong length or no heartbeat tag
    LANHB_REFUSE_SENDER = 2, // unknown path or node, or not its address
    LANHB_REFUSE_CODE = 3,   // the trailer does not verify
    LANHB_REFUSE_REPLAY = 4, // sequence accepted once already, or older than the replay window
    LANHB_REFUSE_FILTER = 5, // dropped in the kernel (filter or full queue)
    LANHB_REFUSE_STALE = 6,  // sequence outside the window of this node's clock, or before its start
};
// Counts one refused datagram from `from` and, keyed, logs it: at most once
// per source per minute, with the count of each reason since the last line.
// The counters are published at once; within a batch (`batch`: its tick)
// by the lanhb_refusedpublish that ends it. Receiver only.
void lanhb_refused(int32_t reason, const struct sockaddr *from, const hbtick_t *batch = nullptr);
void lanhb_refusedpublish();
// Starts counting afresh for the receive socket `fd` and publishes zeros.
void lanhb_refusedstart(int fd);
// Takes the kernel's drop count of the receive socket into the counters and
// publishes them. Receiver only.
void lanhb_refusedsync(int fd);

// ---- the receive socket -------------------------------------------------------------

// Sizes the receive buffer and, when keyed, attaches the filter that passes
// only keyed datagrams from the table's addresses. Failures are logged and
// survived.
void lanhb_socksetup(const lanhb_list *list, int fd);
// The classic BPF program passing only UDP datagrams of `wirelen` bytes (or
// of `altlen` bytes, when not 0) whose IPv4 or IPv6 source is one of the node
// addresses of the table (the own loopback entry included). Returns the
// instruction count, or 0 when the program would not fit `max`.
int lanhb_filterbuild(const lanhb_list *list, size_t wirelen, size_t altlen, sock_filter *prog, int max);
