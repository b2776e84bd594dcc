// The heartbeat record (stamp layout, what makes two records differ, the
// fallbacks when the clock cannot be formatted, the reader's view), status
// evaluation and the time-out check: records turned into node states, the
// path rule, failed firmware calls and silent nodes.
#include <cstdlib>
#include <tuple>

#include "cnthb_test.h"

using namespace cnthbtest;

namespace {

constexpr time_t T0 = 1700000000;                    // 2023-11-14 22:13:20 UTC, a Tuesday
constexpr time_t TFAR = static_cast<time_t>(1) << 60; // beyond the calendar

using RecordTest = CntTest;

TEST_F(RecordTest, StampsHaveMillisecondsDownNoticesSecondsAndClockFailuresFallBack)
{
    setenv("TZ", "UTC", 1), tzset();
    // seconds, microseconds (-1: a down notice), calendar time, stamp
    const std::tuple<time_t, long, time_t, const char *> cases[] = {
        {T0, 123999, T0, "Tue Nov 14 22:13:20.123 2023"}, // cut, not rounded
        {T0, 7000, T0, "Tue Nov 14 22:13:20.007 2023"},
        {0, -1, T0, "Tue Nov 14 22:13:20 2023"},
        {TFAR, 0, T0, "Tue Nov 14 22:13:20 2023"}, // no time of day
        {T0, 0, -1, "1"},                           // no calendar time: the counter, shared
        {0, -1, TFAR, "2"},                         // with the down notices
        {T0, 0, TFAR, "3"},
    };
    for (const auto &[sec, usec, cal, stamp] : cases) {
        SCOPED_TRACE(stamp);
        const struct timeval tv = {sec, usec};
        cnthb_hbinf rec;
        std::memset(&rec, 0x5a, sizeof rec);
        usec < 0 ? cnthb_filldown(&rec, cal) : cnthb_fillhb(&rec, &tv, cal);
        EXPECT_EQ(std::string(rec.tag, 8), std::string(usec < 0 ? "hbdown\0\0" : "cnthb\0\0\0", 8));
        EXPECT_EQ(std::string(rec.stamp, 32), stamp + std::string(32 - std::strlen(stamp), '\0'));
    }
    cnthb_hbinf a, b; // the real clock: a new stamp every millisecond
    cnthb_makehb(&a);
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    cnthb_makehb(&b);
    EXPECT_EQ(strnlen(a.stamp, 32), 28u);
    EXPECT_FALSE(cnthb_samestamp(&a, &b));
}

TEST_F(RecordTest, ReaderTerminatesBothTextsAndComparesTagsWithTheirNul)
{
    const std::pair<const char *, int> tags[] = {
        {"cnthb", CNTHB_REC_HB}, {"hbdown", CNTHB_REC_DOWN}, {"cnthbx", CNTHB_REC_NONE}, {"", CNTHB_REC_NONE}};
    for (const auto &[tag, kind] : tags) {
        cnthb_hbinf rec = record(tag, "x");
        rec.tag[7] = 'Z'; // garbage in byte 7 is cleared first
        EXPECT_EQ(cnthb_rectag(&rec), kind) << tag;
    }
    cnthb_hbinf a, b; // byte 39 is cut, nothing after the first NUL counts
    std::memset(&a, 'A', sizeof a);
    b = a;
    b.stamp[31] = 'B';
    cnthb_rectag(&a);
    cnthb_rectag(&b);
    EXPECT_TRUE(cnthb_samestamp(&a, &b));
    a = b = record("cnthb", "same");
    b.stamp[10] = 'x';
    EXPECT_TRUE(cnthb_samestamp(&a, &b));
    b.stamp[3] = 'E';
    EXPECT_FALSE(cnthb_samestamp(&a, &b));
}

struct StatusTest : CntTest {
    // node1 is this host (pri 1), node2 the peer (pri 2); time-out 100 ticks.
    void build(int paths = 1, uint8_t cntno = 0)
    {
        hbtick_source = fakenow;
        cluster(paths);
        list = load("node1", cntno);
        list->hbto = 1000;
    }
    cnthb_node *node(int j, int i = 0) { return cnthb_nodeat(cnthb_rscat(list.get(), i), j); }
    int32_t feed(int j, const char *tag, const char *stamp, int i = 0)
    {
        cnthb_hbinf rec = record(tag, stamp);
        return cnthb_hbdata(list.get(), cnthb_rscat(list.get(), i), node(j, i), &rec);
    }
    void online(int j, int i = 0)
    {
        feed(j, "cnthb", "prime", i), feed(j, "cnthb", "first", i);
        ASSERT_EQ(node(j, i)->stat, SHMNM_SVSTAT_ONLINE);
    }
    list_ptr list;
};

TEST_F(StatusTest, ChangedStampBringsANodeOnlineAfterTheFirstRecordPrimes)
{
    build();
    fake::set_hdstat("node2", 2);
    feed(1, "cnthb", "s1");
    now = 2000;
    feed(1, "cnthb", "s1"); // the same stamp: nothing, not even lastread
    EXPECT_EQ(node(1)->lastread, 0u);
    EXPECT_EQ(feed(1, "cnthbz", "s2"), 8); // no tag: ignored
    feed(1, "cnthb", "s2");                // new, but the node status keeps it out
    EXPECT_TRUE(cntlog(" *** cnt1/node(node2(2)) : ONLINE SKIP hdstat=2 ***"));
    EXPECT_EQ(node(1)->stat, SHMNM_SVSTAT_OFFLINE);
    EXPECT_EQ(node(1)->lastread, 2000u);

    fake::fail("shmnm_gethdstat", 5); // unreadable counts as 1
    now = 2500;
    feed(1, "cnthb", "s3");
    EXPECT_EQ(svstat("cnt1", 2), SHMNM_SVSTAT_ONLINE);
    EXPECT_TRUE(cntlog(" *** cnt1/node(node2(2)) : ONLINE ***"));
    EXPECT_EQ(fake::rscstat(HB_KIND_CNTHB, "cnt1"), SHMNM_RSCSTAT_ERROR); // this node still offline
    EXPECT_EQ(fake::statchange_count(), 1);
    now = 2590; // online in shared memory already: only the gap is timed
    feed(1, "cnthb", "s4");
    EXPECT_EQ(node(1)->lastread, 2590u);
    EXPECT_EQ(fake::statchange_count(), 1);
    EXPECT_EQ(cntcount("delay(71) rsc=cnt1 node=node2 hbto=1s tck=100 elapsed=90 "), 1);
}

TEST_F(StatusTest, DownNoticeTakesANodeOfflineAtOnce)
{
    build();
    feed(1, "cnthb", "s1");
    feed(1, "hbdown", "d1"); // offline in shared memory already: only kept
    EXPECT_EQ(cntcount("DOWNPACKET"), 0);
    online(1);
    feed(1, "hbdown", "d2");
    EXPECT_TRUE(cntlog("DOWNPACKET read(cnt1,node2(2))"));
    EXPECT_TRUE(cntlog(" *** cnt1/node(node2(2)) : OFFLINE ***"));
    EXPECT_EQ(svstat("cnt1", 2), SHMNM_SVSTAT_OFFLINE);
    EXPECT_EQ(fake::statchange_count(), 2);
    feed(1, "cnthb", "back1"); // only primes again
    EXPECT_EQ(node(1)->stat, SHMNM_SVSTAT_OFFLINE);
}

TEST_F(StatusTest, PathStateFollowsItsNodes)
{
    build();
    constexpr int32_t ON = SHMNM_SVSTAT_ONLINE, OFF = SHMNM_SVSTAT_OFFLINE, UNK = SHMNM_SVSTAT_UNKNOWN;
    constexpr int32_t UNU = SHMNM_SVSTAT_UNUSED;
    // own and peer state, own priority, the path's line
    const std::tuple<int32_t, int32_t, int32_t, const char *> cases[] = {
        {ON, ON, 1, " *** cnt1 : NORMAL ***"},   {UNK, ON, 1, " *** cnt1 : ERROR ***"},
        {ON, OFF, 1, " *** cnt1 : CAUTION ***"}, {OFF, UNK, 1, " *** cnt1 : ERROR ***"}, // ERROR outranks
        {ON, OFF, 2, " *** cnt1 : ERROR ***"},   // own by priority, not position
        {ON, UNU, 1, " *** cnt1 : NORMAL ***"},  {0, UNU, 1, " *** cnt1 : UNUSED ***"},
        {0, 0, 1, " *** cnt1 : UNKNOWN ***"},
    };
    for (const auto &[own, peer, ownpri, line] : cases) {
        SCOPED_TRACE(line);
        reload();
        node(0)->stat = own, node(1)->stat = peer, list->ownpri = ownpri;
        cnthb_setrscstat(list.get(), cnthb_rscat(list.get(), 0));
        EXPECT_EQ(fake::rscstat(HB_KIND_CNTHB, "cnt1"), cnthb_rscat(list.get(), 0)->stat);
        EXPECT_EQ(fake::texts(HB_KIND_CNTHB), std::vector<std::string>{line});
    }
}

TEST_F(StatusTest, FailedControllerCallsTakeNodesOfflineWithOneWakeUp)
{
    for (bool write : {false, true}) {
        SCOPED_TRACE(write ? "write" : "read");
        build(2, 1); // this node writes slot 1, node2 is read from slot 0
        online(0, 0);
        online(1, 0);
        online(1, 1); // node1 stays offline on cnt2
        const int changes = fake::statchange_count();
        // Through the poller and its workers, for two cycles on both paths.
        const char *op = write ? "zemfw_sethbinf" : "zemfw_gethbinf";
        fake::fail(op, 5);
        bsigrecv = 0;
        cnthb_bhbwrite = 1;
        const pthread_t th = start(write ? cnthb_hbwrite : cnthb_hbread, list.get());
        EXPECT_TRUE(waitfor([&] { return fake::count(op) >= 4 && fake::statchange_count() > changes; }));
        stop(th);
        list.reset();
        // A failed read concerns every online node, a failed write only the
        // node of this node's slot.
        const int32_t peer = write ? SHMNM_SVSTAT_ONLINE : SHMNM_SVSTAT_OFFLINE;
        EXPECT_EQ(svstat("cnt1", 1), SHMNM_SVSTAT_OFFLINE);
        EXPECT_EQ(svstat("cnt1", 2), peer);
        EXPECT_EQ(svstat("cnt2", 2), peer);
        EXPECT_EQ(cntcount(": OFFLINE ***"), write ? 1 : 3);
        EXPECT_EQ(fake::nonvolstat(), SHMNM_NONVOL_NOTREADY);
        EXPECT_EQ(fake::statchange_count(), changes + 1);
    }
}

// The limit's scaling is the frame's: 1500 ms at ratio 0 (taken as 1) is 2 s.
TEST_F(StatusTest, SilenceBeyondTheScaledLimitTakesANodeOffline)
{
    build();
    list->hbto = 1500;
    fake::set_ratio(0);
    online(1);
    now = 1200; // exactly the limit is no time-out
    cnthb_hbcheck(list.get());
    EXPECT_EQ(node(1)->stat, SHMNM_SVSTAT_ONLINE);
    now = 1201;
    cnthb_hbcheck(list.get());
    EXPECT_EQ(svstat("cnt1", 2), SHMNM_SVSTAT_OFFLINE);
    EXPECT_EQ(node(1)->lastrec.tag[0], '\0'); // the next record only primes
    EXPECT_TRUE(cntlog("**TIMEOUT(cur:0x000004b1,last:0x000003e8,diff:201,hbto:2,tck:100/sec)"));
}

} // namespace
