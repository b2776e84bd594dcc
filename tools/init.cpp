// zemctl check and init: both files of the node's configuration read and
// checked the same way, every note and problem printed; init then brings
// run/ and log/ to their modes and makes fresh shared memory and, when
// missing, the heartbeat area, under the root's lock so that no daemon
// starts on half-made files.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "zemctl.h"

namespace {

bool force = false; // init --force

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

} // namespace

void opts_init(CLI::App &cmd)
{
    cmd.add_flag("--force", force, "reset even while a daemon runs on this root");
}

int cmd_check()
{
    plat_cluster cl;
    plat_local loc;
    if (!validate(cl, loc, "check", ""))
        return EXIT_FAILURE;
    printf("%s: configuration OK: ", esc(plat_root()).c_str());
    summary(cl, loc);
    return 0;
}

int cmd_init()
{
    plat_cluster cl;
    plat_local loc;
    if (!validate(cl, loc, "init failed", "; nothing was changed"))
        return EXIT_FAILURE;
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
        return EXIT_FAILURE;
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
        return EXIT_FAILURE;
    }
    printf("initialised %s: ", esc(plat_root()).c_str());
    summary(cl, loc);
    return 0;
}
