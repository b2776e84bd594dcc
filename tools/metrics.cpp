// zemctl metrics: what the daemon published (states, their history, the
// threads' progress, its counters), read afresh from run/ into the text
// exposition format 0.0.4 of a metrics scraper. Printed once, written
// atomically for a collector of text files, or served at /metrics over HTTP
// until SIGTERM or SIGINT. A reader like status: it never takes the daemon's
// lock and goes on while no daemon runs (zemlanhb_daemon_up 0).
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <httplib.h>

#include "events.h"
#include "services/hbext.h"
#include "zem_version.h"
#include "zemctl.h"

namespace {

std::string listen_at;   // metrics --listen ADDR:PORT
std::string textfile;    // metrics --textfile FILE


using labels = std::vector<std::pair<const char *, std::string>>;

// The text exposition: families of samples, each after its HELP and TYPE.
class exposition {
public:
    void family(const char *name, const char *type, const char *help)
    {
        name_ = name;
        out_ += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
    }
    void sample(const labels &l, uint64_t v) { line(l, std::to_string(v)); }
    void seconds(const labels &l, int64_t ms)
    {
        char buf[32];
        snprintf(buf, sizeof buf, "%" PRId64 ".%03d", ms / 1000, static_cast<int>(ms % 1000));
        line(l, buf);
    }
    const std::string &text() const { return out_; }

private:
    // Label values: printable as plat_escape makes them, then backslash,
    // double quote and line feed escaped as the format wants them.
    static std::string quoted(const std::string &raw)
    {
        std::string v;
        for (char c : plat_escape(raw)) {
            if (c == '\\' || c == '"')
                v += '\\';
            v += c == '\n' ? std::string("\\n") : std::string(1, c);
        }
        return '"' + v + '"';
    }
    void line(const labels &l, const std::string &value)
    {
        out_ += name_;
        for (size_t i = 0; i < l.size(); ++i)
            out_ += (i == 0 ? "{" : ",") + std::string(l[i].first) + "=" + quoted(l[i].second);
        out_ += (l.empty() ? " " : "} ") + value + "\n";
    }
    std::string name_, out_;
};

// The names of a multi-string list of unknown length, as the daemon fetches them.
template <class F> std::vector<std::string> names(F list)
{
    int32_t size = 0;
    if (list(nullptr, &size) != 0 || size <= 0)
        return {};
    std::vector<char> buf(static_cast<size_t>(size) + 1, '\0');
    if (list(buf.data(), &size) != 0)
        return {};
    std::vector<std::string> out;
    for (const char *p = buf.data(); *p != '\0'; p += std::strlen(p) + 1)
        out.emplace_back(p);
    return out;
}

ino_t inode(const char *file)
{
    struct stat st {};
    return stat(plat_path((std::string("run/") + file).c_str()).c_str(), &st) == 0 ? st.st_ino : 0;
}

// The node- and cluster-manager files attached as they are now: a file
// that "zemctl init" replaced is attached again. A mapping stays for good,
// so only a new file costs one. nm false: there is none to read.
struct attached {
    ino_t nm = 0, cm = 0;
    void refresh()
    {
        const ino_t n = inode(NM_FILE), c = inode(CM_FILE);
        nm = n != 0 && (n == nm || shmnm_attach() == 0) ? n : 0;
        cm = c != 0 && (c == cm || shmcm_attach() == 0) ? c : 0;
    }
};

// The daemon on record, as status judges it: attached and holding the lock.
bool daemon_running(const nm_daemon &d)
{
    const pid_t lock = plat_lock_holder();
    return d.pid != 0 && d.detached_ms == 0 && (lock == d.pid || lock == -1);
}

void info(exposition &e)
{
    std::string cluster = "unknown", err;
    plat_cluster_name(cluster, err);
    plat_local local;
    plat_load_local(local, err);
    e.family("zemlanhb_info", "gauge", "Always 1: the version of zemlanhb, the cluster's name and this node's.");
    e.sample({{"version", ZEM_VERSION}, {"cluster", cluster}, {"node", local.hostname}}, 1);
}

// Whether the daemon moves on, and each running heartbeat thread's silence.
void daemon_figures(exposition &e, bool nm, int32_t ratio, nm_daemon *d)
{
    int64_t created = 0;
    const bool up = nm && plat_getdaemon(d, &created) == 0 && daemon_running(*d);
    const progress_view p = up ? look_progress(d->pid, ratio) : progress_view{};
    e.family("zemlanhb_daemon_up", "gauge", "1 while a daemon is attached to this node's shared memory.");
    e.sample({}, up ? 1 : 0);
    e.family("zemlanhb_daemon_stalled", "gauge",
             "1 while the daemon runs but a heartbeat thread has shown no progress for longer than the stall limit.");
    e.sample({}, p.stalled ? 1 : 0);
    e.family("zemlanhb_daemon_stall_limit_seconds", "gauge",
             "The stall limit: the heartbeat interval plus the time-out in whole seconds times the ratio.");
    if (p.known)
        e.seconds({}, p.limit_ms);
    e.family("zemlanhb_thread_progress_age_seconds", "gauge",
             "Seconds since a running heartbeat thread of the daemon last showed progress.");
    for (int i = 0; i < HBEXT_TH_COUNT; ++i)
        if (p.state[i] == progress_view::RUNNING)
            e.seconds({{"thread", HBEXT_TH_NAMES[i]}}, p.since_ms[i]);
}

// One path or node of a kind with what was published about it.
struct entry {
    const char *kind;
    std::string path, node;
    int rsc, idx; // indices as plat_counts has them
    int32_t stat;
    nm_hist hist;
};

struct view {
    std::vector<entry> paths, nodes;
    std::unique_ptr<plat_counts> counts; // null: none of the daemon on record
};

view take(int32_t pid)
{
    view v;
    const std::vector<std::string> nodes = names([](char *b, int32_t *s) { return shmnm_enumnode(b, s); });
    for (int k = 0; k < 2; ++k) {
        const std::vector<std::string> paths =
            names([k](char *b, int32_t *s) { return shmnm_enumrsc(ev_kinds[k], b, s); });
        for (size_t i = 0; i < paths.size(); ++i) {
            entry p{ev_kinds[k], paths[i], "", static_cast<int>(i), -1, SHMNM_RSCSTAT_UNKNOWN, {}};
            plat_getrscstat(p.kind, p.path.c_str(), &p.stat);
            plat_gethist(p.kind, p.path.c_str(), nullptr, &p.hist);
            v.paths.push_back(p);
            for (size_t j = 0; j < nodes.size(); ++j) {
                entry n{ev_kinds[k], paths[i], nodes[j], static_cast<int>(i), static_cast<int>(j), SHMNM_SVSTAT_UNKNOWN, {}};
                int32_t pri = -1;
                shmnm_getnodepri(n.node.c_str(), &pri);
                shmnm_getrscsvstat(n.kind, n.path.c_str(), pri, &n.stat);
                plat_gethist(n.kind, n.path.c_str(), n.node.c_str(), &n.hist);
                v.nodes.push_back(n);
            }
        }
    }
    v.counts = std::make_unique<plat_counts>();
    if (pid == 0 || plat_getcounts(v.counts.get()) != 0 || v.counts->pid != pid)
        v.counts.reset();
    return v;
}

labels path_labels(const entry &x, bool kind = true)
{
    labels l;
    if (kind)
        l.emplace_back("kind", x.kind);
    l.emplace_back("path", x.path);
    if (!x.node.empty())
        l.emplace_back("node", x.node);
    return l;
}

template <size_t N>
void one_hot(exposition &e, const std::vector<entry> &of, const std::pair<int32_t, const char *> (&states)[N])
{
    for (const entry &x : of)
        for (const auto &[code, name] : states) {
            labels l = path_labels(x);
            l.emplace_back("state", name);
            e.sample(l, x.stat == code ? 1 : 0);
        }
}

void states(exposition &e, const view &v)
{
    e.family("zemlanhb_path_state", "gauge", "1 for the path's state as last published, 0 for the others.");
    one_hot(e, v.paths, ev_rscstat_names);
    e.family("zemlanhb_node_up", "gauge", "1 while the node is ONLINE on the path, as last published.");
    for (const entry &n : v.nodes)
        e.sample(path_labels(n), n.stat == SHMNM_SVSTAT_ONLINE ? 1 : 0);
    e.family("zemlanhb_node_state", "gauge", "1 for the node's state on the path as last published, 0 for the others.");
    one_hot(e, v.nodes, ev_svstat_names);
    e.family("zemlanhb_node_downs_total", "counter",
             "Times the node went OFFLINE on the path from ONLINE or UNUSED since zemctl init.");
    for (const entry &n : v.nodes)
        e.sample(path_labels(n), static_cast<uint64_t>(n.hist.downs));
}

// A counter of every LAN node entry.
void lan_nodes(exposition &e, const view &v, const char *name, const char *help, int which)
{
    e.family(name, "counter", help);
    for (const entry &n : v.nodes)
        if (std::strcmp(n.kind, HB_KIND_LANHB) == 0)
            e.sample(path_labels(n, false), v.counts->node[0][n.rsc][n.idx][which]);
}

void counters(exposition &e, const view &v)
{
    e.family("zemlanhb_heartbeat_age_seconds", "gauge",
             "Seconds since the last heartbeat the daemon took from the node on the path.");
    const int64_t now = plat_now_ms();
    for (const entry &n : v.nodes)
        if (const uint64_t last = v.counts->node[plat_kind(n.kind)][n.rsc][n.idx][HBEXT_NC_LASTHB]; last != 0)
            e.seconds(path_labels(n), std::max<int64_t>(0, now - static_cast<int64_t>(last)));
    e.family("zemlanhb_received_datagrams_total", "counter",
             "Datagrams the LAN receiver took from its socket, accepted or refused.");
    e.sample({}, v.counts->kind[0][HBEXT_KC_RECEIVED]);
    lan_nodes(e, v, "zemlanhb_accepted_datagrams_total", "LAN datagrams accepted from the node on the path.",
              HBEXT_NC_ACCEPTED);
    lan_nodes(e, v, "zemlanhb_sent_datagrams_total", "LAN datagrams sent to the node on the path.", HBEXT_NC_SENT);
    lan_nodes(e, v, "zemlanhb_send_errors_total",
              "LAN datagrams to the node on the path that could not be sent (lookup, socket or send failed).",
              HBEXT_NC_SENDFAIL);
    lan_nodes(e, v, "zemlanhb_bind_errors_total",
              "LAN datagrams to the node on the path sent from an unbound socket (own address lookup or bind failed).",
              HBEXT_NC_BINDFAIL);
    constexpr std::pair<const char *, const char *> calls[HBEXT_PC_COUNT] = {
        {"zemlanhb_controller_reads_total", "Reads of the heartbeat records from the controller on the path."},
        {"zemlanhb_controller_read_failures_total", "Reads from the controller on the path that failed."},
        {"zemlanhb_controller_writes_total", "Writes of this node's record to the controller on the path."},
        {"zemlanhb_controller_write_failures_total", "Writes to the controller on the path that failed."}};
    for (int c = 0; c < HBEXT_PC_COUNT; ++c) {
        e.family(calls[c].first, "counter", calls[c].second);
        for (const entry &p : v.paths)
            if (std::strcmp(p.kind, HB_KIND_CNTHB) == 0)
                e.sample(path_labels(p, false), v.counts->rsc[1][p.rsc][c]);
    }
    e.family("zemlanhb_delay_warnings_total", "counter",
             "Delay records the daemon wrote, by kind and catalogue number (71 heartbeat gap, 72 LAN send, 73 LAN "
             "receive, 74 controller write, 75 controller read).");
    for (int k = 0; k < 2; ++k)
        for (int m = 0; m < 5; ++m)
            e.sample({{"kind", ev_kinds[k]}, {"msgno", std::to_string(LOG_MSG_HBGAP + m)}},
                     v.counts->kind[k][HBEXT_KC_DELAY71 + m]);
}

void refused(exposition &e)
{
    e.family("zemlanhb_refused_datagrams_total", "counter", "Datagrams the LAN receiver refused, by reason.");
    uint64_t refused[HBEXT_REFUSED_COUNT];
    if (plat_getrefused(refused) == 0)
        for (int i = 0; i < HBEXT_REFUSED_COUNT; ++i)
            e.sample({{"reason", HBEXT_REFUSED_NAMES[i]}}, refused[i]);
}

// Everything, read afresh; *nm false when there is no node-manager memory
// to read (only the daemon's absence and the identity are told then).
std::string render(attached &at, bool *nm)
{
    at.refresh();
    *nm = at.nm != 0;
    int32_t ratio = 1;
    if (at.cm == 0 || shmcm_getratio(&ratio, nullptr) != 0)
        ratio = 1;
    exposition e;
    info(e);
    nm_daemon d{};
    daemon_figures(e, *nm, ratio, &d);
    if (*nm) {
        const view v = take(d.pid);
        states(e, v);
        if (v.counts)
            counters(e, v);
        refused(e);
    }
    return e.text();
}

// Writes text to path through a new file beside it renamed over it, so that
// a reader sees the old or the new file whole. The temporary name does not
// end in the collector's ".prom".
bool write_atomically(const std::string &path, const std::string &text)
{
    std::string tmp = path + ".XXXXXX";
    const int fd = mkstemp(tmp.data());
    if (fd < 0) {
        fprintf(stderr, "zemctl: cannot create %s: %s\n", esc(tmp).c_str(), strerror(errno));
        return false;
    }
    bool ok = fchmod(fd, 0644) == 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
              fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    if (ok && rename(tmp.c_str(), path.c_str()) == 0)
        return true;
    fprintf(stderr, "zemctl: cannot write %s: %s\n", esc(path).c_str(), strerror(errno));
    unlink(tmp.c_str());
    return false;
}

// ADDR:PORT, the address of IPv6 in brackets.
bool split_listen(const std::string &at, std::string *host, int *port)
{
    const size_t colon = at.rfind(':');
    if (colon == std::string::npos || colon + 1 == at.size())
        return false;
    *host = at.substr(0, colon);
    if (host->size() >= 2 && host->front() == '[' && host->back() == ']')
        *host = host->substr(1, host->size() - 2);
    char *end = nullptr;
    const long p = strtol(at.c_str() + colon + 1, &end, 10);
    *port = static_cast<int>(p);
    return !host->empty() && *end == '\0' && p > 0 && p <= 65535;
}

int serve()
{
    std::string host;
    int port = 0;
    if (!split_listen(listen_at, &host, &port)) {
        fprintf(stderr, "zemctl metrics: --listen wants ADDR:PORT (a port of 1 to 65535), not \"%s\"\n",
                esc(listen_at).c_str());
        return HBEXIT_USAGE;
    }
    // The stop signals are taken by sigwait below, never by the server's threads.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    httplib::Server server;
    server.new_task_queue = [] { return new httplib::ThreadPool(2); };
    std::mutex reading; // one render at a time: they share the attachments
    attached at;
    server.Get("/metrics", [&](const httplib::Request &, httplib::Response &res) {
        std::lock_guard hold(reading);
        bool nm = false;
        res.set_content(render(at, &nm), "text/plain; version=0.0.4; charset=utf-8");
    });
    if (!server.bind_to_port(host, port)) {
        fprintf(stderr, "zemctl metrics: cannot listen on %s: %s\n", esc(listen_at).c_str(), strerror(errno));
        return EXIT_FAILURE;
    }
    printf("serving the metrics of %s at http://%s/metrics\n", esc(plat_root()).c_str(), esc(listen_at).c_str());
    std::thread listener([&] { server.listen_after_bind(); });
    int sig = 0;
    sigwait(&stop, &sig);
    server.stop();
    listener.join();
    return 0;
}

} // namespace

void opts_metrics(CLI::App &cmd)
{
    auto *listen = cmd.add_option("--listen", listen_at, "serve them at http://ADDR:PORT/metrics until SIGTERM or SIGINT");
    cmd.add_option("--textfile", textfile, "write them to FILE through a new file renamed over it")->excludes(listen);
}

// Exits 0, or 1 when there is no shared memory to read (what is known is
// printed or written all the same: zemlanhb_daemon_up 0).
int cmd_metrics()
{
    if (!listen_at.empty())
        return serve();
    attached at;
    bool nm = false;
    const std::string text = render(at, &nm);
    if (!textfile.empty() ? !write_atomically(textfile, text) : fputs(text.c_str(), stdout) < 0)
        return EXIT_FAILURE;
    if (!nm)
        return attach_failed(NM_FILE, PLAT_ENOENT);
    return 0;
}
