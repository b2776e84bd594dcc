// Reading the configuration: the helpers both loaders and the frame share.
#include <cerrno>

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
