// zemctl run: the daemon's supervisor, the parent process the daemon
// expects. It takes the root's lock and hands it down, forks and execs the
// daemon, answers its "up" (SIGUSR1) with SIGUSR2, turns SIGTERM, SIGINT and
// SIGHUP into an orderly stop with or without down notices, reports to a
// service manager when the daemon really runs (its heartbeat threads have
// started), keeps the service manager's watchdog fed only while the daemon
// moves on, and ends with the daemon's exit status, saying the probable
// cause when the daemon could not start.
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <systemd/sd-daemon.h>

#include "zemctl.h"

namespace {

bool nodown = false;    // run --no-down
std::string daemon_opt; // run --daemon; empty: zemlanhb next to zemctl

std::string default_daemon()
{
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        return "zemlanhb";
    std::string dir(self, static_cast<size_t>(n));
    return dir.substr(0, dir.rfind('/') + 1) + "zemlanhb";
}

// ---- why the daemon could not start ---------------------------------------

// Where one of the daemon's logs stood when the daemon was started: what it
// has gained since is this start's.
struct logmark {
    const char *name;
    struct stat st {}; // st_ino 0: there was no log
};

std::string log_file(const char *name, bool rotated)
{
    return plat_path("log") + "/" + name + ".log" + (rotated ? ".1" : "");
}

std::vector<logmark> mark_logs()
{
    std::vector<logmark> marks;
    for (const char *name : {HB_KIND_LANHB, HB_KIND_CNTHB}) {
        logmark m{name};
        if (stat(log_file(name, false).c_str(), &m.st) != 0)
            m.st = {};
        marks.push_back(m);
    }
    return marks;
}

// What the log gained since the mark: the rest of the file marked, which a
// rotation since has moved to .1, then a log begun after it.
std::string log_since(const logmark &m)
{
    constexpr off_t MOST = 1 << 20; // a failed start writes a few records
    std::string text;
    for (bool rotated : {true, false}) {
        const std::string path = log_file(m.name, rotated);
        struct stat st {};
        if (stat(path.c_str(), &st) != 0)
            continue;
        const bool marked = m.st.st_ino != 0 && st.st_ino == m.st.st_ino && st.st_dev == m.st.st_dev;
        if (rotated && !marked)
            continue;
        std::ifstream in(path, std::ios::binary);
        in.seekg(std::max<off_t>(marked ? m.st.st_size : 0, st.st_size - MOST));
        std::stringstream ss;
        ss << in.rdbuf();
        text += ss.str();
    }
    return text;
}

// The failures the daemon's main thread (thread id = pid) logged at level 1
// since the marks, the last `most` of them, oldest first, each once (a
// record for both logs is in both) with the log it was found in first.
std::vector<std::string> logged_failures(const std::vector<logmark> &marks, pid_t pid, size_t most)
{
    struct failure {
        std::string stamp, text;
        const char *log;
    };
    std::vector<failure> found;
    for (const logmark &m : marks) {
        std::istringstream lines(log_since(m));
        for (std::string line; std::getline(lines, line);) {
            // "date time level tid file:line func: text"
            size_t at = 0;
            std::vector<std::string> field;
            for (int i = 0; i < 6 && at != std::string::npos; i++) {
                const size_t end = line.find(' ', at);
                field.push_back(line.substr(at, end == std::string::npos ? end : end - at));
                at = end == std::string::npos ? end : end + 1;
            }
            if (at == std::string::npos || field[2] != "0001" || field[3] != std::to_string(pid))
                continue;
            const std::string text = line.substr(at);
            if (plat_log_failure(text) && std::ranges::find(found, text, &failure::text) == found.end())
                found.push_back({field[0] + " " + field[1], text, m.name});
        }
    }
    std::ranges::stable_sort(found, {}, &failure::stamp);
    std::vector<std::string> out;
    for (size_t i = found.size() > most ? found.size() - most : 0; i < found.size(); i++)
        out.push_back(found[i].text + " (" + found[i].log + ".log)");
    return out;
}

// Says why the daemon could not start. Before its logs are open it cannot
// say so itself: the step its exit status names is repeated. After, its log
// records of this start say it.
void explain(int status, const std::vector<logmark> &marks, pid_t pid)
{
    std::vector<std::string> why;
    switch (status) {
    case HBEXIT_USAGE:
        why.push_back("the daemon was given an argument it does not take");
        break;
    case HBEXIT_XMLINIT:
        if (xmllib_init("lanhb") != 0)
            why.push_back(plat_lasterror());
        break;
    case HBEXIT_CONFIG:
        xmllib_init("lanhb");
        if (xmllib_load_config() != 0)
            why.push_back(plat_lasterror());
        xmllib_term();
        break;
    case HBEXIT_ATTACH: {
        uint8_t cntno = 0;
        if (zemstorage_init(&cntno) != 0)
            why.push_back(plat_lasterror());
        else if (zemstorage_term(), sem_attach() != 0 || shmcm_attach() != 0 || shmnm_attach() != 0)
            why.push_back("shared memory missing or damaged under " + plat_path("run") + "; run \"zemctl init\"");
        break;
    }
    case HBEXIT_LOAD:
    case HBEXIT_KEY:
        why = logged_failures(marks, pid, 2); // the cause, and the step it failed
        if (why.empty())
            why.push_back(std::string(hbexit_meaning(status)) + "; no record of this start in " +
                          log_file(HB_KIND_LANHB, false) + " or " + HB_KIND_CNTHB + ".log says why");
        break;
    default: // not a status of the daemon's start
        return;
    }
    if (why.empty())
        why.push_back(hbexit_meaning(status));
    for (const std::string &w : why)
        printf("zemctl: probable cause: %s\n", esc(w).c_str());
}

// ---- the daemon as it runs ------------------------------------------------

// The threads every daemon starts; the watchers are optional.
constexpr int ALWAYS_STARTED[] = {HBEXT_TH_LANRECV, HBEXT_TH_LANSEND, HBEXT_TH_CNTREAD, HBEXT_TH_CNTWRITE};
constexpr int64_t NEVER = INT64_MAX;
constexpr int64_t READY_POLL_MAX_MS = 1000;

// What the supervisor keeps about its daemon between signals.
struct supervised {
    pid_t pid;
    std::string name;      // the daemon's file name, for messages
    int64_t keepalive_ms;  // WATCHDOG=1 this often (half the service manager's watchdog), 0 none
    bool up = false;       // it said so (SIGUSR1)
    bool ready = false;    // its heartbeat threads have started; READY=1 sent
    bool stalled = false;  // it was seen stalled and said so
    int64_t poll_ms = 20;  // the look for ready, doubled up to READY_POLL_MAX_MS
    int64_t next_ms = 0;   // when to look next (plat_mono_ms), NEVER: no need
};

// Looks at the daemon's progress when it is due: reports it ready once its
// heartbeat threads have started, then, under a watchdog, feeds the
// watchdog while the daemon moves on and says once when it stopped moving.
void look(supervised &s)
{
    const int64_t now = plat_mono_ms();
    if (now < s.next_ms)
        return;
    if (!s.up) {
        s.next_ms = NEVER; // its SIGUSR1 comes first
        return;
    }
    int32_t ratio = 1;
    shmcm_getratio(&ratio, nullptr);
    const progress_view v = look_progress(s.pid, ratio);
    const char *name = s.name.c_str();
    if (!s.ready) {
        if (std::ranges::any_of(ALWAYS_STARTED, [&](int t) { return v.state[t] == progress_view::NONE; })) {
            s.next_ms = now + s.poll_ms;
            s.poll_ms = std::min(2 * s.poll_ms, READY_POLL_MAX_MS);
            return;
        }
        s.ready = true;
        printf("zemctl: %s (pid %d) runs: its heartbeat threads have started\n", name, s.pid);
        // Under a service manager (unit Type=notify) the start is over only
        // now; without NOTIFY_SOCKET this does nothing.
        sd_notifyf(0, "READY=1\nSTATUS=%s (pid %d) runs", name, s.pid);
    }
    s.next_ms = s.keepalive_ms > 0 ? now + s.keepalive_ms : NEVER;
    if (s.keepalive_ms == 0)
        return;
    if (!v.stalled) {
        sd_notify(0, "WATCHDOG=1");
        if (s.stalled)
            printf("zemctl: %s (pid %d) makes progress again; watchdog keep-alives resume\n", name, s.pid);
    } else if (!s.stalled) {
        printf("zemctl: %s (pid %d) stalled for %s: %s made no progress for longer than %s; no watchdog "
               "keep-alive while it stays so\n",
               name, s.pid, seconds(v.since_ms[v.slowest]).c_str(), HBEXT_TH_NAMES[v.slowest],
               seconds(v.limit_ms).c_str());
    }
    s.stalled = v.stalled;
}

// The next signal of set, or 0 when the look is due first.
int next_signal(const sigset_t &set, const supervised &s, siginfo_t *si)
{
    if (s.next_ms == NEVER)
        return sigwaitinfo(&set, si);
    const int64_t left = std::max<int64_t>(0, s.next_ms - plat_mono_ms());
    const struct timespec ts = {static_cast<time_t>(left / 1000), static_cast<long>(left % 1000 * 1000000)};
    const int sig = sigtimedwait(&set, si, &ts);
    return sig < 0 && errno == EAGAIN ? 0 : sig;
}

} // namespace

