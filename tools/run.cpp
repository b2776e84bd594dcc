// zemctl run: the daemon's supervisor, the parent process the daemon
// expects. It takes the root's lock and hands it down, forks and execs the
// daemon, answers its "up" (SIGUSR1) with SIGUSR2, turns SIGTERM, SIGINT and
// SIGHUP into an orderly stop with or without down notices, reports
// readiness and stopping to a service manager, and ends with the daemon's
// exit status, saying the probable cause when the daemon could not start.
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

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

// The daemon cannot log before its logs are open; say why it could not start
// by repeating the step its exit status names.
void explain(int status)
{
    std::string why;
    switch (status) {
    case HBEXIT_XMLINIT:
        if (xmllib_init("lanhb") != 0)
            why = plat_lasterror();
        break;
    case HBEXIT_CONFIG:
        xmllib_init("lanhb");
        if (xmllib_load_config() != 0)
            why = plat_lasterror();
        xmllib_term();
        break;
    case HBEXIT_ATTACH: {
        uint8_t cntno = 0;
        if (zemstorage_init(&cntno) != 0)
            why = plat_lasterror();
        else if (zemstorage_term(), sem_attach() != 0 || shmcm_attach() != 0 || shmnm_attach() != 0)
            why = "shared memory missing or damaged under " + plat_path("run") + "; run \"zemctl init\"";
        break;
    }
    default:
        break;
    }
    if (!why.empty())
        printf("zemctl: probable cause: %s\n", why.c_str());
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
    // All the signals this parent acts on are taken synchronously. A hang-up
    // (terminal closed, ssh dropped) is an orderly stop like SIGTERM, and a
    // vanished terminal must not kill the supervisor when it says so.
    sigset_t set, old;
    sigemptyset(&set);
    for (int s : {SIGUSR1, SIGCHLD, SIGINT, SIGTERM, SIGHUP})
        sigaddset(&set, s);
    sigprocmask(SIG_BLOCK, &set, &old);
    signal(SIGPIPE, SIG_IGN);
    pid_t pid = fork();
    if (pid < 0) {
        fprintf(stderr, "zemctl: fork failed: %s\n", strerror(errno));
        return EXIT_FAILURE;
    }
    if (pid == 0) {
        signal(SIGPIPE, SIG_DFL);
        sigprocmask(SIG_SETMASK, &old, nullptr);
        fcntl(lockfd, F_SETFD, 0);
        execl(daemon.c_str(), daemon.c_str(), static_cast<char *>(nullptr));
        fprintf(stderr, "zemctl: exec %s failed: %s\n", esc(daemon).c_str(), strerror(errno));
        _exit(HBEXIT_NOEXEC);
    }
    std::string shown = esc(daemon.substr(daemon.rfind('/') + 1));
    const char *base = shown.c_str();
    printf("zemctl: started %s (pid %d)\n", esc(daemon).c_str(), pid);
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
