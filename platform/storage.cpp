// The storage access library: the controller's heartbeat area is one file
// (on a real cluster a shared disk) named in local.xml, shared by all nodes.
// Slot k is the ZEMFW_HBINF_SIZE bytes at offset ZEMFW_HBINF_SIZE x k, for
// k from 0 to ZEMFW_HBSLOTS - 1. Writes go through O_DSYNC, so a record is
// on the disk when zemfw_sethbinf returns.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "plat.h"

namespace {

constexpr size_t AREA_SIZE = static_cast<size_t>(ZEMFW_HBSLOTS) * ZEMFW_HBINF_SIZE;

std::atomic<int> g_fd{-1};
// Calls in progress. zemstorage_term closes the file only when none is, so
// a worker stuck in a slow read can never end up using a reused descriptor
// number; otherwise the descriptor is left open until exit.
std::atomic<int> g_inflight{0};

struct inflight {
    int fd;
    inflight()
    {
        g_inflight.fetch_add(1);
        fd = g_fd.load();
    }
    ~inflight() { g_inflight.fetch_sub(1); }
};

} // namespace

int32_t plat_area_create(const std::string &path, std::string &err)
{
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0)
        return 0;
    // Filled aside and linked into place, so a node starting at the same
    // moment never opens a half-written area, and an area another node
    // created meanwhile is kept.
    std::string tmp = path + ".new." + std::to_string(getpid());
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640);
    if (fd < 0) {
        err = tmp + ": " + strerror(errno);
        return PLAT_EIO;
    }
    static const char zeros[AREA_SIZE] = {};
    bool ok = pwrite(fd, zeros, sizeof zeros, 0) == static_cast<ssize_t>(sizeof zeros) && fsync(fd) == 0;
    int e = errno;
    close(fd);
    if (ok && link(tmp.c_str(), path.c_str()) != 0 && errno != EEXIST) {
        ok = false;
        e = errno;
    }
    unlink(tmp.c_str());
    if (!ok)
        err = path + ": " + strerror(e);
    return ok ? 0 : PLAT_EIO;
}

int32_t zemstorage_init(uint8_t *cntno)
{
    if (cntno == nullptr)
        return PLAT_EINVAL;
    plat_local loc;
    if (int32_t r = plat_load_local(loc); r != 0)
        return r;
    int fd = open(loc.area.c_str(), O_RDWR | O_DSYNC | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        int e = errno;
        plat_seterror(loc.area + ": " + strerror(e));
        return e == ENOENT ? PLAT_ENOENT : PLAT_EIO;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || (S_ISREG(st.st_mode) && st.st_size < static_cast<off_t>(AREA_SIZE)) ||
        !(S_ISREG(st.st_mode) || S_ISBLK(st.st_mode))) {
        plat_seterror(loc.area + ": not a heartbeat area of " + std::to_string(AREA_SIZE) + " bytes");
        close(fd);
        return PLAT_EFORMAT;
    }
    int old = g_fd.exchange(fd);
    if (old >= 0 && g_inflight.load() == 0)
        close(old);
    *cntno = static_cast<uint8_t>(loc.cntno);
    return 0;
}

int32_t zemstorage_term(void)
{
    int fd = g_fd.exchange(-1);
    if (fd >= 0 && g_inflight.load() == 0)
        close(fd);
    return 0;
}

int32_t zemfw_gethbinf(void *hbinf)
{
    if (hbinf == nullptr)
        return PLAT_EINVAL;
    inflight op;
    if (op.fd < 0)
        return PLAT_ENOTREADY;
    size_t got = 0;
    auto *p = static_cast<char *>(hbinf);
    while (got < AREA_SIZE) {
        ssize_t n = pread(op.fd, p + got, AREA_SIZE - got, static_cast<off_t>(got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return PLAT_EIO;
        if (n == 0)
            return PLAT_EFORMAT; // the area was cut short under us
        got += static_cast<size_t>(n);
    }
    return 0;
}

int32_t zemfw_sethbinf(uint8_t cntno, const void *hbinf)
{
    if (hbinf == nullptr || cntno >= ZEMFW_HBSLOTS)
        return PLAT_EINVAL;
    inflight op;
    if (op.fd < 0)
        return PLAT_ENOTREADY;
    ssize_t n;
    do
        n = pwrite(op.fd, hbinf, ZEMFW_HBINF_SIZE, static_cast<off_t>(cntno) * ZEMFW_HBINF_SIZE);
    while (n < 0 && errno == EINTR);
    return n == ZEMFW_HBINF_SIZE ? 0 : PLAT_EIO;
}
