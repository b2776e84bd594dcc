// Shared set-up of the LAN heartbeat tests: a small cluster, its table, and
// loopback helpers.
#pragma once

#include <arpa/inet.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "lanhb/key.h"
#include "lanhb/lanhb.h"
#include "unit/unit.h"

namespace lanhbtest {

using namespace unit;
using list_ptr = std::unique_ptr<lanhb_list, void (*)(lanhb_list *)>;
using bytes = std::vector<unsigned char>;

struct LanTest : FrameTest {
    void TearDown() override { lanhb_keyset(nullptr), lanhb_reset(), FrameTest::TearDown(); }
};

// node1 (this host, pri 1) and node2 (pri 2) on the path lan1 (pri 10,
// device 0); a null address leaves the node without one on the path.
inline void cluster(const char *ip1 = "127.0.0.1", const char *ip2 = "198.18.0.2")
{
    fake::add_node("node1", 1);
    fake::add_node("node2", 2);
    fake::add_rsc(HB_KIND_LANHB, "lan1", 10);
    fake::set_key("/root/heartbeat/lanhb@lan1/device", "0");
    for (auto [node, ip] : {std::pair{"node1", ip1}, {"node2", ip2}})
        if (ip != nullptr)
            fake::set_key(std::string("/root/server@") + node + "/device@0/info", ip);
}

// A failed load ends the test with its code instead of a null table.
inline list_ptr load()
{
    lanhb_list *list = nullptr;
    if (const int32_t r = lanhb_loadinfo(&list); r != 0)
        throw std::runtime_error("lanhb_loadinfo() returned " + std::to_string(r));
    return {list, lanhb_freelist};
}

inline bool lanlog(const std::string &text) { return fake::has_log(HB_KIND_LANHB, text); }
inline int lancount(const std::string &text) { return fake::count_log(HB_KIND_LANHB, text); }

// The socket calls' view of an address.
inline sockaddr *sap(void *p) { return static_cast<sockaddr *>(p); }
inline const sockaddr *sap(const void *p) { return static_cast<const sockaddr *>(p); }

inline sockaddr_storage addr(const char *text)
{
    sockaddr_storage ss{};
    ss.ss_family = std::strchr(text, ':') != nullptr ? AF_INET6 : AF_INET;
    void *bin = ss.ss_family == AF_INET6 ? static_cast<void *>(&reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_addr)
                                         : &reinterpret_cast<sockaddr_in *>(&ss)->sin_addr;
    EXPECT_EQ(inet_pton(ss.ss_family, text, bin), 1) << text;
    return ss;
}

// lanhb_accept's verdict on `count` bytes of `dgram` from `from`, in a buffer of
// `len` + 1 bytes; *node is the matched entry.
inline int32_t verdict(lanhb_list *list, bytes dgram, size_t count, size_t len, const char *from, bool v6,
                       lanhb_node **node = nullptr)
{
    dgram.resize(len + 1);
    const sockaddr_storage sa = addr(from);
    lanhb_rsc *rsc = nullptr;
    lanhb_node *n = nullptr;
    const int32_t r = lanhb_accept(list, reinterpret_cast<lanhb_packet *>(dgram.data()), ssize_t(count), len, sap(&sa), v6,
                                   &rsc, node ? node : &n);
    EXPECT_TRUE(r != 0 || rsc == lanhb_rscat(list, 0));
    return r;
}

// A UDP port that was free a moment ago, for IPv4 and IPv6; the socket is
// left bound when `keep` is given.
inline uint16_t freeport(int *keep = nullptr)
{
    const int fd = socket(AF_INET6, SOCK_DGRAM, 0), off = 0;
    setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    sockaddr_in6 sa{.sin6_family = AF_INET6, .sin6_port = 0, .sin6_flowinfo = 0, .sin6_addr = {}, .sin6_scope_id = 0};
    socklen_t len = sizeof sa;
    EXPECT_EQ(bind(fd, sap(&sa), sizeof sa), 0);
    getsockname(fd, sap(&sa), &len);
    keep != nullptr ? void(*keep = fd) : void(close(fd));
    return ntohs(sa.sin6_port);
}

// A table on a free loopback port at the real clock rate.
struct LoopTest : LanTest {
    list_ptr list{nullptr, lanhb_freelist};
    uint16_t port = 0;
    void loop(const char *ip2)
    {
        tckconf = sysconf(_SC_CLK_TCK);
        port = freeport();
        cluster("127.0.0.1", ip2);
        fake::set_key("/root/cluster/heartbeat/port/recv", std::to_string(port));
        list = load();
    }
};

// How a thread ended: "canceled" or its exit text.
inline std::string join(pthread_t th)
{
    void *ret = exitvalue(th);
    return ret == PTHREAD_CANCELED ? "canceled" : static_cast<const char *>(ret);
}

} // namespace lanhbtest
