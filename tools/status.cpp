// zemctl status and watch: the states the daemon published, read through
// its own enumeration calls into one snapshot of every path and node with
// its history. status shows a snapshot once (whether a daemon is attached
// and moves on, the cluster's values, the LAN receiver's refusals), as a
// table or JSON; watch sleeps on the state-change semaphore and prints what
// differs between two snapshots, one line or JSON object per change.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "services/hbext.h"
#include "zemctl.h"

namespace {

bool status_json = false; // status --json
int watch_count = 0;      // watch --count
int watch_timeout = 0;    // watch --timeout
bool watch_json = false;  // watch --json

using ojson = nlohmann::ordered_json;
constexpr const char *kinds[2] = {HB_KIND_LANHB, HB_KIND_CNTHB};

constexpr std::pair<int32_t, const char *> svstat_names[] = {
    {SHMNM_SVSTAT_ONLINE, "ONLINE"},
    {SHMNM_SVSTAT_OFFLINE, "OFFLINE"},
    {SHMNM_SVSTAT_UNKNOWN, "UNKNOWN"},
    {SHMNM_SVSTAT_UNUSED, "UNUSED"},
};
constexpr std::pair<int32_t, const char *> rscstat_names[] = {
    {SHMNM_RSCSTAT_NORMAL, "NORMAL"},   {SHMNM_RSCSTAT_CAUTION, "CAUTION"}, {SHMNM_RSCSTAT_ERROR, "ERROR"},
    {SHMNM_RSCSTAT_UNKNOWN, "UNKNOWN"}, {SHMNM_RSCSTAT_UNUSED, "UNUSED"},
};

const char *svstat_name(int32_t s)
{
    return plat_name_of(svstat_names, s);
}

const char *rscstat_name(int32_t s)
{
    return plat_name_of(rscstat_names, s);
}

// A state by name, or in hex when it has none ("0x2a"): one spelling for
// the table and the JSON alike.
std::string stat_text(const char *name, int32_t v)
{
    char hex[16];
    snprintf(hex, sizeof hex, "0x%x", static_cast<unsigned>(v));
    return name != nullptr ? name : hex;
}

// JSON text that never throws on a name that is not UTF-8.
std::string dump(const ojson &j, int indent = -1)
{
    return j.dump(indent, ' ', false, ojson::error_handler_t::replace);
}

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

std::string now_text()
{
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm {};
    localtime_r(&ts.tv_sec, &tm);
    char buf[64];
    snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%03ld", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
             tm.tm_hour, tm.tm_min, tm.tm_sec, ts.tv_nsec / 1000000);
    return buf;
}

std::vector<std::string> split_msz(const std::vector<char> &buf)
{
    std::vector<std::string> out;
    for (size_t i = 0; i < buf.size() && buf[i] != '\0';) {
        std::string s(&buf[i]);
        i += s.size() + 1;
        out.push_back(s);
    }
    return out;
}

// Names through the daemon's own enumeration calls: size first, then list.
std::vector<std::string> enum_rsc(const char *kind)
{
    int32_t size = 0;
    if (shmnm_enumrsc(kind, nullptr, &size) != 0 || size <= 0)
        return {};
    std::vector<char> buf(static_cast<size_t>(size));
    if (shmnm_enumrsc(kind, buf.data(), &size) != 0)
        return {};
    return split_msz(buf);
}

std::vector<std::string> enum_node()
{
    int32_t size = 0;
    if (shmnm_enumnode(nullptr, &size) != 0 || size <= 0)
        return {};
    std::vector<char> buf(static_cast<size_t>(size));
    if (shmnm_enumnode(buf.data(), &size) != 0)
        return {};
    return split_msz(buf);
}

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
using snapshot = std::vector<rsc_view>[2];

void take(snapshot &snap)
{
    std::vector<std::string> nodes = enum_node();
    for (int k = 0; k < 2; k++) {
        snap[k].clear();
        for (const std::string &r : enum_rsc(kinds[k])) {
            rsc_view rv{r, -1, SHMNM_RSCSTAT_UNKNOWN, {}, {}};
            shmnm_getrscpri(kinds[k], r.c_str(), &rv.pri);
            plat_getrscstat(kinds[k], r.c_str(), &rv.stat);
            plat_gethist(kinds[k], r.c_str(), nullptr, &rv.hist);
            for (const std::string &n : nodes) {
                node_view nv{n, -1, SHMNM_SVSTAT_UNKNOWN, {}};
                shmnm_getnodepri(n.c_str(), &nv.pri);
                shmnm_getrscsvstat(kinds[k], r.c_str(), nv.pri, &nv.stat);
                plat_gethist(kinds[k], r.c_str(), n.c_str(), &nv.hist);
                rv.nodes.push_back(nv);
            }
            snap[k].push_back(rv);
        }
    }
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
                ojson p = {{"name", r.name}, {"pri", r.pri}, {"stat", stat_text(rscstat_name(r.stat), r.stat)}};
                hist_json(p, r.hist, now, false);
                p["nodes"] = ojson::array();
                for (const node_view &n : r.nodes) {
                    ojson e = {{"name", n.name}, {"pri", n.pri}, {"stat", stat_text(svstat_name(n.stat), n.stat)}};
                    hist_json(e, n.hist, now, true);
                    p["nodes"].push_back(e);
                }
                paths.push_back(p);
            }
            out[kinds[k]] = paths;
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
        printf("%s\n", kinds[k]);
        if (snap[k].empty())
            printf("  (no paths)\n");
        for (const rsc_view &r : snap[k]) {
            printf("  %-20s pri %-4d %-8s %s\n", esc(r.name).c_str(), r.pri,
                   stat_text(rscstat_name(r.stat), r.stat).c_str(), since_text(r.hist, now).c_str());
            for (const node_view &n : r.nodes)
                printf("    %-18s pri %-4d %-8s %-16s downs %d\n", esc(n.name).c_str(), n.pri,
                       stat_text(svstat_name(n.stat), n.stat).c_str(), since_text(n.hist, now).c_str(),
                       n.hist.downs);
        }
    }
    return rc;
}

