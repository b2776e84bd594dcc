// Status evaluation and the time-out check: records turned into node states,
// the path rule, failed firmware calls and silent nodes.
#include <cstring>
#include <string>

#include "cnthb_test.h"

using namespace cnthbtest;

namespace {

struct StatusTest : CntTest {
    void SetUp() override
    {
        CntTest::SetUp();
        hbtick_source = fakenow;
    }
    // node1 is this host (pri 1, slot 0), node2 the peer (pri 2, slot 1).
    void build(int paths = 1, uint8_t cntno = 0)
    {
        cluster(paths);
        list = load("node1", cntno);
        ASSERT_TRUE(list);
        fake::clear_calls();
    }
    cnthb_rsc *rsc(int i = 0) { return cnthb_rscat(list.get(), i); }
    cnthb_node *node(int j, int i = 0) { return cnthb_nodeat(rsc(i), j); }
    int32_t feed(int j, const char *tag, const char *stamp, int i = 0)
    {
        cnthb_hbinf rec = record(tag, stamp);
        return cnthb_hbdata(list.get(), rsc(i), node(j, i), &rec);
    }
    // Brings a node online the way the reader does: two different records.
    void online(int j, int i = 0)
    {
        feed(j, "cnthb", "prime", i);
        feed(j, "cnthb", "first", i);
        ASSERT_EQ(nodestat(node(j, i)), SHMNM_SVSTAT_ONLINE);
    }
    static int gapwarnings()
    {
        int n = 0;
        for (const auto &r : fake::logs_of(HB_KIND_CNTHB))
            n += r.level == LOG_LEVEL_CATALOG && r.msgno == LOG_MSG_HBGAP;
        return n;
    }
    list_ptr list;
};

TEST_F(StatusTest, ChangedStampBringsANodeOnlineAfterTheFirstRecordPrimes)
{
    build();
    EXPECT_EQ(feed(1, "cnthb", "s1"), 0);
    EXPECT_EQ(nodestat(node(1)), SHMNM_SVSTAT_OFFLINE); // only primed
    EXPECT_STREQ(node(1)->lastrec.stamp, "s1");
    now = 2000;
    feed(1, "cnthb", "s1"); // the same stamp: nothing, not even lastread
    EXPECT_EQ(node(1)->lastread, 0u);
    EXPECT_EQ(fake::count("shmnm_setrscsvstat"), 0);

    feed(1, "cnthb", "s2");
    EXPECT_EQ(nodestat(node(1)), SHMNM_SVSTAT_ONLINE);
    EXPECT_EQ(svstat("cnt1", 2), SHMNM_SVSTAT_ONLINE);
    EXPECT_EQ(node(1)->lastread, 2000u);
    EXPECT_TRUE(cntlog(" *** cnt1/node(node2(2)) : ONLINE ***"));
    EXPECT_EQ(rsc()->stat, SHMNM_RSCSTAT_ERROR); // this node is still offline
    EXPECT_EQ(fake::statchange_count(), 1);

    online(0);
    EXPECT_EQ(rsc()->stat, SHMNM_RSCSTAT_NORMAL);
    EXPECT_EQ(fake::rscstat(HB_KIND_CNTHB, "cnt1"), SHMNM_RSCSTAT_NORMAL);
    EXPECT_EQ(fake::statchange_count(), 2);
}

TEST_F(StatusTest, NodeOnlineInSharedMemoryOnlyHasItsGapTimed)
{
    build();
    list->hbto = 1000; // limit 100 ticks, warning from 80
    online(1);
    const int changes = fake::statchange_count();
    const int onlines = cntcount(": ONLINE ***");
    now = 1000 + 90;
    feed(1, "cnthb", "next");
    EXPECT_EQ(node(1)->lastread, 1090u);
    EXPECT_EQ(fake::statchange_count(), changes);
    EXPECT_EQ(cntcount(": ONLINE ***"), onlines);
    EXPECT_EQ(gapwarnings(), 1);
    auto gap = fake::find_log(HB_KIND_CNTHB, "delay(71)");
    ASSERT_TRUE(gap);
    EXPECT_EQ(gap->node, "node2");
    EXPECT_EQ(gap->elapsed, 90u);
}

TEST_F(StatusTest, NodeStatusDecidesWhetherANodeMayComeOnline)
{
    build();
    fake::set_hdstat("node2", 2);
    now = 3000;
    online(0);
    feed(1, "cnthb", "a");
    feed(1, "cnthb", "b");
    EXPECT_TRUE(cntlog(" *** cnt1/node(node2(2)) : ONLINE SKIP hdstat=2 ***"));
    EXPECT_EQ(nodestat(node(1)), SHMNM_SVSTAT_OFFLINE);
    EXPECT_EQ(node(1)->lastread, 3000u); // the record was new all the same

    // An unreadable node status does not keep a node out.
    fake::fail_on("shmnm_gethdstat", "node2", 5);
    feed(1, "cnthb", "c");
    EXPECT_TRUE(cntlog("shmnm_gethdstat(cnt1/node(node2(2))) failed(ret:5)"));
    EXPECT_EQ(nodestat(node(1)), SHMNM_SVSTAT_ONLINE);
}

TEST_F(StatusTest, DownNoticeTakesANodeOfflineAtOnce)
{
    build();
    online(1);
    const int changes = fake::statchange_count();
    feed(1, "hbdown", "Tue Nov 14 22:13:20 2023");
    EXPECT_TRUE(cntlog("DOWNPACKET read(cnt1,node2(2))"));
    EXPECT_TRUE(cntlog(" *** cnt1/node(node2(2)) : OFFLINE ***"));
    EXPECT_EQ(nodestat(node(1)), SHMNM_SVSTAT_OFFLINE);
    EXPECT_EQ(svstat("cnt1", 2), SHMNM_SVSTAT_OFFLINE);
    EXPECT_EQ(node(1)->lastrec.tag[0], '\0');
    EXPECT_EQ(fake::statchange_count(), changes + 1);

    // The next record only primes again: one more is needed to come back.
    feed(1, "cnthb", "back1");
    EXPECT_EQ(nodestat(node(1)), SHMNM_SVSTAT_OFFLINE);
    feed(1, "cnthb", "back2");
    EXPECT_EQ(nodestat(node(1)), SHMNM_SVSTAT_ONLINE);
}

TEST_F(StatusTest, DownNoticeForANodeAlreadyOfflineIsOnlyKept)
{
    build();
    feed(1, "cnthb", "s1");
    feed(1, "hbdown", "d1");
    EXPECT_EQ(cntcount("DOWNPACKET"), 0);
    EXPECT_EQ(fake::statchange_count(), 0);
    EXPECT_STREQ(node(1)->lastrec.tag, "hbdown");
    EXPECT_STREQ(node(1)->lastrec.stamp, "d1");
}

TEST_F(StatusTest, RecordWithoutTagIsIgnored)
{
    build();
    feed(1, "cnthb", "s1");
    EXPECT_EQ(feed(1, "", "s2"), 8);
    EXPECT_EQ(feed(1, "cnthbz", "s3"), 8);
    EXPECT_STREQ(node(1)->lastrec.stamp, "s1");
    EXPECT_EQ(fake::count("shmnm_getrscsvstat"), 0);
}

TEST_F(StatusTest, PathStateFollowsItsNodes)
{
    build();
    constexpr int32_t ON = SHMNM_SVSTAT_ONLINE, OFF = SHMNM_SVSTAT_OFFLINE, UNK = SHMNM_SVSTAT_UNKNOWN,
                      UNU = SHMNM_SVSTAT_UNUSED;
    struct Case {
        int32_t own, peer, ownpri, expect;
        const char *line;
    };
    const Case cases[] = {
        {ON, ON, 1, SHMNM_RSCSTAT_NORMAL, " *** cnt1 : NORMAL ***"},
        {OFF, ON, 1, SHMNM_RSCSTAT_ERROR, " *** cnt1 : ERROR ***"},
        {UNK, ON, 1, SHMNM_RSCSTAT_ERROR, " *** cnt1 : ERROR ***"},
        {ON, OFF, 1, SHMNM_RSCSTAT_CAUTION, " *** cnt1 : CAUTION ***"},
        {ON, UNK, 1, SHMNM_RSCSTAT_CAUTION, " *** cnt1 : CAUTION ***"},
        {OFF, OFF, 1, SHMNM_RSCSTAT_ERROR, " *** cnt1 : ERROR ***"}, // ERROR outranks CAUTION
        {ON, OFF, 2, SHMNM_RSCSTAT_ERROR, " *** cnt1 : ERROR ***"},  // own by priority, not position
        {ON, UNU, 1, SHMNM_RSCSTAT_NORMAL, " *** cnt1 : NORMAL ***"},
        {UNU, UNU, 1, SHMNM_RSCSTAT_UNUSED, " *** cnt1 : UNUSED ***"},
        {0, UNU, 1, SHMNM_RSCSTAT_UNUSED, " *** cnt1 : UNUSED ***"},
        {0, 0, 1, SHMNM_RSCSTAT_UNKNOWN, " *** cnt1 : UNKNOWN ***"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.own) + "/" + std::to_string(c.peer) + " ownpri " + std::to_string(c.ownpri));
        fake::reset();
        loginit();
        node(0)->stat = c.own;
        node(1)->stat = c.peer;
        list->ownpri = c.ownpri;
        cnthb_setrscstat(list.get(), rsc());
        EXPECT_EQ(rsc()->stat, c.expect);
        EXPECT_EQ(fake::rscstat(HB_KIND_CNTHB, "cnt1"), c.expect);
        EXPECT_EQ(fake::texts(HB_KIND_CNTHB), std::vector<std::string>{c.line});
    }
    // Published every time, and a refused publication leaves the table's state.
    fake::fail_on("shmnm_setrscstat", "cnt1", 7);
    cnthb_setrscstat(list.get(), rsc());
    EXPECT_TRUE(cntlog("shmnm_cnthb_setrscstat(CNTHB,cnt1,9) failed(ret:7)"));
    EXPECT_EQ(rsc()->stat, SHMNM_RSCSTAT_UNKNOWN);
}

