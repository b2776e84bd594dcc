// The storage access library: the controller's heartbeat area on a shared
// disk that every node reaches as a block device (or, for the nodes of one
// host, in a file), named in local.xml; with it the reading of an area that
// the daemon and zemctl's display share (area.h). The formatter lives in
// area.cpp, so that the daemon does not link libblkid.
//
// Layout (area.h): a header block, then one 4096-byte block per slot. A
// slot write touches its own block only, so a node never puts back a stale
// copy of another node's record, as the read-modify-write of a sector
// shared by several slots would. Every read and write bypasses the page
// cache (O_DIRECT): a host reading a shared disk through its cache sees its
// own old copy for ever. Writes are synchronous (O_DSYNC): on the disk when
// zemfw_sethbinf returns. A file system that refuses direct I/O (tmpfs) gets
// buffered I/O and a notice, as such an area serves one host only.
#include <endian.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "area.h"

namespace {

std::atomic<bool> g_direct{true};
std::atomic<int> g_fd{-1};
// Calls in progress. zemstorage_term closes the area only when none is, so
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

uint32_t get32(const unsigned char *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return le32toh(v);
}

bool all_zero(const unsigned char *p, size_t n)
{
    return n == 0 || (p[0] == 0 && memcmp(p, p + 1, n - 1) == 0);
}

} // namespace

