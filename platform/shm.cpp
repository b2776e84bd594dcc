// Node-manager and cluster-manager shared memory and the cluster semaphores:
// three files under run/, mapped shared by every process of the node.
//
// Every mutable field is one 32-bit word accessed atomically; there is no
// lock, so a process killed in the middle of a call cannot wedge the others.
// A mapping is never unmapped once attached: a straggling thread that read
// the pointer before a detach still touches valid memory, and a reset by
// zemctl init (which renames a fresh file into place) is picked up by the
// next attach.
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "plat.h"
#include "services/hbext.h"

namespace {

std::atomic<nm_layout *> g_nm{nullptr};
std::atomic<cm_layout *> g_cm{nullptr};
std::atomic<sem_layout *> g_sem{nullptr};

int32_t ld(const int32_t &w)
{
    return std::atomic_ref<int32_t>(const_cast<int32_t &>(w)).load();
}
void st(int32_t &w, int32_t v)
{
    std::atomic_ref<int32_t>(w).store(v);
}
int64_t ld(const int64_t &w)
{
    return std::atomic_ref<int64_t>(const_cast<int64_t &>(w)).load();
}
void st(int64_t &w, int64_t v)
{
    std::atomic_ref<int64_t>(w).store(v);
}
static_assert(std::atomic_ref<int64_t>::is_always_lock_free, "64-bit words shared between processes");

bool name_ok(const char *name, size_t size)
{
    return memchr(name, '\0', size) != nullptr;
}

// Checks what a mapped file claims before anything trusts it.
bool valid(const nm_layout *m)
{
    if (m->nnode < 0 || m->nnode > NM_MAXNODE)
        return false;
    for (int i = 0; i < m->nnode; i++)
        if (!name_ok(m->node[i].name, sizeof m->node[i].name) || m->node[i].pri < 0 || m->node[i].pri >= NM_MAXNODE)
            return false;
    for (int k = 0; k < 2; k++) {
        if (m->nrsc[k] < 0 || m->nrsc[k] > NM_MAXRSC)
            return false;
        for (int i = 0; i < m->nrsc[k]; i++)
            if (!name_ok(m->rsc[k][i].name, sizeof m->rsc[k][i].name))
                return false;
    }
    return true;
}
bool valid(const cm_layout *m)
{
    return name_ok(m->version, sizeof m->version) && name_ok(m->edition, sizeof m->edition);
}
bool valid(const sem_layout *)
{
    return true;
}

template <class T> int32_t shm_map(const char *name, uint32_t magic, T **out)
{
    int dfd = plat_rundir(false);
    if (dfd < 0)
        return PLAT_ENOENT;
    int fd = openat(dfd, name, O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    int oerr = errno;
    close(dfd);
    if (fd < 0)
        return oerr == ENOENT ? PLAT_ENOENT : PLAT_EIO;
    struct stat sb {};
    if (fstat(fd, &sb) != 0 || !S_ISREG(sb.st_mode) || sb.st_size != static_cast<off_t>(sizeof(T))) {
        close(fd);
        return PLAT_EFORMAT;
    }
    void *p = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED)
        return PLAT_EIO;
    T *m = static_cast<T *>(p);
    if (m->head.magic != magic || m->head.version != SHM_VERSION || m->head.size != sizeof(T) || !valid(m)) {
        munmap(p, sizeof(T));
        return PLAT_EFORMAT;
    }
    *out = m;
    return 0;
}

// A daemon takes run/lock before it maps anything, so a refused second
// daemon never gets to change what the first one published.
template <class T> int32_t attach(std::atomic<T *> &slot, const char *name, uint32_t magic)
{
    if (int32_t r = plat_daemon_lock(); r != 0)
        return r;
    T *m = nullptr;
    int32_t r = shm_map(name, magic, &m);
    if (r == 0)
        slot.store(m);
    return r;
}

const nm_rsc *find_rsc(const nm_layout *m, const char *kind, const char *rsc)
{
    int k = plat_kind(kind);
    if (k < 0 || rsc == nullptr)
        return nullptr;
    for (int i = 0; i < m->nrsc[k]; i++)
        if (strncmp(m->rsc[k][i].name, rsc, NM_RSCNAME) == 0)
            return &m->rsc[k][i];
    return nullptr;
}

int find_node(const nm_layout *m, const char *name)
{
    if (name == nullptr)
        return -1;
    for (int i = 0; i < m->nnode; i++)
        if (strncmp(m->node[i].name, name, NM_NODENAME) == 0)
            return i;
    return -1;
}

int find_nodeid(const nm_layout *m, int32_t id)
{
    for (int i = 0; i < m->nnode; i++)
        if (m->node[i].pri == id)
            return i;
    return -1;
}

// Writes a multi-string list of names, or only its size when buf is null or
// *size is 0. An empty list has size 0.
template <class F> int32_t enum_names(int count, F name_of, char *buf, int32_t *size)
{
    if (size == nullptr)
        return PLAT_EINVAL;
    size_t need = 0;
    for (int i = 0; i < count; i++)
        need += strlen(name_of(i)) + 1;
    if (need > 0)
        need++;
    if (buf == nullptr || *size == 0) {
        *size = static_cast<int32_t>(need);
        return 0;
    }
    if (*size < 0 || static_cast<size_t>(*size) < need) {
        *size = static_cast<int32_t>(need);
        return PLAT_ESPACE;
    }
    char *p = buf;
    for (int i = 0; i < count; i++) {
        size_t n = strlen(name_of(i)) + 1;
        memcpy(p, name_of(i), n);
        p += n;
    }
    if (need > 0)
        *p = '\0';
    *size = static_cast<int32_t>(need);
    return 0;
}

long futex(uint32_t *addr, int op, uint32_t val, const struct timespec *ts)
{
    return syscall(SYS_futex, addr, op, val, ts, nullptr, 0);
}

// Stores a published state and what the history keeps about it.
void publish(int32_t &w, nm_hist &h, int32_t v)
{
    int64_t now = plat_now_ms();
    int32_t old = std::atomic_ref<int32_t>(w).exchange(v);
    if (old != v) {
        st(h.changed_ms, now);
        // A start reset takes a node offline without it having gone down.
        if (v == SHMNM_SVSTAT_OFFLINE && old != SHMNM_SVSTAT_UNKNOWN && ld(h.cause) != HBEXT_CAUSE_START)
            std::atomic_ref<int32_t>(h.downs).fetch_add(1);
    }
    st(h.published_ms, now);
}

// Runs f on the attached layout, or answers PLAT_ENOTREADY.
template <class T, class F> int32_t with(std::atomic<T *> &slot, F f)
{
    T *m = slot.load();
    return m == nullptr ? static_cast<int32_t>(PLAT_ENOTREADY) : f(m);
}

// Reads into *out the word that locate finds (null: no such entry).
template <class T, class L> int32_t get_at(std::atomic<T *> &slot, int32_t *out, L locate, bool args_ok = true)
{
    return with(slot, [&](T *m) -> int32_t {
        if (out == nullptr || !args_ok)
            return PLAT_EINVAL;
        const int32_t *w = locate(m);
        if (w == nullptr)
            return PLAT_ENOENT;
        *out = ld(*w);
        return 0;
    });
}

template <class T, class L> int32_t set_at(std::atomic<T *> &slot, int32_t v, L locate, bool args_ok = true)
{
    return with(slot, [&](T *m) -> int32_t {
        if (!args_ok)
            return PLAT_EINVAL;
        int32_t *w = locate(m);
        if (w == nullptr)
            return PLAT_ENOENT;
        st(*w, v);
        return 0;
    });
}

// Locators for get_at and set_at.
auto node_word(const char *node, int32_t nm_node::*field)
{
    return [=](nm_layout *m) -> int32_t * {
        int i = find_node(m, node);
        return i < 0 ? nullptr : &(m->node[i].*field);
    };
}
auto rsc_word(const char *kind, const char *rsc, int32_t nm_rsc::*field)
{
    return [=](nm_layout *m) -> int32_t * {
        const nm_rsc *r = find_rsc(m, kind, rsc);
        return r == nullptr ? nullptr : &(const_cast<nm_rsc *>(r)->*field);
    };
}
auto svstat_word(const char *kind, const char *rsc, int32_t nodeid)
{
    return [=](nm_layout *m) -> int32_t * {
        const nm_rsc *r = find_rsc(m, kind, rsc);
        int i = find_nodeid(m, nodeid);
        return r == nullptr || i < 0 ? nullptr : &const_cast<nm_rsc *>(r)->svstat[i];
    };
}
template <class T> auto word(int32_t T::*field)
{
    return [=](T *m) { return &(m->*field); };
}

// The lock goes with the daemon's last mapping.
template <class T> int32_t detach(std::atomic<T *> &slot)
{
    slot.store(nullptr);
    if (g_nm.load() == nullptr && g_cm.load() == nullptr && g_sem.load() == nullptr)
        plat_daemon_unlock();
    return 0;
}

int32_t copy_text(char *out, const char (&text)[SHMCM_TEXT_SIZE])
{
    if (out == nullptr)
        return PLAT_EINVAL;
    memcpy(out, text, SHMCM_TEXT_SIZE);
    out[SHMCM_TEXT_SIZE - 1] = '\0';
    return 0;
}

} // namespace

