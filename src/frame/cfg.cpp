// What both table loaders do alike: reading the configuration (policies, one
// setting with its corrections, the settings both read), the release texts,
// the counts of paths and nodes, the own node, names and priorities, and the
// decision to resume.
#include <cerrno>
#include <cstring>

#include "frame/frame.h"
#include "services/services.h"

int32_t hbcfg_getint(int module, const char *key, int32_t dflt, hbwhere at)
{
    int32_t value = 0;
    int32_t len = sizeof value;
    const int32_t r = xmllib_get_value(key, XMLLIB_KIND_INT, &value, &len);
    if (r != 0) {
        HBLOG_AT(at, module, HBLV_ERROR, "xmllib_get_value(%s) failed(ret:%d)", key, r);
        return dflt;
    }
    return value;
}

int32_t hbcfg_load(int module, const char *policy, const char *name, hbwhere at)
{
    const int32_t r = xmllib_load_policy(policy);
    if (r == 0)
        return 0;
    HBLOG_AT(at, module, HBLV_ERROR, "xmllib_load_policy(%s) failed(ret:%d)", name, r);
    return HBRET_POLICY;
}

void hbcfg_unload(int module, const char *policy, const char *name, hbwhere at)
{
    const int32_t r = xmllib_unload_policy(policy);
    if (r != 0)
        HBLOG_AT(at, module, HBLV_ERROR, "xmllib_unload_policy(%s) failed(ret:%d)", name, r);
}

int32_t hbcfg_read(int module, const hbsetting &set, hbwhere at)
{
    const int32_t value = hbcfg_getint(module, set.key, set.dflt, at);
    for (const hbbound &b : set.fix) {
        if (value >= b.lo && value <= b.hi)
            continue;
        if (b.msg != nullptr)
            hblog(module, b.level, at.file, at.line, at.func, b.msg, value, b.to);
        return b.to;
    }
    return value;
}

int32_t hbcfg_enum(int module, const char *kind, bool rsc, hbmsz *out, hbwhere at)
{
    const int32_t failcode = rsc ? HBRET_ENUMRSC : HBRET_ENUMNODE;
    const char *op = rsc ? "shmnm_enumrsc" : "shmnm_enumnode";
    int32_t size = 0;
    int32_t r = rsc ? shmnm_enumrsc(kind, nullptr, &size) : shmnm_enumnode(nullptr, &size);
    if (r != 0 || size < 1) {
        HBLOG_AT(at, module, HBLV_ERROR, "%s() failed(ret:%d)", op, r);
        return failcode;
    }
    hbmsz buf(static_cast<char *>(std::calloc(static_cast<size_t>(size) + 2, 1)));
    if (!buf) {
        HBLOG_AT(at, module, HBLV_ERROR, "malloc(%d) failed(errno:%d)", size, errno);
        return HBRET_NOMEM;
    }
    int32_t filled = size;
    r = rsc ? shmnm_enumrsc(kind, buf.get(), &filled) : shmnm_enumnode(buf.get(), &filled);
    if (r != 0) {
        HBLOG_AT(at, module, HBLV_ERROR, "%s() failed(ret:%d)", op, r);
        return failcode;
    }
    buf.get()[size] = '\0';
    buf.get()[size + 1] = '\0';
    *out = std::move(buf);
    return 0;
}

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

int32_t hbcfg_common(int module, const hbsetting &maxrsc, const hbsetting &dpint, const char *clustername,
                     std::span<const hbsetting> own, int32_t *ownvals, hbcommon *out, hbwhere at)
{
    if (hbcfg_load(module, "all", "all", at) != 0)
        return HBRET_POLICY;
    out->maxnode = hbcfg_read(module, HB_SET_MAXNODE, at);
    out->maxrsc = hbcfg_read(module, maxrsc, at);
    hbcfg_unload(module, "all", "all", at);

    if (hbcfg_load(module, "cluster", clustername, at) != 0)
        return HBRET_POLICY;
    (void)hbcfg_read(module, HB_SET_MISMATCH, at); // so that a broken key shows; the setting is off
    out->hbto = hbcfg_read(module, HB_SET_HBTO, at);
    out->hbint = hbcfg_read(module, HB_SET_HBINT, at);
    for (size_t i = 0; i < own.size(); ++i)
        ownvals[i] = hbcfg_read(module, own[i], at);
    out->warnrate = hbcfg_read(module, HB_SET_WARNRATE, at);
    out->dpint = hbcfg_read(module, dpint, at);
    out->dpretry = hbcfg_read(module, HB_SET_DPRETRY, at);
    hbcfg_unload(module, "cluster", "nm", at);
    return 0;
}

void hbcfg_logcommon(int module, const hbcommon &c, int32_t currsc, int32_t curnode, const char *ratename,
                     hbwhere at)
{
    HBLOG_AT(at, module, HBLV_DETAIL, "currsc:%d,curnode:%d", currsc, curnode);
    HBLOG_AT(at, module, HBLV_DETAIL, "hbto:%d(msec),hbint:%d(msec),mismatch:%d,%s:%d", c.hbto, c.hbint, 0, ratename,
             c.warnrate);
    HBLOG_AT(at, module, HBLV_DETAIL, "dpint:%d(msec),dpretry:%d", c.dpint, c.dpretry);
}

bool hbcfg_resume(int module, std::initializer_list<int32_t> actions, hbwhere at)
{
    int32_t action = 0;
    unsigned char actinfo[SHMCM_ACTINFO_SIZE] = {};
    const int32_t r = shmcm_getaction(&action, actinfo, nullptr);
    if (r != 0) {
        HBLOG_AT(at, module, HBLV_ERROR, "shmcm_getaction() failed(ret:%d)", r);
        action = SHMCM_ACTION_UNREADABLE;
    }
    bool resume = brestart == 1;
    for (int32_t a : actions)
        resume = resume || action == a;
    if (resume)
        HBLOG_AT(at, module, HBLV_ERROR, "change mode to resume(act:0x%08x)", static_cast<unsigned>(action));
    return resume;
}
