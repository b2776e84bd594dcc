// What keeps a hostile LAN from faking, hiding or drowning a node: the
// cluster key with the datagram trailer and the replay window, the kernel
// socket filter, and the counters of refused datagrams.
//
// Without a key nothing here changes a byte on the wire or an acceptance
// decision; the receive buffer size and the refusal counters apply always.
#pragma once

#include <linux/filter.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "lanhb/lanhb.h"
#include "services/hbext.h"

// ---- the cluster key and the trailer ----------------------------------------------
//
// A keyed datagram is the plain one followed by the trailer:
//   +0  8 bytes  sequence, big-endian: never repeats for the life of the key
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

// Reads the key file's name from the configuration (policy "cluster") and,
// when one is named, checks and reads the key and prepares the replay windows
// of the table. Runs on the main thread before any LAN thread; non-zero means
// the daemon must not start (logged here).
int32_t lanhb_keyload(lanhb_list *list);
// Checks and reads one key file: a regular file, no symlink, no access for
// group or others, exactly LANHB_KEY_SIZE bytes. Logs the reason of a refusal
// (never the key).
int32_t lanhb_keyfile(const char *path, unsigned char key[LANHB_KEY_SIZE]);
// Switches keyed mode on with the given key (the tests' way in) or off
// (null); `also` is a second key accepted on receipt, `open` accepts
// unsigned datagrams too. Forgets every replay window.
void lanhb_keyset(const unsigned char *key, const unsigned char *also = nullptr, bool open = false);
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

// Replay window of one node on one path: the newest sequence accepted and a
// bit per each of the LANHB_SEQWIN sequences below it that was accepted too.
inline constexpr uint64_t LANHB_SEQWIN = 64;
struct lanhb_seqwin {
    uint64_t last = 0;
    uint64_t seen = 0; // bit k: last - 1 - k was accepted
};
// Accepts seq and records it when it is newer than last, or within the
// window below it and not seen yet; false for a replay.
bool lanhb_seqwin_accept(lanhb_seqwin *w, uint64_t seq);
// The window of node entry `node` on path `rsc` (keyed mode only).
lanhb_seqwin *lanhb_keywin(lanhb_list *list, lanhb_rsc *rsc, lanhb_node *node);

// ---- refusals ---------------------------------------------------------------------

// Why a datagram was refused (0: accepted). The counters of hbext.h are
// indexed by reason - 1.
enum : int32_t {
    LANHB_ACCEPTED = 0,
    LANHB_REFUSE_LENGTH = 1, // wrong length or no heartbeat tag
    LANHB_REFUSE_SENDER = 2, // unknown path or node, or not its address
    LANHB_REFUSE_CODE = 3,   // the trailer does not verify
    LANHB_REFUSE_REPLAY = 4, // sequence not newer than the window allows
    LANHB_REFUSE_FILTER = 5, // dropped in the kernel (filter or full queue)
};
// Counts one refused datagram from `from` and logs it, at most once per
// source per minute with the count since the last line. Receiver only.
void lanhb_refused(int32_t reason, const struct sockaddr *from);
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