int plat_kind(const char *kind)
{
    if (kind == nullptr)
        return -1;
    if (strcmp(kind, HB_KIND_LANHB) == 0)
        return 0;
    if (strcmp(kind, HB_KIND_CNTHB) == 0)
        return 1;
    return -1;
}

// ---- node manager -----------------------------------------------------------------

// A daemon's attach and detach are recorded for zemctl status.
int32_t shmnm_attach(void)
{
    int32_t r = attach(g_nm, NM_FILE, NM_MAGIC);
    nm_layout *m = g_nm.load();
    if (r == 0 && !plat_is_tool()) {
        st(m->daemon.detached_ms, int64_t{0});
        st(m->daemon.attached_ms, plat_now_ms());
        st(m->daemon.pid, static_cast<int32_t>(getpid()));
    }
    return r;
}

int32_t shmnm_detach(void)
{
    nm_layout *m = g_nm.load();
    if (m != nullptr && !plat_is_tool() && ld(m->daemon.pid) == getpid())
        st(m->daemon.detached_ms, plat_now_ms());
    return detach(g_nm);
}

int32_t shmnm_getwaitstat(int32_t *waitstat)
{
    return get_at(g_nm, waitstat, word(&nm_layout::waitstat));
}

int32_t shmnm_enumrsc(const char *kind, char *buf, int32_t *size)
{
    return with(g_nm, [&](nm_layout *m) -> int32_t {
        int k = plat_kind(kind);
        if (k < 0)
            return PLAT_EINVAL;
        return enum_names(m->nrsc[k], [&](int i) { return m->rsc[k][i].name; }, buf, size);
    });
}

