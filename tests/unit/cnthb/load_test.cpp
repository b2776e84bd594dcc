// Building the controller table: settings and their corrections, controller
// slots, priorities, first states in normal and resume mode, and the
// failures that stop loading.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "cnthb_test.h"

using namespace cnthbtest;

namespace {

struct LoadTest : CntTest {};

TEST_F(LoadTest, MissingKeysGiveDefaultsAndAreNamed)
{
    cluster();
    list_ptr list = load();
    ASSERT_TRUE(list);
    EXPECT_EQ(list->maxnode, 32);
    EXPECT_EQ(list->maxrsc, 16); // not the LAN table's 128
    EXPECT_EQ(list->hbto, 90000);
    EXPECT_EQ(list->hbint, 3000);
    EXPECT_EQ(list->dpint, 100); // not the LAN table's 0
    EXPECT_EQ(list->dpretry, 5);
    EXPECT_EQ(list->rwlock, 0);
    EXPECT_EQ(cnthb_warnrate, 80);
    EXPECT_EQ(cnthb_bwatchth.load(), 0);
    EXPECT_EQ(thstacksz, 0);
    EXPECT_EQ(cnthb_dpthwait, 20);
    EXPECT_EQ(cnthb_dpthretry, 100);
    EXPECT_STREQ(list->clustername, "unknown");
    EXPECT_STREQ(list->edition, "E1");
    EXPECT_TRUE(cntlog("xmllib_get_value(/root/cluster/heartbeat/timeout) failed(ret:2)"));
    EXPECT_TRUE(cntlog("xmllib_get_value(/root/cnthb/downpacket/wait) failed(ret:2)"));
    EXPECT_TRUE(cntlog("xmllib_get_value(/root/cluster/name) failed(ret:2)"));
    EXPECT_TRUE(fake::loaded_policies().empty()); // every policy loaded is unloaded
}

TEST_F(LoadTest, SettingsAreCorrected)
{
    struct Case {
        const char *key, *value, *message; // message: null when none may be logged
        std::function<bool(const cnthb_list &)> ok;
    };
    const Case cases[] = {
        {"/root/cluster/heartbeat/timeout", "0", "invalid HBTO(0). set to 90000 msec.",
         [](const cnthb_list &l) { return l.hbto == 90000; }},
        {"/root/cluster/heartbeat/timeout", "1", nullptr, [](const cnthb_list &l) { return l.hbto == 1; }},
        {"/root/cluster/heartbeat/interval", "0", "HBINT(0). set to 100 msec.",
         [](const cnthb_list &l) { return l.hbint == 100; }},
        {"/root/cluster/heartbeat/interval", "-5", "invalid HBINT(-5). set to 3000 msec.",
         [](const cnthb_list &l) { return l.hbint == 3000; }},
        {"/root/cluster/delaywarn/heartbeat", "150", nullptr, [](const cnthb_list &) { return cnthb_warnrate == 100; }},
        {"/root/cluster/delaywarn/heartbeat", "-3", nullptr, [](const cnthb_list &) { return cnthb_warnrate == 0; }},
        {"/root/cluster/downpacket/interval", "50", "small DPINT(50). set to 100 msec.",
         [](const cnthb_list &l) { return l.dpint == 100; }},
        {"/root/cluster/downpacket/interval", "100", nullptr, [](const cnthb_list &l) { return l.dpint == 100; }},
        {"/root/cluster/downpacket/interval", "-1", "invalid DPINT(-1). set to 100 msec.",
         [](const cnthb_list &l) { return l.dpint == 100; }},
        {"/root/cluster/downpacket/retry", "-2", "invalid DPRETRY(-2). set to 5.",
         [](const cnthb_list &l) { return l.dpretry == 5; }},
        {"/root/cluster/downpacket/retry", "0", nullptr, [](const cnthb_list &l) { return l.dpretry == 0; }},
        {"/root/cnthb/thread/stacksize", "0", nullptr, [](const cnthb_list &) { return thstacksz == 0; }},
        {"/root/cnthb/thread/stacksize", "1000", "under minimum STACKSIZE(1000). set to 16384.",
         [](const cnthb_list &) { return thstacksz == 16384; }},
        {"/root/cnthb/thread/stacksize", "-1", "invalid STACKSIZE(-1). set to 0.",
         [](const cnthb_list &) { return thstacksz == 0; }},
        {"/root/cnthb/downpacket/wait", "-1", "invalid DPTHWAIT(-1). set to 20.",
         [](const cnthb_list &) { return cnthb_dpthwait == 20; }},
        {"/root/cnthb/downpacket/retry", "-1", "invalid DPTHRETRY(-1). set to 100.",
         [](const cnthb_list &) { return cnthb_dpthretry == 100; }},
        {"/root/cnthb/downpacket/retry", "0", nullptr, [](const cnthb_list &) { return cnthb_dpthretry == 0; }},
        {"/root/cnthb/watchth", "1", nullptr, [](const cnthb_list &) { return cnthb_bwatchth.load() == 1; }},
        {"/root/cluster/heartbeat/mismatch", "7", nullptr, [](const cnthb_list &l) { return l.mismatch == 0; }},
        {"/root/cluster/name", "prod-cluster", nullptr,
         [](const cnthb_list &l) { return std::strcmp(l.clustername, "prod-cluster") == 0; }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.key) + "=" + c.value);
        fake::reset();
        loginit();
        cluster();
        fake::set_key(c.key, c.value);
        list_ptr list = load();
        ASSERT_TRUE(list);
        EXPECT_TRUE(c.ok(*list));
        if (c.message != nullptr) {
            auto rec = fake::find_log(HB_KIND_CNTHB, c.message);
            ASSERT_TRUE(rec.has_value());
            // Raising a small interval is detail; every other correction an error.
            EXPECT_EQ(rec->level, std::strncmp(c.message, "small", 5) == 0 ? 8 : 1);
        } else {
            EXPECT_EQ(cntcount(". set to"), 0);
        }
    }
}

