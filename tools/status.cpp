// zemctl status: one snapshot of the node (events.h) shown as a table or
// JSON: whether a daemon is attached and moves on, whose node it is, the
// cluster's values, the LAN receiver's refusals, every path and node state
// with its history and the cause of each node's state.
#include <cstdio>
#include <ctime>
#include <string>

#include <CLI/CLI.hpp>

#include "events.h"
#include "services/hbext.h"
#include "zemctl.h"

namespace {

bool status_json = false; // status --json

std::string local_time(int64_t ms)
{
    time_t t = static_cast<time_t>(ms / 1000);
    struct tm tm {};
    localtime_r(&t, &tm);
    char buf[32];
    strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
    return buf;
}

std::string daemon_text(const daemon_view &d, const progress_view &p, int64_t now)
{
    const std::string last = "; states below are the last published";
    auto at = [&](int64_t ms) { return local_time(ms) + ", " + duration(now - ms) + " ago"; };
    const std::string who = "pid " + std::to_string(d.rec.pid) + ", since " + at(d.rec.attached_ms);
    if (d.running && p.stalled)
        return "daemon running but stalled for " + seconds(p.since_ms[p.slowest]) + ": " +
               HBEXT_TH_NAMES[p.slowest] + " made no progress for longer than " + seconds(p.limit_ms) + " (" +
               who + ")";
    if (d.running && !p.known)
        return "daemon running (" + who + "), starting: no heartbeat thread yet";
    if (d.running && p.slowest < 0)
        return "daemon running (" + who + "), stopping: its heartbeat threads have ended";
    if (d.running) {
        std::string ended;
        for (int i = 0; i < HBEXT_TH_COUNT; i++)
            if (p.state[i] == progress_view::ENDED)
                ended += std::string(ended.empty() ? "; ended: " : ", ") + HBEXT_TH_NAMES[i];
        return "daemon running (" + who + ")" + ended;
    }
    if (d.rec.pid != 0 && d.rec.detached_ms != 0)
        return "no daemon attached since " + at(d.rec.detached_ms) + " (pid " + std::to_string(d.rec.pid) + ")" +
               last;
    if (d.lock_pid != 0)
        return "no daemon attached: pid " + std::to_string(d.lock_pid) + " holds run/lock (starting)" + last;
    if (d.rec.pid == 0)
        return "no daemon attached since zemctl init (" + at(d.created_ms) + ")" + last;
    return "no daemon attached: pid " + std::to_string(d.rec.pid) + ", attached " + at(d.rec.attached_ms) +
           ", ended without detaching" + last;
}

std::string since_text(const nm_hist &h, int64_t now)
{
    return h.changed_ms != 0 ? "since " + duration(now - h.changed_ms) : "since init";
}

} // namespace

void opts_status(CLI::App &cmd)
{
    cmd.add_flag("--json", status_json, "print JSON instead of a table");
}

// Exits 0 with a daemon attached, HBEXIT_STALLED when it has stalled,
// HBEXIT_NODAEMON without one.
int cmd_status()
{
    if (root_missing())
        return HBEXIT_ATTACH;
    const ev_attached a = attach_all();
    if (a.nm != 0)
        return attach_failed(NM_FILE, a.nm);
    const snapshot snap = take(a);
    const ev_identity id = look_identity();
    const daemon_view &d = snap.daemon;
    const progress_view &p = snap.progress;
    const cluster_view &c = snap.cluster;
    const int64_t now = snap.time_ms;
    int rc = !d.running ? HBEXIT_NODAEMON : p.stalled ? HBEXIT_STALLED : 0;
    if (status_json) {
        printf("%s\n", dump(snapshot_json(snap, id), 2).c_str());
        return rc;
    }
    printf("%s\n", daemon_text(d, p, now).c_str());
    printf("host %s  cluster %s\n", esc(id.host).c_str(), esc(id.cluster).c_str());
    std::string cluster;
    if (c.cm) {
        char act[16];
        snprintf(act, sizeof act, "0x%08x", static_cast<unsigned>(c.action));
        cluster += "ratio " + std::to_string(c.ratio) + "  action " + act + "  ";
    }
    cluster += "waitstat " + std::to_string(c.waitstat) + "  nonvol " + std::to_string(c.nonvol);
    if (c.sem)
        cluster += std::string("  down notification ") + (c.down ? "on" : "off");
    printf("%s\n", cluster.c_str());
    uint64_t refused[HBEXT_REFUSED_COUNT];
    if (plat_getrefused(refused) == 0) {
        std::string line = "lanhb refused datagrams:";
        for (int i = 0; i < HBEXT_REFUSED_COUNT; i++)
            line += std::string("  ") + HBEXT_REFUSED_NAMES[i] + " " + std::to_string(refused[i]);
        printf("%s\n", line.c_str());
    }
    for (int k = 0; k < 2; k++) {
        printf("%s\n", ev_kinds[k]);
        if (snap.rsc[k].empty())
            printf("  (no paths)\n");
        for (const rsc_view &r : snap.rsc[k]) {
            printf("  %-20s pri %-4d %-8s %s\n", esc(r.name).c_str(), r.pri, rscstat_text(r.stat).c_str(),
                   since_text(r.hist, now).c_str());
            for (const node_view &n : r.nodes)
                printf("    %-18s pri %-4d %-8s %-16s downs %-3d cause %s\n", esc(n.name).c_str(), n.pri,
                       svstat_text(n.stat).c_str(), since_text(n.hist, now).c_str(), n.hist.downs,
                       cause_text(n.hist.cause));
        }
    }
    return rc;
}
