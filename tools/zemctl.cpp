// zemctl: the stand-alone platform's command-line tool. It prepares a node
// (init), shows and watches the states the daemon publishes (status,
// watch), sets what a cluster manager would set (set), and supervises the
// daemon as its parent process (run).
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <systemd/sd-daemon.h>

#include "plat.h"
#include "zem_version.h"

namespace {

constexpr int EXIT_USAGE = 2;
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

// A path or node: its name, priority and state (by name where it has one).
nlohmann::ordered_json entry_json(const std::string &name, int32_t pri, const char *stat_name, int32_t stat)
{
    nlohmann::ordered_json j;
    j["name"] = name;
    j["pri"] = pri;
    if (stat_name != nullptr)
        j["stat"] = stat_name;
    else
        j["stat"] = stat;
    return j;
}

std::string stat_text(const char *name, int32_t v)
{
    return name != nullptr ? name : std::to_string(v);
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
};
struct rsc_view {
    std::string name;
    int32_t pri;
    int32_t stat;
    std::vector<node_view> nodes;
};
using snapshot = std::vector<rsc_view>[2];

void take(snapshot &snap)
{
    std::vector<std::string> nodes = enum_node();
    for (int k = 0; k < 2; k++) {
        snap[k].clear();
        for (const std::string &r : enum_rsc(kinds[k])) {
            rsc_view rv{r, -1, SHMNM_RSCSTAT_UNKNOWN, {}};
            shmnm_getrscpri(kinds[k], r.c_str(), &rv.pri);
            plat_getrscstat(kinds[k], r.c_str(), &rv.stat);
            for (const std::string &n : nodes) {
                node_view nv{n, -1, SHMNM_SVSTAT_UNKNOWN};
                shmnm_getnodepri(n.c_str(), &nv.pri);
                shmnm_getrscsvstat(kinds[k], r.c_str(), nv.pri, &nv.stat);
                rv.nodes.push_back(nv);
            }
            snap[k].push_back(rv);
        }
    }
}

int attach_failed(const char *what, int32_t r)
{
    fprintf(stderr, "zemctl: %s failed(ret:%d) under %s; run \"zemctl init\" first\n", what, r,
            plat_path("run").c_str());
    return 1;
}

// ---- init ----------------------------------------------------------------------

int cmd_init()
{
    plat_cluster cl;
    std::vector<std::string> errors, notes;
    plat_load_cluster(cl, errors, notes);
    plat_local loc;
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
        printf("note: %s\n", n.c_str());
    for (const std::string &e : errors)
        fprintf(stderr, "error: %s\n", e.c_str());
    if (!errors.empty()) {
        fprintf(stderr, "zemctl: init failed: %zu error(s); nothing was changed\n", errors.size());
        return 1;
    }
    if (plat_shm_create(cl, err) != 0 || plat_area_create(loc.area, err) != 0) {
        fprintf(stderr, "zemctl: init failed: %s\n", err.c_str());
        return 1;
    }
    printf("initialised %s: %zu servers, %zu lanhb paths, %zu cnthb paths; node %s, heartbeat area %s "
           "(controller %d)\n",
           plat_root().c_str(), cl.nodes.size(), cl.rsc[0].size(), cl.rsc[1].size(), loc.hostname.c_str(),
           loc.area.c_str(), loc.cntno);
    return 0;
}

// ---- status ----------------------------------------------------------------------

int cmd_status(bool json)
{
    if (int32_t r = shmnm_attach(); r != 0)
        return attach_failed("shmnm_attach()", r);
    snapshot snap;
    take(snap);
    if (json) {
        nlohmann::ordered_json out;
        for (int k = 0; k < 2; k++) {
            nlohmann::ordered_json paths = nlohmann::ordered_json::array();
            for (const rsc_view &r : snap[k]) {
                nlohmann::ordered_json p = entry_json(r.name, r.pri, rscstat_name(r.stat), r.stat);
                p["nodes"] = nlohmann::ordered_json::array();
                for (const node_view &n : r.nodes)
                    p["nodes"].push_back(entry_json(n.name, n.pri, svstat_name(n.stat), n.stat));
                paths.push_back(p);
            }
            out[kinds[k]] = paths;
        }
        printf("%s\n", out.dump(2).c_str());
        return 0;
    }
    int32_t v = 0;
    std::string cluster;
    if (shmcm_attach() == 0) {
        shmcm_getratio(&v, nullptr);
        cluster += "ratio " + std::to_string(v);
        shmcm_getaction(&v, nullptr, nullptr);
        char act[16];
        snprintf(act, sizeof act, "0x%08x", static_cast<unsigned>(v));
        cluster += "  action " + std::string(act);
    }
    if (shmnm_getwaitstat(&v) == 0)
        cluster += "  waitstat " + std::to_string(v);
    if (plat_getnonvol(&v) == 0)
        cluster += "  nonvol " + std::to_string(v);
    if (sem_attach() == 0)
        cluster += std::string("  down notification ") + (sem_wait_downnotify(0) == 0 ? "on" : "off");
    printf("%s\n", cluster.c_str());
    for (int k = 0; k < 2; k++) {
        printf("%s\n", kinds[k]);
        if (snap[k].empty())
            printf("  (no paths)\n");
        for (const rsc_view &r : snap[k]) {
            printf("  %-20s pri %-4d %s\n", r.name.c_str(), r.pri, stat_text(rscstat_name(r.stat), r.stat).c_str());
            for (const node_view &n : r.nodes)
                printf("    %-18s pri %-4d %s\n", n.name.c_str(), n.pri,
                       stat_text(svstat_name(n.stat), n.stat).c_str());
        }
    }
    return 0;
}

// ---- watch ------------------------------------------------------------------------

void print_changes(const snapshot &before, const snapshot &after, uint32_t posts)
{
    std::string ts = now_text();
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
                printf("%s %s %s node %s: %s -> %s\n", ts.c_str(), kinds[k], r.name.c_str(), r.nodes[j].name.c_str(),
                       stat_text(svstat_name(o.nodes[j].stat), o.nodes[j].stat).c_str(),
                       stat_text(svstat_name(r.nodes[j].stat), r.nodes[j].stat).c_str());
                lines++;
            }
            if (r.stat != o.stat) {
                printf("%s %s %s: %s -> %s\n", ts.c_str(), kinds[k], r.name.c_str(),
                       stat_text(rscstat_name(o.stat), o.stat).c_str(), stat_text(rscstat_name(r.stat), r.stat).c_str());
                lines++;
            }
        }
    }
    if (lines == 0)
        printf("%s state change posted (%u post%s, no state differs)\n", ts.c_str(), posts, posts == 1 ? "" : "s");
}