TEST_F(LoadTest, OwnNodeTakesItsControllerNumberAndPeersTheOther)
{
    for (uint8_t mine : {0, 1}) {
        SCOPED_TRACE(static_cast<int>(mine));
        fake::reset();
        loginit();
        fake::add_node("node1", 1);
        fake::add_node("node1.example", 3); // a domain suffix never matches the cut host name
        fake::add_node("node2", 2);
        fake::add_rsc(HB_KIND_CNTHB, "cnt1", 11);
        fake::add_rsc(HB_KIND_CNTHB, "cnt2", 12);
        list_ptr list = load("node1.example", mine);
        ASSERT_TRUE(list);
        EXPECT_STREQ(list->hostname, "node1");
        EXPECT_EQ(list->ownpri, 1);
        const int32_t peer = mine == 0 ? 1 : 0;
        for (int32_t i = 0; i < list->currsc; ++i) {
            cnthb_rsc *rsc = cnthb_rscat(list.get(), i);
            EXPECT_EQ(rsc->list, list.get());
            EXPECT_EQ(cnthb_nodeat(rsc, 0)->cntno, mine);
            EXPECT_EQ(cnthb_nodeat(rsc, 1)->cntno, peer);
            EXPECT_EQ(cnthb_nodeat(rsc, 2)->cntno, peer);
            EXPECT_STREQ(cnthb_nodeat(rsc, 2)->name, "node2");
            EXPECT_EQ(cnthb_nodeat(rsc, 2)->rsc, rsc);
            EXPECT_EQ(rsc->maxnodepri, 3);
        }
        EXPECT_STREQ(cnthb_rscat(list.get(), 1)->name, "cnt2");
        EXPECT_EQ(cnthb_rscat(list.get(), 1)->pri, 12);
        EXPECT_TRUE(cntlog("rsc:cnt2(pri:12),node:node1.example(pri:3,cntno:" + std::to_string(peer) + ")"));
        EXPECT_TRUE(cntlog("rsc:cnt1(max nodepri:3)"));
    }
}

