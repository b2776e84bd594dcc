// In-process fake of the cluster platform for unit tests: binds every
// operation of services.h, keeps its state in memory, records every call and
// log record, and lets a test script results and failures. A gtest listener
// resets it before each test.
#pragma once

#include "services/hbext.h"
#include "services/services.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace fake {

struct Call {
    std::string op, args; // args joined by ',', e.g. "lanhb,lan1,2,1" for shmnm_setrscsvstat
};

struct LogRecord {
    std::string log; // the name given to log_init
    int32_t level = 0, msgno = 0;
    std::string file;
    int32_t line = 0;
    std::string func, text; // catalogued records: a summary of their fields
};

void reset();

// `op` returns `code` for its next `times` calls (-1: always); fail_on only
// for calls on `subject`: the key, policy, node, path, "path/nodeid" (service
// states), kind (shmnm_enumrsc) or log name (log_init).
void fail(const std::string &op, int32_t code, int times = -1);
void fail_on(const std::string &op, const std::string &subject, int32_t code, int times = -1);

void set_key(const std::string &key, const std::string &value);
void set_hostname(const std::string &name);
bool config_loaded();
std::vector<std::string> loaded_policies();

void add_node(const std::string &name, int32_t pri); // hdstat 1, node state 0
void set_hdstat(const std::string &node, int32_t hdstat);
void set_nodestat(const std::string &node, int32_t stat);
void add_rsc(const std::string &kind, const std::string &name, int32_t pri);
int32_t svstat(const std::string &kind, const std::string &rsc, int32_t nodeid); // UNKNOWN until set
void set_svstat(const std::string &kind, const std::string &rsc, int32_t nodeid, int32_t stat);
int32_t rscstat(const std::string &kind, const std::string &rsc); // -1 until published
void set_waitstat(int32_t stat);
int32_t nonvolstat(); // -1 until set
void set_action(int32_t action);
void set_ratio(int32_t ratio);
int statchange_count();
void set_downnotify(int32_t ret); // what sem_wait_downnotify returns; 0 = wanted

// The heartbeat area: ZEMFW_HBSLOTS slots of ZEMFW_HBINF_SIZE bytes. Hooks
// replace the storage operations and run without the fake's lock, so one may
// block; default_* do what the fake does unhooked.
std::string slot(int index);
void set_slot(int index, const void *rec);
using GetHook = std::function<int32_t(void *hbinf)>;
using SetHook = std::function<int32_t(uint8_t cntno, const void *hbinf)>;
void on_gethbinf(GetHook hook);
void on_sethbinf(SetHook hook);
int32_t default_gethbinf(void *hbinf);
int32_t default_sethbinf(uint8_t cntno, const void *hbinf);

std::vector<Call> calls();
int count(const std::string &op);
void clear_calls();

std::vector<LogRecord> logs();
std::vector<LogRecord> logs_of(const std::string &log);
std::vector<std::string> texts(const std::string &log); // ordinary records, in order
bool has_log(const std::string &log, const std::string &text); // exact text
int count_log(const std::string &log, const std::string &substring);
// Level and size given to log_init; nullopt when never opened.
std::optional<std::pair<int32_t, int32_t>> log_settings(const std::string &log);

// The side of services/hbext.h.
void set_root(const std::string &root); // where hbext_path puts relative names ("/fake-root")
std::array<uint64_t, HBEXT_REFUSED_COUNT> refused(); // the counters last given to hbext_setrefused
// What the threads of one kind told of their progress.
struct Progress {
    int starts = 0, stamps = 0, ends = 0; // calls of hbext_progress_start, _progress, _end
    int32_t hbint = 0, hbto = 0;          // as the last start gave them
};
Progress progress(int32_t thread);
// The counters last given to hbext_setcounts for a kind (rsc ""), a path
// (nodeid HBEXT_PATH) or a node on a path; empty when none were given.
std::vector<uint64_t> counts(const std::string &kind, const std::string &rsc = "", int32_t nodeid = HBEXT_PATH);

} // namespace fake
