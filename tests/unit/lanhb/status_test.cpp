// Heartbeats and down packets into node and path states, and time-outs.
#include <random>

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

} // namespace
