// The storage access library: the controller's heartbeat area on a shared
// disk that every node reaches as a block device (or, for the nodes of one
// host, in a file), named in local.xml; with it the formatting and reading
// of an area for zemctl.
//
// Layout (plat.h): a header block, then one 4096-byte block per slot. A
// slot write touches its own block only, so a node never puts back a stale
// copy of another node's record, as the read-modify-write of a sector
// shared by several slots would. Every read and write bypasses the page
// cache (O_DIRECT): a host reading a shared disk through its cache sees its
// own old copy for ever. Writes are synchronous (O_DSYNC): on the disk when
// zemfw_sethbinf returns. A file system that refuses direct I/O (tmpfs) gets
// buffered I/O and a notice, as such an area serves one host only.
//
// Header (block 0; integers little-endian, the rest of the block zero):
//   0 magic "ZEMHBAR"   8 layout version   12 slot count   16 slot size
//   20 offset of slot 0   24 creation time, seconds   32 area id, 16 random
//   bytes   48 cluster name, NUL-terminated in 32 bytes
#include <blkid/blkid.h>
#include <endian.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "plat.h"

namespace {

constexpr unsigned char MAGIC[8] = {'Z', 'E', 'M', 'H', 'B', 'A', 'R', '\0'};
constexpr size_t SLOTS_OFF = AREA_BLOCK;
constexpr size_t SLOTS_LEN = AREA_SIZE - SLOTS_OFF;
// The layout before the header: the 40-byte records one after the other.
constexpr size_t OLD_SIZE = static_cast<size_t>(ZEMFW_HBSLOTS) * ZEMFW_HBINF_SIZE;

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

// Zeroed memory aligned for direct I/O; freed also when a cancelled worker
// unwinds through its owner.
struct iobuf {
    std::unique_ptr<unsigned char, decltype(&free)> p;
    explicit iobuf(size_t n) : p(static_cast<unsigned char *>(aligned_alloc(AREA_BLOCK, n)), &free)
    {
        if (p)
            memset(p.get(), 0, n);
    }
    unsigned char *get() const { return p.get(); }
};

// Moves len bytes at off: the count moved (short only at the end of a
// file), -1 with errno on failure.
ssize_t io_all(int fd, unsigned char *buf, size_t len, size_t off, bool write)
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

uint32_t get32(const unsigned char *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return le32toh(v);
}

void put32(unsigned char *p, uint32_t v)
{
    v = htole32(v);
    memcpy(p, &v, sizeof v);
}

bool all_zero(const unsigned char *p, size_t n)
{
    return n == 0 || (p[0] == 0 && memcmp(p, p + 1, n - 1) == 0);
}

std::string errtext(const std::string &path, int e)
{
    return path + ": " + strerror(e);
}

// An open area and its block 0 as read (zero past the end of a short file).
struct area_fd {
    int fd = -1;
    bool direct = false;
    bool blockdev = false;
    uint64_t size = 0;
    iobuf head{AREA_BLOCK};
    ~area_fd()
    {
        if (fd >= 0)
            close(fd);
    }
};

// Opens the area and reads its block 0, with direct I/O unless switched off
// or refused (EINVAL at the open or at that first read). A symbolic link is
// followed to a block device only: /dev/mapper and /dev/disk names are
// links, but a link planted in place of a file area is not taken.
int32_t area_open(const std::string &path, int flags, area_fd &a, std::string &err)
{
    if (!a.head.get()) {
        err = errtext(path, ENOMEM);
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
            err = errtext(path, errno);
            if (errno == EBUSY)
                err += " (mounted, or held by another driver such as a multipath map)";
            return errno == ENOENT ? PLAT_ENOENT : PLAT_EIO;
        }
        a.direct = direct;
        if (fstat(a.fd, &st) != 0) {
            err = errtext(path, errno);
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
            err = errtext(path, errno);
            return PLAT_EIO;
        }
        if (sector > static_cast<int>(AREA_BLOCK)) {
            err = path + ": logical sectors of " + std::to_string(sector) + " bytes; the area needs sectors of " +
                  std::to_string(AREA_BLOCK) + " bytes or less";
            return PLAT_EFORMAT;
        }
        ssize_t n = io_all(a.fd, a.head.get(), AREA_BLOCK, 0, false);
        if (n < 0 && errno == EINVAL && direct)
            continue;
        if (n < 0) {
            err = errtext(path, errno);
            return PLAT_EIO;
        }
        return 0;
    }
    err = errtext(path, EINVAL);
    return PLAT_EIO;
}

