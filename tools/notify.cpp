// zemctl notify: runs the executables of etc/notify.d for every event that
// watch prints (the same source, watch.cpp), one hook at a time, in name
// order, each event after the one before, each hook within a time limit.
// The daemon knows nothing of it: it only reads shared memory. A thread
// watches and queues; this one runs the hooks. The queue is bounded: what
// does not fit while a hook takes its time is counted and told as one
// "dropped" event in its place, so that nothing is lost unseen. A hook gets
// the event in its environment (event_env) and as its JSON line on its
// standard input; its output, and what notify says of hooks that fail or
// overrun (they are killed with their process group), go to notify's own
// standard output and error, which the journal takes under systemd.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <systemd/sd-daemon.h>

#include "events.h"
#include "zemctl.h"

extern char **environ;

namespace {

int hook_limit = 10;   // notify --hook-timeout, seconds
size_t queue_max = 1000; // notify --queue, events

// Set by SIGTERM, SIGINT and SIGHUP; read by both threads.
std::atomic<bool> stop_asked{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");

void on_stop(int)
{
    stop_asked.store(true, std::memory_order_relaxed);
}

struct queued {
    ojson line;
    std::string text;
};

// From the watching thread to the hooks, under mx.
struct event_queue {
    std::mutex mx;
    std::condition_variable cv;
    std::deque<queued> q;
    uint64_t dropped = 0; // not queued since the last "dropped" event
    bool done = false;    // the watcher has stopped
    ev_identity id;
};

queued dropped_event(uint64_t n, const ev_identity &id)
{
    const zem_event e{{{"event", "dropped"}, {"count", n}, {"cause", "none"}},
                      std::to_string(n) + " event(s) dropped: " + std::to_string(queue_max) +
                          " were waiting for the hooks"};
    return {event_line(e, plat_now_ms(), id), e.text};
}

// Never blocks the watcher. The "dropped" event takes the place of what was
// dropped, so it needs room before the next event does.
void push(event_queue &eq, queued ev)
{
    {
        std::lock_guard lk(eq.mx);
        if (eq.dropped > 0 && eq.q.size() + 2 <= queue_max) {
            eq.q.push_back(dropped_event(eq.dropped, eq.id));
            eq.dropped = 0;
        }
        if (eq.dropped == 0 && eq.q.size() < queue_max)
            eq.q.push_back(std::move(ev));
        else
            eq.dropped++;
    }
    eq.cv.notify_one();
}

// The next event for the hooks; none once the watcher has stopped.
std::optional<queued> pop(event_queue &eq)
{
    std::unique_lock lk(eq.mx);
    eq.cv.wait(lk, [&] { return eq.done || !eq.q.empty() || eq.dropped > 0; });
    if (eq.done)
        return std::nullopt;
    if (eq.q.empty()) {
        queued d = dropped_event(eq.dropped, eq.id);
        eq.dropped = 0;
        return d;
    }
    queued ev = std::move(eq.q.front());
    eq.q.pop_front();
    return ev;
}

// ---- the hooks ------------------------------------------------------------------

// Names as run-parts takes them: no dots, so that editor and package
// manager left-overs ("10-mail~", "10-mail.dpkg-old") never run.
bool hook_name(const char *n)
{
    return *n != '\0' && std::all_of(n, n + strlen(n), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                      c == '-';
           });
}

// What anyone but this user (or root) could have written would run with
// this user's rights.
bool safe(const struct stat &st)
{
    return (st.st_mode & (S_IWGRP | S_IWOTH)) == 0 && (st.st_uid == 0 || st.st_uid == geteuid());
}

std::set<std::string> warned; // said once each, by the thread running hooks

void warn_once(const std::string &what, const std::string &why)
{
    if (warned.insert(what).second)
        fprintf(stderr, "zemctl notify: %s %s; not run\n", esc(what).c_str(), why.c_str());
}

// The hooks as they are now: read afresh for every event, so that a hook
// added or made executable counts from the next event on.
std::vector<std::string> hooks(const std::string &dir)
{
    std::vector<std::string> out;
    const int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd < 0)
        return out;
    struct stat ds {};
    DIR *d = fstat(dfd, &ds) == 0 && safe(ds) ? fdopendir(dfd) : nullptr;
    if (d == nullptr) {
        close(dfd);
        warn_once(dir, "is writable by others than its owner, or owned by another user: no hook in it is");
        return out;
    }
    while (const struct dirent *e = readdir(d)) {
        struct stat st {};
        if (!hook_name(e->d_name) || fstatat(dfd, e->d_name, &st, 0) != 0 || !S_ISREG(st.st_mode) ||
            faccessat(dfd, e->d_name, X_OK, AT_EACCESS) != 0)
            continue;
        if (!safe(st))
            warn_once(dir + "/" + e->d_name, "is writable by others than its owner, or owned by another user");
        else
            out.push_back(e->d_name);
    }
    closedir(d);
    std::ranges::sort(out);
    return out;
}

// The hook's environment: ours, with the event's variables in place of any
// of the same name.
std::vector<std::string> hook_env(const ojson &line)
{
    std::vector<std::string> env = event_env(line);
    for (char **e = environ; *e != nullptr; e++) {
        const std::string_view var(*e);
        const std::string_view name = var.substr(0, var.find('='));
        if (std::ranges::none_of(env, [&](const std::string &v) { return v.starts_with(std::string(name) + "="); }))
            env.emplace_back(var);
    }
    return env;
}