// Identity of the semaphore file, to notice a reset by "zemctl init".
ino_t sem_inode()
{
    struct stat st {};
    return stat(plat_path("run/sem").c_str(), &st) == 0 ? st.st_ino : 0;
}

int cmd_watch(int count, int timeout)
{
    if (int32_t r = sem_attach(); r != 0)
        return attach_failed("sem_attach()", r);
    if (int32_t r = shmnm_attach(); r != 0)
        return attach_failed("shmnm_attach()", r);
    ino_t ino = sem_inode();
    snapshot snap;
    take(snap);
    uint32_t seen = plat_statchange_count();
    printf("watching %s for state changes\n", plat_root().c_str());
    int posts = 0;
    struct timespec start {};
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        uint32_t c = plat_statchange_wait(seen, 1000);
        if (c != seen) {
            snapshot now;
            take(now);
            print_changes(snap, now, c - seen);
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
            printf("%s shared memory was reset; watching the new one\n", now_text().c_str());
        }
        if (timeout > 0) {
            struct timespec t {};
            clock_gettime(CLOCK_MONOTONIC, &t);
            if (t.tv_sec - start.tv_sec >= timeout) {
                printf("no further state change within %d s\n", timeout);
                return 3;
            }
        }
    }
}

// ---- set --------------------------------------------------------------------------

bool parse_value(const char *what, const std::string &text, int32_t *v)
{
    if (plat_parse_i32(text.c_str(), v))
        return true;
    fprintf(stderr, "zemctl: set %s: \"%s\" is not a 32-bit integer\n", what, text.c_str());
    return false;
}

int set_value(const char *what, const std::string &text, int32_t (*attach)(), int32_t (*setter)(int32_t))
{
    int32_t v;
    if (!parse_value(what, text, &v))
        return EXIT_USAGE;
    if (int32_t r = attach(); r != 0)
        return attach_failed("attach", r);
    if (int32_t r = setter(v); r != 0) {
        fprintf(stderr, "zemctl: set %s failed(ret:%d)\n", what, r);
        return 1;
    }
    printf("%s set to %d\n", what, v);
    return 0;
}