namespace {

// One line per event: text, or with json one JSON object per line.
struct watch_out {
    bool json;

    void emit(const std::string &text, ojson j) const
    {
        if (!json) {
            printf("%s %s\n", now_text().c_str(), text.c_str());
            return;
        }
        ojson line = {{"version", ZEMCTL_JSON_VERSION}, {"time_ms", plat_now_ms()}};
        line.update(j);
        printf("%s\n", dump(line).c_str());
    }
};

void print_changes(const watch_out &w, const snapshot &before, const snapshot &after, uint32_t posts)
{
    int lines = 0;
    for (int k = 0; k < 2; k++) {
        std::map<std::string, const rsc_view *> old;
        for (const rsc_view &r : before[k])
            old[r.name] = &r;
        for (const rsc_view &r : after[k]) {
            auto it = old.find(r.name);
            if (it == old.end())
                continue;
            const rsc_view &o = *it->second;
            for (size_t j = 0; j < r.nodes.size() && j < o.nodes.size(); j++) {
                if (r.nodes[j].stat == o.nodes[j].stat)
                    continue;
                std::string from = stat_text(svstat_name(o.nodes[j].stat), o.nodes[j].stat);
                std::string to = stat_text(svstat_name(r.nodes[j].stat), r.nodes[j].stat);
                w.emit(std::string(kinds[k]) + " " + esc(r.name) + " node " + esc(r.nodes[j].name) + ": " + from +
                           " -> " + to,
                       {{"event", "node"}, {"kind", kinds[k]}, {"path", r.name}, {"node", r.nodes[j].name},
                        {"from", from}, {"to", to}, {"down_count", r.nodes[j].hist.downs}});
                lines++;
            }
            if (r.stat != o.stat) {
                std::string from = stat_text(rscstat_name(o.stat), o.stat);
                std::string to = stat_text(rscstat_name(r.stat), r.stat);
                w.emit(std::string(kinds[k]) + " " + esc(r.name) + ": " + from + " -> " + to,
                       {{"event", "path"}, {"kind", kinds[k]}, {"path", r.name}, {"from", from}, {"to", to}});
                lines++;
            }
        }
    }
    if (lines == 0)
        w.emit("state change posted (" + std::to_string(posts) + (posts == 1 ? " post" : " posts") +
                   ", no state differs)",
               {{"event", "post"}, {"posts", posts}});
}

// Identity of the semaphore file, to notice a reset by "zemctl init".
ino_t sem_inode()
{
    struct stat st {};
    return stat(plat_path("run/sem").c_str(), &st) == 0 ? st.st_ino : 0;
}

} // namespace

void opts_watch(CLI::App &cmd)
{
    cmd.add_option("--count", watch_count, "stop after this many state-change posts");
    cmd.add_option("--timeout", watch_timeout, "give up (status 3) after this many seconds");
    cmd.add_flag("--json", watch_json, "one JSON object per line");
}

int cmd_watch()
{
    if (root_missing())
        return HBEXIT_ATTACH;
    const watch_out w{watch_json};
    if (int32_t r = sem_attach(); r != 0)
        return attach_failed(SEM_FILE, r);
    if (int32_t r = shmnm_attach(); r != 0)
        return attach_failed(NM_FILE, r);
    ino_t ino = sem_inode();
    snapshot snap;
    take(snap);
    uint32_t seen = plat_statchange_count();
    w.emit("watching " + esc(plat_root()) + " for state changes", {{"event", "start"}, {"root", plat_root()}});
    int posts = 0;
    struct timespec start {};
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        uint32_t c = plat_statchange_wait(seen, 1000);
        if (c != seen) {
            snapshot now;
            take(now);
            print_changes(w, snap, now, c - seen);
            posts += static_cast<int>(c - seen);
            seen = c;
            for (int k = 0; k < 2; k++)
                snap[k] = now[k];
            if (watch_count > 0 && posts >= watch_count)
                return 0;
        }
        if (c == seen && sem_inode() != ino && sem_attach() == 0 && shmnm_attach() == 0) {
            ino = sem_inode();
            take(snap);
            seen = plat_statchange_count();
            w.emit("shared memory was reset; watching the new one", {{"event", "reset"}});
        }
        if (watch_timeout > 0) {
            struct timespec t {};
            clock_gettime(CLOCK_MONOTONIC, &t);
            if (t.tv_sec - start.tv_sec >= watch_timeout) {
                w.emit("no further state change within " + std::to_string(watch_timeout) + " s",
                       {{"event", "timeout"}, {"timeout_s", watch_timeout}});
                return HBEXIT_NODAEMON; // for watch: no change in time
            }
        }
    }
}