void opts_run(CLI::App &cmd)
{
    cmd.add_flag("--no-down", nodown, "clear the down notification when stopping");
    cmd.add_option("--daemon", daemon_opt, "the daemon binary (default: zemlanhb next to zemctl)");
}

int cmd_run()
{
    const std::string daemon = daemon_opt.empty() ? default_daemon() : daemon_opt;
    if (access(daemon.c_str(), X_OK) != 0) {
        fprintf(stderr, "zemctl: cannot run %s: %s\n", esc(daemon).c_str(), strerror(errno));
        return HBEXIT_NOEXEC;
    }
    if (root_missing())
        return HBEXIT_ATTACH;
    // A root never initialised has no shared memory: say what to do rather
    // than start a daemon that fails on the first file it misses.
    const std::pair<int32_t (*)(), const char *> shm[] = {
        {sem_attach, SEM_FILE}, {shmcm_attach, CM_FILE}, {shmnm_attach, NM_FILE}};
    for (const auto &[attach, file] : shm)
        if (int32_t r = attach(); r != 0)
            return attach_failed(file, r);
    // Taken before anything is touched and handed down to the daemon, which
    // adopts it: a second run is refused here, and the lock outlives this
    // supervisor for as long as the daemon runs.
    pid_t holder = 0;
    std::string err;
    int lockfd = plat_lock_take(&holder, err);
    if (lockfd < 0) {
        fprintf(stderr, "zemctl: run refused: %s; nothing was started or changed\n", esc(err).c_str());
        return holder != 0 ? HBEXIT_LOCKED : EXIT_FAILURE;
    }
    setenv(PLAT_LOCKFD_ENV, std::to_string(lockfd).c_str(), 1);
    // From the start, not only at the stop asked of this supervisor: a
    // daemon orphaned by its death stops by itself and asks the flag then.
    if (int32_t r = sem_attach(); r != 0 || (r = plat_setdownnotify(nodown ? 0 : 1)) != 0)
        fprintf(stderr, "zemctl: cannot set the down notification (ret:%d)\n", r);
    // All the signals this parent acts on are taken synchronously. A hang-up
    // (terminal closed, ssh dropped) is an orderly stop like SIGTERM, and a
    // vanished terminal must not kill the supervisor when it says so.
    // SIGABRT is what the service manager's watchdog sends.
    sigset_t set, old;
    sigemptyset(&set);
    for (int s : {SIGUSR1, SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGABRT})
        sigaddset(&set, s);
    sigprocmask(SIG_BLOCK, &set, &old);
    signal(SIGPIPE, SIG_IGN);
    const std::vector<logmark> marks = mark_logs();
    pid_t pid = fork();
    if (pid < 0) {
        fprintf(stderr, "zemctl: fork failed: %s\n", strerror(errno));
        return EXIT_FAILURE;
    }
    if (pid == 0) {
        signal(SIGPIPE, SIG_DFL);
        sigprocmask(SIG_SETMASK, &old, nullptr);
        fcntl(lockfd, F_SETFD, 0);
        for (const char *env : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
            unsetenv(env); // the service manager's, for this supervisor alone
        execl(daemon.c_str(), daemon.c_str(), static_cast<char *>(nullptr));
        fprintf(stderr, "zemctl: exec %s failed: %s\n", esc(daemon).c_str(), strerror(errno));
        _exit(HBEXIT_NOEXEC);
    }
    uint64_t watchdog_us = 0;
    if (sd_watchdog_enabled(0, &watchdog_us) <= 0)
        watchdog_us = 0;
    const int64_t keepalive_ms = watchdog_us == 0 ? 0 : std::max<int64_t>(1, static_cast<int64_t>(watchdog_us / 2000));
    supervised s{pid, esc(daemon.substr(daemon.rfind('/') + 1)), keepalive_ms};
    const char *base = s.name.c_str();
    printf("zemctl: started %s (pid %d)\n", esc(daemon).c_str(), pid);
    bool stopping = false;
    for (;;) {
        look(s);
        siginfo_t si {};
        const int sig = next_signal(set, s, &si);
        if (sig <= 0)
            continue;
        if (sig == SIGUSR1) {
            if (si.si_pid != pid || s.up)
                continue;
            s.up = true;
            s.next_ms = 0;
            printf("zemctl: %s (pid %d) is up; sending SIGUSR2 to start heartbeats\n", base, pid);
            kill(pid, SIGUSR2);
        } else if (sig == SIGINT || sig == SIGTERM || sig == SIGHUP) {
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
        } else if (sig == SIGABRT) {
            // A daemon that hangs cannot stop in order: it is ended at once,
            // its peers time it out, and the restart can take the lock.
            printf("zemctl: %s received (watchdog); killing %s (pid %d) without down notices\n", strsignal(sig),
                   base, pid);
            kill(pid, SIGKILL);
        } else if (sig == SIGCHLD) {
            int st = 0;
            if (waitpid(pid, &st, WNOHANG) != pid)
                continue;
            if (WIFEXITED(st)) {
                printf("zemctl: %s (pid %d) exited with status %d\n", base, pid, WEXITSTATUS(st));
                explain(WEXITSTATUS(st), marks, pid);
                return WEXITSTATUS(st);
            }
            int sg = WTERMSIG(st);
            printf("zemctl: %s (pid %d) was killed by signal %d (%s)\n", base, pid, sg, strsignal(sg));
            return 128 + sg;
        }
    }
}
