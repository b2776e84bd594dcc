// The heartbeat datagram: building it, and accepting a received one.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>

#include <algorithm>
#include <cstring>

#include "frame/frame.h"
#include "lanhb/key.h"
#include "lanhb/lanhb.h"
#include "services/services.h"

namespace {

constexpr int INET6_TEXT_SIZE = 64;

void puttext(char *dst, size_t width, const char *src)
{
    std::memset(dst, 0, width);
    std::memcpy(dst, src, strnlen(src, width - 1));
}

} // namespace

size_t lanhb_pktlen(int32_t maxnode)
{
    return sizeof(lanhb_packet) + static_cast<size_t>(std::max(maxnode, 0)) * sizeof(lanhb_nodeinf);
}

void lanhb_pktinit(lanhb_packet *pkt, const lanhb_list *list, const char *tag)
{
    std::memset(pkt, 0, lanhb_pktlen(list->maxnode));
    puttext(pkt->tag, sizeof pkt->tag, tag);
    puttext(pkt->edition, sizeof pkt->edition, list->edition);
    puttext(pkt->version, sizeof pkt->version, list->version);
    pkt->nodepri = static_cast<int32_t>(htonl(static_cast<uint32_t>(list->ownpri)));
    const size_t nodelen = lanhb_pktlen(list->maxnode) - sizeof(lanhb_packet);
    pkt->nodelen = static_cast<int32_t>(htonl(static_cast<uint32_t>(nodelen)));
}

void lanhb_pktnodeinf(lanhb_packet *pkt, lanhb_list *list, bool named)
{
    if (list->currsc < 1)
        return; // the node names are those of the first path
    const int32_t n = std::min(list->curnode, list->maxnode);
    for (int32_t j = 0; j < n; ++j) {
        const char *name = lanhb_nodeat(lanhb_rscat(list, 0), j)->name;
        int32_t pri = -1;
        int32_t stat = SHMNM_NODESTAT_UNKNOWN;
        int32_t r = shmnm_getnodepri(name, &pri);
        if (r != 0) {
            if (named)
                HBLOG(HBLOG_LAN, HBLV_ERROR, "shmnm_getnodepri(%s) failed(ret:%d)", name, r);
            else
                HBLOG(HBLOG_LAN, HBLV_ERROR, "shmnm_getnodepri() failed(ret:%d)", r);
            pri = -1;
        } else {
            r = shmnm_getnodestat(name, &stat);
            if (r != 0) {
                HBLOG(HBLOG_LAN, HBLV_ERROR, "shmnm_getnodestat() failed(ret:%d)", r);
                stat = SHMNM_NODESTAT_UNKNOWN;
            }
        }
        pkt->nodeinf[j].pri = static_cast<int32_t>(htonl(static_cast<uint32_t>(pri)));
        pkt->nodeinf[j].stat = static_cast<int32_t>(htonl(static_cast<uint32_t>(stat)));
    }
}

void lanhb_pktrsc(lanhb_packet *pkt, lanhb_rsc *rsc)
{
    pkt->rscpri = static_cast<int32_t>(htonl(static_cast<uint32_t>(rsc->pri)));
    pkt->rscstat = static_cast<int32_t>(htonl(static_cast<uint32_t>(hbld(rsc->stat))));
}

void lanhb_ipnozone(const char *ip, char out[LANHB_NAME_SIZE])
{
    const size_t n = strnlen(ip, LANHB_NAME_SIZE - 1);
    std::memcpy(out, ip, n);
    out[n] = '\0';
    if (char *zone = std::strchr(out, '%'))
        *zone = '\0';
}

