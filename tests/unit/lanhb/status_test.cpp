// Received datagrams: which are accepted for which node entry (addresses are
// only compared, nothing is sent), what heartbeats and down packets do to node
// and path states, and time-outs; and the datagram's bytes as they are sent.
#include <random>
#include <tuple>

#include "lanhb_test.h"

using namespace lanhbtest;

namespace {

using texts = std::vector<std::string>;

struct StatusTest : LanTest {
    list_ptr list{nullptr, lanhb_freelist};
    lanhb_rsc *rsc = nullptr;
    lanhb_node *own = nullptr, *peer = nullptr;
    bytes hb, down;

    void SetUp() override
    {
        LanTest::SetUp();
        hbtick_source = fakenow, now = 1000;
        cluster();
        list = load();
        rsc = lanhb_getrsc(list.get(), 0), own = lanhb_rscnode(rsc, 0), peer = lanhb_rscnode(rsc, 1);
        for (auto [buf, tag] : {std::pair{&hb, LANHB_TAG_HB}, {&down, LANHB_TAG_DOWN}})
            buf->resize(lanhb_pktlen(list->maxnode)), lanhb_pktinit(pkt(*buf), list.get(), tag);
        fake::clear_calls();
    }
    static lanhb_packet *pkt(bytes &b) { return reinterpret_cast<lanhb_packet *>(b.data()); }
    void beat(lanhb_node *n, bytes &b) { lanhb_hbdata(list.get(), rsc, n, pkt(b)); }
    void online(lanhb_node *n, hbtick_t at) { now = at, beat(n, hb), fake::clear_calls(); }
    // Node and path states published, and wake-ups.
    static texts published()
    {
        texts out;
        for (const auto &c : fake::calls())
            if (c.op == "shmnm_setrscsvstat" || c.op == "shmnm_setrscstat" || c.op == "sem_set_statchange")
                out.push_back(c.op + "(" + c.args + ")");
        return out;
    }
};

TEST_F(StatusTest, HeartbeatBringsNodeOnlineOnceWhenHdstatAllows)
{
    fake::set_hdstat("node2", 2);
    beat(peer, hb);
    EXPECT_TRUE(published().empty());
    EXPECT_TRUE(fake::has_log(HB_KIND_CNTHB, " *** lan1/node(node2(2)) : ONLINE SKIP hdstat=2 ***"));
    fake::fail("shmnm_gethdstat", 5); // unreadable counts as 1
    beat(peer, hb);
    const texts first = {"shmnm_setrscsvstat(lanhb,lan1,2,1)", "shmnm_setrscstat(lanhb,lan1,4)", "sem_set_statchange()"};
    EXPECT_EQ(published(), first);
    EXPECT_TRUE(lanlog(" *** lan1/node(node2(2)) : ONLINE ***"));
    now = 1500;
    beat(peer, hb); // already ONLINE: only the stamp moves
    EXPECT_EQ(published(), first);
    EXPECT_EQ(peer->lastrecv, 1500u);
    beat(own, hb);
    EXPECT_EQ(rsc->stat, SHMNM_RSCSTAT_NORMAL);
}

TEST_F(StatusTest, DownPacketTakesNodeOfflineUnlessItAlreadyIs)
{
    beat(peer, down);
    EXPECT_TRUE(published().empty());
    beat(own, hb);
    online(peer, 1000);
    now = 5000;
    std::memcpy(pkt(down)->tag, "hbdownX", 7); // only six bytes count
    beat(peer, down);
    EXPECT_TRUE(lanlog("DOWNPACKET recv(lan1,node2(2))"));
    EXPECT_EQ(published(), (texts{"shmnm_setrscsvstat(lanhb,lan1,2,2)", "shmnm_setrscstat(lanhb,lan1,3)",
                                  "sem_set_statchange()"}));
    EXPECT_EQ(peer->lastrecv, 1000u);
}

// For stamps around the counter's wrap and silences around the limit (90 s
// at 100 ticks a second; the ratio's scaling is the frame's, tested there):
// OFFLINE exactly when the unsigned silence exceeds the limit.
TEST_F(StatusTest, OfflineExactlyWhenTheSilenceExceedsTheLimit)
{
    std::mt19937_64 rng(15);
    for (int i = 0; i < 300; ++i) {
        const hbtick_t last = hbtick_t(0) - 10000 + rng() % 20000, silence = 8998 + rng() % 5;
        reload();
        online(peer, last);
        now = last + silence;
        lanhb_hbcheck(list.get());
        ASSERT_EQ(peer->stat, silence > 9000 ? SHMNM_SVSTAT_OFFLINE : SHMNM_SVSTAT_ONLINE) << last << "+" << silence;
        ASSERT_EQ(fake::svstat(HB_KIND_LANHB, "lan1", 2), peer->stat);
        ASSERT_EQ(fake::statchange_count(), silence > 9000 ? 2 : 1); // the first for ONLINE
    }
    online(peer, 100);
    now = 100 + 9001;
    lanhb_hbcheck(list.get());
    EXPECT_TRUE(lanlog("**TIMEOUT(cur:0x0000238d,last:0x00000064,diff:9001,hbto:90,tck:100/sec)"));
    EXPECT_TRUE(lanlog(" *** lan1/node(node2(2)) : OFFLINE ***"));
}

TEST_F(StatusTest, SeveralTimeoutsInOnePassWakeOnce)
{
    reload(), cluster(), fake::add_rsc(HB_KIND_LANHB, "lan2", 11);
    fake::set_key("/root/heartbeat/lanhb@lan2/device", "1");
    fake::set_key("/root/server@node2/device@1/info", "198.18.1.2");
    list = load();
    for (int i : {0, 1})
        rsc = lanhb_getrsc(list.get(), i), online(lanhb_rscnode(rsc, 1), 0);
    lanhb_getnode(list.get(), 1, 0)->stat = SHMNM_SVSTAT_UNUSED; // never tested
    now = 100000;
    lanhb_hbcheck(list.get());
    EXPECT_EQ(fake::count("shmnm_setrscstat"), 2);
    EXPECT_EQ(fake::count("sem_set_statchange"), 1);
    EXPECT_EQ(lanhb_getnode(list.get(), 1, 0)->stat, SHMNM_SVSTAT_UNUSED);
}

using PacketTest = LanTest;

bytes build(lanhb_list *list, bool named)
{
    bytes buf(lanhb_pktlen(list->maxnode), 0xEE);
    auto *pkt = reinterpret_cast<lanhb_packet *>(buf.data());
    lanhb_pktinit(pkt, list, LANHB_TAG_HB);
    lanhb_pktnodeinf(pkt, list, named);
    lanhb_pktrsc(pkt, lanhb_getrsc(list, 0));
    return buf;
}

TEST_F(StatusTest, GoldenImage)
{
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

} // namespace
