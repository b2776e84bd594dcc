// The heartbeat area's formatter and display, for zemctl: "area create"
// writes a new area (and "init" a file area where none is), refusing what
// holds a file system, a partition table or another area unless forced;
// "area show" reads the header and every slot. libblkid finds and erases
// the signatures; only zemctl and the platform tests link this library, so
// the daemon's storage library (storage.cpp) does without it.
#include <blkid/blkid.h>
#include <endian.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "area.h"

namespace {

void put32(unsigned char *p, uint32_t v)
{
    v = htole32(v);
    memcpy(p, &v, sizeof v);
}

// Writes a fresh area to fd: every slot zeroed, then the header, then all
// of it to the disk.
int32_t write_area(int fd, const std::string &path, const std::string &cluster, std::string &err)
{
    area_iobuf slots(AREA_SLOTS_LEN), head(AREA_BLOCK);
    if (!slots.get() || !head.get()) {
        err = area_errtext(path, ENOMEM);
        return PLAT_EIO;
    }
    unsigned char *b = head.get();
    memcpy(b, AREA_MAGIC, sizeof AREA_MAGIC);
    put32(b + 8, AREA_VERSION);
    put32(b + 12, ZEMFW_HBSLOTS);
    put32(b + 16, AREA_BLOCK);
    put32(b + 20, AREA_SLOTS_OFF);
    uint64_t now = htole64(static_cast<uint64_t>(time(nullptr)));
    memcpy(b + 24, &now, sizeof now);
    memcpy(b + 48, cluster.data(), std::min(cluster.size(), AREA_CLUSTER_SIZE - 1));
    if (getrandom(b + 32, 16, 0) != 16 ||
        area_io(fd, slots.get(), AREA_SLOTS_LEN, AREA_SLOTS_OFF, true) != static_cast<ssize_t>(AREA_SLOTS_LEN) ||
        area_io(fd, b, AREA_BLOCK, 0, true) != static_cast<ssize_t>(AREA_BLOCK) || fsync(fd) != 0) {
        err = area_errtext(path, errno);
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
        err = area_errtext(tmp, errno);
        return PLAT_EIO;
    }
    // Direct I/O is asked for after the creation: a file system that refuses
    // it would fail the open only after creating the file.
    if (area_direct())
        fcntl(fd, F_SETFL, O_DIRECT);
    int32_t r = write_area(fd, path, cluster, err);
    close(fd);
    if (r == 0 && link(tmp.c_str(), path.c_str()) != 0) {
        raced = errno == EEXIST;
        if (!raced) {
            err = area_errtext(path, errno);
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
        area_block0 kind = area_classify(a.head.get());
        if (kind == area_block0::area) {
            time_t made = static_cast<time_t>(area_decode(a.head.get()).created);
            char when[32] = "?";
            struct tm tm {};
            if (localtime_r(&made, &tm) != nullptr)
                strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &tm);
            what = "the heartbeat area of cluster \"" + plat_escape(area_decode(a.head.get()).cluster) + "\", created " +
                   when;
        } else if (kind == area_block0::old) {
            what = "a heartbeat area of the old layout";
        } else {
            what = signature(path);
            if (what.empty() && kind == area_block0::other && !a.blockdev)
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
        err = area_errtext(path, errno);
        return PLAT_EIO;
    }
    return write_area(a.fd, path, cluster, err);
}

int32_t plat_area_read(const std::string &path, plat_area_view &out, std::string &err)
{
    area_fd a;
    if (int32_t r = area_open(path, O_RDONLY, a, err); r != 0)
        return r;
    if (int32_t r = area_check(path, a, out.head, err); r != 0)
        return r;
    area_iobuf slots(AREA_SLOTS_LEN);
    ssize_t n = slots.get() ? area_io(a.fd, slots.get(), AREA_SLOTS_LEN, AREA_SLOTS_OFF, false) : (errno = ENOMEM, -1);
    if (n != static_cast<ssize_t>(AREA_SLOTS_LEN)) {
        err = area_errtext(path, n < 0 ? errno : EIO);
        return PLAT_EIO;
    }
    out.blockdev = a.blockdev;
    out.direct = a.direct;
    out.size = a.size;
    for (size_t k = 0; k < out.rec.size(); k++)
        memcpy(out.rec[k].data(), slots.get() + k * AREA_BLOCK, ZEMFW_HBINF_SIZE);
    return 0;
}

