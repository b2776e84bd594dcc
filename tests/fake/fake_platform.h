// In-process fake of the cluster platform for unit tests.
//
// Binds every operation of services.h (same symbols as the stand-alone
// platform), keeps all state in memory, records every call in order and every
// log record, and lets a test script results and failures. Every test starts
// from reset(): a gtest listener in the fake calls it before each test.
#pragma once

#include "services/services.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace fake {

// One recorded call: the operation's name and its arguments as text, joined
// by ',' (for example "lanhb,lan1,2,1" for shmnm_setrscsvstat).
struct Call {
    std::string op;
    std::string args;
};

// One record written through log_write.
struct LogRecord {
    std::string log; // "lanhb" or "cnthb" (the name given to log_init)
    int32_t level = 0;
    int32_t msgno = 0;
    std::string file;
    int32_t line = 0;
    std::string func;
    std::string text; // ordinary record: the text; catalogued: a summary
    // Catalogued records (level LOG_LEVEL_CATALOG) only:
    std::string rsc, node;
    int32_t scaled = 0;
    int64_t tck = 0;
    uint64_t elapsed = 0;
    int32_t rate = 0;
};

void reset();

// ---- scripted failures ---------------------------------------------------
// The operation `op` returns `code` for its next `times` calls (-1: always).
void fail(const std::string &op, int32_t code, int times = -1);
// The same, only for calls whose subject equals `subject`: the key of
// xmllib_get_value, the policy of xmllib_load/unload_policy, the node of
// shmnm_getnodepri/getnodestat/gethdstat, the path of shmnm_getrscpri and
// shmnm_setrscstat, "path/nodeid" of shmnm_get/setrscsvstat, the kind of
// shmnm_enumrsc, the log name of log_init.
void fail_on(const std::string &op, const std::string &subject, int32_t code, int times = -1);

// ---- configuration ---------------------------------------------------------
void set_key(const std::string &key, const std::string &value);
void erase_key(const std::string &key);
void set_hostname(const std::string &name);
bool config_loaded();
std::vector<std::string> loaded_policies();

// ---- node manager ----------------------------------------------------------
void add_node(const std::string &name, int32_t pri); // hdstat 1, node state 0
void set_hdstat(const std::string &node, int32_t hdstat);
void set_nodestat(const std::string &node, int32_t stat);
void add_rsc(const std::string &kind, const std::string &name, int32_t pri);
// Per-node state of a path; SHMNM_SVSTAT_UNKNOWN until set.
int32_t svstat(const std::string &kind, const std::string &rsc, int32_t nodeid);
void set_svstat(const std::string &kind, const std::string &rsc, int32_t nodeid, int32_t stat);
// Path state; -1 until published.
int32_t rscstat(const std::string &kind, const std::string &rsc);
void set_waitstat(int32_t stat);
int32_t nonvolstat(); // -1 until set

// ---- cluster manager -------------------------------------------------------
void set_action(int32_t action);
void set_ratio(int32_t ratio);

// ---- semaphores --------------------------------------------------------------
int statchange_count();
void set_downnotify(int32_t ret); // what sem_wait_downnotify returns; 0 = wanted

// ---- storage -------------------------------------------------------------------
// The heartbeat area: ZEMFW_HBSLOTS slots of ZEMFW_HBINF_SIZE bytes.
std::string slot(int index);
void set_slot(int index, const void *rec);
// Hooks replace the storage operations when set; they are called without the
// fake's lock, so a hook may block. default_* do what the fake does unhooked.
using GetHook = std::function<int32_t(void *hbinf)>;
using SetHook = std::function<int32_t(uint8_t cntno, const void *hbinf)>;
void on_gethbinf(GetHook hook);
void on_sethbinf(SetHook hook);
int32_t default_gethbinf(void *hbinf);
int32_t default_sethbinf(uint8_t cntno, const void *hbinf);

// ---- call record ----------------------------------------------------------------
std::vector<Call> calls();
int count(const std::string &op);
void clear_calls();

// ---- log capture ---------------------------------------------------------------
std::vector<LogRecord> logs();
std::vector<LogRecord> logs_of(const std::string &log);
// Texts of the ordinary records of one log, in order.
std::vector<std::string> texts(const std::string &log);
bool has_log(const std::string &log, const std::string &text); // exact text
int count_log(const std::string &log, const std::string &substring);
std::optional<LogRecord> find_log(const std::string &log, const std::string &substring);
// Level and size given to log_init for a log; nullopt when never opened.
std::optional<std::pair<int32_t, int32_t>> log_settings(const std::string &log);

} // namespace fake
