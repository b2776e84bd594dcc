// The stand-alone cluster platform: what its libraries share with each
// other and with zemctl. The daemon never includes this header; it sees the
// platform only through src/services/services.h.
#pragma once

#include <sys/types.h>

#include <array>
#include <map>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "services/hbext.h"
#include "services/services.h"

// The name of a value in a table of (value, name) pairs; null when absent.
template <size_t N> const char *plat_name_of(const std::pair<int32_t, const char *> (&table)[N], int32_t v)
{
    for (const auto &[k, name] : table)
        if (k == v)
            return name;
    return nullptr;
}

// Result codes of every platform operation (0 = success).
enum : int32_t {
    PLAT_ENOTREADY = 1, // not initialised, not attached, configuration not loaded
    PLAT_EINVAL = 2,    // bad argument: null pointer, unknown kind or policy, bad length
    PLAT_ENOENT = 3,    // no such file, key, node or path
    PLAT_ESPACE = 4,    // the caller's buffer is too small
    PLAT_EFORMAT = 5,   // not an integer, out of range, corrupt or foreign file
    PLAT_EIO = 6,       // a system call failed
    PLAT_EBUSY = 7,     // another daemon holds run/lock
    PLAT_EEXIST = 8,    // holds data that formatting would destroy
};

// ---- files -------------------------------------------------------------------

// Without ZEM_ROOT, the places of an installed system: the state (run/) in
// the root, the configuration and the logs where the system keeps them.
// With ZEM_ROOT, everything under that one root.
inline constexpr char PLAT_DEFAULT_ROOT[] = "/var/lib/zem";
inline constexpr char PLAT_DEFAULT_ETC[] = "/etc/zemlanhb";
inline constexpr char PLAT_DEFAULT_LOG[] = "/var/log/zemlanhb";

// ZEM_ROOT if set and not empty, else PLAT_DEFAULT_ROOT; no trailing slash.
std::string plat_root();
// Where a relative path lives: "etc" and "log" and what is below them in
// PLAT_DEFAULT_ETC and PLAT_DEFAULT_LOG when ZEM_ROOT is not set, anything
// else (and everything when it is set) under the root.
std::string plat_path(const char *rel);

// Why the last xmllib_load_config / zemstorage_init of this process failed.
std::string plat_lasterror();
void plat_seterror(const std::string &why);

// Something the platform itself has to tell an operator: a line on standard
// error and a record of that level in every open log of that name.
// (std::source_location is not there for every compiler the project builds
// with; the builtins are.)
void plat_notice(const char *log, int32_t level, const char *func, const std::string &text,
                 const char *file = __builtin_FILE(), int line = __builtin_LINE());

// Whether a log record's text names a failure that was not survived with a
// substitute (as the copy to the system log classes it).
bool plat_log_failure(std::string_view text);

// Opens (creating with mode 0700 when asked) the run/ directory without
// following a symlink; -1 with errno on failure.
int plat_rundir(bool create);

// Replaces run/<name> atomically by a new file of the given bytes (mode
// 0600); the old file, still mapped by running processes, is left to them.
int plat_replace_file(const char *name, const void *data, size_t size, std::string &err);

// Brings run/ (0700) and log/ (0750) and the files in them (0600 in run/,
// 0640 for the heartbeat area and the logs) to their modes, owned by this
// process's user. A path that is not what it should be (a symlink, a FIFO,
// a file owned by someone else that cannot be taken over) is refused: err
// names it.
int32_t plat_fix_modes(std::string &err);

// Whether text is valid UTF-8 without control characters.
bool plat_printable(std::string_view text);
// text with every byte plat_printable refuses shown as \xHH; a backslash
// stays as it is, so escaping twice changes nothing.
std::string plat_escape(std::string_view text);

// ---- one daemon per root -------------------------------------------------------

inline constexpr char PLAT_LOCK_FILE[] = "lock";
inline constexpr char PLAT_LOCKFD_ENV[] = "ZEM_LOCKFD";

