// The node-state layer through both kinds' own entry points (a datagram, a
// record, a time-out check): each rule once for both, what a kind fixes (its
// texts, its not-ready mark) on the way; what only one kind does, with it.
#include <algorithm>
#include <chrono>
#include <random>

#include "unit/cnthb/cnthb_test.h"
#include "unit/lanhb/lanhb_test.h"

namespace {

using namespace unit;
using texts = std::vector<std::string>;

// A kind as the tests drive it: node1 (this host, pri 1) and node2 (pri 2) on
// the path <p>1, time-out 90 s (9000 ticks); a new heartbeat or down notice
// of node j, the time-out check; its down line and failed path publication.
struct Lan {
    static constexpr const char *name = "lanhb", *downline = "DOWNPACKET recv(lan1,node2(2))";
    static constexpr const char *rscfail = "shmnm_setrscstat(LANHB,lan1,9) failed(ret:7)";
    const hbkind &kind = LANHB_KIND;
    lanhbtest::list_ptr l{nullptr, lanhb_freelist};
    lanhb_list *load() { return lanhbtest::cluster(), (l = lanhbtest::load()).get(); }
    void feed(int j, bool down)
    {
        lanhbtest::bytes b(lanhb_pktlen(l->maxnode));
        auto *pkt = reinterpret_cast<lanhb_packet *>(b.data());
        lanhb_pktinit(pkt, l.get(), down ? LANHB_TAG_DOWN : LANHB_TAG_HB);
        lanhb_hbdata(l.get(), lanhb_rscat(l.get(), 0), lanhb_nodeat(lanhb_rscat(l.get(), 0), j), pkt);
    }
    void check() { lanhb_hbcheck(l.get()); }
};

// A node's first record only primes the comparison: the driver primes first.
struct Cnt {
    static constexpr const char *name = "cnthb", *downline = "DOWNPACKET read(cnt1,node2(2))";
    static constexpr const char *rscfail = "shmnm_cnthb_setrscstat(CNTHB,cnt1,9) failed(ret:7)";
    const hbkind &kind = CNTHB_KIND;
    cnthbtest::list_ptr l;
    int stamps = 0;
    cnthb_list *load() { return cnthbtest::CntTest::cluster(), (l = cnthbtest::CntTest::load()).get(); }
    void feed(int j, bool down)
    {
        if (cnthb_nodeat(cnthb_rscat(l.get(), 0), j)->lastrec.tag[0] == '\0')
            record(j, false);
        record(j, down);
    }
    void record(int j, bool down)
    {
        cnthb_hbinf rec = cnthbtest::record(down ? CNTHB_TAG_DOWN : CNTHB_TAG_HB, std::to_string(++stamps).c_str());
        cnthb_hbdata(l.get(), cnthb_rscat(l.get(), 0), cnthb_nodeat(cnthb_rscat(l.get(), 0), j), &rec);
    }
    void check() { cnthb_hbcheck(l.get()); }
};

template <class K> struct State : FrameTest {
    K k;
    hbheader *table = nullptr;
    const hbkind &kind = k.kind;
    const std::string log = K::name, p1 = log.substr(0, 3) + "1";
    void SetUp() override { FrameTest::SetUp(), hbtick_source = fakenow; }
    void TearDown() override { k.l.reset(), lanhb_reset(), cnthb_reset(), FrameTest::TearDown(); }
    void build() { table = k.load(), fake::clear_calls(); }
    void online(int j, hbtick_t at) { now = at, k.feed(j, false), fake::clear_calls(); }
    hbnoderef at(int j) { return kind.table.nodeat(table, kind.table.rscat(table, 0), j); }
    bool logged(const std::string &text) { return fake::has_log(log, text); }
    std::string writer(const std::string &text) // the function that wrote the record of this text
    {
        const auto all = fake::logs_of(log);
        const auto it = std::ranges::find(all, text, &fake::LogRecord::text);
        return it == all.end() ? "" : it->func;
    }
    // Node states with their causes, path states and wake-ups, in order.
    static texts published()
    {
        texts out;
        for (const auto &c : fake::calls())
            if (c.op == "hbext_setcause" || c.op == "shmnm_setrscsvstat" || c.op == "shmnm_setrscstat" ||
                c.op == "sem_set_statchange")
                out.push_back(c.op + "(" + c.args + ")");
        return out;
    }
    texts changed(const char *svstat, const char *rscstat, int32_t cause)
    {
        const std::string at = log + "," + p1;
        return {"hbext_setcause(" + at + ",2," + std::to_string(cause) + ")",
                "shmnm_setrscsvstat(" + at + ",2," + svstat + ")", "shmnm_setrscstat(" + at + "," + rscstat + ")",
                "sem_set_statchange()"};
    }
};

struct Names { template <class K> static std::string GetName(int) { return K::name; } };
using Kinds = ::testing::Types<Lan, Cnt>;
TYPED_TEST_SUITE(State, Kinds, Names);

TYPED_TEST(State, HeartbeatBringsANodeOnlineOnceWhenItsStatusAllows)
{
    this->build();
    fake::set_hdstat("node2", 2);
    this->online(1, 1000); // the controller log has the node-status lines of both kinds
    EXPECT_TRUE(fake::has_log(HB_KIND_CNTHB, " *** " + this->p1 + "/node(node2(2)) : ONLINE SKIP hdstat=2 ***"));
    EXPECT_EQ(*this->at(1).stat, SHMNM_SVSTAT_OFFLINE);
    fake::fail("shmnm_gethdstat", 5); // unreadable counts as 1
    now = 1100;
    this->k.feed(1, false);
    EXPECT_EQ(this->published(), this->changed("1", "4", HBEXT_CAUSE_HEARTBEAT)); // this node still down: ERROR
    EXPECT_EQ(this->writer(" *** " + this->p1 + "/node(node2(2)) : ONLINE ***"), this->log + "_hbdata");
    fake::clear_calls();
    now = 1100 + 7200; // online already: only the stamp moves and the gap is timed
    this->k.feed(1, false);
    EXPECT_TRUE(this->published().empty());
    EXPECT_EQ(*this->at(1).last, now.load());
    EXPECT_EQ(fake::count_log(this->log, "delay(71) rsc=" + this->p1 + " node=node2 hbto=90s tck=100 elapsed=7200"), 1);
}

// The counters of a node and of its kind, as published: the wall-clock time
// of the last heartbeat (a down notice is none), the LAN's accepted
// datagrams, the delay records by number.
TYPED_TEST(State, CountersKeepTheLastHeartbeatAndAcceptedDatagrams)
{
    const auto wall = [] { return uint64_t(std::chrono::duration_cast<std::chrono::milliseconds>(
                                               std::chrono::system_clock::now().time_since_epoch())
                                               .count()); };
    this->build(); // the loader publishes at once
    EXPECT_EQ(fake::counts(this->log, this->p1, 2), std::vector<uint64_t>(HBEXT_NC_COUNT, 0));
    const uint64_t before = wall();
    this->online(1, 1000);
    now = 1000 + 7200; // the gap reaches the warning rate: delay record 71
    this->k.feed(1, false);
    const uint64_t after = wall();
    this->k.feed(1, true);
    hbcount_publish();
    const std::vector<uint64_t> c = fake::counts(this->log, this->p1, 2);
    EXPECT_TRUE(c[HBEXT_NC_LASTHB] >= before && c[HBEXT_NC_LASTHB] <= after) << c[HBEXT_NC_LASTHB];
    EXPECT_EQ(c[HBEXT_NC_ACCEPTED], this->kind.number == LANHB_KIND.number ? 3u : 0u);
    EXPECT_EQ(fake::counts(this->log, this->p1, 1)[HBEXT_NC_LASTHB], 0u);
    EXPECT_EQ(fake::counts(this->log), (std::vector<uint64_t>{0, 1, 0, 0, 0, 0}));
}

TYPED_TEST(State, DownNoticeTakesANodeOfflineUnlessItAlreadyIs)
{
    this->build();
    this->k.feed(1, true);
    EXPECT_TRUE(this->published().empty());
    this->online(0, 1000), this->online(1, 1000);
    now = 5000;
    this->k.feed(1, true);
    EXPECT_TRUE(this->logged(TypeParam::downline));
    EXPECT_EQ(this->published(), this->changed("2", "3", HBEXT_CAUSE_DOWN));
    EXPECT_EQ(*this->at(1).last, 1000u);
    EXPECT_EQ(fake::nonvolstat(), -1); // an orderly stop leaves the node manager ready
}

// For stamps around the counter's wrap and silences around the limit: OFFLINE
// exactly when the unsigned silence exceeds it. (One wake-up for a pass that
// takes several nodes offline: the controller's failed calls, the same pass.)
TYPED_TEST(State, OfflineExactlyWhenTheSilenceExceedsTheLimit)
{
    std::mt19937_64 rng(15);
    for (int n = 0; n < 100; ++n) {
        const hbtick_t last = hbtick_t(0) - 10000 + rng() % 20000, silence = 8998 + rng() % 5;
        this->k.l.reset(), reload(), this->build();
        this->online(1, last);
        now = last + silence;
        this->k.check();
        const int32_t want = silence > 9000 ? SHMNM_SVSTAT_OFFLINE : SHMNM_SVSTAT_ONLINE;
        ASSERT_EQ(*this->at(1).stat, want) << last << "+" << silence;
        ASSERT_EQ(this->published(), silence > 9000 ? this->changed("2", "4", HBEXT_CAUSE_TIMEOUT) : texts{});
    }
    this->online(1, 100);
    now = 100 + 9001;
    this->k.check();
    const std::string line = "**TIMEOUT(cur:0x0000238d,last:0x00000064,diff:9001,hbto:90,tck:100/sec)";
    EXPECT_EQ(this->writer(line), this->log + "_hbcheck");
    EXPECT_TRUE(this->logged(" *** " + this->p1 + "/node(node2(2)) : OFFLINE ***"));
    EXPECT_EQ(fake::nonvolstat(), this->kind.notready ? SHMNM_NONVOL_NOTREADY : -1);
}

TYPED_TEST(State, PathStateFollowsItsNodes)
{
    this->build();
    constexpr int32_t ON = SHMNM_SVSTAT_ONLINE, OFF = SHMNM_SVSTAT_OFFLINE, UNK = SHMNM_SVSTAT_UNKNOWN;
    constexpr int32_t UNU = SHMNM_SVSTAT_UNUSED;
    // own and peer state, own priority, the path's state
    const std::tuple<int32_t, int32_t, int32_t, const char *> cases[] = {
        {ON, ON, 1, "NORMAL"}, {UNK, ON, 1, "ERROR"}, {ON, OFF, 1, "CAUTION"}, {OFF, UNK, 1, "ERROR"}, // ERROR outranks
        {ON, OFF, 2, "ERROR"}, // own by priority, not position
        {ON, UNU, 1, "NORMAL"}, {0, UNU, 1, "UNUSED"}, {0, 0, 1, "UNKNOWN"},
    };
    const hbtableops &t = this->kind.table;
    for (const auto &[own, peer, pri, word] : cases) {
        SCOPED_TRACE(word);
        reload();
        *this->at(0).stat = own, *this->at(1).stat = peer, this->table->ownpri = pri;
        t.setrscstat(this->table, t.rscat(this->table, 0));
        EXPECT_EQ(fake::texts(this->log), texts{" *** " + this->p1 + " : " + word + " ***"});
        EXPECT_EQ(this->published().size(), 1u);
    }
    fake::fail("shmnm_setrscstat", 7);
    t.setrscstat(this->table, t.rscat(this->table, 0));
    EXPECT_TRUE(this->logged(TypeParam::rscfail));
}

} // namespace
