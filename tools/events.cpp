// Snapshots of a node's published states and the events between two of
// them (events.h).
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "events.h"
#include "services/hbext.h"
#include "zemctl.h"

namespace {

constexpr const char *thread_states[] = {"not started", "running", "ended"};

std::string stat_text(const char *name, int32_t v)
{
    char hex[16];
    snprintf(hex, sizeof hex, "0x%x", static_cast<unsigned>(v));
    return name != nullptr ? name : hex;
}

std::string hex32(int32_t v)
{
    char buf[16];
    snprintf(buf, sizeof buf, "0x%08x", static_cast<unsigned>(v));
    return buf;
}

ojson ms_or_null(int64_t ms)
{
    return ms != 0 ? ojson(ms) : ojson(nullptr);
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
template <class F> std::vector<std::string> enum_names(F enumerate)
{
    int32_t size = 0;
    if (enumerate(nullptr, &size) != 0 || size <= 0)
        return {};
    std::vector<char> buf(static_cast<size_t>(size));
    if (enumerate(buf.data(), &size) != 0)
        return {};
    return split_msz(buf);
}

daemon_view look_daemon()
{
    daemon_view d;
    plat_getdaemon(&d.rec, &d.created_ms);
    d.lock_pid = plat_lock_holder();
    // The lock names the daemon once it has adopted it from its supervisor.
    d.running = d.rec.pid != 0 && d.rec.detached_ms == 0 && (d.lock_pid == d.rec.pid || d.lock_pid == -1);
    return d;
}

cluster_view look_cluster(const ev_attached &a)
{
    cluster_view c;
    c.cm = a.cm == 0 && shmcm_getratio(&c.ratio, nullptr) == 0 && shmcm_getaction(&c.action, nullptr, nullptr) == 0;
    shmnm_getwaitstat(&c.waitstat);
    plat_getnonvol(&c.nonvol);
    c.sem = a.sem == 0;
    c.down = c.sem && sem_wait_downnotify(0) == 0;
    return c;
}

// The history of one state as JSON, units in the key names.
void hist_json(ojson &j, const nm_hist &h, int64_t now, bool node)
{
    j["changed_at_ms"] = ms_or_null(h.changed_ms);
    j["since_ms"] = h.changed_ms != 0 ? ojson(now - h.changed_ms) : ojson(nullptr);
    j["published_at_ms"] = ms_or_null(h.published_ms);
    if (node) {
        j["down_count"] = h.downs;
        j["cause"] = cause_text(h.cause);
    }
}

// ---- the diff ---------------------------------------------------------------

// A path's state has no cause of its own: it follows from its nodes'
// states, so it takes the cause of the node state that made it so: the one
// published last among the nodes that changed, those that went ONLINE
// first when the path became NORMAL, the others first when it did not;
// failing that, the last one published on the path.
const char *path_cause(const rsc_view &before, const rsc_view &after)
{
    const bool normal = after.stat == SHMNM_RSCSTAT_NORMAL;
    const node_view *last = nullptr;
    for (int pass = 0; pass < 3 && last == nullptr; pass++) {
        for (size_t j = 0; j < after.nodes.size(); j++) {
            const node_view &n = after.nodes[j];
            const bool changed = j >= before.nodes.size() || before.nodes[j].stat != n.stat;
            if ((pass < 2 && !changed) || (pass == 0 && (n.stat == SHMNM_SVSTAT_ONLINE) != normal))
                continue;
            if (n.hist.published_ms != 0 && (last == nullptr || n.hist.published_ms > last->hist.published_ms))
                last = &n;
        }
    }
    return cause_text(last != nullptr ? last->hist.cause : HBEXT_CAUSE_NONE);
}

void state_events(std::vector<zem_event> &out, const snapshot &before, const snapshot &after)
{
    for (int k = 0; k < 2; k++) {
        for (const rsc_view &r : after.rsc[k]) {
            auto o = std::ranges::find(before.rsc[k], r.name, &rsc_view::name);
            if (o == before.rsc[k].end())
                continue;
            const std::string where = std::string(ev_kinds[k]) + " " + esc(r.name);
            for (size_t j = 0; j < r.nodes.size() && j < o->nodes.size(); j++) {
                const node_view &n = r.nodes[j];
                if (n.stat == o->nodes[j].stat || n.name != o->nodes[j].name)
                    continue;
                const std::string from = svstat_text(o->nodes[j].stat), to = svstat_text(n.stat);
                const char *cause = cause_text(n.hist.cause);
                out.push_back({{{"event", "node"}, {"kind", ev_kinds[k]}, {"path", r.name}, {"node", n.name},
                                {"from", from}, {"to", to}, {"cause", cause}, {"down_count", n.hist.downs}},
                               where + " node " + esc(n.name) + ": " + from + " -> " + to + " (" + cause + ")"});
            }
            if (r.stat != o->stat) {
                const std::string from = rscstat_text(o->stat), to = rscstat_text(r.stat);
                const char *cause = path_cause(*o, r);
                out.push_back({{{"event", "path"}, {"kind", ev_kinds[k]}, {"path", r.name}, {"from", from},
                                {"to", to}, {"cause", cause}},
                               where + ": " + from + " -> " + to + " (" + cause + ")"});
            }
        }
    }
}

// A value zemctl set changes, as the event names it; node empty for the
// cluster's own values.
void set_event(std::vector<zem_event> &out, const char *setting, const std::string &node, const ojson &from,
               const ojson &to, const std::string &from_text, const std::string &to_text)
{
    zem_event e{{{"event", "set"}, {"setting", setting}}, {}};
    if (!node.empty())
        e.json["node"] = node;
    e.json.update(ojson{{"from", from}, {"to", to}, {"cause", "set"}});
    const std::string name = std::string(setting) == "down_notification" ? "down notification" : setting;
    e.text = (node.empty() ? "" : "node " + esc(node) + " ") + name + ": " + from_text + " -> " + to_text + " (set)";
    out.push_back(std::move(e));
}

void set_events(std::vector<zem_event> &out, const cluster_view &b, const cluster_view &a,
                const std::vector<node_values> &bn, const std::vector<node_values> &an)
{
    const auto number = [&](const char *what, bool known, int32_t from, int32_t to, bool hex = false) {
        if (known && from != to)
            set_event(out, what, "", from, to, hex ? hex32(from) : std::to_string(from),
                      hex ? hex32(to) : std::to_string(to));
    };
    number("ratio", a.cm && b.cm, b.ratio, a.ratio);
    number("action", a.cm && b.cm, b.action, a.action, true);
    number("waitstat", true, b.waitstat, a.waitstat);
    for (const node_values &n : an) {
        auto o = std::ranges::find(bn, n.name, &node_values::name);
        if (o == bn.end())
            continue;
        if (o->hdstat != n.hdstat)
            set_event(out, "hdstat", n.name, o->hdstat, n.hdstat, std::to_string(o->hdstat), std::to_string(n.hdstat));
        if (o->nodestat != n.nodestat)
            set_event(out, "nodestat", n.name, o->nodestat, n.nodestat, std::to_string(o->nodestat),
                      std::to_string(n.nodestat));
    }
    if (a.sem && b.sem && a.down != b.down)
        set_event(out, "down_notification", "", b.down, a.down, b.down ? "on" : "off", a.down ? "on" : "off");
}

zem_event daemon_event(daemon_state from, daemon_state to, const char *cause, const snapshot &s)
{
    const progress_view &p = s.progress;
    zem_event e{{{"event", "daemon"}, {"from", DAEMON_STATE_NAMES[from]}, {"to", DAEMON_STATE_NAMES[to]},
                 {"cause", cause}, {"pid", s.daemon.rec.pid}},
                "daemon (pid " + std::to_string(s.daemon.rec.pid) + "): " + DAEMON_STATE_NAMES[from] + " -> " +
                    DAEMON_STATE_NAMES[to] + " (" + cause};
    if (to == DAEMON_STALLED && p.slowest >= 0) {
        e.json.update(ojson{{"stalled_thread", HBEXT_TH_NAMES[p.slowest]},
                            {"stalled_for_ms", p.since_ms[p.slowest]},
                            {"stall_limit_ms", p.limit_ms}});
        e.text += std::string(": ") + HBEXT_TH_NAMES[p.slowest] + " made no progress for " +
                  seconds(p.since_ms[p.slowest]) + ", longer than " + seconds(p.limit_ms);
    }
    e.text += ")";
    return e;
}

// Why the daemon on record went from one state to the other.
const char *daemon_cause(daemon_state from, daemon_state to)
{
    switch (to) {
    case DAEMON_RUNNING:
        return from == DAEMON_STALLED ? "resume" : "attach";
    case DAEMON_STALLED:
        return "stall";
    case DAEMON_STOPPED:
        return "detach";
    case DAEMON_VANISHED:
        return "vanish";
    case DAEMON_NONE:
        break;
    }
    return "none";
}

} // namespace

// ---- texts ------------------------------------------------------------------------

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

std::string seconds(int64_t ms)
{
    if (ms >= 60000)
        return duration(ms);
    char buf[32];
    if (ms % 1000 == 0)
        snprintf(buf, sizeof buf, "%lld s", static_cast<long long>(ms / 1000));
    else
        snprintf(buf, sizeof buf, "%.1f s", static_cast<double>(ms) / 1000);
    return buf;
}

const char *cause_text(int32_t c)
{
    return c >= 0 && c < HBEXT_CAUSE_COUNT ? HBEXT_CAUSE_NAMES[c] : HBEXT_CAUSE_NAMES[HBEXT_CAUSE_NONE];
}

std::string svstat_text(int32_t s)
{
    return stat_text(plat_name_of(ev_svstat_names, s), s);
}

std::string rscstat_text(int32_t s)
{
    return stat_text(plat_name_of(ev_rscstat_names, s), s);
}

std::string dump(const ojson &j, int indent)
{
    return j.dump(indent, ' ', false, ojson::error_handler_t::replace);
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

// ---- looks ------------------------------------------------------------------------

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

ev_identity look_identity()
{
    ev_identity id;
    plat_local loc;
    std::string err;
    if (plat_load_local(loc, err) == 0) {
        id.host = loc.hostname;
    } else {
        char name[256] = {};
        id.host = gethostname(name, sizeof name - 1) == 0 ? name : "unknown";
    }
    if (plat_cluster_name(id.cluster, err) != 0)
        id.cluster = "unknown";
    return id;
}

ev_attached attach_all()
{
    ev_attached a;
    a.nm = shmnm_attach();
    a.cm = shmcm_attach();
    a.sem = sem_attach();
    return a;
}

snapshot take(const ev_attached &a)
{
    snapshot s;
    s.time_ms = plat_now_ms();
    s.daemon = look_daemon();
    s.cluster = look_cluster(a);
    if (s.daemon.running)
        s.progress = look_progress(s.daemon.rec.pid, s.cluster.cm ? s.cluster.ratio : 1);
    s.posts = plat_statchange_count();
    const std::vector<std::string> nodes = enum_names(shmnm_enumnode);
    for (const std::string &n : nodes) {
        node_values v{n};
        shmnm_gethdstat(n.c_str(), &v.hdstat);
        shmnm_getnodestat(n.c_str(), &v.nodestat);
        s.nodes.push_back(v);
    }
    for (int k = 0; k < 2; k++) {
        const char *kind = ev_kinds[k];
        for (const std::string &r : enum_names([&](char *b, int32_t *sz) { return shmnm_enumrsc(kind, b, sz); })) {
            rsc_view rv{r, -1, SHMNM_RSCSTAT_UNKNOWN, {}, {}};
            shmnm_getrscpri(kind, r.c_str(), &rv.pri);
            plat_getrscstat(kind, r.c_str(), &rv.stat);
            plat_gethist(kind, r.c_str(), nullptr, &rv.hist);
            for (const std::string &n : nodes) {
                node_view nv{n, -1, SHMNM_SVSTAT_UNKNOWN, {}};
                shmnm_getnodepri(n.c_str(), &nv.pri);
                shmnm_getrscsvstat(kind, r.c_str(), nv.pri, &nv.stat);
                plat_gethist(kind, r.c_str(), n.c_str(), &nv.hist);
                rv.nodes.push_back(nv);
            }
            s.rsc[k].push_back(rv);
        }
    }
    return s;
}

daemon_state daemon_state_of(const snapshot &s)
{
    const daemon_view &d = s.daemon;
    if (d.running)
        return s.progress.stalled ? DAEMON_STALLED : DAEMON_RUNNING;
    if (d.rec.pid == 0)
        return DAEMON_NONE;
    return d.rec.detached_ms != 0 ? DAEMON_STOPPED : DAEMON_VANISHED;
}

ojson snapshot_json(const snapshot &s, const ev_identity &id)
{
    const daemon_view &d = s.daemon;
    const progress_view &p = s.progress;
    const cluster_view &c = s.cluster;
    const int64_t now = s.time_ms;
    ojson out;
    out["version"] = ZEMCTL_JSON_VERSION;
    out["root"] = plat_root();
    out["host"] = id.host;
    out["cluster_name"] = id.cluster;
    out["time_ms"] = now;
    out["daemon"] = {{"running", d.running},
                     {"pid", d.rec.pid != 0 ? ojson(d.rec.pid) : ojson(nullptr)},
                     {"attached_at_ms", ms_or_null(d.rec.attached_ms)},
                     {"detached_at_ms", ms_or_null(d.rec.detached_ms)},
                     {"lock_pid", d.lock_pid != 0 ? ojson(d.lock_pid) : ojson(nullptr)},
                     {"stalled", p.stalled},
                     {"stalled_for_ms", p.stalled ? ojson(p.since_ms[p.slowest]) : ojson(nullptr)},
                     {"stalled_thread", p.stalled ? ojson(HBEXT_TH_NAMES[p.slowest]) : ojson(nullptr)},
                     {"stall_limit_ms", p.known ? ojson(p.limit_ms) : ojson(nullptr)},
                     {"state", DAEMON_STATE_NAMES[daemon_state_of(s)]}};
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
    out["nodes"] = ojson::array();
    for (const node_values &n : s.nodes)
        out["nodes"].push_back({{"name", n.name}, {"hdstat", n.hdstat}, {"nodestat", n.nodestat}});
    for (int k = 0; k < 2; k++) {
        ojson paths = ojson::array();
        for (const rsc_view &r : s.rsc[k]) {
            ojson pj = {{"name", r.name}, {"pri", r.pri}, {"stat", rscstat_text(r.stat)}};
            hist_json(pj, r.hist, now, false);
            pj["nodes"] = ojson::array();
            for (const node_view &n : r.nodes) {
                ojson e = {{"name", n.name}, {"pri", n.pri}, {"stat", svstat_text(n.stat)}};
                hist_json(e, n.hist, now, true);
                pj["nodes"].push_back(e);
            }
            paths.push_back(pj);
        }
        out[ev_kinds[k]] = paths;
    }
    uint64_t refused[HBEXT_REFUSED_COUNT];
    if (plat_getrefused(refused) == 0)
        for (int i = 0; i < HBEXT_REFUSED_COUNT; i++)
            out["refused"][HBEXT_REFUSED_NAMES[i]] = refused[i];
    return out;
}

// ---- events -----------------------------------------------------------------------

std::vector<zem_event> events_between(const snapshot &before, const snapshot &after)
{
    std::vector<zem_event> out;
    set_events(out, before.cluster, after.cluster, before.nodes, after.nodes);
    const daemon_state was = daemon_state_of(before), is = daemon_state_of(after);
    const bool same = before.daemon.rec.pid == after.daemon.rec.pid &&
                      before.daemon.rec.attached_ms == after.daemon.rec.attached_ms;
    // A daemon attached since the last look (the one before may have ended
    // unseen: "from" says what was seen of it); one that is gone again by
    // this look is told as having attached and ended. Attach and resume come
    // before the states the daemon then publishes, a stall or an end after.
    daemon_state from = was;
    if (!same && is != DAEMON_NONE) {
        out.push_back(daemon_event(was, DAEMON_RUNNING, "attach", after));
        from = DAEMON_RUNNING;
    }
    if (from != is && is == DAEMON_RUNNING) {
        out.push_back(daemon_event(from, is, daemon_cause(from, is), after));
        from = is;
    }
    const size_t states = out.size();
    state_events(out, before, after);
    if (out.size() == states && before.posts != after.posts) {
        const uint32_t posts = after.posts - before.posts;
        out.push_back({{{"event", "post"}, {"posts", posts}, {"cause", "none"}},
                       "state change posted (" + std::to_string(posts) + (posts == 1 ? " post" : " posts") +
                           ", no state differs)"});
    }
    if (from != is)
        out.push_back(daemon_event(from, is, daemon_cause(from, is), after));
    return out;
}

zem_event snapshot_event(const char *event, const snapshot &s, const ev_identity &id)
{
    zem_event e{{{"event", event}, {"cause", "none"}}, {}};
    e.json.update(snapshot_json(s, id));
    e.json.erase("version");
    e.json.erase("time_ms");
    const std::string where = esc(plat_root()) + " for state changes (host " + esc(id.host) + ", cluster " +
                              esc(id.cluster) + ")";
    e.text = std::string(event) == "start" ? "watching " + where : "shared memory was reset; watching " + where;
    return e;
}

ojson event_line(const zem_event &e, int64_t time_ms, const ev_identity &id)
{
    ojson line = {{"version", ZEMCTL_JSON_VERSION}, {"time_ms", time_ms}};
    line.update(e.json);
    line["host"] = id.host;
    line["cluster_name"] = id.cluster;
    return line;
}

std::vector<std::string> event_env(const ojson &line)
{
    static constexpr std::pair<const char *, const char *> vars[] = {
        {"ZEM_EVENT", "event"}, {"ZEM_KIND", "kind"},         {"ZEM_PATH", "path"},       {"ZEM_NODE", "node"},
        {"ZEM_FROM", "from"},   {"ZEM_TO", "to"},             {"ZEM_CAUSE", "cause"},     {"ZEM_DOWNS", "down_count"},
        {"ZEM_HOST", "host"},   {"ZEM_CLUSTER", "cluster_name"}, {"ZEM_SETTING", "setting"}, {"ZEM_PID", "pid"},
    };
    std::vector<std::string> env;
    for (const auto &[var, key] : vars) {
        std::string v;
        if (auto it = line.find(key); it != line.end()) {
            if (it->is_string())
                v = it->get<std::string>();
            else if (it->is_boolean())
                v = it->get<bool>() ? "on" : "off";
            else if (it->is_number())
                v = it->dump();
        }
        // A name from shared memory goes out as shown everywhere else.
        env.push_back(std::string(var) + "=" + esc(v));
    }
    return env;
}
