// zemctl watch, and the one event source it shares with notify: attached
// to the root's shared memory, it sleeps on the state-change semaphore, but
// never longer than a second, since a daemon that ends, hangs or comes back
// and a value that zemctl set changes post nothing; at each wake it takes a
// snapshot and hands on the events between it and the last (events.h).
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>

#include <CLI/CLI.hpp>

#include "events.h"
#include "zemctl.h"

namespace {

int watch_count = 0;     // watch --count
int watch_timeout = 0;   // watch --timeout
bool watch_json = false; // watch --json

// Identity of the semaphore file, to notice a reset by "zemctl init".
ino_t sem_inode()
{
    struct stat st {};
    return stat(plat_path("run/sem").c_str(), &st) == 0 ? st.st_ino : 0;
}

// Attaches all three files (a reset replaces them all) and looks.
int32_t source_attach(ev_source &src)
{
    const ino_t ino = sem_inode();
    src.attached = attach_all();
    if (src.attached.nm != 0 || src.attached.sem != 0)
        return src.attached.nm != 0 ? src.attached.nm : src.attached.sem;
    src.sem_ino = ino;
    src.id = look_identity();
    src.last = take(src.attached);
    return 0;
}

// One line per event: text, or with json one JSON object per line.
void print_event(const ev_source &src, const zem_event &e)
{
    if (watch_json)
        printf("%s\n", dump(event_line(e, src.last.time_ms, src.id)).c_str());
    else
        printf("%s %s\n", now_text().c_str(), e.text.c_str());
}

} // namespace

int source_open(ev_source &src, zem_event &start, bool wait)
{
    if (root_missing())
        return HBEXIT_ATTACH;
    for (bool said = false;; said = true) {
        const int32_t r = source_attach(src);
        if (r == 0)
            break;
        if (!wait)
            return attach_failed(src.attached.nm != 0 ? NM_FILE : SEM_FILE, r);
        if (!said)
            fprintf(stderr, "zemctl: waiting for the shared memory under %s: run \"zemctl init\"\n",
                    esc(plat_path("run")).c_str());
        sleep(1);
    }
    start = snapshot_event("start", src.last, src.id);
    return 0;
}

std::vector<zem_event> source_next(ev_source &src, int wait_ms)
{
    const uint32_t c = plat_statchange_wait(src.last.posts, wait_ms);
    if (c == src.last.posts && sem_inode() != src.sem_ino && source_attach(src) == 0)
        return {snapshot_event("reset", src.last, src.id)};
    snapshot now = take(src.attached);
    std::vector<zem_event> out = events_between(src.last, now);
    src.posts += now.posts - src.last.posts;
    src.last = std::move(now);
    return out;
}

void opts_watch(CLI::App &cmd)
{
    cmd.add_option("--count", watch_count, "stop after this many state-change posts");
    cmd.add_option("--timeout", watch_timeout, "give up (status 3) after this many seconds");
    cmd.add_flag("--json", watch_json, "one JSON object per line, the first a snapshot as status --json has it");
}

int cmd_watch()
{
    ev_source src;
    zem_event start;
    if (int rc = source_open(src, start); rc != 0)
        return rc;
    print_event(src, start);
    struct timespec t0 {};
    clock_gettime(CLOCK_MONOTONIC, &t0);
    for (;;) {
        for (const zem_event &e : source_next(src, 1000))
            print_event(src, e);
        if (watch_count > 0 && src.posts >= static_cast<uint32_t>(watch_count))
            return 0;
        if (watch_timeout > 0) {
            struct timespec t {};
            clock_gettime(CLOCK_MONOTONIC, &t);
            if (t.tv_sec - t0.tv_sec >= watch_timeout) {
                print_event(src, {{{"event", "timeout"}, {"timeout_s", watch_timeout}, {"cause", "none"}},
                                  "no further state change within " + std::to_string(watch_timeout) + " s"});
                return HBEXIT_NODAEMON; // for watch: no change in time
            }
        }
    }
}
