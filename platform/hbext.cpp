// The platform's binding of the daemon's operations beyond the cluster
// services (services/hbext.h), and zemctl's reader of what they publish.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>

#include "plat.h"
#include "services/hbext.h"

namespace {

// run/lanhbrefused: the receiver's refusal counters, one 64-bit word each,
// rewritten by the daemon at every start.
constexpr char REFUSED_FILE[] = "lanhbrefused";
constexpr uint32_t REFUSED_MAGIC = 0x4645525a; // "ZREF"
struct refused_layout {
    shm_head head;
    uint64_t count[HBEXT_REFUSED_COUNT];
};

// Maps run/lanhbrefused after checking its size and header; null when it
// is missing or not such a file.
refused_layout *open_refused(bool write)
{
    const int dfd = plat_rundir(false);
    if (dfd < 0)
        return nullptr;
    const int fd = openat(dfd, REFUSED_FILE, (write ? O_RDWR : O_RDONLY) | O_NOFOLLOW | O_CLOEXEC);
    close(dfd);
    if (fd < 0)
        return nullptr;
    struct stat sb {};
    void *p = MAP_FAILED;
    if (fstat(fd, &sb) == 0 && S_ISREG(sb.st_mode) && sb.st_size == static_cast<off_t>(sizeof(refused_layout)))
        p = mmap(nullptr, sizeof(refused_layout), write ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED)
        return nullptr;
    auto *m = static_cast<refused_layout *>(p);
    if (m->head.magic != REFUSED_MAGIC || m->head.version != SHM_VERSION || m->head.size != sizeof(refused_layout)) {
        munmap(p, sizeof(refused_layout));
        return nullptr;
    }
    return m;
}

std::mutex mapmx;
refused_layout *mapped = nullptr; // the daemon's own fresh file, once made

refused_layout *refused_map()
{
    std::lock_guard lk(mapmx);
    if (mapped != nullptr)
        return mapped;
    refused_layout fresh{};
    fresh.head = {REFUSED_MAGIC, SHM_VERSION, sizeof fresh};
    std::string err;
    if (plat_replace_file(REFUSED_FILE, &fresh, sizeof fresh, err) == 0)
        mapped = open_refused(true);
    return mapped;
}

} // namespace

extern "C" int32_t hbext_path(const char *name, char *out, int32_t size)
{
    if (name == nullptr || out == nullptr || size <= 0)
        return PLAT_EINVAL;
    const std::string p = name[0] == '/' ? std::string(name) : plat_path(name);
    if (p.size() >= static_cast<size_t>(size))
        return PLAT_ESPACE;
    std::memcpy(out, p.c_str(), p.size() + 1);
    return 0;
}

extern "C" int32_t hbext_setrefused(const uint64_t *counts)
{
    if (counts == nullptr)
        return PLAT_EINVAL;
    refused_layout *m = refused_map();
    if (m == nullptr)
        return PLAT_EIO;
    // One word each, relaxed: a reader wants each figure, not a consistent set.
    for (int i = 0; i < HBEXT_REFUSED_COUNT; ++i)
        std::atomic_ref<uint64_t>(m->count[i]).store(counts[i], std::memory_order_relaxed);
    return 0;
}

int32_t plat_getrefused(uint64_t *counts)
{
    refused_layout *m = open_refused(false);
    if (m == nullptr)
        return PLAT_ENOENT;
    for (int i = 0; i < HBEXT_REFUSED_COUNT; ++i)
        counts[i] = std::atomic_ref<uint64_t>(m->count[i]).load(std::memory_order_relaxed);
    munmap(m, sizeof(refused_layout));
    return 0;
}
