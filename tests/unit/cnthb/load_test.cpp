// Building the controller table: settings and their corrections, controller
// slots, priorities, first states in normal and resume mode, and failures.
#include <array>
#include <functional>
#include <tuple>

#include "cnthb_test.h"

using namespace cnthbtest;

namespace {

using LoadTest = CntTest;

// The controller's own settings; those both loaders share are the LAN
// loader's table and the frame's.
TEST_F(LoadTest, SettingsTakeTheirCorrections)
{
    // key, value, the correction logged ("": none) and its level (raising a
    // small interval is detail), field (dpint, warning rate, stack size) and value
    const std::tuple<const char *, const char *, std::string, int32_t, int, int32_t> cases[] = {
        {"/root/cluster/delaywarn/heartbeat", "150", "", 0, 1, 100},
        {"/root/cluster/downpacket/interval", "50", "small DPINT(50). set to 100 msec.", 8, 0, 100},
        {"/root/cnthb/thread/stacksize", "1000", "under minimum STACKSIZE(1000). set to 16384.", 1, 2, 16384},
    };
    for (const auto &[key, value, message, level, field, expect] : cases) {
        SCOPED_TRACE(key);
        cluster(), fake::set_key(key, value);
        list_ptr list = load();
        EXPECT_EQ((std::array{list->dpint, cnthb_warnrate, thstacksz}[field]), expect);
        std::vector<std::pair<std::string, int32_t>> fixes, want;
        for (const auto &r : fake::logs_of(HB_KIND_CNTHB))
            if (r.text.find(". set to") != std::string::npos)
                fixes.emplace_back(r.text, r.level);
        if (!message.empty())
            want.emplace_back(message, level);
        EXPECT_EQ(fixes, want);
        EXPECT_TRUE(fake::loaded_policies().empty());
    }
}

TEST_F(LoadTest, OwnNodeTakesItsControllerNumberAndPeersTheOther)
{
    for (uint8_t mine : {0, 1}) {
        SCOPED_TRACE(static_cast<int>(mine));
        cluster(2);
        fake::add_node("node1.example", 3); // a domain suffix never matches the cut host name
        list_ptr list = load("node1.example", mine);
        EXPECT_EQ(list->ownpri, 1);
        const int32_t peer = 1 - mine;
        for (int32_t i = 0; i < 2; ++i) {
            cnthb_rsc *rsc = cnthb_rscat(list.get(), i);
            EXPECT_EQ(cnthb_nodeat(rsc, 0)->cntno, mine);
            EXPECT_EQ(cnthb_nodeat(rsc, 1)->cntno, peer);
            EXPECT_EQ(cnthb_nodeat(rsc, 2)->cntno, peer);
            EXPECT_EQ(cnthb_nodeat(rsc, 2)->rsc, rsc);
            EXPECT_EQ(rsc->maxnodepri, 3);
        }
        EXPECT_TRUE(cntlog("rsc:cnt2(pri:12),node:node1.example(pri:3,cntno:" + std::to_string(peer) + ")"));
    }
}

TEST_F(LoadTest, UnreadablePriorityDoesNotLowerTheHighest)
{
    fake::add_node("node1", 0);
    fake::add_node("node2", 7);
    fake::add_rsc(HB_KIND_CNTHB, std::string(40, 'p'), 11);
    fake::fail_on("shmnm_getnodepri", "node2", 6);
    list_ptr list = load();
    cnthb_rsc *rsc = cnthb_rscat(list.get(), 0);
    EXPECT_EQ(std::string(rsc->name), std::string(31, 'p'));
    EXPECT_EQ(cnthb_nodeat(rsc, 1)->pri, -1);
    EXPECT_EQ(rsc->maxnodepri, 0);
    EXPECT_TRUE(cntlog("shmnm_getnodepri(node2) failed(ret:6)"));
}

TEST_F(LoadTest, NormalStartSetsEveryNodeOfflineAndResumeKeepsSharedMemory)
{
    // action (the first resumes only the LAN table), brestart, resumed
    const std::tuple<int32_t, int32_t, bool> cases[] = {
        {SHMCM_ACTION_RESUME_A, 0, false}, {SHMCM_ACTION_RESUME_B, 0, true}, {0, 1, true}};
    for (const auto &[action, restart, resume] : cases) {
        SCOPED_TRACE(action);
        cluster(), fake::set_action(action), brestart = restart;
        fake::set_svstat(HB_KIND_CNTHB, "cnt1", 1, SHMNM_SVSTAT_ONLINE);
        fake::fail_on("shmnm_getrscsvstat", "cnt1/2", 4);
        hbtick_source = fakenow;
        list_ptr list = load();
        cnthb_rsc *rsc = cnthb_rscat(list.get(), 0);
        if (resume) {
            EXPECT_EQ(cnthb_nodeat(rsc, 0)->stat, SHMNM_SVSTAT_ONLINE);
            EXPECT_EQ(cnthb_nodeat(rsc, 0)->lastread, 1000u); // a full time-out from now
            EXPECT_EQ(cnthb_nodeat(rsc, 1)->stat, 0);          // unreadable: counts for nothing
            EXPECT_EQ(rsc->stat, SHMNM_RSCSTAT_NORMAL);
            EXPECT_TRUE(cntlog(" *** cnt1/node(node1(1)) prev stat:0x00000001 ***"));
        } else {
            EXPECT_EQ(svstat("cnt1", 1), SHMNM_SVSTAT_OFFLINE);
            EXPECT_EQ(svstat("cnt1", 2), SHMNM_SVSTAT_OFFLINE);
            EXPECT_EQ(fake::rscstat(HB_KIND_CNTHB, "cnt1"), SHMNM_RSCSTAT_ERROR);
        }
        EXPECT_EQ(cntcount("change mode to resume"), resume ? 1 : 0);
        EXPECT_EQ(causes(), std::set<std::string>{std::to_string(resume ? HBEXT_CAUSE_RESUME : HBEXT_CAUSE_START)});
        EXPECT_EQ(fake::statchange_count(), resume ? 1 : 0);
    }
}

TEST_F(LoadTest, FailuresStopLoadingWithTheirCode)
{
    const std::tuple<std::function<void()>, int32_t, const char *> cases[] = {
        {[] { fake::fail_on("xmllib_load_policy", "cluster", 3); }, 9, "xmllib_load_policy(cluster) failed(ret:3)"},
        {[] { fake::fail_on("shmnm_enumrsc", "cnthb", 8); }, 10, "shmnm_enumrsc() failed(ret:8)"},
        {[] { fake::fail("shmnm_enumnode", 8); }, 11, "shmnm_enumnode() failed(ret:8)"},
        {[] { fake::fail_on("shmnm_getnodepri", "node1", 8, 1); }, 15, "shmnm_getnodepri() failed(ret:8)"},
    };
    for (const auto &[arrange, code, message] : cases) {
        SCOPED_TRACE(message);
        cluster(), arrange();
        cnthb_list *out = reinterpret_cast<cnthb_list *>(0x1); // stays untouched
        EXPECT_EQ(cnthb_loadinfo(&out), code);
        EXPECT_EQ(out, reinterpret_cast<cnthb_list *>(0x1));
        EXPECT_EQ(cntcount(message), 1);
    }
}

} // namespace
