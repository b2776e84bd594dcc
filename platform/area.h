// The heartbeat area's layout and the reading both of its users need: the
// daemon's storage library (storage.cpp) and the formatter and display that
// only zemctl links (area.cpp). Internal to the platform: plat.h has what
// the callers see.
//
// Header (block 0; integers little-endian, the rest of the block zero):
//   0 magic "ZEMHBAR"   8 layout version   12 slot count   16 slot size
//   20 offset of slot 0   24 creation time, seconds   32 area id, 16 random
//   bytes   48 cluster name, NUL-terminated in 32 bytes
#pragma once

#include <sys/types.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "plat.h"

inline constexpr unsigned char AREA_MAGIC[8] = {'Z', 'E', 'M', 'H', 'B', 'A', 'R', '\0'};
inline constexpr size_t AREA_SLOTS_OFF = AREA_BLOCK;
inline constexpr size_t AREA_SLOTS_LEN = AREA_SIZE - AREA_SLOTS_OFF;
// The layout before the header: the 40-byte records one after the other.
inline constexpr size_t AREA_OLD_SIZE = static_cast<size_t>(ZEMFW_HBSLOTS) * ZEMFW_HBINF_SIZE;

// Zeroed memory aligned for direct I/O; freed also when a cancelled worker
// unwinds through its owner.
struct area_iobuf {
    std::unique_ptr<unsigned char, decltype(&free)> p;
    explicit area_iobuf(size_t n) : p(static_cast<unsigned char *>(aligned_alloc(AREA_BLOCK, n)), &free)
    {
        if (p)
            memset(p.get(), 0, n);
    }
    unsigned char *get() const { return p.get(); }
};

// Moves len bytes at off: the count moved (short only at the end of a
// file), -1 with errno on failure.
ssize_t area_io(int fd, unsigned char *buf, size_t len, size_t off, bool write);

// "path: strerror(e)".
std::string area_errtext(const std::string &path, int e);

// Whether direct I/O is asked for (plat_area_direct).
bool area_direct();

// An open area and its block 0 as read (zero past the end of a short file).
struct area_fd {
    int fd = -1;
    bool direct = false;
    bool blockdev = false;
    uint64_t size = 0;
    area_iobuf head{AREA_BLOCK};
    area_fd() = default;
    area_fd(const area_fd &) = delete;
    ~area_fd();
};

// Opens the area and reads its block 0, with direct I/O unless switched off
// or refused. A symbolic link is followed to a block device only.
int32_t area_open(const std::string &path, int flags, area_fd &a, std::string &err);

// What block 0 holds.
enum class area_block0 { area, old, zero, other };
area_block0 area_classify(const unsigned char *b);
plat_area_header area_decode(const unsigned char *b);

// Whether a's block 0 is the header of an area of this layout, whole; err
// says why not, with what to do.
int32_t area_check(const std::string &path, const area_fd &a, plat_area_header &h, std::string &err);
