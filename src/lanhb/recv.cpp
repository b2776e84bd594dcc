// The LAN receiver thread: one UDP socket for all paths, IPv6 with IPv4
// mapped in, falling back to IPv4 when the host has no IPv6; each accepted
// datagram goes to the status evaluation, and without a watcher the receiver
// checks the time-outs after every pass.
//
// With a key it must out-run a flood from a member's own address, which no
// filter can tell from the member: it takes datagrams in batches, refuses
// most before their code is computed, and reads the node's own heartbeats
// from a loopback socket of their own first in every pass.
#include <netdb.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

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

// The keyed receiver's sockets beyond the main one: the loopback socket and
// an epoll set of both, which the pass waits on.
struct keyedsocks {
    lanhb_sockfd loop, ep;
    std::unique_ptr<lanhb_batch, void (*)(lanhb_batch *)> batch{nullptr, lanhb_batchfree};
};

// Sets them up; a failure leaves the receiver on the main socket alone.
void keyedsetup(const lanhb_list *list, int fd, keyedsocks *k)
{
    k->loop.fd = lanhb_loopsock(list, fd);
    if (k->loop.fd < 0)
        return;
    k->ep.fd = epoll_create1(EPOLL_CLOEXEC);
    epoll_event ev{};
    ev.events = EPOLLIN;
    if (k->ep.fd < 0 || epoll_ctl(k->ep.fd, EPOLL_CTL_ADD, fd, &ev) != 0 ||
        epoll_ctl(k->ep.fd, EPOLL_CTL_ADD, k->loop.fd, &ev) != 0) {
        HBLOG(HBLOG_LAN, HBLV_WARN, "epoll() failed(errno:%d): own heartbeats share the receive queue", errno);
        close(k->loop.fd);
        k->loop.fd = -1;
    }
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
    keyedsocks k;
    if (lanhb_keyed()) {
        k.batch.reset(lanhb_batchnew(len));
        if (k.batch)
            keyedsetup(list, s.fd, &k);
    }
    if (!pkt || (lanhb_keyed() && !k.batch)) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "malloc(%d) failed(errno:%d)", static_cast<int>(pkt ? LANHB_BATCH * len : len),
              ENOMEM);
        return lanhb_exit(LANHB_EXIT_NOMEM);
    }
    const int waitfd = k.ep.fd >= 0 ? k.ep.fd : s.fd;

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
        const int n = hbwait_fd(HBLOG_LAN, waitfd, list->hbint);
        const int err = errno;
        if (n < 0) {
            HBLOG(HBLOG_LAN, HBLV_ERROR, "select() failed(errno:%d)", err);
            if (lanhb_bwatchth.load() == 0)
                lanhb_hbcheck(list);
            hbwait_ms(HBLOG_LAN, list->hbint);
            lanhb_thrlooptime(t0, &maxloop);
            continue;
        }
        if (n > 0 && k.batch) {
            // One batch of each queue per pass, the node's own first.
            if (k.loop.fd >= 0)
                lanhb_recvbatch(list, k.batch.get(), k.loop.fd, false, &maxrecv);
            lanhb_recvbatch(list, k.batch.get(), s.fd, v6mode, &maxrecv);
        } else if (n > 0) {
            const hbtick_t arrival = hbtick_now();
            sockaddr_storage from{};
            socklen_t fromlen = v6mode ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
            const ssize_t count =
                recvfrom(s.fd, pkt.get(), len, flags, reinterpret_cast<sockaddr *>(&from), &fromlen);
            if (count >= 0)
                hbcount_kind(LANHB_KIND.number, HBEXT_KC_RECEIVED);
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

struct lanhb_batch {
    size_t wirelen = 0;
    std::unique_ptr<unsigned char[]> bufs; // LANHB_BATCH x wirelen
    mmsghdr msgs[LANHB_BATCH]{};
    iovec iov[LANHB_BATCH]{};
    sockaddr_storage from[LANHB_BATCH]{};
};

lanhb_batch *lanhb_batchnew(size_t wirelen)
{
    std::unique_ptr<lanhb_batch> b(new (std::nothrow) lanhb_batch);
    if (!b)
        return nullptr;
    b->wirelen = wirelen;
    b->bufs.reset(new (std::nothrow) unsigned char[LANHB_BATCH * wirelen]);
    if (!b->bufs)
        return nullptr;
    for (int i = 0; i < LANHB_BATCH; ++i) {
        b->iov[i] = {b->bufs.get() + static_cast<size_t>(i) * wirelen, wirelen};
        b->msgs[i].msg_hdr.msg_iov = &b->iov[i];
        b->msgs[i].msg_hdr.msg_iovlen = 1;
        b->msgs[i].msg_hdr.msg_name = &b->from[i];
    }
    return b.release();
}

void lanhb_batchfree(lanhb_batch *b) { delete b; }

int lanhb_recvbatch(lanhb_list *list, lanhb_batch *b, int fd, bool v6mode, hbtick_t *maxrecv)
{
    for (mmsghdr &m : b->msgs) {
        m.msg_hdr.msg_namelen = v6mode ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        m.msg_hdr.msg_flags = 0;
    }
    // MSG_TRUNC: each length is the datagram's own, so a longer one is refused.
    const int n = recvmmsg(fd, b->msgs, LANHB_BATCH, MSG_DONTWAIT | MSG_TRUNC, nullptr);
    if (n <= 0)
        return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : n;
    hbcount_kind(LANHB_KIND.number, HBEXT_KC_RECEIVED, static_cast<uint64_t>(n));
    const hbtick_t arrival = hbtick_now();
    const lanhb_keyclock clock = lanhb_keyclocknow();
    bool refused = false;
    lanhb_rsc *lastrsc = nullptr;
    lanhb_node *lastnode = nullptr;
    for (int i = 0; i < n; ++i) {
        auto *pkt = static_cast<lanhb_packet *>(b->iov[i].iov_base);
        const auto *src = reinterpret_cast<const sockaddr *>(&b->from[i]);
        lanhb_rsc *rsc = nullptr;
        lanhb_node *node = nullptr;
        const int32_t why =
            lanhb_accept(list, pkt, b->msgs[i].msg_len, b->wirelen, src, v6mode, &rsc, &node, &clock);
        if (why == LANHB_ACCEPTED) {
            lanhb_hbdata(list, rsc, node, pkt);
            lastrsc = rsc, lastnode = node;
        } else {
            lanhb_refused(why, src, &arrival);
            refused = true;
        }
    }
    // One receive is the whole batch: timed once, under its last heartbeat's names.
    if (lastnode != nullptr)
        lanhb_threcvtime(arrival, maxrecv, lastrsc->name, lastnode->name, lastnode->ip, list->hbto);
    if (refused)
        lanhb_refusedpublish();
    return n;
}

int lanhb_loopsock(const lanhb_list *list, int fd)
{
    // Binding beside the wildcard socket takes SO_REUSEPORT on both, and for
    // a moment only: cleared again, it lets nobody else bind this port.
    const int on = 1, off = 0;
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(list->recvport);
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    lanhb_sockfd loop;
    loop.fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool ok = loop.fd >= 0 && setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) == 0 &&
                    setsockopt(loop.fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) == 0 &&
                    bind(loop.fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0;
    const int err = errno;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &off, sizeof off);
    if (!ok) {
        HBLOG(HBLOG_LAN, HBLV_WARN, "loopback socket failed(errno:%d): own heartbeats share the receive queue", err);
        return -1;
    }
    (void)setsockopt(loop.fd, SOL_SOCKET, SO_REUSEPORT, &off, sizeof off);
    const int r = loop.fd;
    loop.fd = -1;
    return r;
}

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
