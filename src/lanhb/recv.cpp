// The LAN receiver thread: one UDP socket for all paths, IPv6 with IPv4
// mapped in, falling back to IPv4 when the host has no IPv6; each accepted
// datagram goes to the status evaluation, and without a watcher the receiver
// checks the time-outs after every pass.
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "frame/frame.h"
#include "lanhb/key.h"
#include "lanhb/lanhb.h"
#include "services/services.h"

pthread_mutex_t lanhb_rmutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t lanhb_rcond = PTHREAD_COND_INITIALIZER;
int32_t lanhb_rready; // set by lanhb_reset

namespace {

// Opens and binds the receive socket; returns null or the exit text.
char *opensock(const lanhb_list *list, const char *port, lanhb_sockfd *s, bool *v6mode)
{
    addrinfo hints{};
    hints.ai_family = AF_INET6;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *probe = nullptr;
    const int r = getaddrinfo(nullptr, port, &hints, &probe);
    bool try6 = r == 0 && probe != nullptr;
    if (probe != nullptr)
        freeaddrinfo(probe);
    if (!try6)
        HBLOG(HBLOG_LAN, HBLV_ERROR, "getaddrinfo(INET6) failed(ret:%d,errno:%d)", r, errno);

    if (try6) {
        s->fd = socket(AF_INET6, SOCK_DGRAM, 0);
        if (s->fd < 0) {
            const int err = errno;
            HBLOG(HBLOG_LAN, HBLV_ERROR, "socket(INET6) failed(errno:%d)", err);
            if (err != EAFNOSUPPORT) {
                return lanhb_exit(LANHB_EXIT_NOSOCK);
            }
            HBLOG(HBLOG_LAN, HBLV_ERROR, "try socket(INET)");
        } else {
            // IPv4 heartbeats arrive on this socket as mapped addresses.
            int off = 0;
            (void)setsockopt(s->fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
            sockaddr_in6 sa{};
            sa.sin6_family = AF_INET6;
            sa.sin6_port = htons(list->recvport);
            sa.sin6_addr = in6addr_any;
            if (bind(s->fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
                const int err = errno;
                close(s->fd);
                s->fd = -1;
                HBLOG(HBLOG_LAN, HBLV_ERROR, "bind(INET6) failed(errno:%d)", err);
                return lanhb_exit(LANHB_EXIT_NOBIND);
            }
            *v6mode = true;
            return nullptr;
        }
    }

    s->fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (s->fd < 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "socket(INET) failed(errno:%d)", errno);
        return lanhb_exit(LANHB_EXIT_NOSOCK);
    }
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(list->recvport);
    sa.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(s->fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        const int err = errno;
        close(s->fd);
        s->fd = -1;
        HBLOG(HBLOG_LAN, HBLV_ERROR, "bind(INET) failed(errno:%d)", err);
        return lanhb_exit(LANHB_EXIT_NOBIND);
    }
    *v6mode = false;
    return nullptr;
}

void signalready()
{
    int r = pthread_mutex_lock(&lanhb_rmutex);
    if (r != 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "pthread_mutex_lock() failed(ret:%d,errno:%d)", r, errno);
        return;
    }
    lanhb_rready = 1;
    r = pthread_cond_signal(&lanhb_rcond);
    if (r != 0)
        HBLOG(HBLOG_LAN, HBLV_ERROR, "pthread_cond_signal() failed(ret:%d,errno:%d)", r, errno);
    r = pthread_mutex_unlock(&lanhb_rmutex);
    if (r != 0)
        HBLOG(HBLOG_LAN, HBLV_ERROR, "pthread_mutex_unlock() failed(ret:%d,errno:%d)", r, errno);
}

char *hbrecv(lanhb_list *list)
{
    hbth_canceloff(HBLOG_LAN);
    hbtick_t maxloop = static_cast<hbtick_t>(static_cast<int64_t>(list->hbint) * tckconf / 1000);
    hbtick_t maxrecv = 0;
    char port[8];
    std::snprintf(port, sizeof port, "%d", list->recvport);

    lanhb_sockfd s;
    bool v6mode = false;
    if (char *ret = opensock(list, port, &s, &v6mode))
        return ret;

    lanhb_socksetup(list, s.fd);
    lanhb_refusedstart(s.fd);
    hbtick_t synced = hbtick_now();
    const size_t len = lanhb_wirelen(list->maxnode);
    const int flags = lanhb_keyed() ? MSG_TRUNC : 0;
    std::unique_ptr<lanhb_packet, hbfree> pkt(static_cast<lanhb_packet *>(std::malloc(len)));
    if (!pkt) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "malloc(%d) failed(errno:%d)", static_cast<int>(len), errno);
        return lanhb_exit(LANHB_EXIT_NOMEM);
    }

    // The main line normally holds the mutex by now and waits for this.
    usleep(100000);
    signalready();

    for (;;) {
        const hbtick_t t0 = hbtick_now();
        hbth_testcancel(HBLOG_LAN);
        if (bsigrecv.load() != 0) {
            HBLOG(HBLOG_LAN, HBLV_ERROR, "SIGUSR1 already received");
            pkt.reset();
            close(s.fd);
            s.fd = -1;
            return lanhb_exit(LANHB_EXIT_OK);
        }

        // The socket and the stop event together: a heartbeat is taken at
        // once, and a stop ends the wait at once.
        const int n = hbwait_fd(HBLOG_LAN, s.fd, list->hbint);
        const int err = errno;
        if (n < 0) {
            HBLOG(HBLOG_LAN, HBLV_ERROR, "select() failed(errno:%d)", err);
            if (lanhb_bwatchth.load() == 0)
                lanhb_hbcheck(list);
            hbwait_ms(HBLOG_LAN, list->hbint);
            lanhb_thrlooptime(t0, &maxloop);
            continue;
        }
        if (n > 0) {
            const hbtick_t arrival = hbtick_now();
            sockaddr_storage from{};
            socklen_t fromlen = v6mode ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
            const ssize_t count =
                recvfrom(s.fd, pkt.get(), len, flags, reinterpret_cast<sockaddr *>(&from), &fromlen);
            lanhb_rsc *rsc = nullptr;
            lanhb_node *node = nullptr;
            const auto *src = reinterpret_cast<sockaddr *>(&from);
            const int32_t why = lanhb_accept(list, pkt.get(), count, len, src, v6mode, &rsc, &node);
            if (why == LANHB_ACCEPTED) {
                lanhb_hbdata(list, rsc, node, pkt.get());
                lanhb_threcvtime(arrival, &maxrecv, rsc->name, node->name, node->ip, list->hbto);
            } else if (count >= 0) {
                lanhb_refused(why, src);
            }
        }
        if (hbtick_now() - synced >= static_cast<hbtick_t>(tckconf)) {
            lanhb_refusedsync(s.fd); // the kernel's drops, about once a second
            synced = hbtick_now();
        }
        if (lanhb_bwatchth.load() == 0)
            lanhb_hbcheck(list);
        lanhb_thrlooptime(t0, &maxloop);
    }
}

} // namespace

int32_t lanhb_thrlooptime(hbtick_t start, hbtick_t *max) { return hblooptime(start, max); }

int32_t lanhb_threcvtime(hbtick_t start, hbtick_t *max, const char *rsc, const char *node, const char * /*ip*/,
                         int32_t hbto)
{
    return hboptime(LANHB_KIND.number, start, max, rsc, node, hbto, LOG_MSG_LANRECV);
}

void lanhb_recvthexit(void *) { HBLOG(HBLOG_LAN, HBLV_INFO, "lanhb_hbrecv() exit"); }

void *lanhb_hbrecv(void *arg)
{
    HBTH_ENTER(HBLOG_LAN);
    const auto *list = static_cast<const lanhb_list *>(arg);
    const hbth_progress shown(HBEXT_TH_LANRECV, list->hbint, list->hbto);
    char *ret = nullptr;
    pthread_cleanup_push(lanhb_recvthexit, nullptr);
    ret = hbrecv(static_cast<lanhb_list *>(arg));
    pthread_cleanup_pop(1);
    return ret;
}