TEST_F(StatusTest, FailedReadTakesEveryOnlineNodeOfEveryPathOffline)
{
    build(2);
    online(0, 0);
    online(1, 0);
    online(1, 1); // node1 stays offline on cnt2
    const int changes = fake::statchange_count();
    fake::clear_calls();
    cnthb_seterrstat(list.get(), CNTHB_ERR_READ);
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 2; ++j) {
            EXPECT_EQ(nodestat(node(j, i)), SHMNM_SVSTAT_OFFLINE);
            EXPECT_EQ(node(j, i)->lastrec.tag[0], '\0');
        }
    EXPECT_EQ(cntcount(": OFFLINE ***"), 3); // the one already offline is left alone
    EXPECT_FALSE(cntlog(" *** cnt2/node(node1(1)) : OFFLINE ***"));
    EXPECT_EQ(fake::nonvolstat(), SHMNM_NONVOL_NOTREADY);
    EXPECT_EQ(fake::count("shmnm_setnonvolstat"), 3);
    EXPECT_EQ(fake::statchange_count(), changes + 1); // one wake-up for the pass
    EXPECT_EQ(rsc(0)->stat, SHMNM_RSCSTAT_ERROR);
}

TEST_F(StatusTest, FailedWriteTakesOfflineOnlyTheNodeOfThisSlot)
{
    build(2, 1); // this node writes slot 1; node2 is read from slot 0
    for (int i = 0; i < 2; ++i) {
        online(0, i);
        online(1, i);
    }
    ASSERT_EQ(node(0)->cntno, 1);
    cnthb_seterrstat(list.get(), 17); // not a firmware error: nothing
    EXPECT_EQ(cntcount(": OFFLINE ***"), 0);
    const int changes = fake::statchange_count();
    cnthb_seterrstat(list.get(), CNTHB_ERR_WRITE);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(nodestat(node(0, i)), SHMNM_SVSTAT_OFFLINE);
        EXPECT_EQ(nodestat(node(1, i)), SHMNM_SVSTAT_ONLINE);
    }
    EXPECT_EQ(fake::statchange_count(), changes + 1);
    EXPECT_EQ(rsc(1)->stat, SHMNM_RSCSTAT_ERROR);
}