// Marks this process as a tool: its attaches neither take the lock nor
// write the attach record. Call before the first attach.
void plat_set_tool(bool tool = true);
bool plat_is_tool();
// Takes run/lock for this process (descriptor returned, not close-on-exec
// cleared); -1 when it cannot, with *holder the pid named in the file when
// another process holds it (0 otherwise) and err saying why.
int plat_lock_take(pid_t *holder, std::string &err);
// The pid holding run/lock: 0 when nobody does, -1 when held by a process
// that did not name itself.
pid_t plat_lock_holder();
// What a daemon's storage init and attaches do first: adopts the lock passed
// down by its supervisor or takes it (PLAT_EBUSY when another daemon holds
// it, also said on standard error). A tool process does nothing.
int32_t plat_daemon_lock();
void plat_daemon_unlock();

// ---- configuration files ------------------------------------------------------

// This node's identity from etc/local.xml (every element optional).
struct plat_local {
    std::string hostname; // default: the machine's host name
    std::string area;     // heartbeat area file; default <root>/run/hbarea
    int32_t cntno = 0;    // controller number
};
// PLAT_ENOENT never: a missing local.xml gives the defaults. Fails with a
// message naming file, line and element when the file is broken.
int32_t plat_load_local(plat_local &out, std::string &err);
// The same, with the message made the last error.
int32_t plat_load_local(plat_local &out);

struct plat_node {
    std::string name;
    int32_t pri;
    std::map<int32_t, std::string> addr = {}; // <info> by device id, as written (prefix or zone included)
};
struct plat_rsc {
    std::string name;
    int32_t pri;
    int32_t device = -1; // a LAN path's device id; -1 without a valid one
};
// A cluster key file the configuration names: the key and its value.
struct plat_keyref {
    std::string key, file;
};
// The cluster as etc/cluster.xml describes it, in document order.
struct plat_cluster {
    std::vector<plat_node> nodes;
    std::vector<plat_rsc> rsc[2]; // indexed by plat_kind
    std::vector<plat_keyref> keys; // "/root/cluster/heartbeat/authkey" and "authalso", when set
};
// Reads and checks cluster.xml. Every problem found is appended to errors
// ("file:line: key: problem"); notes collects harmless oddities. Returns 0
// when errors stayed empty.
int32_t plat_load_cluster(plat_cluster &out, std::vector<std::string> &errors, std::vector<std::string> &notes);

// The cluster's name as the daemon reads it from cluster.xml: "unknown"
// when the key is missing or longer than 31 characters.
int32_t plat_cluster_name(std::string &name, std::string &err);

// Integer text as the configuration library reads it: optional sign, decimal
// or 0x hex, surrounding blanks allowed, must fit in 32 bits signed.
bool plat_parse_i32(const char *text, int32_t *out);

// ---- shared memory and semaphores ----------------------------------------------

inline constexpr int NM_MAXNODE = 64; // node priorities are 0 .. NM_MAXNODE-1
inline constexpr int NM_MAXRSC = 32;  // paths per kind
inline constexpr int NM_NODENAME = 48;
inline constexpr int NM_RSCNAME = 32;
inline constexpr uint32_t SHM_VERSION = 2;
inline constexpr uint32_t NM_MAGIC = 0x4d4e4d5a;  // "ZMNM"
inline constexpr uint32_t CM_MAGIC = 0x4d434d5a;  // "ZMCM"
inline constexpr uint32_t SEM_MAGIC = 0x4d45535a; // "ZSEM"
inline constexpr char NM_FILE[] = "shmnm";
inline constexpr char CM_FILE[] = "shmcm";
inline constexpr char SEM_FILE[] = "sem";

// Kind index of "lanhb" (0) and "cnthb" (1); -1 for anything else.
int plat_kind(const char *kind);