int32_t shmnm_enumnode(char *buf, int32_t *size)
{
    return with(g_nm, [&](nm_layout *m) {
        return enum_names(m->nnode, [&](int i) { return m->node[i].name; }, buf, size);
    });
}

int32_t shmnm_getnodepri(const char *node, int32_t *pri)
{
    return get_at(g_nm, pri, node_word(node, &nm_node::pri));
}

int32_t shmnm_getnodestat(const char *node, int32_t *stat)
{
    return get_at(g_nm, stat, node_word(node, &nm_node::nodestat));
}

int32_t shmnm_getrscpri(const char *kind, const char *rsc, int32_t *pri)
{
    return get_at(g_nm, pri, rsc_word(kind, rsc, &nm_rsc::pri), plat_kind(kind) >= 0);
}

int32_t shmnm_getrscsvstat(const char *kind, const char *rsc, int32_t nodeid, int32_t *stat)
{
    return get_at(g_nm, stat, svstat_word(kind, rsc, nodeid), plat_kind(kind) >= 0);
}

int32_t shmnm_setrscsvstat(const char *kind, const char *rsc, int32_t nodeid, int32_t stat)
{
    return with(g_nm, [&](nm_layout *m) -> int32_t {
        nm_rsc *r = const_cast<nm_rsc *>(find_rsc(m, kind, rsc));
        int i = find_nodeid(m, nodeid);
        if (plat_kind(kind) < 0)
            return PLAT_EINVAL;
        if (r == nullptr || i < 0)
            return PLAT_ENOENT;
        publish(r->svstat[i], r->svhist[i], stat);
        return 0;
    });
}

int32_t hbext_setcause(const char *kind, const char *rsc, int32_t nodeid, int32_t cause)
{
    return with(g_nm, [&](nm_layout *m) -> int32_t {
        nm_rsc *r = const_cast<nm_rsc *>(find_rsc(m, kind, rsc));
        int i = find_nodeid(m, nodeid);
        if (plat_kind(kind) < 0 || cause < 0 || cause >= HBEXT_CAUSE_COUNT)
            return PLAT_EINVAL;
        if (r == nullptr || i < 0)
            return PLAT_ENOENT;
        st(r->svhist[i].cause, cause);
        return 0;
    });
}

