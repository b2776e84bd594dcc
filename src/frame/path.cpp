// What both heartbeat kinds do alike at loading (release texts, counts, own
// node, names and priorities) and with the state of a path.
#include <cerrno>
#include <cstring>

#include "frame/frame.h"
#include "frame/thread.h"
#include "services/services.h"

hbrelease hbcfg_release(int module, hbwhere at)
{
    static_assert(sizeof(hbrelease::edition) == SHMCM_TEXT_SIZE && sizeof(hbrelease::version) == SHMCM_TEXT_SIZE);
    hbrelease rel{};
    int32_t r = shmcm_getedition(rel.edition);
    if (r != 0) {
        HBLOG_AT(at, module, HBLV_WARN, "shmcm_getedition() failed(ret:%d)", r);
        hbcopytext(rel.edition, sizeof rel.edition, "unknown");
    }
    r = shmcm_getversion(rel.version);
    if (r != 0) {
        HBLOG_AT(at, module, HBLV_WARN, "shmcm_getversion() failed(ret:%d)", r);
        hbcopytext(rel.version, sizeof rel.version, "unknown");
    }
    rel.edition[sizeof rel.edition - 1] = '\0';
    rel.version[sizeof rel.version - 1] = '\0';
    return rel;
}

int32_t hbcfg_counts(int module, const char *kind, int32_t *currsc, int32_t *curnode, hbwhere at)
{
    for (int32_t *count : {currsc, curnode}) {
        hbmsz names;
        if (const int32_t r = hbcfg_enum(module, kind, count == currsc, &names, at))
            return r;
        *count = mszcount(names.get());
    }
    return 0;
}

int32_t hbcfg_ownnode(int module, char *host, size_t size, int32_t *ownpri, hbwhere at)
{
    if (xmllib_gethostname(host, static_cast<int32_t>(size)) != 0) {
        HBLOG_AT(at, module, HBLV_ERROR, "xmllib_gethostname() failed(errno:%d)", errno);
        return HBRET_HOSTNAME;
    }
    host[size - 1] = '\0';
    if (char *dot = std::strchr(host, '.'))
        *dot = '\0';
    const int32_t r = shmnm_getnodepri(host, ownpri);
    if (r != 0) {
        HBLOG_AT(at, module, HBLV_ERROR, "shmnm_getnodepri() failed(ret:%d)", r);
        return HBRET_OWNPRI;
    }
    return 0;
}

int32_t hbcfg_namepri(int module, const char *kind, const char *from, char *name, size_t size, hbwhere at)
{
    hbcopytext(name, size, from);
    int32_t pri = -1;
    const int32_t r = kind != nullptr ? shmnm_getrscpri(kind, name, &pri) : shmnm_getnodepri(name, &pri);
    if (r == 0)
        return pri;
    if (kind != nullptr)
        HBLOG_AT(at, module, HBLV_ERROR, "shmnm_getrscpri(%s) failed(ret:%d)", name, r);
    else
        HBLOG_AT(at, module, HBLV_ERROR, "shmnm_getnodepri(%s) failed(ret:%d)", name, r);
    return -1;
}

int32_t hbsvstat_read(int module, const char *kind, const char *rsc, int32_t pri, hbwhere at)
{
    int32_t st = SHMNM_SVSTAT_UNKNOWN;
    const int32_t r = shmnm_getrscsvstat(kind, rsc, pri, &st);
    if (r == 0)
        return st;
    HBLOG_AT(at, module, HBLV_ERROR, "shmnm_getrscsvstat(rsc:%s,nodeid:%d) failed(ret:%d)", rsc, pri, r);
    return SHMNM_SVSTAT_UNKNOWN;
}

void hbpathvote::add(int32_t svstat, bool own)
{
    switch (svstat) {
    case SHMNM_SVSTAT_ONLINE:
        online_ = true;
        break;
    case SHMNM_SVSTAT_OFFLINE:
    case SHMNM_SVSTAT_UNKNOWN:
        (own ? owndown_ : peerdown_) = true;
        break;
    case SHMNM_SVSTAT_UNUSED:
        unused_ = true;
        break;
    default: // never set, or not readable at resume
        break;
    }
}

int32_t hbpathvote::publish(int module, const char *kind, const char *rsc, int32_t *stat, const char *failmsg,
                            hbwhere at) const
{
    int32_t st;
    const char *word;
    if (owndown_)
        st = SHMNM_RSCSTAT_ERROR, word = "ERROR";
    else if (peerdown_)
        st = SHMNM_RSCSTAT_CAUTION, word = "CAUTION";
    else if (online_)
        st = SHMNM_RSCSTAT_NORMAL, word = "NORMAL";
    else if (unused_)
        st = SHMNM_RSCSTAT_UNUSED, word = "UNUSED";
    else
        st = SHMNM_RSCSTAT_UNKNOWN, word = "UNKNOWN";
    HBLOG_AT(at, module, HBLV_ERROR, " *** %s : %s ***", rsc, word);
    hbst(*stat, st);
    const int32_t r = shmnm_setrscstat(kind, rsc, st);
    if (r != 0)
        hblog(module, HBLV_ERROR, at.file, at.line, at.func, failmsg, rsc, st, r);
    return 0;
}