// Layouts of the files under run/. The names, counts and priorities are
// written once when the file is created and never change; every other field
// is one aligned 32- or 64-bit word read and written atomically, so there is
// no lock that a dying process could leave held. Times are milliseconds of
// the real-time clock; 0 means never.
struct shm_head {
    uint32_t magic;
    uint32_t version;
    uint64_t size; // sizeof the whole layout
};
struct nm_node {
    char name[NM_NODENAME];
    int32_t pri;
    int32_t hdstat;
    int32_t nodestat;
    int32_t pad;
};
// What the platform keeps about every publish of one state.
struct nm_hist {
    int64_t changed_ms;   // last publish of a different value
    int64_t published_ms; // last publish
    int32_t downs;        // changes to OFFLINE from a known state, start resets aside
    int32_t cause;        // HBEXT_CAUSE_* of the last publish of a node's state
};
struct nm_rsc {
    char name[NM_RSCNAME];
    int32_t pri;
    int32_t stat;                 // path state
    int32_t svstat[NM_MAXNODE];   // per node, by node index
    nm_hist stathist;
    nm_hist svhist[NM_MAXNODE];
};
// The daemon attached last.
struct nm_daemon {
    int32_t pid;          // 0: none since the file was created
    int32_t pad;
    int64_t attached_ms;
    int64_t detached_ms;  // 0 while attached, or when it ended without detaching
};
struct nm_layout {
    shm_head head;
    int32_t nnode;
    int32_t nrsc[2];
    int32_t waitstat;
    int32_t nonvol;
    int32_t pad;
    int64_t created_ms;
    nm_daemon daemon;
    nm_node node[NM_MAXNODE];
    nm_rsc rsc[2][NM_MAXRSC];
};
struct cm_layout {
    shm_head head;
    char version[SHMCM_TEXT_SIZE];
    char edition[SHMCM_TEXT_SIZE];
    int32_t action;
    int32_t ratio;
};
struct sem_layout {
    shm_head head;
    uint32_t statchange; // bumped by every post; waiters sleep on it (futex)
    int32_t downnotify;  // non-zero: this node's down is to be announced
};

inline constexpr char CM_VERSION[] = "1.0";
inline constexpr char CM_EDITION[] = "standalone";

// Writes fresh node-manager, cluster-manager and semaphore files for the
// cluster: all states UNKNOWN, hdstat 1, ratio 1, everything else 0.
int32_t plat_shm_create(const plat_cluster &cl, std::string &err);

// Where path rsc of kind sits in the attached node-manager memory (its
// index among the kind's paths) and, unless nodeid is negative, node nodeid
// (its index among the nodes): the order of shmnm_enumrsc and shmnm_enumnode.
int32_t plat_nm_index(const char *kind, const char *rsc, int32_t nodeid, int *rscidx, int *nodeidx);

// What zemctl needs beyond the daemon's operations (attach first).
int32_t plat_getrscstat(const char *kind, const char *rsc, int32_t *stat);
int32_t plat_setwaitstat(int32_t v);
int32_t plat_getnonvol(int32_t *v);
int32_t plat_getdaemon(nm_daemon *d, int64_t *created_ms);
// History of a path's state (node null) or of a node's state on it.
int32_t plat_gethist(const char *kind, const char *rsc, const char *node, nm_hist *h);
int64_t plat_now_ms();
int32_t plat_sethdstat(const char *node, int32_t v);
int32_t plat_setnodestat(const char *node, int32_t v);
int32_t plat_setaction(int32_t v);
int32_t plat_setratio(int32_t v);
int32_t plat_setdownnotify(int32_t on);
// Number of posts so far; plat_statchange_wait sleeps until it differs
// from seen or timeout_ms passes (returns the current count either way).
uint32_t plat_statchange_count();
uint32_t plat_statchange_wait(uint32_t seen, int timeout_ms);
// The LAN receiver's refusal counters (HBEXT_REFUSED_COUNT values) as the
// running or last daemon published them; PLAT_ENOENT when there are none
// (or the file is damaged).
int32_t plat_getrefused(uint64_t *counts);

