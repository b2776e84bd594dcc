// Counters and rate-limited log lines of refused datagrams. Everything here
// runs on the receiver thread; the platform gets copies of the counters.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstring>

#include <linux/sock_diag.h>

#include "frame/frame.h"
#include "lanhb/key.h"
#include "services/hbext.h"

namespace {

constexpr const char *WHY[HBEXT_REFUSED_COUNT] = {
    "wrong length or tag", "unknown path, node or address", "code does not verify (other key or none)",
    "replayed or too old", "dropped in the kernel"};

constexpr int64_t LOG_EVERY_S = 60;
constexpr int SOURCES = 16; // sources remembered for rate limiting

struct source {
    in6_addr addr{}; // IPv4 as mapped
    hbtick_t logged = 0;
    uint64_t pending = 0; // refused since the last line
    bool used = false;
};

std::array<uint64_t, HBEXT_REFUSED_COUNT> counts{};
std::array<source, SOURCES> sources;
uint32_t kerneldrops0 = 0; // the socket's drop count at the receiver's start

in6_addr key(const sockaddr *from)
{
    in6_addr a{};
    if (from->sa_family == AF_INET6) {
        a = reinterpret_cast<const sockaddr_in6 *>(from)->sin6_addr;
    } else {
        a.s6_addr[10] = a.s6_addr[11] = 0xff;
        std::memcpy(a.s6_addr + 12, &reinterpret_cast<const sockaddr_in *>(from)->sin_addr, 4);
    }
    return a;
}

void publish()
{
    // Logged once: a datagram's refusal must never write to the log unkeyed.
    static bool failed = false;
    const int32_t r = hbext_setrefused(counts.data());
    if (r != 0 && !failed)
        HBLOG(HBLOG_LAN, HBLV_DETAIL, "hbext_setrefused() failed(ret:%d)", r);
    failed = r != 0;
}

} // namespace

void lanhb_refused(int32_t reason, const struct sockaddr *from)
{
    if (reason < 1 || reason > HBEXT_REFUSED_COUNT)
        return;
    ++counts[static_cast<size_t>(reason - 1)];
    publish();
    // Without a key a refusal stays silent in the log, as the receiver has
    // always done; only the counters tell.
    if (!lanhb_keyed())
        return;

    const in6_addr a = key(from);
    const hbtick_t now = hbtick_now();
    source *s = nullptr;
    source *oldest = &sources[0];
    for (source &c : sources) {
        if (c.used && std::memcmp(&c.addr, &a, sizeof a) == 0) {
            s = &c;
            break;
        }
        if (!c.used || (oldest->used && c.logged < oldest->logged))
            oldest = &c;
    }
    const hbtick_t every = static_cast<hbtick_t>(LOG_EVERY_S * tckconf);
    if (s == nullptr) {
        s = oldest;
        *s = source{a, now - every, 0, true};
    }
    ++s->pending;
    if (now - s->logged < every)
        return;
    char text[INET6_ADDRSTRLEN] = "?";
    if (IN6_IS_ADDR_V4MAPPED(&a))
        inet_ntop(AF_INET, a.s6_addr + 12, text, sizeof text);
    else
        inet_ntop(AF_INET6, &a, text, sizeof text);
    HBLOG(HBLOG_LAN, HBLV_WARN, "refused %llu datagram(s) from %s: %s (%s)", static_cast<unsigned long long>(s->pending),
          text, HBEXT_REFUSED_NAMES[reason - 1], WHY[reason - 1]);
    s->pending = 0;
    s->logged = now;
}

namespace {

// The socket's count of datagrams the kernel dropped for it: refused by its
// filter or arriving at a full queue.
bool kerneldrops(int fd, uint32_t *drops)
{
    uint32_t mem[SK_MEMINFO_VARS] = {};
    socklen_t len = sizeof mem;
    if (getsockopt(fd, SOL_SOCKET, SO_MEMINFO, mem, &len) != 0 || len <= SK_MEMINFO_DROPS * sizeof(uint32_t))
        return false;
    *drops = mem[SK_MEMINFO_DROPS];
    return true;
}

} // namespace

void lanhb_refusedstart(int fd)
{
    counts.fill(0);
    sources.fill(source{});
    kerneldrops0 = 0;
    (void)kerneldrops(fd, &kerneldrops0);
    publish();
}

void lanhb_refusedsync(int fd)
{
    uint32_t drops = 0;
    if (kerneldrops(fd, &drops))
        counts[LANHB_REFUSE_FILTER - 1] = static_cast<uint32_t>(drops - kerneldrops0);
    publish();
}