TEST_F(LoadTest, UnreadablePrioritiesAndLongNames)
{
    const std::string longname(40, 'p');
    fake::add_node("node1", 0);
    fake::add_node("node2", 7);
    fake::add_rsc(HB_KIND_CNTHB, longname, 11);
    fake::fail_on("shmnm_getnodepri", "node2", 6);
    list_ptr list = load();
    ASSERT_TRUE(list);
    cnthb_rsc *rsc = cnthb_rscat(list.get(), 0);
    EXPECT_EQ(std::string(rsc->name), longname.substr(0, 31));
    EXPECT_EQ(rsc->pri, -1); // looked up under the cut name, which does not exist
    EXPECT_EQ(cnthb_nodeat(rsc, 1)->pri, -1);
    EXPECT_EQ(rsc->maxnodepri, 0); // -1 does not take it below 0
    EXPECT_TRUE(cntlog("shmnm_getnodepri(node2) failed(ret:6)"));
    EXPECT_TRUE(cntlog("shmnm_getrscpri(" + longname.substr(0, 31) + ") failed(ret:2)"));
}

TEST_F(LoadTest, NormalStartPublishesEveryNodeOfflineWithoutWakingAnyone)
{
    cluster(2);
    fake::set_svstat(HB_KIND_CNTHB, "cnt1", 2, SHMNM_SVSTAT_ONLINE); // left over: not taken over
    fake::set_action(SHMCM_ACTION_RESUME_A); // resumes only the LAN table
    list_ptr list = load();
    ASSERT_TRUE(list);
    for (int32_t i = 0; i < 2; ++i) {
        cnthb_rsc *rsc = cnthb_rscat(list.get(), i);
        for (int32_t j = 0; j < 2; ++j) {
            EXPECT_EQ(cnthb_nodeat(rsc, j)->stat, SHMNM_SVSTAT_OFFLINE);
            EXPECT_EQ(cnthb_nodeat(rsc, j)->lastread, 0u);
            EXPECT_EQ(svstat(rsc->name, j + 1), SHMNM_SVSTAT_OFFLINE);
        }
        EXPECT_EQ(rsc->stat, SHMNM_RSCSTAT_ERROR); // the own node is down too
        EXPECT_EQ(fake::rscstat(HB_KIND_CNTHB, rsc->name), SHMNM_RSCSTAT_ERROR);
    }
    EXPECT_EQ(fake::statchange_count(), 0);
    EXPECT_EQ(cntcount("change mode to resume"), 0);
}

TEST_F(LoadTest, ResumeKeepsTheStatesOfSharedMemoryAndSignalsOnce)
{
    struct Case {
        int32_t action, restart;
        bool getfails;
    };
    for (const Case c : {Case{SHMCM_ACTION_RESUME_B, 0, false}, Case{0, 1, false}, Case{0, 1, true}}) {
        SCOPED_TRACE(c.action);
        fake::reset();
        loginit();
        cluster();
        fake::set_action(c.action);
        brestart = c.restart;
        fake::set_svstat(HB_KIND_CNTHB, "cnt1", 1, SHMNM_SVSTAT_ONLINE);
        fake::set_svstat(HB_KIND_CNTHB, "cnt1", 2, SHMNM_SVSTAT_ONLINE);
        if (c.getfails)
            fake::fail_on("shmnm_getrscsvstat", "cnt1/2", 4);
        hbtick_source = fakenow;
        now = 777;
        list_ptr list = load();
        ASSERT_TRUE(list);
        cnthb_rsc *rsc = cnthb_rscat(list.get(), 0);
        EXPECT_EQ(cnthb_nodeat(rsc, 0)->stat, SHMNM_SVSTAT_ONLINE);
        EXPECT_EQ(cnthb_nodeat(rsc, 0)->lastread, 777u); // a full time-out from now
        EXPECT_EQ(svstat("cnt1", 1), SHMNM_SVSTAT_ONLINE);
        EXPECT_TRUE(cntlog(" *** cnt1/node(node1(1)) prev stat:0x00000001 ***"));
        char act[16];
        std::snprintf(act, sizeof act, "0x%08x", static_cast<unsigned>(c.action));
        EXPECT_TRUE(cntlog(std::string("change mode to resume(act:") + act + ")"));
        if (c.getfails) {
            // An unreadable state is 0: it counts for nothing in the path state.
            EXPECT_EQ(cnthb_nodeat(rsc, 1)->stat, 0);
            EXPECT_TRUE(cntlog("shmnm_getrscsvstat(rsc:cnt1,nodeid:2) failed(ret:4)"));
            EXPECT_EQ(rsc->stat, SHMNM_RSCSTAT_NORMAL);
        } else {
            EXPECT_EQ(cnthb_nodeat(rsc, 1)->stat, SHMNM_SVSTAT_ONLINE);
        }
        EXPECT_EQ(fake::statchange_count(), 1);
        hbtick_source = realclock;
    }
}