int set_node_value(const char *what, const std::string &node, const std::string &text,
                   int32_t (*setter)(const char *, int32_t))
{
    int32_t v;
    if (!parse_value(what, text, &v))
        return EXIT_USAGE;
    if (int32_t r = shmnm_attach(); r != 0)
        return attach_failed("shmnm_attach()", r);
    if (int32_t r = setter(node.c_str(), v); r != 0) {
        fprintf(stderr, "zemctl: set %s of node %s failed(ret:%d)%s\n", what, node.c_str(), r,
                r == PLAT_ENOENT ? ": no such node" : "");
        return 1;
    }
    printf("%s of node %s set to %d\n", what, node.c_str(), v);
    return 0;
}

int set_down(const std::string &onoff)
{
    if (onoff != "on" && onoff != "off") {
        fprintf(stderr, "zemctl: set down: expected on or off, not \"%s\"\n", onoff.c_str());
        return EXIT_USAGE;
    }
    if (int32_t r = sem_attach(); r != 0)
        return attach_failed("sem_attach()", r);
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
        fprintf(stderr, "zemctl: cannot run %s: %s\n", daemon.c_str(), strerror(errno));
        return 127;
    }
    // All the signals this parent acts on are taken synchronously.
    sigset_t set, old;
    sigemptyset(&set);
    for (int s : {SIGUSR1, SIGCHLD, SIGINT, SIGTERM})
        sigaddset(&set, s);
    sigprocmask(SIG_BLOCK, &set, &old);
    pid_t pid = fork();
    if (pid < 0) {
        fprintf(stderr, "zemctl: fork failed: %s\n", strerror(errno));
        return 1;
    }
    if (pid == 0) {
        sigprocmask(SIG_SETMASK, &old, nullptr);
        execl(daemon.c_str(), daemon.c_str(), static_cast<char *>(nullptr));
        fprintf(stderr, "zemctl: exec %s failed: %s\n", daemon.c_str(), strerror(errno));
        _exit(127);
    }
    const char *base = strrchr(daemon.c_str(), '/') != nullptr ? strrchr(daemon.c_str(), '/') + 1 : daemon.c_str();
    printf("zemctl: started %s (pid %d)\n", daemon.c_str(), pid);
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
        } else if (sig == SIGINT || sig == SIGTERM) {
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

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    CLI::App app{"zemctl: prepare, inspect and supervise a node of the stand-alone cluster platform.\n"
                 "Files live under $ZEM_ROOT (default /var/lib/zem)."};
    app.set_version_flag("--version", ZEM_VERSION_TEXT);
    app.require_subcommand(1);

    app.add_subcommand("init", "check etc/cluster.xml and etc/local.xml, create or reset this node's shared "
                               "memory and, if missing, the heartbeat area");
    CLI::App *status = app.add_subcommand("status", "show every path and node state");
    bool json = false;
    status->add_flag("--json", json, "print JSON instead of a table");
    CLI::App *watch = app.add_subcommand("watch", "print every state change until interrupted");
    int count = 0, timeout = 0;
    watch->add_option("--count", count, "stop after this many state-change posts");
    watch->add_option("--timeout", timeout, "give up (status 3) after this many seconds");

    CLI::App *set = app.add_subcommand("set", "set what a cluster manager would set");
    set->require_subcommand(1);
    std::string value, node;
    int rc = 0;
    auto simple = [&](const char *name, const char *help, int32_t (*attach)(), int32_t (*setter)(int32_t)) {
        CLI::App *c = set->add_subcommand(name, help);
        c->add_option("value", value, "integer (decimal or 0x hex)")->required();
        c->callback([&rc, &value, name, attach, setter] { rc = set_value(name, value, attach, setter); });
    };
    simple("ratio", "time-out ratio", shmcm_attach, plat_setratio);
    simple("action", "pending cluster action code", shmcm_attach, plat_setaction);
    simple("waitstat", "wait status (1 = resume)", shmnm_attach, plat_setwaitstat);
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

    CLI::App *run = app.add_subcommand("run", "start zemlanhb and supervise it as its parent");
    bool nodown = false;
    std::string daemon;
    run->add_flag("--no-down", nodown, "clear the down notification when stopping");
    run->add_option("--daemon", daemon, "the daemon binary (default: zemlanhb next to zemctl)");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        int r = app.exit(e);
        return r == 0 ? 0 : EXIT_USAGE;
    }
    if (app.got_subcommand("init"))
        return cmd_init();
    if (app.got_subcommand(status))
        return cmd_status(json);
    if (app.got_subcommand(watch))
        return cmd_watch(count, timeout);
    if (app.got_subcommand(run))
        return cmd_run(nodown, daemon);
    return rc;
}
