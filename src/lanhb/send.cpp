// The LAN sender thread with its pacing and self down, and the per-peer send
// that the down-packet sender (down.cpp) shares.
#include <netdb.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "frame/frame.h"
#include "lanhb/key.h"
#include "lanhb/lanhb.h"
#include "services/services.h"

namespace {

constexpr char OWN_LOOPBACK[] = "127.0.0.1";

struct addrfree {
    void operator()(addrinfo *ai) const { freeaddrinfo(ai); }
};
using addr_ptr = std::unique_ptr<addrinfo, addrfree>;

int lookup(const char *host, const char *service, addr_ptr *out)
{
    addrinfo hints{};
    hints.ai_flags = 0;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_protocol = 0;
    addrinfo *res = nullptr;
    const int r = getaddrinfo(host, service, &hints, &res);
    if (r == 0 && res == nullptr)
        return EAI_NONAME;
    out->reset(r == 0 ? res : nullptr);
    return r;
}

bool skippeer(lanhb_node *node) { return hbld(node->stat) == SHMNM_SVSTAT_UNUSED || node->ip[0] == '\0'; }

bool stopseen()
{
    if (bsigrecv.load() == 0)
        return false;
    HBLOG(HBLOG_LAN, HBLV_ERROR, "SIGUSR1 already received");
    return true;
}

void sleepdefault(int32_t ms) { hbwait_ms(HBLOG_LAN, ms); }

} // namespace

lanhb_pktptr lanhb_newpacket(const lanhb_list *list, const char *tag)
{
    const size_t len = lanhb_wirelen(list->maxnode);
    lanhb_pktptr pkt(static_cast<lanhb_packet *>(std::malloc(len)));
    if (!pkt) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "malloc(%d) failed(errno:%d)", static_cast<int>(len), errno);
        return pkt;
    }
    lanhb_pktinit(pkt.get(), list, tag);
    return pkt;
}

lanhb_ports::lanhb_ports(const lanhb_list *list)
{
    std::snprintf(from, sizeof from, "%d", list->sendport);
    std::snprintf(to, sizeof to, "%d", list->recvport);
}