enum class block0 { area, old, zero, other };

block0 classify(const unsigned char *b)
{
    if (memcmp(b, MAGIC, sizeof MAGIC) == 0)
        return block0::area;
    if (all_zero(b, AREA_BLOCK))
        return block0::zero;
    // The old layout: records from offset 0, each empty or tagged.
    for (size_t k = 0; k < OLD_SIZE; k += ZEMFW_HBINF_SIZE)
        if (!all_zero(b + k, ZEMFW_HBINF_SIZE) && memcmp(b + k, "cnthb\0\0", 8) != 0 &&
            memcmp(b + k, "hbdown\0", 8) != 0)
            return block0::other;
    return all_zero(b + OLD_SIZE, AREA_BLOCK - OLD_SIZE) ? block0::old : block0::other;
}

plat_area_header decode(const unsigned char *b)
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

// Whether a's block 0 is the header of an area of this layout, whole.
int32_t check_area(const std::string &path, const area_fd &a, plat_area_header &h, std::string &err)
{
    switch (classify(a.head.get())) {
    case block0::old:
        err = path + ": a heartbeat area of the old layout, without a header; with the daemons of all nodes "
                     "stopped, format it on one node with \"zemctl area create --force " + path + "\"";
        return PLAT_EFORMAT;
    case block0::zero:
        err = path + ": no heartbeat area header (never formatted); format it on one node with \"zemctl area "
                     "create " + path + "\"";
        return PLAT_EFORMAT;
    case block0::other:
        err = path + ": not a heartbeat area (no header); check <area> in local.xml";
        return PLAT_EFORMAT;
    case block0::area:
        break;
    }
    h = decode(a.head.get());
    if (h.version != AREA_VERSION) {
        err = path + ": a heartbeat area of layout version " + std::to_string(h.version) +
              "; this platform reads version " + std::to_string(AREA_VERSION);
        return PLAT_EFORMAT;
    }
    if (h.slots != ZEMFW_HBSLOTS || h.slot_size != AREA_BLOCK || get32(a.head.get() + 20) != SLOTS_OFF ||
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

// Writes a fresh area to fd: every slot zeroed, then the header, then all
// of it to the disk.
int32_t write_area(int fd, const std::string &path, const std::string &cluster, std::string &err)
{
    iobuf slots(SLOTS_LEN), head(AREA_BLOCK);
    if (!slots.get() || !head.get()) {
        err = errtext(path, ENOMEM);
        return PLAT_EIO;
    }
    unsigned char *b = head.get();
    memcpy(b, MAGIC, sizeof MAGIC);
    put32(b + 8, AREA_VERSION);
    put32(b + 12, ZEMFW_HBSLOTS);
    put32(b + 16, AREA_BLOCK);
    put32(b + 20, SLOTS_OFF);
    uint64_t now = htole64(static_cast<uint64_t>(time(nullptr)));
    memcpy(b + 24, &now, sizeof now);
    memcpy(b + 48, cluster.data(), std::min(cluster.size(), AREA_CLUSTER_SIZE - 1));
    if (getrandom(b + 32, 16, 0) != 16 ||
        io_all(fd, slots.get(), SLOTS_LEN, SLOTS_OFF, true) != static_cast<ssize_t>(SLOTS_LEN) ||
        io_all(fd, b, AREA_BLOCK, 0, true) != static_cast<ssize_t>(AREA_BLOCK) || fsync(fd) != 0) {
        err = errtext(path, errno);
        return PLAT_EIO;
    }
    return 0;
}

// A new file area, filled aside and linked into place: a node starting at
// the same moment never opens a half-written area, and one that another
// node created meanwhile is kept (raced is then set).
int32_t create_file(const std::string &path, const std::string &cluster, bool &raced, std::string &err)
{
    std::string tmp = path + ".new." + std::to_string(getpid());
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640);
    if (fd < 0) {
        err = errtext(tmp, errno);
        return PLAT_EIO;
    }
    // Direct I/O is asked for after the creation: a file system that refuses
    // it would fail the open only after creating the file.
    if (g_direct.load())
        fcntl(fd, F_SETFL, O_DIRECT);
    int32_t r = write_area(fd, path, cluster, err);
    close(fd);
    if (r == 0 && link(tmp.c_str(), path.c_str()) != 0) {
        raced = errno == EEXIST;
        if (!raced) {
            err = errtext(path, errno);
            r = PLAT_EIO;
        }
    }
    unlink(tmp.c_str());
    return r;
}

// A signature libblkid finds at path, in words; empty when none.
std::string signature(const std::string &path)
{
    blkid_probe pr = blkid_new_probe_from_filename(path.c_str());
    if (pr == nullptr)
        return std::string("something libblkid cannot probe (") + strerror(errno) + ")";
    blkid_probe_enable_superblocks(pr, 1);
    blkid_probe_enable_partitions(pr, 1);
    const char *v = nullptr;
    std::string what;
    int rc = blkid_do_safeprobe(pr);
    if (rc == -2)
        what = "signatures of more than one kind";
    else if (rc < 0)
        what = "something libblkid cannot probe";
    else if (rc == 0 && blkid_probe_lookup_value(pr, "TYPE", &v, nullptr) == 0)
        what = std::string("a signature of type ") + v + " (a file system or volume)";
    else if (rc == 0 && blkid_probe_lookup_value(pr, "PTTYPE", &v, nullptr) == 0)
        what = std::string("a partition table of type ") + v;
    else if (rc == 0)
        what = "a signature libblkid recognises";
    blkid_free_probe(pr);
    return what;
}

// Erases every signature libblkid finds, so that nothing takes the area for
// a file system afterwards.
int32_t wipe(const std::string &path, std::string &err)
{
    errno = 0;
    int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    blkid_probe pr = fd < 0 ? nullptr : blkid_new_probe();
    bool ok = pr != nullptr && blkid_probe_set_device(pr, fd, 0, 0) == 0;
    if (ok) {
        blkid_probe_enable_superblocks(pr, 1);
        blkid_probe_set_superblocks_flags(pr, BLKID_SUBLKS_MAGIC | BLKID_SUBLKS_BADCSUM);
        blkid_probe_enable_partitions(pr, 1);
        blkid_probe_set_partitions_flags(pr, BLKID_PARTS_MAGIC | BLKID_PARTS_FORCE_GPT);
        // Bounded: a signature that came back after its wipe would loop.
        for (int n = 0; ok && blkid_do_probe(pr) == 0; n++)
            ok = n < 64 && blkid_do_wipe(pr, 0) == 0;
        ok = ok && fsync(fd) == 0;
    }
    if (!ok)
        err = path + ": erasing the signatures found failed" + (errno != 0 ? std::string(": ") + strerror(errno) : "");
    if (pr != nullptr)
        blkid_free_probe(pr);
    if (fd >= 0)
        close(fd);
    return ok ? 0 : PLAT_EIO;
}

} // namespace

