// The cluster platform's services, as the daemon uses them.
//
// This header is the whole contract between the daemon and the platform: the
// daemon links either the stand-alone platform (platform/) or the in-process
// fake used by the unit tests (tests/fake/). Nothing outside src/services/
// includes a platform binding. Every operation returns 0 on success and any
// other value on failure; out-parameters are caller-owned storage.
#pragma once

#include <cstdint>

// Heartbeat kinds: name the kind of path, the two logs and their policies.
inline constexpr char HB_KIND_LANHB[] = "lanhb";
inline constexpr char HB_KIND_CNTHB[] = "cnthb";

// Per-node state of one heartbeat path.
enum : int32_t {
    SHMNM_SVSTAT_ONLINE = 1,
    SHMNM_SVSTAT_OFFLINE = 2,
    SHMNM_SVSTAT_UNKNOWN = 9,
    SHMNM_SVSTAT_UNUSED = 15,
};

// Overall state of one heartbeat path.
enum : int32_t {
    SHMNM_RSCSTAT_NORMAL = 0,
    SHMNM_RSCSTAT_CAUTION = 3,
    SHMNM_RSCSTAT_ERROR = 4,
    SHMNM_RSCSTAT_UNKNOWN = 9,
    SHMNM_RSCSTAT_UNUSED = 15,
};

// The only value ever given to shmnm_setnonvolstat.
inline constexpr int32_t SHMNM_NONVOL_NOTREADY = 2;

// Wait status that puts the daemon into resume mode.
inline constexpr int32_t SHMNM_WAITSTAT_RESUME = 1;

// Node status (shmnm_gethdstat) that lets a node be declared online; 9 is the
// preset before asking.
inline constexpr int32_t SHMNM_HDSTAT_OK = 1;
inline constexpr int32_t SHMNM_HDSTAT_PRESET = 9;

// Node state carried in the LAN datagram when shmnm_getnodestat fails.
inline constexpr int32_t SHMNM_NODESTAT_UNKNOWN = 9;

// Cluster actions the table loaders test (both mean: resume), and the value
// they assume when the action cannot be read.
inline constexpr int32_t SHMCM_ACTION_RESUME_A = 0x1000005;
inline constexpr int32_t SHMCM_ACTION_RESUME_B = 0x2000005;
inline constexpr int32_t SHMCM_ACTION_UNREADABLE = 0x2000000;

// Storage the caller provides for shmcm_getaction's second argument, which
// the daemon never reads.
inline constexpr int SHMCM_ACTINFO_SIZE = 64;

// Text buffers of shmcm_getedition / shmcm_getversion.
inline constexpr int SHMCM_TEXT_SIZE = 16;

// xmllib_get_value kinds.
enum : int32_t {
    XMLLIB_KIND_TEXT = 0,
    XMLLIB_KIND_INT = 1,
};

// Size of the host name buffer given to xmllib_gethostname.
inline constexpr int32_t XMLLIB_HOSTNAME_SIZE = 46;

// Log library: the name buffer of log_init and the level of catalogued
// records (delay warnings, message numbers 71 to 75).
inline constexpr int LOG_NAME_SIZE = 32;
inline constexpr int32_t LOG_LEVEL_CATALOG = 0x8000;
enum : int32_t {
    LOG_MSG_HBGAP = 71,   // gap between two heartbeats of an online node
    LOG_MSG_LANSEND = 72, // one LAN send to one node
    LOG_MSG_LANRECV = 73, // one LAN receive
    LOG_MSG_CNTWRITE = 74, // one write to the controller
    LOG_MSG_CNTREAD = 75, // one read from the controller
};

// Storage access library: the controller's heartbeat area is an array of
// 40-byte records, one slot per controller number. zemfw_gethbinf fills
// ZEMFW_HBSLOTS records, so a read buffer holds at least that many.
inline constexpr int ZEMFW_HBINF_SIZE = 40;
inline constexpr int ZEMFW_HBSLOTS = 64;

struct log_hdl; // opaque handle of one open log

extern "C" {

// Node manager shared memory.
int32_t shmnm_attach(void);
int32_t shmnm_detach(void);
int32_t shmnm_getwaitstat(int32_t *waitstat);
int32_t shmnm_enumrsc(const char *kind, char *buf, int32_t *size);
int32_t shmnm_enumnode(char *buf, int32_t *size);
int32_t shmnm_getnodepri(const char *node, int32_t *pri);
int32_t shmnm_getnodestat(const char *node, int32_t *stat);
int32_t shmnm_getrscpri(const char *kind, const char *rsc, int32_t *pri);
int32_t shmnm_getrscsvstat(const char *kind, const char *rsc, int32_t nodeid, int32_t *stat);
int32_t shmnm_setrscsvstat(const char *kind, const char *rsc, int32_t nodeid, int32_t stat);
int32_t shmnm_setrscstat(const char *kind, const char *rsc, int32_t stat);
int32_t shmnm_gethdstat(const char *node, int32_t *hdstat);
int32_t shmnm_setnonvolstat(int32_t stat);

// Cluster manager shared memory.
int32_t shmcm_attach(void);
int32_t shmcm_detach(void);
int32_t shmcm_getedition(char *edition); // SHMCM_TEXT_SIZE bytes
int32_t shmcm_getversion(char *version); // SHMCM_TEXT_SIZE bytes
int32_t shmcm_getaction(int32_t *action, void *actinfo, void *reserved);
int32_t shmcm_getratio(int32_t *ratio, int32_t *second);

// Cluster semaphores.
int32_t sem_attach(void);
int32_t sem_detach(void);
int32_t sem_set_statchange(void);
int32_t sem_wait_downnotify(int32_t flag);

// Cluster configuration.
int32_t xmllib_init(const char *module);
int32_t xmllib_term(void);
int32_t xmllib_load_config(void);
int32_t xmllib_unload_config(void);
int32_t xmllib_load_policy(const char *policy);
int32_t xmllib_unload_policy(const char *policy);
int32_t xmllib_get_value(const char *key, int32_t kind, void *value, int32_t *len);
int32_t xmllib_gethostname(char *buf, int32_t size);

// Log library. A catalogued record has level LOG_LEVEL_CATALOG, its message
// number and a null format, followed by: path name (const char *), node name
// (const char *), scaled time-out in seconds (int32_t), ticks per second
// (int64_t), elapsed ticks (uint64_t), rate in percent (int32_t).
int32_t log_init(const char *name, log_hdl **handle, int32_t level, int32_t size, void *reserved);
int32_t log_write(log_hdl *handle, int32_t level, int32_t msgno, const char *file, int32_t line,
                  const char *func, const char *format, ...);
int32_t log_term(log_hdl *handle);

// Storage access library.
int32_t zemstorage_init(uint8_t *cntno);
int32_t zemstorage_term(void);
int32_t zemfw_gethbinf(void *hbinf);                    // ZEMFW_HBSLOTS records
int32_t zemfw_sethbinf(uint8_t cntno, const void *hbinf); // one record

} // extern "C"