TEST_F(StatusTest, SilenceBeyondTheScaledLimitTakesANodeOffline)
{
    build();
    list->hbto = 1000; // one second: 100 ticks at ratio 1
    online(1);
    ASSERT_EQ(node(1)->lastread, 1000u);
    const int changes = fake::statchange_count();

    now = 1100; // exactly the limit: no time-out
    cnthb_hbcheck(list.get());
    EXPECT_EQ(nodestat(node(1)), SHMNM_SVSTAT_ONLINE);
    now = 1101;
    cnthb_hbcheck(list.get());
    EXPECT_TRUE(cntlog("**TIMEOUT(cur:0x0000044d,last:0x000003e8,diff:101,hbto:1,tck:100/sec)"));
    EXPECT_TRUE(cntlog(" *** cnt1/node(node2(2)) : OFFLINE ***"));
    EXPECT_EQ(svstat("cnt1", 2), SHMNM_SVSTAT_OFFLINE);
    EXPECT_EQ(fake::nonvolstat(), SHMNM_NONVOL_NOTREADY);
    EXPECT_EQ(node(1)->lastrec.tag[0], '\0');
    EXPECT_EQ(fake::statchange_count(), changes + 1);

    // Offline nodes are not tested again, however old their last record.
    now = 100000;
    cnthb_hbcheck(list.get());
    EXPECT_EQ(cntcount("**TIMEOUT"), 1);
}