int32_t shmnm_setrscstat(const char *kind, const char *rsc, int32_t stat)
{
    return with(g_nm, [&](nm_layout *m) -> int32_t {
        nm_rsc *r = const_cast<nm_rsc *>(find_rsc(m, kind, rsc));
        if (plat_kind(kind) < 0)
            return PLAT_EINVAL;
        if (r == nullptr)
            return PLAT_ENOENT;
        publish(r->stat, r->stathist, stat);
        return 0;
    });
}

int32_t shmnm_gethdstat(const char *node, int32_t *hdstat)
{
    return get_at(g_nm, hdstat, node_word(node, &nm_node::hdstat));
}

int32_t shmnm_setnonvolstat(int32_t stat)
{
    return set_at(g_nm, stat, word(&nm_layout::nonvol));
}

int32_t plat_getdaemon(nm_daemon *d, int64_t *created_ms)
{
    return with(g_nm, [&](nm_layout *m) -> int32_t {
        if (d == nullptr || created_ms == nullptr)
            return PLAT_EINVAL;
        d->pid = ld(m->daemon.pid);
        d->attached_ms = ld(m->daemon.attached_ms);
        d->detached_ms = ld(m->daemon.detached_ms);
        *created_ms = ld(m->created_ms);
        return 0;
    });
}

int32_t plat_nm_index(const char *kind, const char *rsc, int32_t nodeid, int *rscidx, int *nodeidx)
{
    return with(g_nm, [&](nm_layout *m) -> int32_t {
        const int k = plat_kind(kind);
        if (k < 0 || rscidx == nullptr || nodeidx == nullptr)
            return PLAT_EINVAL;
        const nm_rsc *r = find_rsc(m, kind, rsc);
        *nodeidx = nodeid < 0 ? -1 : find_nodeid(m, nodeid);
        if (r == nullptr || (nodeid >= 0 && *nodeidx < 0))
            return PLAT_ENOENT;
        *rscidx = static_cast<int>(r - m->rsc[k]);
        return 0;
    });
}

int32_t plat_gethist(const char *kind, const char *rsc, const char *node, nm_hist *h)
{
    return with(g_nm, [&](nm_layout *m) -> int32_t {
        const nm_rsc *r = find_rsc(m, kind, rsc);
        int i = node != nullptr ? find_node(m, node) : 0;
        if (h == nullptr)
            return PLAT_EINVAL;
        if (r == nullptr || i < 0)
            return PLAT_ENOENT;
        const nm_hist &src = node != nullptr ? r->svhist[i] : r->stathist;
        h->changed_ms = ld(src.changed_ms);
        h->published_ms = ld(src.published_ms);
        h->downs = ld(src.downs);
        h->cause = ld(src.cause);
        return 0;
    });
}

