// What zemctl knows of a node at one moment, and what happened between two
// such moments: one snapshot of everything the daemon and a cluster manager
// publish (every path and node state with its history and cause, the
// daemon on record and whether it moves on, the values `set` changes), and
// the events that lead from one snapshot to the next. status shows a
// snapshot; watch and notify share the one diff, so they never disagree.
// Everything here only reads: the pure parts (the diff, the texts) are
// what the platform tests pin.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "plat.h"

using ojson = nlohmann::ordered_json;
inline constexpr const char *ev_kinds[2] = {HB_KIND_LANHB, HB_KIND_CNTHB};
// Every node and path state by name, in the order they are shown.
inline constexpr std::pair<int32_t, const char *> ev_svstat_names[] = {
    {SHMNM_SVSTAT_ONLINE, "ONLINE"},
    {SHMNM_SVSTAT_OFFLINE, "OFFLINE"},
    {SHMNM_SVSTAT_UNKNOWN, "UNKNOWN"},
    {SHMNM_SVSTAT_UNUSED, "UNUSED"},
};
inline constexpr std::pair<int32_t, const char *> ev_rscstat_names[] = {
    {SHMNM_RSCSTAT_NORMAL, "NORMAL"},   {SHMNM_RSCSTAT_CAUTION, "CAUTION"}, {SHMNM_RSCSTAT_ERROR, "ERROR"},
    {SHMNM_RSCSTAT_UNKNOWN, "UNKNOWN"}, {SHMNM_RSCSTAT_UNUSED, "UNUSED"},
};

// "42s", "5m12s", "3h04m", "2d03h".
std::string duration(int64_t ms);
// A time to the tenth of a second under a minute ("2.5 s", "42 s"), else
// as duration gives it.
std::string seconds(int64_t ms);
// A state by name, or in hex when it has none ("0x2a"): one spelling for
// the table and the JSON alike.
std::string svstat_text(int32_t s);
std::string rscstat_text(int32_t s);
// The name of a node state's cause (HBEXT_CAUSE_*; "none" for a value
// without one).
const char *cause_text(int32_t cause);
// JSON text that never throws on a name that is not UTF-8.
std::string dump(const ojson &j, int indent = -1);
// Now as local time to the millisecond, as watch stamps its lines.
std::string now_text();

// Whether the daemon with pid moves on, from the progress its heartbeat
// threads publish. It has stalled when a thread that runs has shown no
// progress for longer than the limit: one heartbeat interval (a thread's
// longest pause) plus the heartbeat time-out in whole seconds times the
// cluster's ratio. By then its peers have timed this node out, so a
// watchdog that acts on a stall never takes down a node they still hear;
// and no thread waits that long by design (the sender and the controller
// writer poll for their start, the controller's reader and writer never
// wait for a worker stuck in the controller).
struct progress_view {
    enum thread_state { NONE, RUNNING, ENDED };
    bool known = false; // that daemon has started a heartbeat thread
    int64_t limit_ms = 0;
    thread_state state[HBEXT_TH_COUNT] = {};
    int64_t since_ms[HBEXT_TH_COUNT] = {}; // since its last progress, or since it ended
    int slowest = -1;                      // the running thread longest without progress; -1 none runs
    bool stalled = false;                  // the slowest has been silent past the limit
};
int64_t stall_limit_ms(int32_t hbint, int32_t hbto, int32_t ratio);
progress_view look_progress(pid_t pid, int32_t ratio);

// Whose node this is: its name as local.xml has it (else the machine's),
// and the cluster's name as the daemon reads it ("unknown" when unreadable).
struct ev_identity {
    std::string host, cluster;
};
ev_identity look_identity();

struct node_view {
    std::string name;
    int32_t pri;
    int32_t stat;
    nm_hist hist;
};
struct rsc_view {
    std::string name;
    int32_t pri;
    int32_t stat;
    nm_hist hist;
    std::vector<node_view> nodes;
};
// The daemon on record: attached, and whether it still holds run/lock.
struct daemon_view {
    nm_daemon rec{};
    int64_t created_ms = 0;
    pid_t lock_pid = 0;
    bool running = false;
};
// What a cluster manager sets (zemctl set); cm and sem: those files attached.
struct cluster_view {
    bool cm = false, sem = false;
    int32_t ratio = 0, action = 0, waitstat = 0, nonvol = 0;
    bool down = false;
};
struct node_values {
    std::string name;
    int32_t hdstat = 0, nodestat = 0;
};
struct snapshot {
    int64_t time_ms = 0;
    daemon_view daemon;
    progress_view progress; // of a running daemon
    cluster_view cluster;
    std::vector<node_values> nodes;
    std::vector<rsc_view> rsc[2]; // by kind, every node on every path
    uint32_t posts = 0;          // state-change posts so far
};

// The root's shared memory, attached once: every attach maps afresh.
struct ev_attached {
    int32_t nm = PLAT_ENOTREADY, cm = PLAT_ENOTREADY, sem = PLAT_ENOTREADY; // the attaches' results
};
ev_attached attach_all();
// Everything as it is now (node-manager memory attached; what of cm and sem
// is not attached reads as unknown).
snapshot take(const ev_attached &a);

// The daemon on record as events name it: none since init, running,
// stalled, stopped (detached in order), vanished (gone without detaching).
enum daemon_state { DAEMON_NONE, DAEMON_RUNNING, DAEMON_STALLED, DAEMON_STOPPED, DAEMON_VANISHED };
daemon_state daemon_state_of(const snapshot &s);
inline constexpr const char *DAEMON_STATE_NAMES[] = {"none", "running", "stalled", "stopped", "vanished"};

// The snapshot as status --json prints it.
ojson snapshot_json(const snapshot &s, const ev_identity &id);

// One event: its JSON keys ("event" first, "cause" among them) and its
// line of text.
struct zem_event {
    ojson json;
    std::string text;
};
// What happened between two snapshots of the same shared memory, in this
// order: the values set, a daemon's attach or resume, every node state
// (each with its cause) and path state that changed (with the cause of the
// last node state published on it), a daemon's stall or end; a post that
// changed no state when nothing else did.
std::vector<zem_event> events_between(const snapshot &before, const snapshot &after);
// The first event of a watcher ("start"), or after a reset by zemctl init
// ("reset"): the whole snapshot.
zem_event snapshot_event(const char *event, const snapshot &s, const ev_identity &id);
// The line a subscriber gets: version and time first, host and cluster name
// last.
ojson event_line(const zem_event &e, int64_t time_ms, const ev_identity &id);
// What a hook gets in its environment for an event line: ZEM_EVENT, ZEM_KIND,
// ZEM_PATH, ZEM_NODE, ZEM_FROM, ZEM_TO, ZEM_CAUSE, ZEM_DOWNS, ZEM_HOST,
// ZEM_CLUSTER, ZEM_SETTING and ZEM_PID, each as NAME=value, empty where
// the event has no such key.
std::vector<std::string> event_env(const ojson &line);
