// The daemon's counters: those of the kinds, the tables whose counters are
// published, and the publication itself.
#include "frame/counters.h"

#include <array>
#include <ctime>
#include <mutex>

namespace {

constexpr int KIND_NUMBERS = 4; // kinds are numbered from 1, as hbkind_set takes them
constexpr int64_t EVERY_MS = 1000;

std::array<std::array<uint64_t, HBEXT_KC_COUNT>, KIND_NUMBERS> kindcount{};

// The tracked tables by kind number; written only while no heartbeat thread
// runs, read by the publishing thread.
std::array<hbtable, KIND_NUMBERS> tables{};
std::array<std::atomic<bool>, KIND_NUMBERS> tracked{};

std::mutex publishing;
std::atomic<int64_t> due{0}; // CLOCK_MONOTONIC ms of the next publication

int64_t clock_ms(clockid_t clock)
{
    struct timespec ts {};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool valid(int kind)
{
    return kind > 0 && kind < KIND_NUMBERS;
}

// One table's counters and its kind's; a failure goes unlogged (the
// platform's displays then lack the figures, nothing else does).
void publishtable(const hbtable &t)
{
    const hbkind &k = *t.kind;
    std::array<uint64_t, HBEXT_KC_COUNT> kc{};
    for (int c = 0; c < HBEXT_KC_COUNT; ++c)
        kc[c] = hbcount_get(kindcount[k.number][c]);
    (void)hbext_setcounts(k.name, nullptr, HBEXT_PATH, kc.data());
    for (int32_t i = 0; i < t.header->currsc; ++i) {
        void *rsc = k.table.rscat(t.list, i);
        for (int32_t j = 0; j < t.header->curnode; ++j) {
            const hbnoderef n = k.table.nodeat(t.list, rsc, j);
            std::array<uint64_t, HBEXT_NC_COUNT> nc{};
            for (int c = 0; c < HBEXT_NC_COUNT; ++c)
                nc[c] = hbcount_get(n.count[c]);
            (void)hbext_setcounts(k.name, n.rscname, n.pri, nc.data());
            if (j > 0)
                continue;
            std::array<uint64_t, HBEXT_PC_COUNT> pc{};
            for (int c = 0; c < HBEXT_PC_COUNT; ++c)
                pc[c] = hbcount_get(n.rsccount[c]);
            (void)hbext_setcounts(k.name, n.rscname, HBEXT_PATH, pc.data());
        }
    }
}

void publishall()
{
    for (int kind = 1; kind < KIND_NUMBERS; ++kind)
        if (tracked[kind].load(std::memory_order_acquire))
            publishtable(tables[kind]);
}

} // namespace

void hbcount_kind(int kind, int index, uint64_t n)
{
    if (valid(kind) && index >= 0 && index < HBEXT_KC_COUNT)
        hbcount_add(kindcount[kind][index], n);
}

void hbcount_heartbeat(const hbnoderef &n)
{
    std::atomic_ref<uint64_t>(n.count[HBEXT_NC_LASTHB])
        .store(static_cast<uint64_t>(clock_ms(CLOCK_REALTIME)), std::memory_order_relaxed);
}

void hbcount_track(const hbtable &t)
{
    const int kind = t.kind->number;
    if (!valid(kind))
        return;
    tables[kind] = t;
    tracked[kind].store(true, std::memory_order_release);
    publishtable(t);
}

void hbcount_untrack(const void *list)
{
    for (int kind = 1; kind < KIND_NUMBERS; ++kind)
        if (tracked[kind].load(std::memory_order_acquire) && tables[kind].list == list)
            tracked[kind].store(false, std::memory_order_release);
}

void hbcount_publish()
{
    std::lock_guard hold(publishing);
    publishall();
}

void hbcount_sync()
{
    const int64_t now = clock_ms(CLOCK_MONOTONIC);
    if (now < due.load(std::memory_order_relaxed))
        return;
    std::unique_lock hold(publishing, std::try_to_lock);
    if (!hold.owns_lock() || now < due.load(std::memory_order_relaxed))
        return; // another thread publishes, or just did
    due.store(now + EVERY_MS, std::memory_order_relaxed);
    publishall();
}

void hbcount_reset()
{
    // A straggling worker of a test may still count.
    for (auto &k : kindcount)
        for (uint64_t &c : k)
            std::atomic_ref<uint64_t>(c).store(0, std::memory_order_relaxed);
    for (auto &t : tracked)
        t.store(false);
    due.store(0);
}