// The heartbeat threads' progress as the running or last daemon published
// it (hbext_progress_start and the rest). A stamp is milliseconds of
// CLOCK_MONOTONIC, which every process of the host shares: the kind's last
// progress when positive, the time it ended when negative (-ms), 0 when no
// thread of the kind has started.
struct plat_progress {
    int32_t pid = 0;   // the daemon that published it
    int32_t hbint = 0; // its heartbeat interval and time-out, msec
    int32_t hbto = 0;
    int64_t stamp[HBEXT_TH_COUNT] = {};
};
// PLAT_ENOENT when no daemon has published any (or the file is damaged).
int32_t plat_getprogress(plat_progress *out);

// The daemon's counters (hbext_setcounts) as the running or last daemon
// published them: by kind index (plat_kind), and by the index of the path and
// node as plat_nm_index gives it. A figure never published is 0.
struct plat_counts {
    int32_t pid = 0; // the daemon that published them
    uint64_t kind[2][HBEXT_KC_COUNT] = {};
    uint64_t rsc[2][NM_MAXRSC][HBEXT_PC_COUNT] = {};
    uint64_t node[2][NM_MAXRSC][NM_MAXNODE][HBEXT_NC_COUNT] = {};
};
// PLAT_ENOENT when no daemon has published any (or the file is damaged).
int32_t plat_getcounts(plat_counts *out);
// Now on the clock of the stamps.
int64_t plat_mono_ms();

// ---- heartbeat area -----------------------------------------------------------------

// Layout: block 0 the header, block 1 + k the slot of controller number k
// (its 40-byte record, the rest zero). Blocks are whole sectors on disks
// with 512- and 4096-byte logical sectors.
inline constexpr uint32_t AREA_VERSION = 1;
inline constexpr size_t AREA_BLOCK = 4096;
inline constexpr size_t AREA_SIZE = AREA_BLOCK * (1 + ZEMFW_HBSLOTS); // 260 KiB
inline constexpr size_t AREA_CLUSTER_SIZE = 32;                      // name, NUL included

struct plat_area_header {
    uint32_t version = 0;
    uint32_t slots = 0;
    uint32_t slot_size = 0;
    int64_t created = 0; // seconds since the epoch
    std::array<uint8_t, 16> id{};
    std::string cluster;
};
// An area as plat_area_read finds it.
struct plat_area_view {
    plat_area_header head;
    bool blockdev = false; // a block device rather than a file
    bool direct = false;   // read with direct I/O (false: the file system refuses it)
    uint64_t size = 0;     // bytes of the file or device
    std::array<std::array<char, ZEMFW_HBINF_SIZE>, ZEMFW_HBSLOTS> rec{}; // by controller number
};

// The next three are in the library zemarea (area.cpp), which zemctl and the
// tests link and the daemon does not: it keeps libblkid out of the daemon.

// zemctl init: creates path as a file area of this node's cluster when
// nothing is there; whatever exists (a block device above all) is left as
// it is.
int32_t plat_area_create(const std::string &path, std::string &err);

// Formats path, a block device or a file (created when missing), as the
// heartbeat area of cluster: a new header, every slot zeroed. Refused with
// PLAT_EEXIST, err saying what is there, when path holds a file system or a
// partition table, a heartbeat area (of any cluster), or is a file with
// other content; force formats all the same and wipes the signatures found.
int32_t plat_area_format(const std::string &path, const std::string &cluster, bool force, std::string &err);

// Reads the header and every slot of the area at path, whatever cluster it
// belongs to; PLAT_EFORMAT with err saying why when it is not an area of
// this layout.
int32_t plat_area_read(const std::string &path, plat_area_view &out, std::string &err);

// Direct I/O on the area (on by default). Off makes the next zemstorage_init
// use the page cache, as where a file system refuses direct I/O: for
// measuring the difference only.
void plat_area_direct(bool on);
