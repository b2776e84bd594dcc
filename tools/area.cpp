// zemctl area: the heartbeat area on the shared disk. create formats a
// block device or a file for the cluster of etc/cluster.xml, refusing what
// holds data unless forced; show reads the header and every slot twice, a
// moment apart, to tell a live writer from a silent one, and flags an area
// the daemon would refuse for being another cluster's. Its subcommands are
// a group of the table, listed here.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "zemctl.h"

namespace {

using ojson = nlohmann::ordered_json;

std::string path;     // the subcommand's argument
bool force = false;   // create --force
bool json = false;    // show --json
int interval = 2;     // show --interval, seconds between the two reads

std::string hex(const std::array<uint8_t, 16> &id)
{
    std::string s;
    char b[3];
    for (uint8_t v : id) {
        snprintf(b, sizeof b, "%02x", v);
        s += b;
    }
    return s;
}

std::string local_time(time_t t)
{
    struct tm tm {};
    char buf[32] = "?";
    if (localtime_r(&t, &tm) != nullptr)
        strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
    return buf;
}

// One slot's record as the daemon's reader takes it: tag and stamp cut at
// their last byte.
struct record {
    std::string tag, stamp;
    bool empty, down, known;
};

record parse(const std::array<char, ZEMFW_HBINF_SIZE> &raw)
{
    record r;
    r.empty = std::all_of(raw.begin(), raw.end(), [](char c) { return c == '\0'; });
    r.tag.assign(raw.data(), strnlen(raw.data(), 7));
    r.stamp.assign(raw.data() + 8, strnlen(raw.data() + 8, 31));
    r.down = r.tag == "hbdown";
    r.known = r.down || r.tag == "cnthb";
    return r;
}

// When the writer made the stamp, by its own clock read as this host's
// local time ("Mon Jun  3 18:57:03.512 2024", a down notice's without the
// milliseconds); -1 for a stamp of another form (the writer's counter).
int64_t stamp_ms(const std::string &stamp)
{
    static const char *const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    char wday[4], mon[4];
    struct tm tm {};
    int ms = 0, n = 0;
    if (sscanf(stamp.c_str(), "%3s %3s %d %d:%d:%d.%3d %d%n", wday, mon, &tm.tm_mday, &tm.tm_hour, &tm.tm_min,
               &tm.tm_sec, &ms, &tm.tm_year, &n) != 8 &&
        (ms = 0, sscanf(stamp.c_str(), "%3s %3s %d %d:%d:%d %d%n", wday, mon, &tm.tm_mday, &tm.tm_hour, &tm.tm_min,
                        &tm.tm_sec, &tm.tm_year, &n) != 7))
        return -1;
    tm.tm_mon = -1;
    for (int i = 0; i < 12; i++)
        if (strcmp(mon, months[i]) == 0)
            tm.tm_mon = i;
    tm.tm_year -= 1900;
    tm.tm_isdst = -1;
    time_t t = mktime(&tm);
    return static_cast<size_t>(n) != stamp.size() || tm.tm_mon < 0 || t == -1 ? -1 : t * 1000LL + ms;
}

int create()
{
    std::string cluster, err;
    if (root_missing())
        return EXIT_FAILURE;
    if (plat_cluster_name(cluster, err) != 0) {
        fprintf(stderr, "zemctl: area create: %s\n", esc(err).c_str());
        return EXIT_FAILURE;
    }
    if (int32_t r = plat_area_format(path, cluster, force, err); r != 0) {
        fprintf(stderr, "zemctl: area create %s: %s\n", r == PLAT_EEXIST ? "refused" : "failed", esc(err).c_str());
        return EXIT_FAILURE;
    }
    plat_area_view v;
    if (plat_area_read(path, v, err) != 0) {
        fprintf(stderr, "zemctl: area create: formatted, but reading it back failed: %s\n", esc(err).c_str());
        return EXIT_FAILURE;
    }
    printf("formatted %s as the heartbeat area of cluster \"%s\": %u slots of %u bytes, id %s\n",
           esc(path).c_str(), esc(v.head.cluster).c_str(), v.head.slots, v.head.slot_size, hex(v.head.id).c_str());
    return 0;
}

int show()
{
    std::string err, cluster;
    if (path.empty()) {
        plat_local loc;
        if (root_missing())
            return EXIT_FAILURE;
        if (plat_load_local(loc, err) != 0) {
            fprintf(stderr, "zemctl: area show: %s\n", esc(err).c_str());
            return EXIT_FAILURE;
        }
        path = loc.area;
    }
    bool known = plat_cluster_name(cluster, err) == 0;
    plat_area_view first, v;
    int32_t r = plat_area_read(path, first, err);
    if (r == 0 && interval > 0)
        sleep(static_cast<unsigned>(interval));
    if (r == 0)
        r = plat_area_read(path, v, err);
    if (r != 0) {
        fprintf(stderr, "zemctl: area show: %s\n", esc(err).c_str());
        return EXIT_FAILURE;
    }
    int64_t now = plat_now_ms();
    bool foreign = known && v.head.cluster != cluster;
    ojson out = {{"version", ZEMCTL_JSON_VERSION},
                 {"path", path},
                 {"time_ms", now},
                 {"block_device", v.blockdev},
                 {"direct_io", v.direct},
                 {"size_bytes", v.size},
                 {"cluster", v.head.cluster},
                 {"this_cluster", known ? ojson(cluster) : ojson(nullptr)},
                 {"layout_version", v.head.version},
                 {"slots", v.head.slots},
                 {"slot_bytes", v.head.slot_size},
                 {"created_at_ms", v.head.created * 1000},
                 {"id", hex(v.head.id)},
                 {"interval_ms", interval * 1000},
                 {"records", ojson::array()}};
    if (!json) {
        printf("heartbeat area %s: %s of %llu bytes, read with%s direct I/O\n", esc(path).c_str(),
               v.blockdev ? "block device" : "file", static_cast<unsigned long long>(v.size), v.direct ? "" : "out");
        printf("cluster \"%s\"%s, layout version %u, %u slots of %u bytes\n", esc(v.head.cluster).c_str(),
               foreign ? " (NOT this node's cluster)" : "", v.head.version, v.head.slots, v.head.slot_size);
        printf("created %s, id %s\n", local_time(static_cast<time_t>(v.head.created)).c_str(), hex(v.head.id).c_str());
        printf("%4s  %-7s %-30s %s\n", "slot", "tag", "stamp", "last change");
    }
    int empty = 0;
    for (size_t k = 0; k < v.rec.size(); k++) {
        record rec = parse(v.rec[k]);
        if (rec.empty) {
            empty++;
            continue;
        }
        bool changed = v.rec[k] != first.rec[k];
        int64_t at = stamp_ms(rec.stamp);
        // Unchanged since the stamp was written, and at least the interval.
        int64_t still = changed ? 0 : std::max<int64_t>(at >= 0 ? now - at : 0, interval * 1000LL);
        out["records"].push_back({{"slot", k},
                                  {"tag", rec.tag},
                                  {"stamp", rec.stamp},
                                  {"down_notice", rec.down},
                                  {"stamp_at_ms", at >= 0 ? ojson(at) : ojson(nullptr)},
                                  {"changed", interval > 0 ? ojson(changed) : ojson(nullptr)},
                                  {"unchanged_ms", interval > 0 ? ojson(still) : ojson(nullptr)}});
        if (json)
            continue;
        std::string how = interval == 0 ? (at >= 0 ? "stamp " + duration(now - at) + " old" : "-")
                          : changed    ? "changing (within " + std::to_string(interval) + "s)"
                                       : "unchanged for " + duration(still);
        if (rec.down)
            how = "DOWN notice (stopped in order), " + how;
        else if (!rec.known)
            how = "unknown tag, ignored by the daemon";
        printf("%4zu  %-7s %-30s %s\n", k, esc(rec.tag).c_str(), esc(rec.stamp).c_str(), how.c_str());
    }
    if (json)
        printf("%s\n", out.dump(2, ' ', false, ojson::error_handler_t::replace).c_str());
    else
        printf("%d slot(s) never written\n", empty);
    if (foreign) {
        fprintf(stderr, "zemctl: area show: %s is the heartbeat area of cluster \"%s\", not of this cluster \"%s\"; "
                        "the daemon refuses it\n", esc(path).c_str(), esc(v.head.cluster).c_str(),
                esc(cluster).c_str());
        return EXIT_FAILURE;
    }
    return 0;
}

void opts_create(CLI::App &cmd)
{
    cmd.add_option("path", path, "block device or file")->required();
    cmd.add_flag("--force", force, "format over a file system, a partition table or another area");
}

void opts_show(CLI::App &cmd)
{
    cmd.add_option("path", path, "block device or file (default: this node's <area>)");
    cmd.add_option("--interval", interval, "seconds between the two reads (0: read once)")
        ->check(CLI::Range(0, 60));
    cmd.add_flag("--json", json, "print JSON instead of a table");
}

constexpr zemctl_cmd cmds[] = {
    {"create",
     "format a block device or file as the heartbeat area of this cluster; refused over data unless --force",
     opts_create, create},
    {"show", "show the area's header and every slot in use, and whether its writer is live", opts_show, show},
};

} // namespace

const std::span<const zemctl_cmd> area_cmds = cmds;
