// zemctl watch: sleeps on the state-change semaphore and prints what
// differs between two snapshots (events.h), one line or JSON object per
// change.
#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <map>
#include <string>

#include <CLI/CLI.hpp>

#include "events.h"
#include "zemctl.h"

namespace {

int watch_count = 0;     // watch --count
int watch_timeout = 0;   // watch --timeout
bool watch_json = false; // watch --json

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
                std::string from = svstat_text(o.nodes[j].stat);
                std::string to = svstat_text(r.nodes[j].stat);
                w.emit(std::string(ev_kinds[k]) + " " + esc(r.name) + " node " + esc(r.nodes[j].name) + ": " + from +
                           " -> " + to,
                       {{"event", "node"}, {"kind", ev_kinds[k]}, {"path", r.name}, {"node", r.nodes[j].name},
                        {"from", from}, {"to", to}, {"down_count", r.nodes[j].hist.downs}});
                lines++;
            }
            if (r.stat != o.stat) {
                std::string from = rscstat_text(o.stat);
                std::string to = rscstat_text(r.stat);
                w.emit(std::string(ev_kinds[k]) + " " + esc(r.name) + ": " + from + " -> " + to,
                       {{"event", "path"}, {"kind", ev_kinds[k]}, {"path", r.name}, {"from", from}, {"to", to}});
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

