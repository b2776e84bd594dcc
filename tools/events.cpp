// The published states as zemctl reads them (events.h).
#include <ctime>

#include "events.h"

namespace {

constexpr std::pair<int32_t, const char *> svstat_names[] = {
    {SHMNM_SVSTAT_ONLINE, "ONLINE"},
    {SHMNM_SVSTAT_OFFLINE, "OFFLINE"},
    {SHMNM_SVSTAT_UNKNOWN, "UNKNOWN"},
    {SHMNM_SVSTAT_UNUSED, "UNUSED"},
};
constexpr std::pair<int32_t, const char *> rscstat_names[] = {
    {SHMNM_RSCSTAT_NORMAL, "NORMAL"},   {SHMNM_RSCSTAT_CAUTION, "CAUTION"}, {SHMNM_RSCSTAT_ERROR, "ERROR"},
    {SHMNM_RSCSTAT_UNKNOWN, "UNKNOWN"}, {SHMNM_RSCSTAT_UNUSED, "UNUSED"},
};

std::string stat_text(const char *name, int32_t v)
{
    char hex[16];
    snprintf(hex, sizeof hex, "0x%x", static_cast<unsigned>(v));
    return name != nullptr ? name : hex;
}

std::vector<std::string> split_msz(const std::vector<char> &buf)
{
    std::vector<std::string> out;
    for (size_t i = 0; i < buf.size() && buf[i] != '\0';) {
        std::string s(&buf[i]);
        i += s.size() + 1;
        out.push_back(s);
    }
    return out;
}

// Names through the daemon's own enumeration calls: size first, then list.
std::vector<std::string> enum_rsc(const char *kind)
{
    int32_t size = 0;
    if (shmnm_enumrsc(kind, nullptr, &size) != 0 || size <= 0)
        return {};
    std::vector<char> buf(static_cast<size_t>(size));
    if (shmnm_enumrsc(kind, buf.data(), &size) != 0)
        return {};
    return split_msz(buf);
}

std::vector<std::string> enum_node()
{
    int32_t size = 0;
    if (shmnm_enumnode(nullptr, &size) != 0 || size <= 0)
        return {};
    std::vector<char> buf(static_cast<size_t>(size));
    if (shmnm_enumnode(buf.data(), &size) != 0)
        return {};
    return split_msz(buf);
}

} // namespace

std::string svstat_text(int32_t s)
{
    return stat_text(plat_name_of(svstat_names, s), s);
}

std::string rscstat_text(int32_t s)
{
    return stat_text(plat_name_of(rscstat_names, s), s);
}

std::string dump(const ojson &j, int indent)
{
    return j.dump(indent, ' ', false, ojson::error_handler_t::replace);
}

std::string now_text()
{
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm {};
    localtime_r(&ts.tv_sec, &tm);
    char buf[64];
    snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%03ld", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
             tm.tm_hour, tm.tm_min, tm.tm_sec, ts.tv_nsec / 1000000);
    return buf;
}

void take(snapshot &snap)
{
    std::vector<std::string> nodes = enum_node();
    for (int k = 0; k < 2; k++) {
        snap[k].clear();
        for (const std::string &r : enum_rsc(ev_kinds[k])) {
            rsc_view rv{r, -1, SHMNM_RSCSTAT_UNKNOWN, {}, {}};
            shmnm_getrscpri(ev_kinds[k], r.c_str(), &rv.pri);
            plat_getrscstat(ev_kinds[k], r.c_str(), &rv.stat);
            plat_gethist(ev_kinds[k], r.c_str(), nullptr, &rv.hist);
            for (const std::string &n : nodes) {
                node_view nv{n, -1, SHMNM_SVSTAT_UNKNOWN, {}};
                shmnm_getnodepri(n.c_str(), &nv.pri);
                shmnm_getrscsvstat(ev_kinds[k], r.c_str(), nv.pri, &nv.stat);
                plat_gethist(ev_kinds[k], r.c_str(), n.c_str(), &nv.hist);
                rv.nodes.push_back(nv);
            }
            snap[k].push_back(rv);
        }
    }
}