void lanhb_sendpeer(lanhb_list *list, lanhb_rsc *rsc, lanhb_node *node, lanhb_packet *pkt, size_t len,
                    const char *from_port, const char *to_port, int bindok_level)
{
    const char *bindaddr = std::strcmp(node->ip, OWN_LOOPBACK) == 0 ? OWN_LOOPBACK : rsc->myip;
    addr_ptr src;
    int r = lookup(bindaddr, from_port, &src);
    if (r == 0) {
        HBLOG(HBLOG_LAN, bindok_level, "  getaddrinfo(%s) OK rsc=(%s) node=(%s)", bindaddr, rsc->name, rsc->myname);
    } else {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "getaddrinfo(%s) failed rsc=(%s) node=(%s) ret=%d errno=%d", bindaddr, rsc->name,
              rsc->myname, r, errno);
        hbcount_add(node->count[HBEXT_NC_BINDFAIL]);
    }

    node->lastsend = hbtick_now();
    addr_ptr dst;
    r = lookup(node->ip, to_port, &dst);
    if (r != 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "getaddrinfo(%s) failed rsc=(%s) node=(%s) ret=%d errno=%d ---> continue", node->ip,
              rsc->name, node->name, r, errno);
        hbcount_add(node->count[HBEXT_NC_SENDFAIL]);
        return;
    }
    HBLOG(HBLOG_LAN, HBLV_DETAIL, "  getaddrinfo(%s) OK rsc=(%s) node=(%s)", node->ip, rsc->name, node->name);

    // A fresh socket for every datagram, by design: each send binds anew to
    // the path's own address, so a path whose address or link came back
    // works again at the next cycle, and no socket is held while idle.
    const addrinfo *to = dst.get();
    lanhb_sockfd s;
    s.fd = socket(to->ai_family, to->ai_socktype, to->ai_protocol);
    if (s.fd < 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "socket(family:%d) failed rsc=%s node=%s errno=%d", to->ai_family, rsc->name, node->name,
              errno);
        hbcount_add(node->count[HBEXT_NC_SENDFAIL]);
        return;
    }
    HBLOG(HBLOG_LAN, HBLV_DETAIL, "  socket(family:%d) OK rsc=%s node=%s sock=%d", to->ai_family, rsc->name, node->name, s.fd);

    if (src) {
        if (bind(s.fd, src->ai_addr, src->ai_addrlen) == 0) {
            HBLOG(HBLOG_LAN, HBLV_DETAIL, "  bind OK rsc=(%s) myip=(%s) sock=%d", rsc->name, rsc->myip, s.fd);
        } else {
            HBLOG(HBLOG_LAN, HBLV_ERROR, "bind failed rsc=(%s) myip=(%s) errno=%d sock=%d", rsc->name, rsc->myip, errno, s.fd);
            hbcount_add(node->count[HBEXT_NC_BINDFAIL]);
        }
    }
    if (lanhb_bsocknbio != 0 && to->ai_socktype == SOCK_DGRAM) {
        int on = 1;
        if (ioctl(s.fd, FIONBIO, &on) == 0)
            HBLOG(HBLOG_LAN, HBLV_DETAIL, "  ioctl(FIONBIO) OK rsc=(%s) myip=(%s) sock=%d", rsc->name, rsc->myip, s.fd);
        else
            HBLOG(HBLOG_LAN, HBLV_ERROR, "ioctl(FIONBIO) failed rsc=(%s) myip=(%s) errno=%d sock=%d", rsc->name, rsc->myip,
                  errno, s.fd);
    }

    pkt->sendtime = htonl(static_cast<uint32_t>(std::time(nullptr)));
    const size_t wirelen = lanhb_keyseal(pkt, len);
    const bool sent = sendto(s.fd, pkt, wirelen, 0, to->ai_addr, to->ai_addrlen) >= 0;
    if (sent)
        HBLOG(HBLOG_LAN, HBLV_DETAIL, "  sendto OK rsc=(%s) node=(%s) ip=(%s) sock=%d", rsc->name, node->name, node->ip, s.fd);
    else
        HBLOG(HBLOG_LAN, HBLV_ERROR, "sendto failed rsc=(%s) node=(%s) ip=(%s) errno=%d sock=%d", rsc->name, node->name,
              node->ip, errno, s.fd);
    hbcount_add(node->count[sent ? HBEXT_NC_SENT : HBEXT_NC_SENDFAIL]);
    close(s.fd);
    s.fd = -1;
    lanhb_thsendtime(node->lastsend, &node->maxsend, rsc->name, node->name, node->ip, list->hbto);
}

void lanhb_paceinit(lanhb_pace *pace, int32_t hbint)
{
    pace->hbint = hbint;
    pace->parent = lanhb_parent;
    const int32_t q = hbint > 0 ? 10000 / hbint : 0;
    pace->countover1 = 6 * q;
    pace->countover2 = q > 0 ? q : 3;
    if (pace->countover1 <= 0)
        pace->countover1 = 6 * pace->countover2;
}

bool lanhb_pacestep(lanhb_pace *p, hbtick_t t0, hbtick_t *maxloop)
{
    void (*sleep)(int32_t) = p->sleepms != nullptr ? p->sleepms : sleepdefault;
    pid_t (*ppid)() = p->ppid != nullptr ? p->ppid : getppid;
    const bool sendphase = maxloop != nullptr;

    const bool fast = p->pace.budget >= 0;
    sleep(hbpace_pause(&p->pace, p->hbint));
    if (!fast && hbpace_announce(&p->pace, HBLOG_LAN, sendphase ? "send" : "start send", p->hbint))
        p->orphan = 0;
    if (sendphase)
        lanhb_thslooptime(t0, maxloop);
    const pid_t now = ppid();
    if (now != 1 && (p->parent <= 0 || now == p->parent)) {
        p->orphan = 0;
        return false;
    }
    ++p->orphan;
    // Within the start-up stretch the parent is given longer to come back.
    if (fast && p->pace.budget >= 0) {
        if (p->orphan < p->countover1)
            return false;
        HBLOG(HBLOG_LAN, HBLV_INFO, "lanhb self down. countover1=%d", p->countover1);
        return true;
    }
    if (p->orphan < p->countover2)
        return false;
    HBLOG(HBLOG_LAN, HBLV_INFO, "lanhb self down. countover2=%d", p->countover2);
    return true;
}