void plat_area_direct(bool on)
{
    g_direct.store(on);
}

int32_t plat_area_create(const std::string &path, std::string &err)
{
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0)
        return 0;
    std::string cluster;
    bool raced = false;
    int32_t r = plat_cluster_name(cluster, err);
    return r != 0 ? r : create_file(path, cluster, raced, err);
}

int32_t plat_area_format(const std::string &path, const std::string &cluster, bool force, std::string &err)
{
    if (cluster.size() >= AREA_CLUSTER_SIZE) {
        err = "cluster name \"" + plat_escape(cluster) + "\" longer than 31 characters";
        return PLAT_EINVAL;
    }
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0 && errno == ENOENT) {
        bool raced = false;
        int32_t r = create_file(path, cluster, raced, err);
        if (r == 0 && raced) {
            err = path + ": created by another process meanwhile; nothing written";
            r = PLAT_EEXIST;
        }
        return r;
    }
    // O_EXCL: a block device that is mounted or part of a multipath map
    // cannot be opened so (a regular file ignores the flag).
    area_fd a;
    if (int32_t r = area_open(path, O_RDWR | O_EXCL, a, err); r != 0)
        return r;
    if (a.blockdev && a.size < AREA_SIZE) {
        err = path + ": " + std::to_string(a.size) + " bytes; a heartbeat area needs " + std::to_string(AREA_SIZE);
        return PLAT_ESPACE;
    }
    if (!force) {
        std::string what;
        block0 kind = classify(a.head.get());
        if (kind == block0::area) {
            time_t made = static_cast<time_t>(decode(a.head.get()).created);
            char when[32] = "?";
            struct tm tm {};
            if (localtime_r(&made, &tm) != nullptr)
                strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &tm);
            what = "the heartbeat area of cluster \"" + plat_escape(decode(a.head.get()).cluster) + "\", created " +
                   when;
        } else if (kind == block0::old) {
            what = "a heartbeat area of the old layout";
        } else {
            what = signature(path);
            if (what.empty() && kind == block0::other && !a.blockdev)
                what = "data that is not a heartbeat area";
        }
        if (!what.empty()) {
            err = path + " holds " + what + "; nothing written (--force formats it all the same)";
            return PLAT_EEXIST;
        }
    } else if (int32_t r = wipe(path, err); r != 0) {
        return r;
    }
    if (!a.blockdev && ftruncate(a.fd, static_cast<off_t>(AREA_SIZE)) != 0) {
        err = errtext(path, errno);
        return PLAT_EIO;
    }
    return write_area(a.fd, path, cluster, err);
}

