// zemctl set: writes what a cluster manager would set (the time-out ratio,
// the pending action, the wait status, a node's status and state, the down
// notification) into the shared memory the daemon reads. Each value is
// checked before anything is attached, so a refused one changes nothing.
// Its subcommands are a group of the table, listed here.
#include <cstdio>
#include <string>

#include <CLI/CLI.hpp>

#include "zemctl.h"

namespace {

std::string value, node; // the subcommand's arguments
bool force = false;      // set ratio --force

bool parse_value(const char *what, int32_t *v)
{
    if (plat_parse_i32(value.c_str(), v))
        return true;
    fprintf(stderr, "zemctl: set %s: \"%s\" is not a 32-bit integer\n", what, esc(value).c_str());
    return false;
}

int set_value(const char *what, int32_t (*attach)(), const char *file, int32_t (*setter)(int32_t))
{
    int32_t v;
    if (!parse_value(what, &v))
        return HBEXIT_USAGE;
    if (int32_t r = attach(); r != 0)
        return attach_failed(file, r);
    if (int32_t r = setter(v); r != 0) {
        fprintf(stderr, "zemctl: set %s failed: %s (ret:%d)\n", what, plat_error_text(r), r);
        return EXIT_FAILURE;
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
int set_ratio()
{
    int32_t v;
    if (!parse_value("ratio", &v))
        return HBEXIT_USAGE;
    if (v < 1) {
        fprintf(stderr, "zemctl: set ratio: %d refused: the ratio multiplies the heartbeat time-out and must be 1 "
                        "or more (the daemon would take it as 1)\n", v);
        return HBEXIT_USAGE;
    }
    int64_t secs = (static_cast<int64_t>(configured_hbto()) + 999) / 1000 * v;
    if (secs > 3600 && !force) {
        fprintf(stderr, "zemctl: set ratio: %d would stretch the heartbeat time-out to %lld s (%s), over an hour; "
                        "repeat with --force if that is meant\n", v, static_cast<long long>(secs),
                duration(secs * 1000).c_str());
        return HBEXIT_USAGE;
    }
    return set_value("ratio", shmcm_attach, CM_FILE, plat_setratio);
}

int set_node_value(const char *what, int32_t (*setter)(const char *, int32_t))
{
    int32_t v;
    if (!parse_value(what, &v))
        return HBEXIT_USAGE;
    if (int32_t r = shmnm_attach(); r != 0)
        return attach_failed(NM_FILE, r);
    if (int32_t r = setter(node.c_str(), v); r != 0) {
        fprintf(stderr, "zemctl: set %s of node %s failed: %s (ret:%d)\n", what, esc(node).c_str(),
                r == PLAT_ENOENT ? "no such node" : plat_error_text(r), r);
        return EXIT_FAILURE;
    }
    printf("%s of node %s set to %d\n", what, esc(node).c_str(), v);
    return 0;
}

int set_down()
{
    if (value != "on" && value != "off") {
        fprintf(stderr, "zemctl: set down: expected on or off, not \"%s\"\n", esc(value).c_str());
        return HBEXIT_USAGE;
    }
    if (int32_t r = sem_attach(); r != 0)
        return attach_failed(SEM_FILE, r);
    plat_setdownnotify(value == "on");
    printf("down notification %s\n", value.c_str());
    return 0;
}

void opts_value(CLI::App &cmd)
{
    cmd.add_option("value", value, "integer (decimal or 0x hex)")->required();
}

void opts_ratio(CLI::App &cmd)
{
    opts_value(cmd);
    cmd.add_flag("--force", force, "accept a ratio that stretches the time-out past an hour");
}

void opts_node_value(CLI::App &cmd)
{
    cmd.add_option("node", node, "node name")->required();
    opts_value(cmd);
}

void opts_down(CLI::App &cmd)
{
    cmd.add_option("onoff", value, "on or off")->required();
}

constexpr zemctl_cmd cmds[] = {
    {"ratio", "time-out ratio (1 or more)", opts_ratio, set_ratio},
    {"action", "pending cluster action code", opts_value,
     [] { return set_value("action", shmcm_attach, CM_FILE, plat_setaction); }},
    {"waitstat", "wait status (1 = resume)", opts_value,
     [] { return set_value("waitstat", shmnm_attach, NM_FILE, plat_setwaitstat); }},
    {"hdstat", "node status for the online check (1 = may go online)", opts_node_value,
     [] { return set_node_value("hdstat", plat_sethdstat); }},
    {"nodestat", "node state carried in LAN heartbeats", opts_node_value,
     [] { return set_node_value("nodestat", plat_setnodestat); }},
    {"down", "down notification on or off", opts_down, set_down},
};

} // namespace

const std::span<const zemctl_cmd> set_cmds = cmds;