TEST_F(LoadTest, FailuresStopLoadingWithTheirCode)
{
    struct Case {
        const char *name;
        std::function<void()> arrange;
        int32_t code;
        const char *message;
    };
    const Case cases[] = {
        {"policy all", [] { fake::fail_on("xmllib_load_policy", "all", 3); }, 9,
         "xmllib_load_policy(all) failed(ret:3)"},
        {"policy cluster", [] { fake::fail_on("xmllib_load_policy", "cluster", 3); }, 9,
         "xmllib_load_policy(cluster) failed(ret:3)"},
        {"policy cnthb", [] { fake::fail_on("xmllib_load_policy", "cnthb", 3, 1); }, 9,
         "xmllib_load_policy(cnthb) failed(ret:3)"},
        {"no paths", [] { fake::reset(); loginit(); fake::add_node("node1", 1); }, 10, "shmnm_enumrsc() failed(ret:0)"},
        {"path enumeration", [] { fake::fail_on("shmnm_enumrsc", "cnthb", 8, 3); }, 10, "shmnm_enumrsc() failed(ret:8)"},
        {"node enumeration", [] { fake::fail("shmnm_enumnode", 8); }, 11, "shmnm_enumnode() failed(ret:8)"},
        {"host name", [] { fake::fail("xmllib_gethostname", 8); }, 16, "xmllib_gethostname() failed(errno:"},
        {"own priority", [] { fake::fail_on("shmnm_getnodepri", "node1", 8, 1); }, 15,
         "shmnm_getnodepri() failed(ret:8)"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        fake::reset();
        loginit();
        cluster();
        c.arrange();
        fake::set_hostname("node1");
        cnthb_list *sentinel = reinterpret_cast<cnthb_list *>(0x1);
        cnthb_list *out = sentinel;
        EXPECT_EQ(cnthb_loadinfo(&out), c.code);
        EXPECT_EQ(out, sentinel); // untouched
        EXPECT_EQ(cntcount(c.message), 1);
    }
}

TEST_F(LoadTest, LockSwitchInitialisesEveryPathsMutex)
{
    cluster(2);
    fake::set_key("/root/cnthb/rwlock", "1");
    list_ptr list = load();
    ASSERT_TRUE(list);
    EXPECT_EQ(list->rwlock, 1);
    for (int32_t i = 0; i < 2; ++i) {
        pthread_mutex_t *m = &cnthb_rscat(list.get(), i)->rwmutex;
        EXPECT_EQ(pthread_mutex_trylock(m), 0);
        EXPECT_EQ(pthread_mutex_trylock(m), EBUSY); // a real lock, not a no-op
        EXPECT_EQ(pthread_mutex_unlock(m), 0);
    }
}

} // namespace
