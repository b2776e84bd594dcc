// Counters and rate-limited log lines of refused datagrams. Everything here
// runs on the receiver thread; the platform gets copies of the counters.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include <linux/sock_diag.h>

#include "frame/frame.h"
#include "lanhb/key.h"
#include "services/hbext.h"

namespace {

constexpr const char *WHY[HBEXT_REFUSED_COUNT] = {
    "wrong length or tag", "unknown path, node or address", "code does not verify: other key or none",
    "accepted once already", "dropped in the kernel", "outside the clock window or from before this start"};

constexpr int64_t LOG_EVERY_S = 60;
constexpr int SOURCES = 16; // sources remembered for rate limiting

struct source {
    in6_addr addr{}; // IPv4 as mapped
    hbtick_t logged = 0;
    std::array<uint64_t, HBEXT_REFUSED_COUNT> pending{}; // refused since the last line, by reason
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

void lanhb_refused(int32_t reason, const struct sockaddr *from, const hbtick_t *batch)
{
    if (reason < 1 || reason > HBEXT_REFUSED_COUNT)
        return;
    ++counts[static_cast<size_t>(reason - 1)];
    if (batch == nullptr)
        publish();
    // Without a key a refusal stays silent in the log, as the receiver has
    // always done; only the counters tell.
    if (!lanhb_keyed())
        return;

    const in6_addr a = key(from);
    const hbtick_t t = batch != nullptr ? *batch : hbtick_now();
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
        *s = source{a, t - every, {}, true};
    }
    ++s->pending[static_cast<size_t>(reason - 1)];
    if (t - s->logged < every)
        return;
    char text[INET6_ADDRSTRLEN] = "?";
    if (IN6_IS_ADDR_V4MAPPED(&a))
        inet_ntop(AF_INET, a.s6_addr + 12, text, sizeof text);
    else
        inet_ntop(AF_INET6, &a, text, sizeof text);
    // Every reason since the last line with its own count.
    uint64_t total = 0;
    char why[512] = "";
    size_t at = 0;
    for (size_t k = 0; k < s->pending.size(); ++k) {
        if (s->pending[k] == 0)
            continue;
        total += s->pending[k];
        const int n = std::snprintf(why + at, sizeof why - at, "%s%s %llu (%s)", at == 0 ? "" : ", ",
                                    HBEXT_REFUSED_NAMES[k], static_cast<unsigned long long>(s->pending[k]), WHY[k]);
        at = std::min(sizeof why - 1, at + static_cast<size_t>(std::max(n, 0)));
    }
    HBLOG(HBLOG_LAN, HBLV_WARN, "refused %llu datagram(s) from %s: %s", static_cast<unsigned long long>(total), text,
          why);
    s->pending.fill(0);
    s->logged = t;
}

void lanhb_refusedpublish() { publish(); }

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
