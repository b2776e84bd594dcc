// zemctl status: the states the daemon published (events.h reads them) shown
// once, as a table or JSON: whether a daemon is attached and moves on, the
// cluster's values, the LAN receiver's refusals, every path and node state
// with its history. Whether the daemon moves on is judged here for run too.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <string>

#include <CLI/CLI.hpp>

#include "events.h"
#include "services/hbext.h"
#include "zemctl.h"

namespace {

bool status_json = false; // status --json

ojson ms_or_null(int64_t ms)
{
    return ms != 0 ? ojson(ms) : ojson(nullptr);
}

std::string local_time(int64_t ms)
{
    time_t t = static_cast<time_t>(ms / 1000);
    struct tm tm {};
    localtime_r(&t, &tm);
    char buf[32];
    strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
    return buf;
}

// Whether a daemon is attached, and since when or since when not.
struct daemon_view {
    nm_daemon rec{};
    int64_t created_ms = 0;
    pid_t lock_pid = 0;
    bool running = false;
};

daemon_view look_daemon()
{
    daemon_view d;
    plat_getdaemon(&d.rec, &d.created_ms);
    d.lock_pid = plat_lock_holder();
    // The lock names the daemon once it has adopted it from its supervisor.
    d.running = d.rec.pid != 0 && d.rec.detached_ms == 0 && (d.lock_pid == d.rec.pid || d.lock_pid == -1);
    return d;
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

// The history of one state as JSON, units in the key names.
void hist_json(ojson &j, const nm_hist &h, int64_t now, bool node)
{
    j["changed_at_ms"] = ms_or_null(h.changed_ms);
    j["since_ms"] = h.changed_ms != 0 ? ojson(now - h.changed_ms) : ojson(nullptr);
    j["published_at_ms"] = ms_or_null(h.published_ms);
    if (node)
        j["down_count"] = h.downs;
}

std::string since_text(const nm_hist &h, int64_t now)
{
    return h.changed_ms != 0 ? "since " + duration(now - h.changed_ms) : "since init";
}

struct cluster_view {
    bool cm = false, sem = false;
    int32_t ratio = 0, action = 0, waitstat = 0, nonvol = 0;
    bool down = false;
};

cluster_view look_cluster()
{
    cluster_view c;
    if (shmcm_attach() == 0) {
        c.cm = shmcm_getratio(&c.ratio, nullptr) == 0 && shmcm_getaction(&c.action, nullptr, nullptr) == 0;
    }
    shmnm_getwaitstat(&c.waitstat);
    plat_getnonvol(&c.nonvol);
    if (sem_attach() == 0) {
        c.sem = true;
        c.down = sem_wait_downnotify(0) == 0;
    }
    return c;
}

constexpr const char *thread_states[] = {"not started", "running", "ended"};

} // namespace

int64_t stall_limit_ms(int32_t hbint, int32_t hbto, int32_t ratio)
{
    const int64_t seconds = (static_cast<int64_t>(hbto) + 999) / 1000;
    return hbint + seconds * 1000 * (ratio < 1 ? 1 : ratio);
}

progress_view look_progress(pid_t pid, int32_t ratio)
{
    progress_view v;
    plat_progress p;
    if (pid == 0 || plat_getprogress(&p) != 0 || p.pid != pid)
        return v;
    const int64_t now = plat_mono_ms();
    for (int i = 0; i < HBEXT_TH_COUNT; i++) {
        v.known = v.known || p.stamp[i] != 0;
        v.state[i] = p.stamp[i] > 0 ? progress_view::RUNNING : p.stamp[i] < 0 ? progress_view::ENDED
                                                                                  : progress_view::NONE;
        v.since_ms[i] = p.stamp[i] != 0 ? std::max<int64_t>(0, now - (p.stamp[i] > 0 ? p.stamp[i] : -p.stamp[i])) : 0;
        if (v.state[i] == progress_view::RUNNING && (v.slowest < 0 || v.since_ms[i] > v.since_ms[v.slowest]))
            v.slowest = i;
    }
    v.limit_ms = stall_limit_ms(p.hbint, p.hbto, ratio);
    v.stalled = v.slowest >= 0 && v.since_ms[v.slowest] > v.limit_ms;
    return v;
}

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
    if (int32_t r = shmnm_attach(); r != 0)
        return attach_failed(NM_FILE, r);
    snapshot snap;
    take(snap);
    daemon_view d = look_daemon();
    cluster_view c = look_cluster();
    int64_t now = plat_now_ms();
    const progress_view p = d.running ? look_progress(d.rec.pid, c.cm ? c.ratio : 1) : progress_view{};
    int rc = !d.running ? HBEXIT_NODAEMON : p.stalled ? HBEXIT_STALLED : 0;
    if (status_json) {
        ojson out;
        out["version"] = ZEMCTL_JSON_VERSION;
        out["root"] = plat_root();
        out["time_ms"] = now;
        out["daemon"] = {{"running", d.running},
                         {"pid", d.rec.pid != 0 ? ojson(d.rec.pid) : ojson(nullptr)},
                         {"attached_at_ms", ms_or_null(d.rec.attached_ms)},
                         {"detached_at_ms", ms_or_null(d.rec.detached_ms)},
                         {"lock_pid", d.lock_pid != 0 ? ojson(d.lock_pid) : ojson(nullptr)},
                         {"stalled", p.stalled},
                         {"stalled_for_ms", p.stalled ? ojson(p.since_ms[p.slowest]) : ojson(nullptr)},
                         {"stalled_thread", p.stalled ? ojson(HBEXT_TH_NAMES[p.slowest]) : ojson(nullptr)},
                         {"stall_limit_ms", p.known ? ojson(p.limit_ms) : ojson(nullptr)}};
        out["threads"] = nullptr;
        if (p.known)
            for (int i = 0; i < HBEXT_TH_COUNT; i++)
                out["threads"][HBEXT_TH_NAMES[i]] = {
                    {"state", thread_states[p.state[i]]},
                    {"since_ms", p.state[i] != progress_view::NONE ? ojson(p.since_ms[i]) : ojson(nullptr)}};
        out["initialised_at_ms"] = ms_or_null(d.created_ms);
        out["cluster"] = {{"ratio", c.cm ? ojson(c.ratio) : ojson(nullptr)},
                          {"action", c.cm ? ojson(c.action) : ojson(nullptr)},
                          {"waitstat", c.waitstat},
                          {"nonvol", c.nonvol},
                          {"down_notification", c.sem ? ojson(c.down) : ojson(nullptr)}};
        for (int k = 0; k < 2; k++) {
            ojson paths = ojson::array();
            for (const rsc_view &r : snap[k]) {
                ojson p = {{"name", r.name}, {"pri", r.pri}, {"stat", rscstat_text(r.stat)}};
                hist_json(p, r.hist, now, false);
                p["nodes"] = ojson::array();
                for (const node_view &n : r.nodes) {
                    ojson e = {{"name", n.name}, {"pri", n.pri}, {"stat", svstat_text(n.stat)}};
                    hist_json(e, n.hist, now, true);
                    p["nodes"].push_back(e);
                }
                paths.push_back(p);
            }
            out[ev_kinds[k]] = paths;
        }
        uint64_t refused[HBEXT_REFUSED_COUNT];
        if (plat_getrefused(refused) == 0)
            for (int i = 0; i < HBEXT_REFUSED_COUNT; i++)
                out["refused"][HBEXT_REFUSED_NAMES[i]] = refused[i];
        printf("%s\n", dump(out, 2).c_str());
        return rc;
    }
    printf("%s\n", daemon_text(d, p, now).c_str());
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
        if (snap[k].empty())
            printf("  (no paths)\n");
        for (const rsc_view &r : snap[k]) {
            printf("  %-20s pri %-4d %-8s %s\n", esc(r.name).c_str(), r.pri,
                   rscstat_text(r.stat).c_str(), since_text(r.hist, now).c_str());
            for (const node_view &n : r.nodes)
                printf("    %-18s pri %-4d %-8s %-16s downs %d\n", esc(n.name).c_str(), n.pri,
                       svstat_text(n.stat).c_str(), since_text(n.hist, now).c_str(),
                       n.hist.downs);
        }
    }
    return rc;
}