int64_t plat_now_ms()
{
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int32_t plat_getrscstat(const char *kind, const char *rsc, int32_t *stat)
{
    return get_at(g_nm, stat, rsc_word(kind, rsc, &nm_rsc::stat), plat_kind(kind) >= 0);
}

int32_t plat_setwaitstat(int32_t v)
{
    return set_at(g_nm, v, word(&nm_layout::waitstat));
}

int32_t plat_getnonvol(int32_t *v)
{
    return get_at(g_nm, v, word(&nm_layout::nonvol));
}

int32_t plat_sethdstat(const char *node, int32_t v)
{
    return set_at(g_nm, v, node_word(node, &nm_node::hdstat));
}

int32_t plat_setnodestat(const char *node, int32_t v)
{
    return set_at(g_nm, v, node_word(node, &nm_node::nodestat));
}

// ---- cluster manager ------------------------------------------------------------------

int32_t shmcm_attach(void)
{
    return attach(g_cm, CM_FILE, CM_MAGIC);
}

int32_t shmcm_detach(void)
{
    return detach(g_cm);
}

int32_t shmcm_getedition(char *edition)
{
    return with(g_cm, [&](cm_layout *m) { return copy_text(edition, m->edition); });
}

int32_t shmcm_getversion(char *version)
{
    return with(g_cm, [&](cm_layout *m) { return copy_text(version, m->version); });
}

// The action area is the caller's and is left untouched.
int32_t shmcm_getaction(int32_t *action, void *, void *)
{
    return get_at(g_cm, action, word(&cm_layout::action));
}

int32_t shmcm_getratio(int32_t *ratio, int32_t *second)
{
    int32_t r = get_at(g_cm, ratio, word(&cm_layout::ratio));
    if (r == 0 && second != nullptr)
        *second = 0;
    return r;
}

int32_t plat_setaction(int32_t v)
{
    return set_at(g_cm, v, word(&cm_layout::action));
}

int32_t plat_setratio(int32_t v)
{
    return set_at(g_cm, v, word(&cm_layout::ratio));
}

// ---- semaphores -------------------------------------------------------------------------

int32_t sem_attach(void)
{
    return attach(g_sem, SEM_FILE, SEM_MAGIC);
}

int32_t sem_detach(void)
{
    return detach(g_sem);
}

// Every post bumps the counter and wakes all waiters, so no post is lost
// and every watching process sees it.
int32_t sem_set_statchange(void)
{
    return with(g_sem, [](sem_layout *m) -> int32_t {
        std::atomic_ref<uint32_t>(m->statchange).fetch_add(1);
        return futex(&m->statchange, FUTEX_WAKE, INT_MAX, nullptr) < 0 ? PLAT_EIO : 0;
    });
}

// Asks without waiting and consumes nothing: the answer stays 0 while the
// down notification is set, whatever the argument.
int32_t sem_wait_downnotify(int32_t)
{
    return with(g_sem, [](sem_layout *m) { return ld(m->downnotify) != 0 ? 0 : 1; });
}

int32_t plat_setdownnotify(int32_t on)
{
    return set_at(g_sem, on != 0 ? 1 : 0, word(&sem_layout::downnotify));
}

uint32_t plat_statchange_count()
{
    sem_layout *m = g_sem.load();
    return m == nullptr ? 0 : std::atomic_ref<uint32_t>(m->statchange).load();
}

uint32_t plat_statchange_wait(uint32_t seen, int timeout_ms)
{
    sem_layout *m = g_sem.load();
    if (m == nullptr)
        return 0;
    std::atomic_ref<uint32_t> cnt(m->statchange);
    struct timespec ts {timeout_ms / 1000, (timeout_ms % 1000) * 1000000L};
    // Returns at once when a post came in between (the word differs); a
    // signal or the time-out simply ends the wait.
    if (cnt.load() == seen)
        futex(&m->statchange, FUTEX_WAIT, seen, timeout_ms < 0 ? nullptr : &ts);
    return cnt.load();
}

// ---- creation -----------------------------------------------------------------------------

int32_t plat_shm_create(const plat_cluster &cl, std::string &err)
{
    if (cl.nodes.size() > NM_MAXNODE || cl.rsc[0].size() > NM_MAXRSC || cl.rsc[1].size() > NM_MAXRSC) {
        err = "too many servers or paths";
        return PLAT_EINVAL;
    }
    auto nm = std::make_unique<nm_layout>();
    memset(nm.get(), 0, sizeof *nm);
    nm->head = {NM_MAGIC, SHM_VERSION, sizeof(nm_layout)};
    nm->created_ms = plat_now_ms();
    nm->nnode = static_cast<int32_t>(cl.nodes.size());
    for (size_t i = 0; i < cl.nodes.size(); i++) {
        nm_node &n = nm->node[i];
        strncpy(n.name, cl.nodes[i].name.c_str(), sizeof n.name - 1);
        n.pri = cl.nodes[i].pri;
        n.hdstat = SHMNM_HDSTAT_OK;
    }
    for (int k = 0; k < 2; k++) {
        nm->nrsc[k] = static_cast<int32_t>(cl.rsc[k].size());
        for (size_t i = 0; i < cl.rsc[k].size(); i++) {
            nm_rsc &r = nm->rsc[k][i];
            strncpy(r.name, cl.rsc[k][i].name.c_str(), sizeof r.name - 1);
            r.pri = cl.rsc[k][i].pri;
            r.stat = SHMNM_RSCSTAT_UNKNOWN;
            for (int32_t &s : r.svstat)
                s = SHMNM_SVSTAT_UNKNOWN;
        }
    }
    cm_layout cm {};
    cm.head = {CM_MAGIC, SHM_VERSION, sizeof(cm_layout)};
    strncpy(cm.version, CM_VERSION, sizeof cm.version - 1);
    strncpy(cm.edition, CM_EDITION, sizeof cm.edition - 1);
    cm.ratio = 1;
    sem_layout sem {};
    sem.head = {SEM_MAGIC, SHM_VERSION, sizeof(sem_layout)};

    int32_t r = plat_replace_file(NM_FILE, nm.get(), sizeof *nm, err);
    if (r == 0)
        r = plat_replace_file(CM_FILE, &cm, sizeof cm, err);
    if (r == 0)
        r = plat_replace_file(SEM_FILE, &sem, sizeof sem, err);
    return r;
}