void lanhb_sendround(lanhb_list *list, lanhb_packet *pkt, size_t len, const lanhb_ports &ports, bool trace)
{
    for (int32_t i = 0; i < list->currsc; ++i) {
        lanhb_rsc *rsc = lanhb_rscat(list, i);
        if (trace)
            HBLOG(HBLOG_LAN, HBLV_DETAIL, "rsc[%d].name=(%s) myname=(%s) myip=(%s)", i, rsc->name, rsc->myname, rsc->myip);
        lanhb_pktrsc(pkt, rsc);
        if (trace)
            HBLOG(HBLOG_LAN, HBLV_DETAIL, "curnode=%d", list->curnode);
        for (int32_t j = 0; j < list->curnode; ++j) {
            lanhb_node *node = lanhb_nodeat(rsc, j);
            if (skippeer(node))
                continue;
            if (trace)
                HBLOG(HBLOG_LAN, HBLV_DETAIL, "  node[%d].name=(%s) ip=(%s)", j, node->name, node->ip);
            lanhb_sendpeer(list, rsc, node, pkt, len, ports.fromservice(list), ports.to,
                           trace ? HBLV_DETAIL : HBLV_INFO);
        }
    }
}

int32_t lanhb_thslooptime(hbtick_t start, hbtick_t *max) { return hblooptime(start, max); }

int32_t lanhb_thsendtime(hbtick_t start, hbtick_t *max, const char *rsc, const char *node, const char * /*ip*/,
                         int32_t hbto)
{
    return hboptime(LANHB_KIND.number, start, max, rsc, node, hbto, LOG_MSG_LANSEND);
}

void lanhb_sendthexit(void *) { HBLOG(HBLOG_LAN, HBLV_INFO, "lanhb_hbsend() exit"); }

namespace {

// The sender's body; returns its exit text. Runs with cancellation disabled
// except at the end of its waits.
char *hbsend(lanhb_list *list)
{
    hbth_canceloff(HBLOG_LAN);
    const lanhb_ports pt(list);
    lanhb_pace pace;
    lanhb_paceinit(&pace, list->hbint);
    HBLOG(HBLOG_LAN, HBLV_DETAIL, "from_port=%s to_port=%s", pt.from, pt.to);
    lanhb_pktptr pkt = lanhb_newpacket(list, LANHB_TAG_HB);
    if (!pkt)
        return lanhb_exit(LANHB_EXIT_NOMEM);
    const size_t len = lanhb_pktlen(list->maxnode);

    HBLOG(HBLOG_LAN, HBLV_ERROR, "*** WAIT START: lanhb_hbsend ***");
    bool stop = false;
    if (lanhb_bhbsend.load() == 0) {
        for (;;) {
            if (stopseen()) {
                stop = true;
                break;
            }
            if (lanhb_pacestep(&pace, 0, nullptr))
                hbstop_request(0);
            if (lanhb_bhbsend.load() != 0)
                break;
        }
    }
    if (!stop)
        HBLOG(HBLOG_LAN, HBLV_ERROR, "*** START: lanhb_hbsend ***");

    hbtick_t maxloop = 0;
    if (!stopseen()) {
        for (;;) {
            const hbtick_t t0 = hbtick_now();
            lanhb_pktnodeinf(pkt.get(), list, true);
            HBLOG(HBLOG_LAN, HBLV_DETAIL, "currsc=%d", list->currsc);
            lanhb_sendround(list, pkt.get(), len, pt, true);
            hbth_testcancel(HBLOG_LAN);
            if (stopseen())
                break;
            if (lanhb_pacestep(&pace, t0, &maxloop))
                hbstop_request(0);
            if (stopseen())
                break;
        }
    }
    pkt.reset();
    return lanhb_exit(LANHB_EXIT_OK);
}

} // namespace

void *lanhb_hbsend(void *arg)
{
    HBTH_ENTER(HBLOG_LAN);
    const auto *list = static_cast<const lanhb_list *>(arg);
    const hbth_progress shown(HBEXT_TH_LANSEND, list->hbint, list->hbto);
    char *ret = nullptr;
    pthread_cleanup_push(lanhb_sendthexit, nullptr);
    ret = hbsend(static_cast<lanhb_list *>(arg));
    pthread_cleanup_pop(1);
    return ret;
}
