// The datagram: its bytes as they are sent, and which received ones are
// accepted for which node entry (addresses are only compared, nothing is
// sent); what it does to the states is the node-state layer's test.
#include <fstream>
#include <tuple>

#include "lanhb_test.h"

using namespace lanhbtest;

namespace {

using PacketTest = LanTest;

bytes build(lanhb_list *list, bool named)
{
    bytes buf(lanhb_pktlen(list->maxnode), 0xEE);
    auto *pkt = reinterpret_cast<lanhb_packet *>(buf.data());
    lanhb_pktinit(pkt, list, LANHB_TAG_HB);
    lanhb_pktnodeinf(pkt, list, named);
    lanhb_pktrsc(pkt, lanhb_rscat(list, 0));
    return buf;
}

TEST_F(PacketTest, GoldenImage)
{
    cluster();
    list_ptr list = load();
    fake::set_nodestat("node1", 3);
    fake::fail_on("shmnm_getnodestat", "node2", 7);
    bytes want(576, 0);
    for (auto [off, val] : std::initializer_list<std::pair<size_t, bytes>>{
             {0, {'l', 'a', 'n', 'h', 'b'}}, {8, {'E', '1'}}, {24, {'1', '.', '0'}},
             {300, {0, 0, 0, 1}},  // nodepri
             {304, {0, 0, 0, 10}}, // rscpri
             {308, {0, 0, 0, 4}},  // rscstat: ERROR, this node not yet heard
             {316, {0, 0, 1, 0}},  // nodelen 256
             {320, {0, 0, 0, 1, 0, 0, 0, 3}},
             {328, {0, 0, 0, 2, 0, 0, 0, 9}}}) // state unreadable
        std::copy(val.begin(), val.end(), want.begin() + static_cast<long>(off));
    EXPECT_EQ(build(list.get(), true), want);
    EXPECT_TRUE(lanlog("shmnm_getnodestat() failed(ret:7)"));

    fake::fail_on("shmnm_getnodepri", "node2", 6); // an unreadable priority: -1
    const bytes got = build(list.get(), false);
    EXPECT_EQ(bytes(got.begin() + 328, got.begin() + 336), (bytes{0xff, 0xff, 0xff, 0xff, 0, 0, 0, 9}));
    EXPECT_TRUE(lanlog("shmnm_getnodepri() failed(ret:6)"));

    list->maxnode = 1; // never more entries than maxnode
    const bytes small = build(list.get(), true);
    ASSERT_EQ(small.size(), 328u);
    EXPECT_EQ(small[319], 8); // nodelen
}

TEST_F(PacketTest, Acceptance)
{
    cluster("127.0.0.1", "198.18.0.7");
    fake::add_node("node3", 3);
    fake::add_node("node4", 4);
    fake::set_key("/root/server@node3/device@0/info", "FE80:0:0:0:0:0:0:1%net0");
    fake::set_key("/root/server@node4/device@0/info", "2001:db8::4/64");
    list_ptr list = load();
    // tag, bytes short of the length, path and node numbers, source, IPv6 mode, accepted
    const std::tuple<const char *, int, int32_t, int32_t, const char *, bool, bool> cases[] = {
        {"lanhb", 0, 10, 2, "198.18.0.7", false, true},        {"lanhbX", 0, 10, 2, "198.18.0.7", false, true},
        {"hbdownX", 0, 10, 2, "198.18.0.7", false, true},      {"LANHB", 0, 10, 2, "198.18.0.7", false, false},
        {"hbdow", 0, 10, 2, "198.18.0.7", false, false},       {"lanhb", 1, 10, 2, "198.18.0.7", false, false},
        {"lanhb", -1, 10, 2, "198.18.0.7", false, false},      {"lanhb", 0, 11, 2, "198.18.0.7", false, false},
        {"lanhb", 0, 10, 9, "198.18.0.7", false, false},       {"lanhb", 0, 10, 2, "198.18.0.8", false, false},
        {"lanhb", 0, 10, 2, "::ffff:198.18.0.7", true, true},  {"lanhb", 0, 10, 3, "fe80::1", true, true},
        {"lanhb", 0, 10, 3, "fe80::2", true, false},          {"lanhb", 0, 10, 4, "2001:db8::4", true, true},
        {"lanhb", 0, 10, 4, "2001:db8::4", false, false}, // IPv6 address, IPv4 receiver
        {"lanhb", 0, 10, 1, "::ffff:127.0.0.1", true, true},
    };
    const size_t len = lanhb_pktlen(list->maxnode);
    for (const auto &[tag, shorter, rscpri, nodepri, from, v6, accepted] : cases) {
        SCOPED_TRACE(std::string(tag) + " " + std::to_string(nodepri) + " " + from + " " + std::to_string(shorter));
        bytes buf(len);
        auto *pkt = reinterpret_cast<lanhb_packet *>(buf.data());
        lanhb_pktinit(pkt, list.get(), "");
        std::memcpy(pkt->tag, tag, std::strlen(tag));
        pkt->rscpri = static_cast<int32_t>(htonl(rscpri));
        pkt->nodepri = static_cast<int32_t>(htonl(nodepri));
        lanhb_node *node = nullptr;
        const bool ok = verdict(list.get(), buf, len - size_t(shorter), len, from, v6, &node) == 0;
        EXPECT_EQ(ok, accepted);
        EXPECT_TRUE(!ok || node->pri == nodepri);
    }
}

// A burst from many peers waits in the receive socket, read one datagram a
// pass: it holds megabytes, or all the system allows an unprivileged daemon.
TEST_F(PacketTest, ReceiveSocketHoldsABurst)
{
    cluster();
    list_ptr list = load();
    const int fd = socket(AF_INET6, SOCK_DGRAM, 0);
    lanhb_socksetup(list.get(), fd);
    int got = 0, rmem = 0;
    socklen_t len = sizeof got;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &got, &len), 0);
    close(fd);
    std::ifstream("/proc/sys/net/core/rmem_max") >> rmem;
    EXPECT_GE(got / 2, std::min(rmem, 4 << 20)) << rmem;
}

} // namespace
