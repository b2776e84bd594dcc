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

template <class T> int32_t attach(std::atomic<T *> &slot, const char *name, uint32_t magic)
{
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

int32_t shmnm_attach(void)
{
    return attach(g_nm, NM_FILE, NM_MAGIC);
}

int32_t shmnm_detach(void)
{
    g_nm.store(nullptr);
    return 0;
}

int32_t shmnm_getwaitstat(int32_t *waitstat)
{
    const nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    if (waitstat == nullptr)
        return PLAT_EINVAL;
    *waitstat = ld(m->waitstat);
    return 0;
}

int32_t shmnm_enumrsc(const char *kind, char *buf, int32_t *size)
{
    const nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    int k = plat_kind(kind);
    if (k < 0)
        return PLAT_EINVAL;
    return enum_names(m->nrsc[k], [&](int i) { return m->rsc[k][i].name; }, buf, size);
}

int32_t shmnm_enumnode(char *buf, int32_t *size)
{
    const nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    return enum_names(m->nnode, [&](int i) { return m->node[i].name; }, buf, size);
}

int32_t shmnm_getnodepri(const char *node, int32_t *pri)
{
    const nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    if (pri == nullptr)
        return PLAT_EINVAL;
    int i = find_node(m, node);
    if (i < 0)
        return PLAT_ENOENT;
    *pri = m->node[i].pri;
    return 0;
}

int32_t shmnm_getnodestat(const char *node, int32_t *stat)
{
    const nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    if (stat == nullptr)
        return PLAT_EINVAL;
    int i = find_node(m, node);
    if (i < 0)
        return PLAT_ENOENT;
    *stat = ld(m->node[i].nodestat);
    return 0;
}

int32_t shmnm_getrscpri(const char *kind, const char *rsc, int32_t *pri)
{
    const nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    if (pri == nullptr || plat_kind(kind) < 0)
        return PLAT_EINVAL;
    const nm_rsc *r = find_rsc(m, kind, rsc);
    if (r == nullptr)
        return PLAT_ENOENT;
    *pri = r->pri;
    return 0;
}

int32_t shmnm_getrscsvstat(const char *kind, const char *rsc, int32_t nodeid, int32_t *stat)
{
    const nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    if (stat == nullptr || plat_kind(kind) < 0)
        return PLAT_EINVAL;
    const nm_rsc *r = find_rsc(m, kind, rsc);
    int i = find_nodeid(m, nodeid);
    if (r == nullptr || i < 0)
        return PLAT_ENOENT;
    *stat = ld(r->svstat[i]);
    return 0;
}

int32_t shmnm_setrscsvstat(const char *kind, const char *rsc, int32_t nodeid, int32_t stat)
{
    nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    if (plat_kind(kind) < 0)
        return PLAT_EINVAL;
    nm_rsc *r = const_cast<nm_rsc *>(find_rsc(m, kind, rsc));
    int i = find_nodeid(m, nodeid);
    if (r == nullptr || i < 0)
        return PLAT_ENOENT;
    st(r->svstat[i], stat);
    return 0;
}

int32_t shmnm_setrscstat(const char *kind, const char *rsc, int32_t stat)
{
    nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    if (plat_kind(kind) < 0)
        return PLAT_EINVAL;
    nm_rsc *r = const_cast<nm_rsc *>(find_rsc(m, kind, rsc));
    if (r == nullptr)
        return PLAT_ENOENT;
    st(r->stat, stat);
    return 0;
}

int32_t shmnm_gethdstat(const char *node, int32_t *hdstat)
{
    const nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    if (hdstat == nullptr)
        return PLAT_EINVAL;
    int i = find_node(m, node);
    if (i < 0)
        return PLAT_ENOENT;
    *hdstat = ld(m->node[i].hdstat);
    return 0;
}

int32_t shmnm_setnonvolstat(int32_t stat)
{
    nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    st(m->nonvol, stat);
    return 0;
}

int32_t plat_getrscstat(const char *kind, const char *rsc, int32_t *stat)
{
    const nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    if (stat == nullptr || plat_kind(kind) < 0)
        return PLAT_EINVAL;
    const nm_rsc *r = find_rsc(m, kind, rsc);
    if (r == nullptr)
        return PLAT_ENOENT;
    *stat = ld(r->stat);
    return 0;
}

int32_t plat_setwaitstat(int32_t v)
{
    nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    st(m->waitstat, v);
    return 0;
}

int32_t plat_getnonvol(int32_t *v)
{
    const nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    if (v == nullptr)
        return PLAT_EINVAL;
    *v = ld(m->nonvol);
    return 0;
}

int32_t plat_sethdstat(const char *node, int32_t v)
{
    nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    int i = find_node(m, node);
    if (i < 0)
        return PLAT_ENOENT;
    st(m->node[i].hdstat, v);
    return 0;
}

int32_t plat_setnodestat(const char *node, int32_t v)
{
    nm_layout *m = g_nm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    int i = find_node(m, node);
    if (i < 0)
        return PLAT_ENOENT;
    st(m->node[i].nodestat, v);
    return 0;
}

// ---- cluster manager ------------------------------------------------------------------

int32_t shmcm_attach(void)
{
    return attach(g_cm, CM_FILE, CM_MAGIC);
}

int32_t shmcm_detach(void)
{
    g_cm.store(nullptr);
    return 0;
}

int32_t shmcm_getedition(char *edition)
{
    const cm_layout *m = g_cm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    if (edition == nullptr)
        return PLAT_EINVAL;
    memcpy(edition, m->edition, SHMCM_TEXT_SIZE);
    edition[SHMCM_TEXT_SIZE - 1] = '\0';
    return 0;
}

int32_t shmcm_getversion(char *version)
{
    const cm_layout *m = g_cm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    if (version == nullptr)
        return PLAT_EINVAL;
    memcpy(version, m->version, SHMCM_TEXT_SIZE);
    version[SHMCM_TEXT_SIZE - 1] = '\0';
    return 0;
}

// The action area is the caller's and is left untouched.
int32_t shmcm_getaction(int32_t *action, void *, void *)
{
    const cm_layout *m = g_cm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    if (action == nullptr)
        return PLAT_EINVAL;
    *action = ld(m->action);
    return 0;
}

int32_t shmcm_getratio(int32_t *ratio, int32_t *second)
{
    const cm_layout *m = g_cm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    if (ratio == nullptr)
        return PLAT_EINVAL;
    *ratio = ld(m->ratio);
    if (second != nullptr)
        *second = 0;
    return 0;
}

int32_t plat_setaction(int32_t v)
{
    cm_layout *m = g_cm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    st(m->action, v);
    return 0;
}

int32_t plat_setratio(int32_t v)
{
    cm_layout *m = g_cm.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    st(m->ratio, v);
    return 0;
}

// ---- semaphores -------------------------------------------------------------------------

int32_t sem_attach(void)
{
    return attach(g_sem, SEM_FILE, SEM_MAGIC);
}

int32_t sem_detach(void)
{
    g_sem.store(nullptr);
    return 0;
}

// Every post bumps the counter and wakes all waiters, so no post is lost
// and every watching process sees it.
int32_t sem_set_statchange(void)
{
    sem_layout *m = g_sem.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    std::atomic_ref<uint32_t>(m->statchange).fetch_add(1);
    if (futex(&m->statchange, FUTEX_WAKE, INT_MAX, nullptr) < 0)
        return PLAT_EIO;
    return 0;
}

// Asks without waiting and consumes nothing: the answer stays 0 while the
// down notification is set, whatever the argument.
int32_t sem_wait_downnotify(int32_t)
{
    const sem_layout *m = g_sem.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    return ld(m->downnotify) != 0 ? 0 : 1;
}

int32_t plat_setdownnotify(int32_t on)
{
    sem_layout *m = g_sem.load();
    if (m == nullptr)
        return PLAT_ENOTREADY;
    st(m->downnotify, on != 0 ? 1 : 0);
    return 0;
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
