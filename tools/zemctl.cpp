// zemctl: the stand-alone platform's command-line tool. It checks a node's
// configuration (check), prepares the node (init), shows and watches the
// states the daemon publishes (status, watch), runs hooks on every change
// (notify), sets what a cluster manager would set (set), makes cluster keys
// (keygen), supervises the daemon as its parent process (run), formats and
// shows the heartbeat area (area), and gives all it can see as metrics
// (metrics). This file holds main(): the one table of subcommands it walks
// to build the command line and to find the handler to run, the help for a
// mistyped subcommand, and the helpers every role shares (zemctl.h says
// which file holds which role).
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "zem_version.h"
#include "zemctl.h"

const char *plat_error_text(int32_t r)
{
    static constexpr std::pair<int32_t, const char *> texts[] = {
        {PLAT_ENOTREADY, "not ready"}, {PLAT_EINVAL, "bad argument"},        {PLAT_ENOENT, "missing"},
        {PLAT_ESPACE, "too small"},    {PLAT_EFORMAT, "damaged or foreign"}, {PLAT_EIO, "system error"},
        {PLAT_EBUSY, "held by a daemon"}, {PLAT_EEXIST, "holds data"},
    };
    const char *t = plat_name_of(texts, r);
    return t != nullptr ? t : "failed";
}

bool root_missing()
{
    struct stat st {};
    if (stat(plat_root().c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        return false;
    fprintf(stderr,
            "zemctl: the root directory %s does not exist: create it, put cluster.xml and local.xml in %s (see "
            "zemlanhb.conf(5)) and run \"zemctl init\", or point ZEM_ROOT at the right one\n",
            esc(plat_root()).c_str(), esc(plat_path("etc")).c_str());
    return true;
}

int attach_failed(const char *file, int32_t r)
{
    if (root_missing())
        return HBEXIT_ATTACH;
    fprintf(stderr, "zemctl: shared memory %s is %s (ret:%d); run \"zemctl init\" to create it\n",
            esc(plat_path("run/") + file).c_str(), plat_error_text(r), r);
    return HBEXIT_ATTACH;
}

namespace {

// Adds the table's subcommands under level, their options and, for a group,
// its own subcommands, one of which must be given.
void add_cmds(CLI::App &level, std::span<const zemctl_cmd> cmds)
{
    for (const zemctl_cmd &c : cmds) {
        CLI::App *cmd = level.add_subcommand(c.name, c.help);
        if (c.options != nullptr)
            c.options(*cmd);
        if (c.handler == nullptr) {
            cmd->require_subcommand(1);
            add_cmds(*cmd, c.subs);
        }
    }
}

// Runs the handler of the subcommand the command line named, at any depth.
int run_cmd(const CLI::App &level, std::span<const zemctl_cmd> cmds)
{
    for (const zemctl_cmd &c : cmds)
        if (level.got_subcommand(c.name))
            return c.handler != nullptr ? c.handler() : run_cmd(*level.get_subcommand(c.name), c.subs);
    return HBEXIT_USAGE; // not reached: every level requires one
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
    static const zemctl_cmd cmds[] = {
        {"check",
         "check etc/cluster.xml and etc/local.xml exactly as init does, and that this host has the configured key "
         "files and every LAN path's own address, changing nothing",
         nullptr, cmd_check},
        {"init",
         "check as check does (a missing own address only warns), create or reset this node's shared memory "
         "and, if missing, the heartbeat area; bring run/ and log/ to their modes",
         opts_init, cmd_init},
        {"status",
         "show whether a daemon is attached and moves on, and every path and node state with its history; exit "
         "status 3 when no daemon runs, 5 when it has stalled",
         opts_status, cmd_status},
        {"watch",
         "print a snapshot, then every change of a state, of the daemon and of what set sets, with its cause, "
         "until interrupted",
         opts_watch, cmd_watch},
        {"notify",
         "run the executables in etc/notify.d for every event that watch prints, one at a time and in order, "
         "each with a time limit",
         opts_notify, cmd_notify},
        {"set", "set what a cluster manager would set", nullptr, nullptr, set_cmds},
        {"keygen", "write a new random cluster key file (mode 0600)", opts_keygen, cmd_keygen},
        {"run",
         "start zemlanhb and supervise it as its parent; SIGTERM, SIGINT and SIGHUP (terminal closed) stop it in "
         "order with down notification; refused (status 16) while a daemon runs on this root",
         opts_run, cmd_run},
        {"area", "format and show the heartbeat area on the shared disk", nullptr, nullptr, area_cmds},
        {"metrics",
         "print the published states, the threads' progress and the daemon's counters as metrics in the text "
         "exposition format, write them to a file, or serve them over HTTP",
         opts_metrics, cmd_metrics},
    };
    CLI::App app{"zemctl: prepare, inspect and supervise a node of the stand-alone cluster platform.\n"
                 "Files live in /etc/zemlanhb (configuration), /var/lib/zem (state) and /var/log/zemlanhb (logs),\n"
                 "or all under $ZEM_ROOT when it is set."};
    app.set_version_flag("--version", ZEM_VERSION_TEXT);
    app.require_subcommand(1);
    add_cmds(app, cmds);
    if (unknown_subcommand(app, argc, argv))
        return HBEXIT_USAGE;
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        int r = app.exit(e);
        return r == 0 ? 0 : HBEXIT_USAGE;
    }
    return run_cmd(app, cmds);
}