// Waits up to limit_ms for the child to end; false when it is still running.
bool wait_child(pid_t pid, int64_t limit_ms, int &status)
{
    const int64_t end = plat_mono_ms() + limit_ms;
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    bool ended = false;
    for (int64_t left = limit_ms; !ended && left > 0; left = end - plat_mono_ms()) {
        ended = waitpid(pid, &status, WNOHANG) == pid;
        if (ended)
            break;
        // Without pidfds (kernels before 5.3) a short nap instead.
        pollfd p{fd, POLLIN, 0};
        if (fd < 0 || poll(&p, 1, static_cast<int>(std::min<int64_t>(left, 1000))) < 0)
            usleep(10000);
    }
    if (fd >= 0)
        close(fd);
    return ended;
}

// The event's JSON line as a file of its own: a pipe could hold a hook
// that never reads it, or be too small for a snapshot.
int event_input(const ojson &line)
{
    const int fd = memfd_create("zem-event", MFD_CLOEXEC);
    const std::string text = dump(line) + "\n";
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        lseek(fd, 0, SEEK_SET) != 0) {
        if (fd >= 0)
            close(fd);
        return -1;
    }
    return fd;
}

void run_hook(const std::string &dir, const std::string &name, const queued &ev)
{
    const std::string path = dir + "/" + name, what = "hook " + esc(name) + " (" + ev.text + ")";
    std::vector<std::string> env = hook_env(ev.line);
    std::vector<char *> envp;
    for (std::string &e : env)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    char *argv[] = {const_cast<char *>(path.c_str()), nullptr};
    const int in = event_input(ev.line);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    if (in >= 0)
        posix_spawn_file_actions_adddup2(&fa, in, 0);
    else
        posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    // A process group of its own, to end whatever it started with it; the
    // signals this process takes or ignores back to their defaults.
    posix_spawnattr_t at;
    posix_spawnattr_init(&at);
    posix_spawnattr_setflags(&at, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setpgroup(&at, 0);
    sigset_t none, deflt;
    sigemptyset(&none);
    sigemptyset(&deflt);
    for (int s : {SIGPIPE, SIGTERM, SIGINT, SIGHUP})
        sigaddset(&deflt, s);
    posix_spawnattr_setsigmask(&at, &none);
    posix_spawnattr_setsigdefault(&at, &deflt);
    pid_t pid = -1;
    const int r = posix_spawn(&pid, path.c_str(), &fa, &at, argv, envp.data());
    posix_spawnattr_destroy(&at);
    posix_spawn_file_actions_destroy(&fa);
    if (in >= 0)
        close(in);
    if (r != 0) {
        fprintf(stderr, "zemctl notify: %s could not be run: %s\n", what.c_str(), strerror(r));
        return;
    }
    int st = 0;
    if (!wait_child(pid, static_cast<int64_t>(hook_limit) * 1000, st)) {
        kill(-pid, SIGKILL);
        waitpid(pid, &st, 0);
        fprintf(stderr, "zemctl notify: %s killed: still running after %d s\n", what.c_str(), hook_limit);
    } else if (WIFSIGNALED(st)) {
        fprintf(stderr, "zemctl notify: %s ended by signal %d (%s)\n", what.c_str(), WTERMSIG(st),
                strsignal(WTERMSIG(st)));
    } else if (WEXITSTATUS(st) != 0) {
        fprintf(stderr, "zemctl notify: %s exited with status %d\n", what.c_str(), WEXITSTATUS(st));
    }
}

std::string names(const std::vector<std::string> &hooks)
{
    std::string out;
    for (const std::string &h : hooks)
        out += (out.empty() ? "" : ", ") + esc(h);
    return out.empty() ? "none yet" : out;
}

} // namespace

void opts_notify(CLI::App &cmd)
{
    cmd.add_option("--hook-timeout", hook_limit, "kill a hook still running after this many seconds (default 10)")
        ->check(CLI::Range(1, 86400));
    cmd.add_option("--queue", queue_max, "events kept while hooks run before further ones are dropped (default 1000)")
        ->check(CLI::Range(2, 1000000));
}

int cmd_notify()
{
    ev_source src;
    zem_event start;
    if (int rc = source_open(src, start, true); rc != 0)
        return rc;
    const std::string dir = plat_path("etc/notify.d");
    printf("zemctl notify: watching %s (host %s, cluster %s); hooks in %s: %s\n", esc(plat_root()).c_str(),
           esc(src.id.host).c_str(), esc(src.id.cluster).c_str(), esc(dir).c_str(), names(hooks(dir)).c_str());
    struct sigaction sa {};
    sa.sa_handler = on_stop;
    sigemptyset(&sa.sa_mask);
    for (int s : {SIGTERM, SIGINT, SIGHUP})
        sigaction(s, &sa, nullptr);
    event_queue eq;
    eq.id = src.id;
    push(eq, {event_line(start, src.last.time_ms, src.id), start.text});
    sd_notify(0, "READY=1");
    std::thread watcher([&] {
        while (!stop_asked.load(std::memory_order_relaxed))
            for (const zem_event &e : source_next(src, 1000))
                push(eq, {event_line(e, src.last.time_ms, src.id), e.text});
        {
            std::lock_guard lk(eq.mx);
            eq.done = true;
        }
        eq.cv.notify_one();
    });
    while (std::optional<queued> ev = pop(eq))
        for (const std::string &h : hooks(dir))
            run_hook(dir, h, *ev);
    watcher.join();
    sd_notify(0, "STOPPING=1");
    printf("zemctl notify: stopped; %zu event(s) not handed to the hooks\n", eq.q.size() + (eq.dropped > 0));
    return 0;
}
