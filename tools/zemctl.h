// What zemctl's subcommands share: the row of the one subcommand table, the
// escaping of names, the messages for a root or shared memory that is not
// there, and the hooks each role file gives the table. The roles:
//   zemctl.cpp  main(): the table, parsing, a mistyped subcommand named
//   init.cpp    check, init: the configuration checked, the node prepared
//   events.cpp  the published states read into one snapshot (events.h)
//   status.cpp  status: the published states shown, and whether the daemon
//               moves on (run asks it too)
//   watch.cpp   watch: the published states followed
//   set.cpp     set: what a cluster manager would set
//   keygen.cpp  keygen: a new cluster key
//   run.cpp     run: the daemon's supervisor
//   area.cpp    area create, area show: the heartbeat area on the shared disk
//   metrics.cpp metrics: what status shows and the daemon's counters, for a
//               metrics scraper
// Exit statuses are the names of services/hbexit.h; a failure that names no
// cause there (a refused configuration, a file that cannot be written) is
// EXIT_FAILURE, 1 like HBEXIT_ATTACH.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "plat.h"
#include "services/hbexit.h"

namespace CLI {
class App;
}

// One subcommand: its name and help as --help lists them, what it adds to
// its CLI11 command (options, flags; null for none), and what runs it once
// the command line is parsed. A group (handler null) runs one of its subs.
struct zemctl_cmd {
    const char *name;
    const char *help;
    void (*options)(CLI::App &cmd);
    int (*handler)();
    std::span<const zemctl_cmd> subs = {};
};

// The shape of every JSON document zemctl prints; raised when a key changes
// meaning or goes away.
inline constexpr int ZEMCTL_JSON_VERSION = 1;

// Every text from shared memory or the configuration goes out escaped.
inline std::string esc(const std::string &s)
{
    return plat_escape(s);
}

// "42s", "5m12s", "3h04m", "2d03h".
std::string duration(int64_t ms);
// A time to the tenth of a second under a minute ("2.5 s", "42 s"), else
// as duration gives it.
std::string seconds(int64_t ms);
// A platform result code in words.
const char *plat_error_text(int32_t r);
// A missing root directory, said with what fixes it; true when missing.
bool root_missing();
// Says that run/<file> cannot be attached (r: the attach's result), or that
// the root is missing; returns the exit status for it.
int attach_failed(const char *file, int32_t r);

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

// The hooks of the table, by role file.
void opts_init(CLI::App &cmd);
int cmd_check();
int cmd_init();
void opts_status(CLI::App &cmd);
int cmd_status();
void opts_watch(CLI::App &cmd);
int cmd_watch();
extern const std::span<const zemctl_cmd> set_cmds;
void opts_keygen(CLI::App &cmd);
int cmd_keygen();
void opts_run(CLI::App &cmd);
int cmd_run();
extern const std::span<const zemctl_cmd> area_cmds;
void opts_metrics(CLI::App &cmd);
int cmd_metrics();
