// Where the platform keeps its files, and how it writes them safely.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "plat.h"

std::string plat_root()
{
    const char *env = getenv("ZEM_ROOT");
    std::string root = (env != nullptr && *env != '\0') ? env : PLAT_DEFAULT_ROOT;
    while (root.size() > 1 && root.back() == '/')
        root.pop_back();
    return root;
}

std::string plat_path(const char *rel)
{
    return plat_root() + "/" + rel;
}

namespace {
std::mutex errmx;
std::string lasterr;
} // namespace

std::string plat_lasterror()
{
    std::lock_guard lk(errmx);
    return lasterr;
}

void plat_seterror(const std::string &why)
{
    std::lock_guard lk(errmx);
    lasterr = why;
}

int plat_rundir(bool create)
{
    std::string dir = plat_path("run");
    if (create && mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST)
        return -1;
    // O_NOFOLLOW: a run/ that is a symlink is refused, like any link inside it.
    return open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

int plat_replace_file(const char *name, const void *data, size_t size, std::string &err)
{
    int dfd = plat_rundir(true);
    if (dfd < 0) {
        err = plat_path("run") + ": " + strerror(errno);
        return PLAT_EIO;
    }
    // Written aside and renamed over the old one, so no reader ever maps a
    // half-written file and a symlink planted under the name is replaced,
    // never followed.
    std::string tmp = std::string(".") + name + "." + std::to_string(getpid());
    int fd = openat(dfd, tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        err = plat_path("run") + "/" + tmp + ": " + strerror(errno);
        close(dfd);
        return PLAT_EIO;
    }
    const char *p = static_cast<const char *>(data);
    size_t left = size;
    bool ok = true;
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            ok = false;
            break;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    if (ok && fsync(fd) != 0)
        ok = false;
    int werr = errno;
    close(fd);
    if (!ok || renameat(dfd, tmp.c_str(), dfd, name) != 0) {
        if (ok)
            werr = errno;
        unlinkat(dfd, tmp.c_str(), 0);
        close(dfd);
        err = plat_path("run") + "/" + name + ": " + strerror(werr);
        return PLAT_EIO;
    }
    close(dfd);
    return 0;
}