int32_t plat_area_read(const std::string &path, plat_area_view &out, std::string &err)
{
    area_fd a;
    if (int32_t r = area_open(path, O_RDONLY, a, err); r != 0)
        return r;
    if (int32_t r = check_area(path, a, out.head, err); r != 0)
        return r;
    iobuf slots(SLOTS_LEN);
    ssize_t n = slots.get() ? io_all(a.fd, slots.get(), SLOTS_LEN, SLOTS_OFF, false) : (errno = ENOMEM, -1);
    if (n != static_cast<ssize_t>(SLOTS_LEN)) {
        err = errtext(path, n < 0 ? errno : EIO);
        return PLAT_EIO;
    }
    out.blockdev = a.blockdev;
    out.direct = a.direct;
    out.size = a.size;
    for (size_t k = 0; k < out.rec.size(); k++)
        memcpy(out.rec[k].data(), slots.get() + k * AREA_BLOCK, ZEMFW_HBINF_SIZE);
    return 0;
}

int32_t zemstorage_init(uint8_t *cntno)
{
    if (cntno == nullptr)
        return PLAT_EINVAL;
    plat_local loc;
    if (int32_t r = plat_load_local(loc); r != 0)
        return r;
    std::string cluster, err;
    area_fd a;
    plat_area_header h;
    int32_t r = area_open(loc.area, O_RDWR | O_DSYNC, a, err);
    if (r == 0)
        r = check_area(loc.area, a, h, err);
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
    iobuf buf(SLOTS_LEN);
    if (!buf.get())
        return PLAT_EIO;
    ssize_t n = io_all(op.fd, buf.get(), SLOTS_LEN, SLOTS_OFF, false);
    if (n < 0)
        return PLAT_EIO;
    if (n != static_cast<ssize_t>(SLOTS_LEN))
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
    iobuf blk(AREA_BLOCK);
    if (!blk.get())
        return PLAT_EIO;
    memcpy(blk.get(), hbinf, ZEMFW_HBINF_SIZE);
    ssize_t n = io_all(op.fd, blk.get(), AREA_BLOCK, SLOTS_OFF + cntno * AREA_BLOCK, true);
    return n == static_cast<ssize_t>(AREA_BLOCK) ? 0 : PLAT_EIO;
}