bool lanhb_ipmatch(const char *ip, const struct sockaddr *from, bool v6mode, bool exact)
{
    const bool cfg6 = std::strchr(ip, ':') != nullptr;
    char copy[LANHB_NAME_SIZE];
    lanhb_ipnozone(ip, copy);

    if (!v6mode) {
        if (cfg6 || from->sa_family != AF_INET)
            return false;
        const in_addr_t want = inet_addr(copy);
        return want == reinterpret_cast<const sockaddr_in *>(from)->sin_addr.s_addr;
    }

    if (from->sa_family != AF_INET6)
        return false;
    char sender[INET6_TEXT_SIZE];
    if (inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 *>(from)->sin6_addr, sender, sizeof sender) ==
        nullptr)
        return false;
    if (!cfg6 && exact) {
        struct in_addr want;
        const auto &got = reinterpret_cast<const sockaddr_in6 *>(from)->sin6_addr;
        return inet_pton(AF_INET, copy, &want) == 1 && IN6_IS_ADDR_V4MAPPED(&got) &&
               std::memcmp(got.s6_addr + 12, &want, 4) == 0;
    }
    if (!cfg6)
        return std::strstr(sender, copy) != nullptr; // ::ffff:192.0.2.7 holds 192.0.2.7
    struct in6_addr bin;
    if (inet_pton(AF_INET6, copy, &bin) != 1)
        return false;
    char canon[INET6_TEXT_SIZE];
    if (inet_ntop(AF_INET6, &bin, canon, sizeof canon) == nullptr)
        return false;
    return strcasecmp(canon, sender) == 0;
}

bool lanhb_tagok(const lanhb_packet *pkt)
{
    return std::memcmp(pkt->tag, LANHB_TAG_HB, sizeof LANHB_TAG_HB - 1) == 0 ||
           std::memcmp(pkt->tag, LANHB_TAG_DOWN, sizeof LANHB_TAG_DOWN - 1) == 0;
}

void lanhb_pktorder(lanhb_packet *pkt)
{
    pkt->sendtime = ntohl(pkt->sendtime);
    for (int32_t *w : {&pkt->nodepri, &pkt->rscpri, &pkt->rscstat, &pkt->reserved2, &pkt->nodelen})
        *w = static_cast<int32_t>(ntohl(static_cast<uint32_t>(*w)));
}

int32_t lanhb_accept(lanhb_list *list, lanhb_packet *pkt, ssize_t count, size_t buflen, const struct sockaddr *from,
                     bool v6mode, lanhb_rsc **rsc, lanhb_node **node, const lanhb_keyclock *clock)
{
    const bool keyed = lanhb_keyed();
    // While a key is being introduced, an unsigned datagram of the plain
    // length is taken by the unkeyed rules (but from the exact address).
    if (keyed && !(lanhb_keyunsigned() && count > 0 && static_cast<size_t>(count) == buflen - LANHB_TRAILER_SIZE))
        return lanhb_keyaccept(list, pkt, count, buflen, from, v6mode, rsc, node, clock);
    const size_t want = keyed ? buflen - LANHB_TRAILER_SIZE : buflen;
    if (count <= 0 || static_cast<size_t>(count) != want || want < sizeof(lanhb_packet))
        return LANHB_REFUSE_LENGTH;
    if (!lanhb_tagok(pkt))
        return LANHB_REFUSE_LENGTH;
    lanhb_pktorder(pkt);

    lanhb_rsc *r = nullptr;
    for (int32_t i = 0; i < list->currsc && r == nullptr; ++i)
        if (lanhb_rscat(list, i)->pri == pkt->rscpri)
            r = lanhb_rscat(list, i);
    if (r == nullptr)
        return LANHB_REFUSE_SENDER;
    lanhb_node *n = nullptr;
    for (int32_t j = 0; j < list->curnode && n == nullptr; ++j)
        if (lanhb_nodeat(r, j)->pri == pkt->nodepri)
            n = lanhb_nodeat(r, j);
    if (n == nullptr || !lanhb_ipmatch(n->ip, from, v6mode, keyed))
        return LANHB_REFUSE_SENDER;
    *rsc = r;
    *node = n;
    return LANHB_ACCEPTED;
}
