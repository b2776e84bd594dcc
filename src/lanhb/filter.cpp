// The receive socket's kernel side: its buffer size and, with a key, a
// classic BPF filter that drops what no member could have sent before it
// takes queue space or a wake-up of the receiver.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "frame/frame.h"
#include "lanhb/key.h"

namespace {

// Room for a burst: every peer's down packets at once. 32 nodes x 16 paths x
// 5 bursts is 2560 datagrams, each costing about 1.5 KiB of buffer (payload
// plus socket buffer overhead), some 4 MiB. The default (about 208 KiB) holds
// only ~140 and lets a short junk burst push genuine heartbeats out.
constexpr int RCVBUF_BYTES = 4 * 1024 * 1024;

constexpr int BPF_MAX = 4096; // the kernel's limit per program

struct addrset {
    std::vector<uint32_t> v4;                 // host order, as BPF loads them
    std::vector<std::array<uint32_t, 4>> v6; // the same, word by word
};

// Every address a node entry of the table can send from.
addrset addresses(const lanhb_list *list)
{
    addrset out;
    auto *l = const_cast<lanhb_list *>(list);
    for (int32_t i = 0; i < list->currsc; ++i) {
        for (int32_t j = 0; j < list->curnode; ++j) {
            char ip[LANHB_NAME_SIZE];
            lanhb_ipnozone(lanhb_nodeat(lanhb_rscat(l, i), j)->ip, ip);
            in_addr a4{};
            in6_addr a6{};
            if (inet_pton(AF_INET, ip, &a4) == 1) {
                const uint32_t w = ntohl(a4.s_addr);
                if (std::find(out.v4.begin(), out.v4.end(), w) == out.v4.end())
                    out.v4.push_back(w);
            } else if (inet_pton(AF_INET6, ip, &a6) == 1) {
                std::array<uint32_t, 4> w{};
                for (int k = 0; k < 4; ++k) {
                    uint32_t be = 0;
                    std::memcpy(&be, a6.s6_addr + 4 * k, 4);
                    w[static_cast<size_t>(k)] = ntohl(be);
                }
                if (std::find(out.v6.begin(), out.v6.end(), w) == out.v6.end())
                    out.v6.push_back(w);
            }
        }
    }
    return out;
}

sock_filter stmt(uint16_t code, uint32_t k) { return sock_filter{code, 0, 0, k}; }
sock_filter jump(uint16_t code, uint32_t k, uint8_t jt, uint8_t jf) { return sock_filter{code, jt, jf, k}; }

} // namespace

int lanhb_filterbuild(const lanhb_list *list, size_t wirelen, size_t altlen, sock_filter *prog, int max)
{
    const addrset a = addresses(list);
    std::vector<sock_filter> p;
    // The packet seen by a UDP socket's filter starts at the UDP header; the
    // IP header is reached through SKF_NET_OFF.
    p.push_back(stmt(BPF_LD | BPF_W | BPF_LEN, 0));
    p.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(wirelen + 8), 2, 0));
    p.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>((altlen != 0 ? altlen : wirelen) + 8), 1, 0));
    p.push_back(stmt(BPF_RET | BPF_K, 0));
    p.push_back(stmt(BPF_LD | BPF_B | BPF_ABS, static_cast<uint32_t>(SKF_NET_OFF)));
    p.push_back(stmt(BPF_ALU | BPF_AND | BPF_K, 0xf0));
    // IPv4 (mapped IPv4 peers arrive as IPv4): the source word at offset 12.
    p.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, 0x40, 0, static_cast<uint8_t>(1 + 2 * a.v4.size() + 1)));
    p.push_back(stmt(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(SKF_NET_OFF + 12)));
    std::vector<size_t> topass; // ja instructions to patch to the pass return
    for (uint32_t w : a.v4) {
        p.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, w, 0, 1));
        topass.push_back(p.size());
        p.push_back(stmt(BPF_JMP | BPF_JA, 0));
    }
    std::vector<size_t> todrop;
    todrop.push_back(p.size());
    p.push_back(stmt(BPF_JMP | BPF_JA, 0));
    // IPv6: the source at offset 8, four words; a mismatch skips to the next.
    p.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, 0x60, 0, static_cast<uint8_t>(9 * a.v6.size())));
    for (const auto &w : a.v6) {
        for (int k = 0; k < 4; ++k) {
            p.push_back(stmt(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(SKF_NET_OFF + 8 + 4 * k)));
            // Jump over the remaining loads and tests of this address and its ja.
            p.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, w[static_cast<size_t>(k)], 0,
                             static_cast<uint8_t>(2 * (3 - k) + 1)));
        }
        topass.push_back(p.size());
        p.push_back(stmt(BPF_JMP | BPF_JA, 0));
    }
    const size_t drop = p.size();
    p.push_back(stmt(BPF_RET | BPF_K, 0));
    const size_t pass = p.size();
    p.push_back(stmt(BPF_RET | BPF_K, 0xffffffffU));
    for (size_t at : topass)
        p[at].k = static_cast<uint32_t>(pass - at - 1);
    for (size_t at : todrop)
        p[at].k = static_cast<uint32_t>(drop - at - 1);
    if (p.size() > static_cast<size_t>(std::min(max, BPF_MAX)) || 2 * a.v4.size() + 2 > 255 ||
        9 * a.v6.size() > 255)
        return 0;
    std::copy(p.begin(), p.end(), prog);
    return static_cast<int>(p.size());
}

void lanhb_socksetup(const lanhb_list *list, int fd)
{
    const int size = RCVBUF_BYTES;
    // FORCE passes the system's rmem_max for a privileged daemon; otherwise
    // the plain option gets what the limit allows.
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0 &&
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0)
        HBLOG(HBLOG_LAN, HBLV_WARN, "setsockopt(SO_RCVBUF,%d) failed(errno:%d)", size, errno);
    // The kernel reports twice what it grants (bookkeeping included).
    int got = 0;
    socklen_t len = sizeof got;
    if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &got, &len) == 0 && got / 2 < size)
        HBLOG(HBLOG_LAN, HBLV_WARN, "receive buffer %d bytes, not %d: limited by net.core.rmem_max", got / 2, size);
    if (!lanhb_keyed())
        return;
    std::vector<sock_filter> prog(BPF_MAX);
    const int n = lanhb_filterbuild(list, lanhb_wirelen(list->maxnode),
                                    lanhb_keyunsigned() ? lanhb_pktlen(list->maxnode) : 0, prog.data(), BPF_MAX);
    sock_fprog fp{static_cast<unsigned short>(n), prog.data()};
    if (n == 0)
        HBLOG(HBLOG_LAN, HBLV_WARN, "socket filter: too many addresses; datagrams are checked in the daemon only");
    else if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &fp, sizeof fp) != 0)
        HBLOG(HBLOG_LAN, HBLV_WARN, "setsockopt(SO_ATTACH_FILTER) failed(errno:%d)", errno);
    else
        HBLOG(HBLOG_LAN, HBLV_DETAIL, "socket filter: %d instructions", n);
}
