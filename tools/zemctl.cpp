// zemctl: the stand-alone platform's command-line tool. It checks a node's
// configuration (check), prepares the node (init), shows and watches the
// states the daemon publishes (status, watch), sets what a cluster manager
// would set (set), and supervises the daemon as its parent process (run).
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <systemd/sd-daemon.h>

#include "keygen.h"
#include "plat.h"
#include "services/hbext.h"
#include "zem_version.h"

namespace {

constexpr int EXIT_USAGE = 2;
constexpr int EXIT_NODAEMON = 3; // status: no daemon attached
constexpr int EXIT_TIMEOUT = 3;  // watch: no state change in time
constexpr int EXIT_LOCKED = 16;  // run: another daemon holds run/lock
// The shape of every JSON document zemctl prints; raised when a key changes
// meaning or goes away.
constexpr int JSON_VERSION = 1;
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

// Every text from shared memory or the configuration goes out escaped.
std::string esc(const std::string &s)
{
    return plat_escape(s);
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

// "42s", "5m12s", "3h04m", "2d03h".
std::string duration(int64_t ms)
{
    int64_t s = ms < 0 ? 0 : ms / 1000;
    char buf[32];
    if (s < 60)
        snprintf(buf, sizeof buf, "%llds", static_cast<long long>(s));
    else if (s < 3600)
        snprintf(buf, sizeof buf, "%lldm%02llds", static_cast<long long>(s / 60), static_cast<long long>(s % 60));
    else if (s < 86400)
        snprintf(buf, sizeof buf, "%lldh%02lldm", static_cast<long long>(s / 3600),
                 static_cast<long long>(s / 60 % 60));
    else
        snprintf(buf, sizeof buf, "%lldd%02lldh", static_cast<long long>(s / 86400),
                 static_cast<long long>(s / 3600 % 24));
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

const char *plat_error_text(int32_t r)
{
    static constexpr std::pair<int32_t, const char *> texts[] = {
        {PLAT_ENOTREADY, "not ready"}, {PLAT_EINVAL, "bad argument"},        {PLAT_ENOENT, "missing"},
        {PLAT_ESPACE, "too small"},    {PLAT_EFORMAT, "damaged or foreign"}, {PLAT_EIO, "system error"},
        {PLAT_EBUSY, "held by a daemon"},
    };
    const char *t = plat_name_of(texts, r);
    return t != nullptr ? t : "failed";
}

// A missing root directory, or nothing usable under run/, with what fixes it.
bool root_missing()
{
    struct stat st {};
    if (stat(plat_root().c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        return false;
    fprintf(stderr,
            "zemctl: the root directory %s does not exist: create it with etc/cluster.xml and etc/local.xml "
            "(see docs/configuration.md) and run \"zemctl init\", or point ZEM_ROOT at the right one\n",
            esc(plat_root()).c_str());
    return true;
}

int attach_failed(const char *file, int32_t r)
{
    if (root_missing())
        return 1;
    fprintf(stderr, "zemctl: shared memory %s is %s (ret:%d); run \"zemctl init\" to create it\n",
            esc(plat_path("run/") + file).c_str(), plat_error_text(r), r);
    return 1;
}

// ---- init ----------------------------------------------------------------------

// Reads and checks both files, printing every note and problem; false when
// there was a problem, said as "zemctl: <what>: N error(s)<tail>".
bool validate(plat_cluster &cl, plat_local &loc, const char *what, const char *tail)
{
    if (root_missing())
        return false;
    std::vector<std::string> errors, notes;
    plat_load_cluster(cl, errors, notes);
    std::string err;
    if (plat_load_local(loc, err) != 0) {
        errors.push_back(err);
    } else if (!cl.nodes.empty()) {
        std::string shortname = loc.hostname.substr(0, loc.hostname.find('.'));
        bool found = false;
        for (const plat_node &n : cl.nodes)
            found = found || n.name == shortname;
        if (!found)
            errors.push_back(plat_path("etc/local.xml") + ": /local/hostname: \"" + shortname +
                             "\" is not a <server> of cluster.xml");
    }
    for (const std::string &n : notes)
        printf("note: %s\n", esc(n).c_str());
    for (const std::string &e : errors)
        fprintf(stderr, "error: %s\n", esc(e).c_str());
    if (!errors.empty())
        fprintf(stderr, "zemctl: %s: %zu error(s)%s\n", what, errors.size(), tail);
    return errors.empty();
}

void summary(const plat_cluster &cl, const plat_local &loc)
{
    printf("%zu servers, %zu lanhb paths, %zu cnthb paths; node %s, heartbeat area %s (controller %d)\n",
           cl.nodes.size(), cl.rsc[0].size(), cl.rsc[1].size(), esc(loc.hostname).c_str(), esc(loc.area).c_str(),
           loc.cntno);
}

int cmd_check()
{
    plat_cluster cl;
    plat_local loc;
    if (!validate(cl, loc, "check", ""))
        return 1;
    printf("%s: configuration OK: ", esc(plat_root()).c_str());
    summary(cl, loc);
    return 0;
}

int cmd_init(bool force)
{
    plat_cluster cl;
    plat_local loc;
    if (!validate(cl, loc, "init failed", "; nothing was changed"))
        return 1;
    // Held through the reset, so that no daemon starts on half-made files.
    pid_t holder = 0;
    std::string err;
    int lockfd = plat_lock_take(&holder, err);
    if (lockfd < 0 && !(force && holder != 0)) {
        if (holder != 0)
            fprintf(stderr,
                    "zemctl: init refused: %s; resetting would leave it running on memory nobody sees. Stop it "
                    "first (SIGTERM to its \"zemctl run\", or SIGUSR1 to pid %d), or repeat with --force\n",
                    err.c_str(), static_cast<int>(holder));
        else
            fprintf(stderr, "zemctl: init failed: %s\n", esc(err).c_str());
        return 1;
    }
    int32_t r = plat_fix_modes(err);
    if (r == 0)
        r = plat_shm_create(cl, err);
    if (r == 0)
        r = plat_area_create(loc.area, err);
    if (lockfd >= 0)
        close(lockfd);
    if (r != 0) {
        fprintf(stderr, "zemctl: init failed: %s\n", esc(err).c_str());
        return 1;
    }
    printf("initialised %s: ", esc(plat_root()).c_str());
    summary(cl, loc);
    return 0;
}

// ---- status ----------------------------------------------------------------------

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

std::string daemon_text(const daemon_view &d, int64_t now)
{
    const std::string last = "; states below are the last published";
    auto at = [&](int64_t ms) { return local_time(ms) + ", " + duration(now - ms) + " ago"; };
    if (d.running)
        return "daemon running (pid " + std::to_string(d.rec.pid) + ", since " + at(d.rec.attached_ms) + ")";
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

// Exits 0 with a daemon attached, EXIT_NODAEMON without.
int cmd_status(bool json)
{
    if (root_missing())
        return 1;
    if (int32_t r = shmnm_attach(); r != 0)
        return attach_failed(NM_FILE, r);
    snapshot snap;
    take(snap);
    daemon_view d = look_daemon();
    cluster_view c = look_cluster();
    int64_t now = plat_now_ms();
    int rc = d.running ? 0 : EXIT_NODAEMON;
    if (json) {
        ojson out;
        out["version"] = JSON_VERSION;
        out["root"] = plat_root();
        out["time_ms"] = now;
        out["daemon"] = {{"running", d.running},
                         {"pid", d.rec.pid != 0 ? ojson(d.rec.pid) : ojson(nullptr)},
                         {"attached_at_ms", ms_or_null(d.rec.attached_ms)},
                         {"detached_at_ms", ms_or_null(d.rec.detached_ms)},
                         {"lock_pid", d.lock_pid != 0 ? ojson(d.lock_pid) : ojson(nullptr)}};
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
    printf("%s\n", daemon_text(d, now).c_str());
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

// ---- watch ------------------------------------------------------------------------

// One line per event: text, or with json one JSON object per line.
struct watch_out {
    bool json;

    void emit(const std::string &text, ojson j) const
    {
        if (!json) {
            printf("%s %s\n", now_text().c_str(), text.c_str());
            return;
        }
        ojson line = {{"version", JSON_VERSION}, {"time_ms", plat_now_ms()}};
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

int cmd_watch(int count, int timeout, bool json)
{
    if (root_missing())
        return 1;
    const watch_out w{json};
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
            if (count > 0 && posts >= count)
                return 0;
        }
        if (c == seen && sem_inode() != ino && sem_attach() == 0 && shmnm_attach() == 0) {
            ino = sem_inode();
            take(snap);
            seen = plat_statchange_count();
            w.emit("shared memory was reset; watching the new one", {{"event", "reset"}});
        }
        if (timeout > 0) {
            struct timespec t {};
            clock_gettime(CLOCK_MONOTONIC, &t);
            if (t.tv_sec - start.tv_sec >= timeout) {
                w.emit("no further state change within " + std::to_string(timeout) + " s",
                       {{"event", "timeout"}, {"timeout_s", timeout}});
                return EXIT_TIMEOUT;
            }
        }
    }
}

// ---- set --------------------------------------------------------------------------

bool parse_value(const char *what, const std::string &text, int32_t *v)
{
    if (plat_parse_i32(text.c_str(), v))
        return true;
    fprintf(stderr, "zemctl: set %s: \"%s\" is not a 32-bit integer\n", what, esc(text).c_str());
    return false;
}

int set_value(const char *what, const std::string &text, int32_t (*attach)(), const char *file,
              int32_t (*setter)(int32_t))
{
    int32_t v;
    if (!parse_value(what, text, &v))
        return EXIT_USAGE;
    if (int32_t r = attach(); r != 0)
        return attach_failed(file, r);
    if (int32_t r = setter(v); r != 0) {
        fprintf(stderr, "zemctl: set %s failed: %s (ret:%d)\n", what, plat_error_text(r), r);
        return 1;
    }
    printf("%s set to %d\n", what, v);
    return 0;
}

// The heartbeat time-out the daemon would read, in milliseconds.
int32_t configured_hbto()
{
    int32_t hbto = 90000; // the daemon's default
    if (xmllib_init(HB_KIND_LANHB) == 0) {
        if (xmllib_load_config() == 0) {
            int32_t v = 0, len = sizeof v;
            if (xmllib_get_value("/root/cluster/heartbeat/timeout", XMLLIB_KIND_INT, &v, &len) == 0 && v >= 1)
                hbto = v;
            xmllib_unload_config();
        }
        xmllib_term();
    }
    return hbto;
}

// A ratio below 1 would be taken as 1 by the daemon without a word; one that
// makes a dead node go unnoticed for over an hour is most likely a typo.
int set_ratio(const std::string &text, bool force)
{
    int32_t v;
    if (!parse_value("ratio", text, &v))
        return EXIT_USAGE;
    if (v < 1) {
        fprintf(stderr, "zemctl: set ratio: %d refused: the ratio multiplies the heartbeat time-out and must be 1 "
                        "or more (the daemon would take it as 1)\n", v);
        return EXIT_USAGE;
    }
    int64_t secs = (static_cast<int64_t>(configured_hbto()) + 999) / 1000 * v;
    if (secs > 3600 && !force) {
        fprintf(stderr, "zemctl: set ratio: %d would stretch the heartbeat time-out to %lld s (%s), over an hour; "
                        "repeat with --force if that is meant\n", v, static_cast<long long>(secs),
                duration(secs * 1000).c_str());
        return EXIT_USAGE;
    }
    return set_value("ratio", text, shmcm_attach, CM_FILE, plat_setratio);
}

int set_node_value(const char *what, const std::string &node, const std::string &text,
                   int32_t (*setter)(const char *, int32_t))
{
    int32_t v;
    if (!parse_value(what, text, &v))
        return EXIT_USAGE;
    if (int32_t r = shmnm_attach(); r != 0)
        return attach_failed(NM_FILE, r);
    if (int32_t r = setter(node.c_str(), v); r != 0) {
        fprintf(stderr, "zemctl: set %s of node %s failed: %s (ret:%d)\n", what, esc(node).c_str(),
                r == PLAT_ENOENT ? "no such node" : plat_error_text(r), r);
        return 1;
    }
    printf("%s of node %s set to %d\n", what, esc(node).c_str(), v);
    return 0;
}

int set_down(const std::string &onoff)
{
    if (onoff != "on" && onoff != "off") {
        fprintf(stderr, "zemctl: set down: expected on or off, not \"%s\"\n", esc(onoff).c_str());
        return EXIT_USAGE;
    }
    if (int32_t r = sem_attach(); r != 0)
        return attach_failed(SEM_FILE, r);
    plat_setdownnotify(onoff == "on");
    printf("down notification %s\n", onoff.c_str());
    return 0;
}

// ---- run --------------------------------------------------------------------------

std::string default_daemon()
{
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        return "zemlanhb";
    std::string dir(self, static_cast<size_t>(n));
    return dir.substr(0, dir.rfind('/') + 1) + "zemlanhb";
}

// The daemon cannot log before its logs are open; say why it could not start.
void explain(int status)
{
    std::string why;
    if (status == 4 && xmllib_init("lanhb") != 0) {
        why = plat_lasterror();
    } else if (status == 12) {
        xmllib_init("lanhb");
        if (xmllib_load_config() != 0)
            why = plat_lasterror();
        xmllib_term();
    } else if (status == 1) {
        uint8_t cntno = 0;
        if (zemstorage_init(&cntno) != 0)
            why = plat_lasterror();
        else if (zemstorage_term(), sem_attach() != 0 || shmcm_attach() != 0 || shmnm_attach() != 0)
            why = "shared memory missing or damaged under " + plat_path("run") + "; run \"zemctl init\"";
    }
    if (!why.empty())
        printf("zemctl: probable cause: %s\n", why.c_str());
}

int cmd_run(bool nodown, std::string daemon)
{
    if (daemon.empty())
        daemon = default_daemon();
    if (access(daemon.c_str(), X_OK) != 0) {
        fprintf(stderr, "zemctl: cannot run %s: %s\n", esc(daemon).c_str(), strerror(errno));
        return 127;
    }
    if (root_missing())
        return 1;
    // Taken before anything is touched and handed down to the daemon, which
    // adopts it: a second run is refused here, and the lock outlives this
    // supervisor for as long as the daemon runs.
    pid_t holder = 0;
    std::string err;
    int lockfd = plat_lock_take(&holder, err);
    if (lockfd < 0) {
        fprintf(stderr, "zemctl: run refused: %s; nothing was started or changed\n", esc(err).c_str());
        return holder != 0 ? EXIT_LOCKED : 1;
    }
    setenv(PLAT_LOCKFD_ENV, std::to_string(lockfd).c_str(), 1);
    // All the signals this parent acts on are taken synchronously. A hang-up
    // (terminal closed, ssh dropped) is an orderly stop like SIGTERM, and a
    // vanished terminal must not kill the supervisor when it says so.
    sigset_t set, old;
    sigemptyset(&set);
    for (int s : {SIGUSR1, SIGCHLD, SIGINT, SIGTERM, SIGHUP})
        sigaddset(&set, s);
    sigprocmask(SIG_BLOCK, &set, &old);
    signal(SIGPIPE, SIG_IGN);
    pid_t pid = fork();
    if (pid < 0) {
        fprintf(stderr, "zemctl: fork failed: %s\n", strerror(errno));
        return 1;
    }
    if (pid == 0) {
        signal(SIGPIPE, SIG_DFL);
        sigprocmask(SIG_SETMASK, &old, nullptr);
        fcntl(lockfd, F_SETFD, 0);
        execl(daemon.c_str(), daemon.c_str(), static_cast<char *>(nullptr));
        fprintf(stderr, "zemctl: exec %s failed: %s\n", esc(daemon).c_str(), strerror(errno));
        _exit(127);
    }
    std::string shown = esc(daemon.substr(daemon.rfind('/') + 1));
    const char *base = shown.c_str();
    printf("zemctl: started %s (pid %d)\n", esc(daemon).c_str(), pid);
    bool up = false, stopping = false;
    for (;;) {
        siginfo_t si {};
        int sig = sigwaitinfo(&set, &si);
        if (sig < 0)
            continue;
        if (sig == SIGUSR1) {
            if (si.si_pid != pid || up)
                continue;
            up = true;
            printf("zemctl: %s (pid %d) is up; sending SIGUSR2 to start heartbeats\n", base, pid);
            kill(pid, SIGUSR2);
            // Under a service manager (unit Type=notify) the start is over only
            // now; without NOTIFY_SOCKET this does nothing.
            sd_notifyf(0, "READY=1\nSTATUS=%s (pid %d) is up", base, pid);
        } else if (sig == SIGINT || sig == SIGTERM || sig == SIGHUP) {
            if (stopping) {
                printf("zemctl: already stopping; waiting for %s (pid %d)\n", base, pid);
                continue;
            }
            stopping = true;
            sd_notify(0, "STOPPING=1");
            int32_t r = sem_attach();
            if (r == 0)
                r = plat_setdownnotify(nodown ? 0 : 1);
            if (r != 0)
                fprintf(stderr, "zemctl: cannot set the down notification (ret:%d)\n", r);
            printf("zemctl: %s received; down notification %s; sending SIGUSR1 to %s (pid %d)\n", strsignal(sig),
                   nodown ? "off" : "on", base, pid);
            kill(pid, SIGUSR1);
        } else if (sig == SIGCHLD) {
            int st = 0;
            if (waitpid(pid, &st, WNOHANG) != pid)
                continue;
            if (WIFEXITED(st)) {
                printf("zemctl: %s (pid %d) exited with status %d\n", base, pid, WEXITSTATUS(st));
                explain(WEXITSTATUS(st));
                return WEXITSTATUS(st);
            }
            int s = WTERMSIG(st);
            printf("zemctl: %s (pid %d) was killed by signal %d (%s)\n", base, pid, s, strsignal(s));
            return 128 + s;
        }
    }
}

// Edit distance, for the closest subcommand to a mistyped one.
size_t distance(const std::string &a, const std::string &b)
{
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); j++)
        row[j] = j;
    for (size_t i = 1; i <= a.size(); i++) {
        size_t diag = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); j++) {
            size_t up = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diag + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diag = up;
        }
    }
    return row[b.size()];
}

// Names a subcommand that does not exist, and the closest one that does;
// false when the words of argv are all known.
bool unknown_subcommand(CLI::App &app, int argc, char **argv)
{
    CLI::App *level = &app;
    for (int i = 1; i < argc && level != nullptr; i++) {
        if (argv[i][0] == '-')
            continue;
        std::vector<CLI::App *> subs = level->get_subcommands([](CLI::App *) { return true; });
        if (subs.empty())
            return false;
        CLI::App *found = nullptr, *near = subs[0];
        for (CLI::App *c : subs) {
            if (c->get_name() == argv[i])
                found = c;
            if (distance(argv[i], c->get_name()) < distance(argv[i], near->get_name()))
                near = c;
        }
        if (found == nullptr) {
            std::string where = level == &app ? "zemctl" : "zemctl " + level->get_name();
            fprintf(stderr, "%s: unknown subcommand \"%s\"; did you mean \"%s\"? (%s --help lists them)\n",
                    where.c_str(), esc(argv[i]).c_str(), near->get_name().c_str(), where.c_str());
            return true;
        }
        level = found;
    }
    return false;
}

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    plat_set_tool(); // zemctl only looks and sets: it never holds the daemon's lock by attaching
    CLI::App app{"zemctl: prepare, inspect and supervise a node of the stand-alone cluster platform.\n"
                 "Files live under $ZEM_ROOT (default /var/lib/zem)."};
    app.set_version_flag("--version", ZEM_VERSION_TEXT);
    app.require_subcommand(1);

    app.add_subcommand("check", "check etc/cluster.xml and etc/local.xml exactly as init does, changing nothing");
    CLI::App *init = app.add_subcommand("init", "check etc/cluster.xml and etc/local.xml, create or reset this "
                                                "node's shared memory and, if missing, the heartbeat area; bring "
                                                "run/ and log/ to their modes");
    bool force = false;
    init->add_flag("--force", force, "reset even while a daemon runs on this root");
    CLI::App *status = app.add_subcommand("status", "show whether a daemon is attached and every path and node "
                                                    "state with its history; exit status 3 when no daemon runs");
    bool json = false;
    status->add_flag("--json", json, "print JSON instead of a table");
    CLI::App *watch = app.add_subcommand("watch", "print every state change until interrupted");
    int count = 0, timeout = 0;
    bool wjson = false;
    watch->add_option("--count", count, "stop after this many state-change posts");
    watch->add_option("--timeout", timeout, "give up (status 3) after this many seconds");
    watch->add_flag("--json", wjson, "one JSON object per line");

    CLI::App *set = app.add_subcommand("set", "set what a cluster manager would set");
    set->require_subcommand(1);
    std::string value, node;
    int rc = 0;
    CLI::App *ratio = set->add_subcommand("ratio", "time-out ratio (1 or more)");
    ratio->add_option("value", value, "integer (decimal or 0x hex)")->required();
    bool rforce = false;
    ratio->add_flag("--force", rforce, "accept a ratio that stretches the time-out past an hour");
    ratio->callback([&] { rc = set_ratio(value, rforce); });
    auto simple = [&](const char *name, const char *help, int32_t (*attach)(), const char *file,
                      int32_t (*setter)(int32_t)) {
        CLI::App *c = set->add_subcommand(name, help);
        c->add_option("value", value, "integer (decimal or 0x hex)")->required();
        c->callback([&rc, &value, name, attach, file, setter] { rc = set_value(name, value, attach, file, setter); });
    };
    simple("action", "pending cluster action code", shmcm_attach, CM_FILE, plat_setaction);
    simple("waitstat", "wait status (1 = resume)", shmnm_attach, NM_FILE, plat_setwaitstat);
    auto pernode = [&](const char *name, const char *help, int32_t (*setter)(const char *, int32_t)) {
        CLI::App *c = set->add_subcommand(name, help);
        c->add_option("node", node, "node name")->required();
        c->add_option("value", value, "integer (decimal or 0x hex)")->required();
        c->callback([&rc, &node, &value, name, setter] { rc = set_node_value(name, node, value, setter); });
    };
    pernode("hdstat", "node status for the online check (1 = may go online)", plat_sethdstat);
    pernode("nodestat", "node state carried in LAN heartbeats", plat_setnodestat);
    CLI::App *down = set->add_subcommand("down", "down notification on or off");
    down->add_option("onoff", value, "on or off")->required();
    down->callback([&] { rc = set_down(value); });

    CLI::App *keygen = app.add_subcommand("keygen", "write a new random cluster key file (mode 0600)");
    std::string keyfile;
    bool keyforce = false;
    keygen->add_option("file", keyfile, std::string("key file (default <root>/") + HBEXT_KEY_DEFAULT + ")");
    keygen->add_flag("--force", keyforce, "replace an existing key file");

    CLI::App *run = app.add_subcommand("run", "start zemlanhb and supervise it as its parent; SIGTERM, SIGINT "
                                              "and SIGHUP (terminal closed) stop it in order with down "
                                              "notification; refused (status 16) while a daemon runs on this root");
    bool nodown = false;
    std::string daemon;
    run->add_flag("--no-down", nodown, "clear the down notification when stopping");
    run->add_option("--daemon", daemon, "the daemon binary (default: zemlanhb next to zemctl)");

    if (unknown_subcommand(app, argc, argv))
        return EXIT_USAGE;
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        int r = app.exit(e);
        return r == 0 ? 0 : EXIT_USAGE;
    }
    if (app.got_subcommand("check"))
        return cmd_check();
    if (app.got_subcommand(init))
        return cmd_init(force);
    if (app.got_subcommand(status))
        return cmd_status(json);
    if (app.got_subcommand(watch))
        return cmd_watch(count, timeout, wjson);
    if (app.got_subcommand(keygen))
        return cmd_keygen(keyfile, keyforce);
    if (app.got_subcommand(run))
        return cmd_run(nodown, daemon);
    return rc;
}
