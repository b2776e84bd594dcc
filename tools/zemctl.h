// What zemctl's subcommands share: the row of the one subcommand table, the
// escaping of names, the messages for a root or shared memory that is not
// there, and the hooks each role file gives the table. The roles:
//   zemctl.cpp  main(): the table, parsing, a mistyped subcommand named
//   init.cpp    check, init: the configuration checked, the node prepared
//   events.cpp  snapshots of the published states, whether the daemon
//               moves on (run asks it too), the events between two
//               snapshots (events.h)
//   status.cpp  status: one snapshot shown
//   watch.cpp   watch, and the event source it shares with notify
//   notify.cpp  notify: the hooks of etc/notify.d run for every event
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

#include "events.h"
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

// A platform result code in words.
const char *plat_error_text(int32_t r);
// A missing root directory, said with what fixes it; true when missing.
bool root_missing();
// Says that run/<file> cannot be attached (r: the attach's result), or that
// the root is missing; returns the exit status for it.
int attach_failed(const char *file, int32_t r);

// The one source of events, which watch and notify share (watch.cpp): the
// root's shared memory attached, the last look at it and whose node it is.
struct ev_source {
    ev_attached attached;
    ev_identity id;
    snapshot last;
    ino_t sem_ino = 0;   // to notice a reset by zemctl init
    uint32_t posts = 0;  // state-change posts seen since the start
};
// Attaches and takes the first look; its event is "start". The exit status
// when the shared memory cannot be attached (said on standard error);
// with wait, waits for it instead, saying so once.
int source_open(ev_source &src, zem_event &start, bool wait = false);
// Sleeps until a state change is posted or wait_ms pass, looks again and
// returns what happened since the last look (often nothing: the daemon's
// end or stall posts nothing, so a watcher looks at least every second).
// A reset by zemctl init is one "reset" event with the new snapshot.
std::vector<zem_event> source_next(ev_source &src, int wait_ms);

// The hooks of the table, by role file.
void opts_init(CLI::App &cmd);
int cmd_check();
int cmd_init();
void opts_status(CLI::App &cmd);
int cmd_status();
void opts_watch(CLI::App &cmd);
int cmd_watch();
void opts_notify(CLI::App &cmd);
int cmd_notify();
extern const std::span<const zemctl_cmd> set_cmds;
void opts_keygen(CLI::App &cmd);
int cmd_keygen();
void opts_run(CLI::App &cmd);
int cmd_run();
extern const std::span<const zemctl_cmd> area_cmds;
void opts_metrics(CLI::App &cmd);
int cmd_metrics();