ssize_t area_io(int fd, unsigned char *buf, size_t len, size_t off, bool write)
{
    size_t done = 0;
    while (done < len) {
        auto at = static_cast<off_t>(off + done);
        ssize_t n = write ? pwrite(fd, buf + done, len - done, at) : pread(fd, buf + done, len - done, at);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

std::string area_errtext(const std::string &path, int e)
{
    return path + ": " + strerror(e);
}

area_fd::~area_fd()
{
    if (fd >= 0)
        close(fd);
}

// Opens the area and reads its block 0, with direct I/O unless switched off
// or refused (EINVAL at the open or at that first read). A symbolic link is
// followed to a block device only: /dev/mapper and /dev/disk names are
// links, but a link planted in place of a file area is not taken.
int32_t area_open(const std::string &path, int flags, area_fd &a, std::string &err)
{
    if (!a.head.get()) {
        err = area_errtext(path, ENOMEM);
        return PLAT_EIO;
    }
    for (bool direct : {g_direct.load(), false}) {
        if (a.fd >= 0)
            close(a.fd);
        int f = flags | O_CLOEXEC | (direct ? O_DIRECT : 0);
        a.fd = open(path.c_str(), f | O_NOFOLLOW);
        struct stat st {};
        if (a.fd < 0 && errno == ELOOP) {
            a.fd = open(path.c_str(), f);
            if (a.fd >= 0 && (fstat(a.fd, &st) != 0 || !S_ISBLK(st.st_mode))) {
                err = path + ": a symbolic link to something other than a block device";
                return PLAT_EFORMAT;
            }
        }
        if (a.fd < 0 && errno == EINVAL && direct)
            continue;
        if (a.fd < 0) {
            err = area_errtext(path, errno);
            if (errno == EBUSY)
                err += " (mounted, or held by another driver such as a multipath map)";
            return errno == ENOENT ? PLAT_ENOENT : PLAT_EIO;
        }
        a.direct = direct;
        if (fstat(a.fd, &st) != 0) {
            err = area_errtext(path, errno);
            return PLAT_EIO;
        }
        a.blockdev = S_ISBLK(st.st_mode);
        a.size = static_cast<uint64_t>(st.st_size);
        if (!a.blockdev && !S_ISREG(st.st_mode)) {
            err = path + ": neither a block device nor a regular file";
            return PLAT_EFORMAT;
        }
        int sector = 0;
        if (a.blockdev && (ioctl(a.fd, BLKGETSIZE64, &a.size) != 0 || ioctl(a.fd, BLKSSZGET, &sector) != 0)) {
            err = area_errtext(path, errno);
            return PLAT_EIO;
        }
        if (sector > static_cast<int>(AREA_BLOCK)) {
            err = path + ": logical sectors of " + std::to_string(sector) + " bytes; the area needs sectors of " +
                  std::to_string(AREA_BLOCK) + " bytes or less";
            return PLAT_EFORMAT;
        }
        ssize_t n = area_io(a.fd, a.head.get(), AREA_BLOCK, 0, false);
        if (n < 0 && errno == EINVAL && direct)
            continue;
        if (n < 0) {
            err = area_errtext(path, errno);
            return PLAT_EIO;
        }
        return 0;
    }
    err = area_errtext(path, EINVAL);
    return PLAT_EIO;
}

area_block0 area_classify(const unsigned char *b)
{
    if (memcmp(b, AREA_MAGIC, sizeof AREA_MAGIC) == 0)
        return area_block0::area;
    if (all_zero(b, AREA_BLOCK))
        return area_block0::zero;
    // The old layout: records from offset 0, each empty or tagged.
    for (size_t k = 0; k < AREA_OLD_SIZE; k += ZEMFW_HBINF_SIZE)
        if (!all_zero(b + k, ZEMFW_HBINF_SIZE) && memcmp(b + k, "cnthb\0\0", 8) != 0 &&
            memcmp(b + k, "hbdown\0", 8) != 0)
            return area_block0::other;
    return all_zero(b + AREA_OLD_SIZE, AREA_BLOCK - AREA_OLD_SIZE) ? area_block0::old : area_block0::other;
}

plat_area_header area_decode(const unsigned char *b)
{
    plat_area_header h;
    h.version = get32(b + 8);
    h.slots = get32(b + 12);
    h.slot_size = get32(b + 16);
    uint64_t created;
    memcpy(&created, b + 24, sizeof created);
    h.created = static_cast<int64_t>(le64toh(created));
    memcpy(h.id.data(), b + 32, h.id.size());
    h.cluster.assign(reinterpret_cast<const char *>(b + 48), strnlen(reinterpret_cast<const char *>(b + 48), 31));
    return h;
}

int32_t area_check(const std::string &path, const area_fd &a, plat_area_header &h, std::string &err)
{
    switch (area_classify(a.head.get())) {
    case area_block0::old:
        err = path + ": a heartbeat area of the old layout, without a header; with the daemons of all nodes "
                     "stopped, format it on one node with \"zemctl area create --force " + path + "\"";
        return PLAT_EFORMAT;
    case area_block0::zero:
        err = path + ": no heartbeat area header (never formatted); format it on one node with \"zemctl area "
                     "create " + path + "\"";
        return PLAT_EFORMAT;
    case area_block0::other:
        err = path + ": not a heartbeat area (no header); check <area> in local.xml";
        return PLAT_EFORMAT;
    case area_block0::area:
        break;
    }
    h = area_decode(a.head.get());
    if (h.version != AREA_VERSION) {
        err = path + ": a heartbeat area of layout version " + std::to_string(h.version) +
              "; this platform reads version " + std::to_string(AREA_VERSION);
        return PLAT_EFORMAT;
    }
    if (h.slots != ZEMFW_HBSLOTS || h.slot_size != AREA_BLOCK || get32(a.head.get() + 20) != AREA_SLOTS_OFF ||
        a.head.get()[48 + AREA_CLUSTER_SIZE - 1] != 0) {
        err = path + ": a damaged heartbeat area header (" + std::to_string(h.slots) + " slots of " +
              std::to_string(h.slot_size) + " bytes)";
        return PLAT_EFORMAT;
    }
    if (a.size < AREA_SIZE) {
        err = path + ": a heartbeat area cut short (" + std::to_string(a.size) + " bytes of " +
              std::to_string(AREA_SIZE) + ")";
        return PLAT_EFORMAT;
    }
    return 0;
}

void plat_area_direct(bool on)
{
    g_direct.store(on);
}

bool area_direct()
{
    return g_direct.load();
}

int32_t zemstorage_init(uint8_t *cntno)
{
    if (cntno == nullptr)
        return PLAT_EINVAL;
    // A daemon's first call after its configuration, and before it tells its
    // parent that it is up: a second daemon is refused here, having signalled
    // nobody.
    if (int32_t r = plat_daemon_lock(); r != 0)
        return r;
    plat_local loc;
    if (int32_t r = plat_load_local(loc); r != 0)
        return r;
    std::string cluster, err;
    area_fd a;
    plat_area_header h;
    int32_t r = area_open(loc.area, O_RDWR | O_DSYNC, a, err);
    if (r == 0)
        r = area_check(loc.area, a, h, err);
    if (r == 0)
        r = plat_cluster_name(cluster, err);
    if (r == 0 && h.cluster != cluster) {
        err = loc.area + ": the heartbeat area of cluster \"" + plat_escape(h.cluster) + "\", not of this cluster \"" +
              plat_escape(cluster) + "\"";
        r = PLAT_EFORMAT;
    }
    if (r != 0) {
        plat_seterror(err);
        return r;
    }
    if (!a.direct && g_direct.load() && !plat_is_tool())
        plat_notice(HB_KIND_CNTHB, 2, "zemstorage_init",
                    "heartbeat area " + loc.area + ": its file system refuses direct I/O; reading and writing "
                    "through the page cache, so this area serves the nodes of this host only");
    int old = g_fd.exchange(a.fd);
    a.fd = -1;
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

// All slots in one read of the slot region; record k goes to byte 40 x k.
int32_t zemfw_gethbinf(void *hbinf)
{
    if (hbinf == nullptr)
        return PLAT_EINVAL;
    inflight op;
    if (op.fd < 0)
        return PLAT_ENOTREADY;
    area_iobuf buf(AREA_SLOTS_LEN);
    if (!buf.get())
        return PLAT_EIO;
    ssize_t n = area_io(op.fd, buf.get(), AREA_SLOTS_LEN, AREA_SLOTS_OFF, false);
    if (n < 0)
        return PLAT_EIO;
    if (n != static_cast<ssize_t>(AREA_SLOTS_LEN))
        return PLAT_EFORMAT; // the area was cut short under us
    for (size_t k = 0; k < ZEMFW_HBSLOTS; k++)
        memcpy(static_cast<char *>(hbinf) + k * ZEMFW_HBINF_SIZE, buf.get() + k * AREA_BLOCK, ZEMFW_HBINF_SIZE);
    return 0;
}

// The record fills the head of its slot's block, the rest of it zero.
int32_t zemfw_sethbinf(uint8_t cntno, const void *hbinf)
{
    if (hbinf == nullptr || cntno >= ZEMFW_HBSLOTS)
        return PLAT_EINVAL;
    inflight op;
    if (op.fd < 0)
        return PLAT_ENOTREADY;
    area_iobuf blk(AREA_BLOCK);
    if (!blk.get())
        return PLAT_EIO;
    memcpy(blk.get(), hbinf, ZEMFW_HBINF_SIZE);
    ssize_t n = area_io(op.fd, blk.get(), AREA_BLOCK, AREA_SLOTS_OFF + cntno * AREA_BLOCK, true);
    return n == static_cast<ssize_t>(AREA_BLOCK) ? 0 : PLAT_EIO;
}
