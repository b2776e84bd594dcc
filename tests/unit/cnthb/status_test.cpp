// The heartbeat record (stamp layout, what makes two records differ, the
// fallbacks when the clock cannot be formatted, the reader's view), and what
// only the controller does around a state change: the priming of a node's
// first record and of its first after going offline, and which nodes a
// failed firmware call takes offline. The state rules both kinds share are
// the node-state layer's test.
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

using StatusTest = CntTest;

// Hands node j of path i a record of this tag and stamp.
int32_t feed(cnthb_list *list, int j, const char *tag, const char *stamp, int i = 0)
{
    cnthb_hbinf rec = record(tag, stamp);
    return cnthb_hbdata(list, cnthb_rscat(list, i), cnthb_nodeat(cnthb_rscat(list, i), j), &rec);
}

TEST_F(StatusTest, FirstRecordAfterStartAndAfterGoingOfflineOnlyPrimes)
{
    hbtick_source = fakenow;
    cluster();
    list_ptr list = load();
    const cnthb_node *peer = cnthb_nodeat(cnthb_rscat(list.get(), 0), 1);
    EXPECT_EQ(feed(list.get(), 1, "cnthbz", "s0"), 8); // no tag: ignored, not even kept
    feed(list.get(), 1, "cnthb", "s1");
    now = 2000;
    feed(list.get(), 1, "cnthb", "s1"); // the same stamp: nothing, not even lastread
    EXPECT_EQ(peer->stat, SHMNM_SVSTAT_OFFLINE);
    EXPECT_EQ(peer->lastread, 0u);
    feed(list.get(), 1, "cnthb", "s2");
    ASSERT_EQ(peer->stat, SHMNM_SVSTAT_ONLINE);
    now += 9001, cnthb_hbcheck(list.get()); // offline (as by any cause): the record is forgotten
    feed(list.get(), 1, "cnthb", "s3");
    EXPECT_EQ(peer->stat, SHMNM_SVSTAT_OFFLINE);
}

TEST_F(StatusTest, FailedControllerCallsTakeNodesOfflineWithOneWakeUp)
{
    for (bool write : {false, true}) {
        SCOPED_TRACE(write ? "write" : "read");
        cluster(2);
        list_ptr list = load("node1", 1); // this node writes slot 1, node2 is read from slot 0
        for (auto [j, i] : {std::pair{0, 0}, {1, 0}, {1, 1}}) // node1 stays offline on cnt2
            feed(list.get(), j, "cnthb", "prime", i), feed(list.get(), j, "cnthb", "first", i);
        const int changes = fake::statchange_count();
        // Through the poller and its workers, for two cycles on both paths.
        const char *op = write ? "zemfw_sethbinf" : "zemfw_gethbinf";
        fake::fail(op, 5);
        bsigrecv = 0, cnthb_bhbwrite = 1;
        const pthread_t th = start(write ? cnthb_hbwrite : cnthb_hbread, list.get());
        EXPECT_TRUE(waitfor([&] { return fake::count(op) >= 4 && fake::statchange_count() > changes; }));
        // The poller's waits publish the calls counted on each path.
        const int made = write ? HBEXT_PC_WRITES : HBEXT_PC_READS, other = write ? HBEXT_PC_READS : HBEXT_PC_WRITES;
        EXPECT_TRUE(waitfor([&] {
            const std::vector<uint64_t> c = fake::counts(HB_KIND_CNTHB, "cnt2", HBEXT_PATH);
            return c[made] >= 2 && c[made + 1] == c[made] && c[other] == 0 && c[other + 1] == 0;
        })) << testing::PrintToString(fake::counts(HB_KIND_CNTHB, "cnt2", HBEXT_PATH));
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

} // namespace
