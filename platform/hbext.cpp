// The platform's binding of the daemon's operations beyond the cluster
// services (services/hbext.h), and zemctl's readers of what they publish:
// three files under run/ that the daemon makes afresh at its start, its LAN
// receiver's refusal counters, its heartbeat threads' progress and its
// counters.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>

#include "plat.h"
#include "services/hbext.h"

namespace {

// A file under run/ that one daemon makes afresh at its start and others
// map to read: a header, then one aligned word per figure, each stored and
// loaded atomically (no lock a dying process could leave held).
template <class T> T *open_runfile(const char *name, uint32_t magic, bool write)
{
    const int dfd = plat_rundir(false);
    if (dfd < 0)
        return nullptr;
    const int fd = openat(dfd, name, (write ? O_RDWR : O_RDONLY) | O_NOFOLLOW | O_CLOEXEC);
    close(dfd);
    if (fd < 0)
        return nullptr;
    struct stat sb {};
    void *p = MAP_FAILED;
    if (fstat(fd, &sb) == 0 && S_ISREG(sb.st_mode) && sb.st_size == static_cast<off_t>(sizeof(T)))
        p = mmap(nullptr, sizeof(T), write ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED)
        return nullptr;
    auto *m = static_cast<T *>(p);
    if (m->head.magic != magic || m->head.version != SHM_VERSION || m->head.size != sizeof(T)) {
        munmap(p, sizeof(T));
        return nullptr;
    }
    return m;
}

// The daemon's own fresh file, made (filled by fill) once and kept mapped;
// null when it cannot be made.
template <class T, class F> T *make_runfile(std::atomic<T *> &slot, const char *name, uint32_t magic, F fill)
{
    static std::mutex mx;
    std::lock_guard lk(mx);
    if (T *m = slot.load(std::memory_order_acquire))
        return m;
    // On the heap: the caller may be a thread with a small stack.
    const auto fresh = std::make_unique<T>();
    fresh->head = {magic, SHM_VERSION, sizeof(T)};
    fill(*fresh);
    std::string err;
    if (plat_replace_file(name, fresh.get(), sizeof(T), err) == 0)
        slot.store(open_runfile<T>(name, magic, true), std::memory_order_release);
    return slot.load(std::memory_order_acquire);
}

// run/lanhbrefused: the receiver's refusal counters, one 64-bit word each,
// rewritten by the daemon at every start.
constexpr char REFUSED_FILE[] = "lanhbrefused";
constexpr uint32_t REFUSED_MAGIC = 0x4645525a; // "ZREF"
struct refused_layout {
    shm_head head;
    uint64_t count[HBEXT_REFUSED_COUNT];
};
std::atomic<refused_layout *> refused{nullptr};

// run/progress: the heartbeat threads' progress, rewritten by the daemon
// when its first heartbeat thread starts.
constexpr char PROGRESS_FILE[] = "progress";
constexpr uint32_t PROGRESS_MAGIC = 0x4752505a; // "ZPRG"
struct progress_layout {
    shm_head head;
    int32_t pid;       // the daemon that made the file
    int32_t hbint;     // msec, as its tables have them
    int32_t hbto;      // msec
    int32_t pad;
    int64_t stamp[HBEXT_TH_COUNT]; // plat_progress's encoding
};
std::atomic<progress_layout *> progress{nullptr};

// run/counters: the daemon's counters (hbext_setcounts), rewritten by the
// daemon as its first table is built; paths and nodes at their places in
// the node manager's memory.
constexpr char COUNTS_FILE[] = "counters";
constexpr uint32_t COUNTS_MAGIC = 0x544e435a; // "ZCNT"
struct counts_layout {
    shm_head head;
    plat_counts c;
};
std::atomic<counts_layout *> counts{nullptr};

int64_t mono_ms()
{
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return std::max<int64_t>(1, static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000);
}

// A figure for a reader that wants each one, not a consistent set: relaxed.
template <class T> void put(T &w, T v)
{
    std::atomic_ref<T>(w).store(v, std::memory_order_relaxed);
}
template <class T> T get(const T &w)
{
    return std::atomic_ref<T>(const_cast<T &>(w)).load(std::memory_order_relaxed);
}

// The thread's word of the daemon's progress file, null before the file is
// made (or when thread is not a kind).
int64_t *stamp_word(int32_t thread)
{
    progress_layout *m = progress.load(std::memory_order_acquire);
    return m == nullptr || thread < 0 || thread >= HBEXT_TH_COUNT ? nullptr : &m->stamp[thread];
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
    refused_layout *m = make_runfile(refused, REFUSED_FILE, REFUSED_MAGIC, [](refused_layout &) {});
    if (m == nullptr)
        return PLAT_EIO;
    // One word each, relaxed: a reader wants each figure, not a consistent set.
    for (int i = 0; i < HBEXT_REFUSED_COUNT; ++i)
        put(m->count[i], counts[i]);
    return 0;
}

int32_t plat_getrefused(uint64_t *counts)
{
    refused_layout *m = open_runfile<refused_layout>(REFUSED_FILE, REFUSED_MAGIC, false);
    if (m == nullptr)
        return PLAT_ENOENT;
    for (int i = 0; i < HBEXT_REFUSED_COUNT; ++i)
        counts[i] = get(m->count[i]);
    munmap(m, sizeof(refused_layout));
    return 0;
}

extern "C" int32_t hbext_progress_start(int32_t thread, int32_t hbint, int32_t hbto)
{
    progress_layout *m = make_runfile(progress, PROGRESS_FILE, PROGRESS_MAGIC,
                                      [](progress_layout &f) { f.pid = static_cast<int32_t>(getpid()); });
    if (m == nullptr)
        return PLAT_EIO;
    if (thread < 0 || thread >= HBEXT_TH_COUNT)
        return PLAT_EINVAL;
    put(m->hbint, hbint);
    put(m->hbto, hbto);
    return hbext_progress(thread);
}

extern "C" int32_t hbext_progress(int32_t thread)
{
    int64_t *w = stamp_word(thread);
    if (w == nullptr)
        return PLAT_ENOTREADY;
    put(*w, mono_ms());
    return 0;
}

extern "C" int32_t hbext_progress_end(int32_t thread)
{
    int64_t *w = stamp_word(thread);
    if (w == nullptr)
        return PLAT_ENOTREADY;
    put(*w, -mono_ms());
    return 0;
}

int64_t plat_mono_ms()
{
    return mono_ms();
}

int32_t plat_getprogress(plat_progress *out)
{
    progress_layout *m = open_runfile<progress_layout>(PROGRESS_FILE, PROGRESS_MAGIC, false);
    if (m == nullptr)
        return PLAT_ENOENT;
    out->pid = get(m->pid);
    out->hbint = get(m->hbint);
    out->hbto = get(m->hbto);
    for (int i = 0; i < HBEXT_TH_COUNT; ++i)
        out->stamp[i] = get(m->stamp[i]);
    munmap(m, sizeof(progress_layout));
    return 0;
}

extern "C" int32_t hbext_setcounts(const char *kind, const char *rsc, int32_t nodeid, const uint64_t *values)
{
    const int k = plat_kind(kind);
    if (k < 0 || values == nullptr)
        return PLAT_EINVAL;
    int ri = -1, ni = -1;
    if (rsc != nullptr)
        if (int32_t r = plat_nm_index(kind, rsc, nodeid, &ri, &ni))
            return r;
    counts_layout *m = make_runfile(counts, COUNTS_FILE, COUNTS_MAGIC,
                                    [](counts_layout &f) { f.c.pid = static_cast<int32_t>(getpid()); });
    if (m == nullptr)
        return PLAT_EIO;
    const auto store = [&](uint64_t *to, int n) {
        for (int i = 0; i < n; ++i)
            put(to[i], values[i]);
    };
    if (rsc == nullptr)
        store(m->c.kind[k], HBEXT_KC_COUNT);
    else if (nodeid < 0)
        store(m->c.rsc[k][ri], HBEXT_PC_COUNT);
    else
        store(m->c.node[k][ri][ni], HBEXT_NC_COUNT);
    return 0;
}

int32_t plat_getcounts(plat_counts *out)
{
    counts_layout *m = open_runfile<counts_layout>(COUNTS_FILE, COUNTS_MAGIC, false);
    if (m == nullptr)
        return PLAT_ENOENT;
    const auto load = [](uint64_t *to, const uint64_t *from, size_t n) {
        for (size_t i = 0; i < n; ++i)
            to[i] = get(from[i]);
    };
    out->pid = get(m->c.pid);
    // Every array is one run of words.
    load(&out->kind[0][0], &m->c.kind[0][0], sizeof out->kind / sizeof(uint64_t));
    load(&out->rsc[0][0][0], &m->c.rsc[0][0][0], sizeof out->rsc / sizeof(uint64_t));
    load(&out->node[0][0][0][0], &m->c.node[0][0][0][0], sizeof out->node / sizeof(uint64_t));
    munmap(m, sizeof(counts_layout));
    return 0;
}
