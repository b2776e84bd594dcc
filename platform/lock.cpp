// One daemon per root: run/lock, held with flock(2) by the daemon for as
// long as it is attached to the shared memory.
//
// The kernel drops a flock with the last descriptor of its open file, so a
// dead holder never blocks a start and there is no stale pid file to clean
// up. The file's content (the holder's pid) is only a hint for messages and
// is trusted only while the lock is seen held.
//
// "zemctl run" takes the lock before it starts the daemon and hands the
// descriptor down (ZEM_LOCKFD); the daemon adopts it in zemstorage_init, its
// first platform call after the configuration and before it signals its
// parent (each attach checks again), so the lock stays held by the daemon
// even if its supervisor dies, and a refused daemon has signalled nobody.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "plat.h"

namespace {

// Written once before any thread attaches (zemctl's main, the tests).
std::atomic<bool> g_tool{false};

std::mutex lockmx;
int lockfd = -1; // under lockmx

int open_lockfile(bool create)
{
    int dfd = plat_rundir(create);
    if (dfd < 0)
        return -1;
    int fd = openat(dfd, PLAT_LOCK_FILE, O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | (create ? O_CREAT : 0), 0600);
    int err = errno;
    close(dfd);
    struct stat st {};
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
        close(fd);
        fd = -1;
        err = EINVAL;
    }
    errno = err;
    return fd;
}

pid_t read_pid(int fd)
{
    char buf[24] = {};
    ssize_t n = pread(fd, buf, sizeof buf - 1, 0);
    return n > 0 ? static_cast<pid_t>(atoi(buf)) : 0;
}

void write_pid(int fd)
{
    char buf[24];
    int n = snprintf(buf, sizeof buf, "%d\n", static_cast<int>(getpid()));
    if (ftruncate(fd, 0) != 0 || pwrite(fd, buf, static_cast<size_t>(n), 0) == n)
        return;
    // Half a pid is worse than none; failing that too, there is nothing left to do.
    if (ftruncate(fd, 0) != 0)
        return;
}

// The descriptor "zemctl run" passed down, if it is run/lock holding the lock.
int inherited_lock()
{
    const char *env = getenv(PLAT_LOCKFD_ENV);
    if (env == nullptr || *env == '\0')
        return -1;
    int fd = atoi(env);
    int mine = open_lockfile(false);
    struct stat a {}, b {};
    bool same = fd > 2 && mine >= 0 && fstat(fd, &a) == 0 && fstat(mine, &b) == 0 && a.st_dev == b.st_dev &&
                a.st_ino == b.st_ino;
    if (mine >= 0)
        close(mine);
    // flock on the open file that already holds the lock succeeds at once;
    // on any other it fails while the lock is held.
    if (!same || flock(fd, LOCK_EX | LOCK_NB) != 0)
        return -1;
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    return fd;
}

} // namespace

void plat_set_tool(bool tool)
{
    g_tool.store(tool);
}

int plat_lock_take(pid_t *holder, std::string &err)
{
    *holder = 0;
    int fd = open_lockfile(true);
    if (fd < 0) {
        err = plat_path("run/lock") + ": " + strerror(errno);
        return -1;
    }
    // A prober (zemctl status) holds the lock shared for a moment: a short
    // retry keeps it from refusing a real start.
    for (int i = 0; flock(fd, LOCK_EX | LOCK_NB) != 0; i++) {
        if (errno != EWOULDBLOCK || i == 20) {
            *holder = read_pid(fd);
            err = errno == EWOULDBLOCK ? "a daemon is running on " + plat_root() + " (pid " +
                                             std::to_string(*holder) + " holds run/lock)"
                                       : plat_path("run/lock") + ": " + strerror(errno);
            close(fd);
            return -1;
        }
        usleep(10000);
    }
    write_pid(fd);
    return fd;
}

pid_t plat_lock_holder()
{
    int fd = open_lockfile(false);
    if (fd < 0)
        return 0;
    pid_t pid = 0;
    if (flock(fd, LOCK_SH | LOCK_NB) == 0)
        flock(fd, LOCK_UN);
    else if (errno == EWOULDBLOCK)
        pid = read_pid(fd) > 0 ? read_pid(fd) : -1;
    close(fd);
    return pid;
}

int32_t plat_daemon_lock()
{
    if (g_tool.load())
        return 0;
    std::lock_guard lk(lockmx);
    if (lockfd >= 0)
        return 0;
    int fd = inherited_lock();
    if (fd >= 0) {
        write_pid(fd); // the daemon, not its supervisor, is the one to name
        lockfd = fd;
        return 0;
    }
    pid_t holder = 0;
    std::string err;
    fd = plat_lock_take(&holder, err);
    if (fd < 0) {
        plat_seterror(err);
        fprintf(stderr, "%s: not started: %s\n", program_invocation_short_name, err.c_str());
        return holder != 0 ? PLAT_EBUSY : PLAT_EIO;
    }
    lockfd = fd;
    return 0;
}

void plat_daemon_unlock()
{
    std::lock_guard lk(lockmx);
    if (lockfd >= 0)
        close(lockfd);
    lockfd = -1;
}

bool plat_is_tool()
{
    return g_tool.load();
}