TEST_F(StatusTest, LimitScalesWithRatioAndRoundsUpToSeconds)
{
    struct Case {
        int32_t hbto, ratio;
        bool ratiofails;
        hbtick_t limit;
    };
    const Case cases[] = {{1000, 3, false, 300}, {1000, 0, false, 100}, {1000, -2, false, 100},
                          {1000, 3, true, 100},  {1500, 1, false, 200}, {1, 1, false, 100}};
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.hbto) + " ratio " + std::to_string(c.ratio));
        fake::reset();
        loginit();
        build();
        list->hbto = c.hbto;
        fake::set_ratio(c.ratio);
        if (c.ratiofails)
            fake::fail("shmcm_getratio", 5);
        now = 1000;
        online(1);
        now = 1000 + c.limit;
        cnthb_hbcheck(list.get());
        EXPECT_EQ(nodestat(node(1)), SHMNM_SVSTAT_ONLINE);
        now = 1000 + c.limit + 1;
        cnthb_hbcheck(list.get());
        EXPECT_EQ(nodestat(node(1)), SHMNM_SVSTAT_OFFLINE);
        EXPECT_EQ(cntcount("shmcm_getratio() failed(ret:5)") > 0, c.ratiofails);
        list.reset();
    }
}

TEST_F(StatusTest, OnePassTakingTwoNodesOfflineWakesOnce)
{
    build(2);
    list->hbto = 1000;
    online(1, 0);
    online(0, 1);
    node(1, 1)->stat = SHMNM_SVSTAT_UNKNOWN; // never tested
    node(0, 0)->stat = SHMNM_SVSTAT_UNUSED;  // never tested
    // The tick counter wrapped since node2's record: still only 90 ticks.
    node(1, 0)->lastread = ~hbtick_t{0} - 49;
    node(0, 1)->lastread = 0;
    now = 40;
    const int changes = fake::statchange_count();
    cnthb_hbcheck(list.get());
    EXPECT_EQ(cntcount("**TIMEOUT"), 0);
    now = 5000;
    cnthb_hbcheck(list.get());
    EXPECT_EQ(cntcount("**TIMEOUT"), 2);
    EXPECT_TRUE(cntlog(" *** cnt1/node(node2(2)) : OFFLINE ***"));
    EXPECT_TRUE(cntlog(" *** cnt2/node(node1(1)) : OFFLINE ***"));
    EXPECT_EQ(nodestat(node(1, 1)), SHMNM_SVSTAT_UNKNOWN);
    EXPECT_EQ(nodestat(node(0, 0)), SHMNM_SVSTAT_UNUSED);
    EXPECT_EQ(fake::statchange_count(), changes + 1);
}

} // namespace
