// Building the LAN table: settings and their corrections, addresses, first
// states in fresh and resume mode, and the failures that stop loading.
#include <cstring>
#include <functional>

#include "lanhb_test.h"

using namespace lanhbtest;

namespace {

struct LoadTest : LanTest {};

TEST_F(LoadTest, SettingsAreCorrected)
{
    struct Case {
        const char *key, *value, *message;
        std::function<bool(const lanhb_list &)> ok;
    };
    const Case cases[] = {
        {"/root/cluster/heartbeat/interval", "0", "HBINT(0). set to 100 msec.",
         [](const lanhb_list &l) { return l.hbint == 100; }},
        {"/root/cluster/heartbeat/interval", "-5", "invalid HBINT(-5). set to 3000 msec.",
         [](const lanhb_list &l) { return l.hbint == 3000; }},
        {"/root/cluster/heartbeat/timeout", "0", "invalid HBTO(0). set to 90000 msec.",
         [](const lanhb_list &l) { return l.hbto == 90000; }},
        {"/root/cluster/heartbeat/port/recv", "70000", nullptr, [](const lanhb_list &l) { return l.recvport == 29002; }},
        {"/root/cluster/heartbeat/port/send", "0", nullptr, [](const lanhb_list &l) { return l.sendport == 0; }},
        {"/root/cluster/delaywarn/heartbeat", "150", nullptr, [](const lanhb_list &) { return lanhb_warnrate == 100; }},
        {"/root/lanhb/thread/stacksize", "100", "under minimum STACKSIZE(100). set to 16384.",
         [](const lanhb_list &) { return thstacksz == 16384; }},
        {"/root/cluster/downpacket/retry", "-1", "invalid DPRETRY(-1). set to 5.",
         [](const lanhb_list &l) { return l.dpretry == 5; }},
        {"/root/cluster/heartbeat/mismatch", "7", "mismatch:0,", [](const lanhb_list &l) { return l.mismatch == 0; }},
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
            EXPECT_EQ(fake::count_log(HB_KIND_LANHB, c.message), 1);
        }
    }
}

TEST_F(LoadTest, MissingKeysGiveDefaultsAndAreNamed)
{
    cluster();
    list_ptr list = load();
    ASSERT_TRUE(list);
    EXPECT_EQ(list->maxnode, 32);
    EXPECT_EQ(list->hbto, 90000);
    EXPECT_EQ(list->hbint, 3000);
    EXPECT_EQ(list->recvport, 29002);
    EXPECT_EQ(list->dpretry, 5);
    EXPECT_EQ(lanhb_bsocknbio, 1);
    EXPECT_TRUE(lanlog("xmllib_get_value(/root/cluster/heartbeat/timeout) failed(ret:2)"));
    EXPECT_TRUE(fake::loaded_policies().empty());
}

TEST_F(LoadTest, OwnNodeIsReachedOverLoopbackAndPrefixesAreCut)
{
    fake::set_hostname("node1.example");
    cluster("198.18.0.1/24", "198.18.0.2/24");
    fake::add_node("node1.example", 5); // the full host name: the loopback entry
    fake::set_key("/root/server@node1.example/device@0/info", "198.18.0.9/16");
    list_ptr list = load();
    ASSERT_TRUE(list);
    ASSERT_EQ(list->curnode, 3);
    EXPECT_STREQ(lanhb_getnode(list.get(), 0, 0)->ip, "198.18.0.1");
    EXPECT_STREQ(lanhb_getnode(list.get(), 0, 1)->ip, "198.18.0.2");
    EXPECT_STREQ(lanhb_getnode(list.get(), 0, 2)->ip, "127.0.0.1");
    // node1 (pri 1) is this host's entry; it comes before the replacement,
    // so no own address was saved yet.
    EXPECT_EQ(list->ownpri, 1);
    EXPECT_STREQ(lanhb_getrsc(list.get(), 0)->myname, "node1");
    EXPECT_STREQ(lanhb_getrsc(list.get(), 0)->myip, "");
}

TEST_F(LoadTest, OwnAddressBecomesThePathsBindAddress)
{
    cluster("198.18.0.1/24");
    list_ptr list = load();
    ASSERT_TRUE(list);
    EXPECT_STREQ(lanhb_getnode(list.get(), 0, 0)->ip, "127.0.0.1");
    EXPECT_STREQ(lanhb_getrsc(list.get(), 0)->myip, "198.18.0.1/24");
    EXPECT_TRUE(lanlog("    ---> change ip [198.18.0.1/24] to [127.0.0.1] (MYCNT)"));
}

TEST_F(LoadTest, PathWithoutDeviceOrOwnAddress)
{
    fake::set_hostname("node1.example"); // no entry is the loopback one
    cluster(nullptr);                    // node1 has no address on lan1
    fake::add_rsc(HB_KIND_LANHB, "lan2", 11); // no device key
    list_ptr list = load();
    ASSERT_TRUE(list);
    for (int j = 0; j < 2; ++j) {
        EXPECT_EQ(lanhb_getnode(list.get(), 0, j)->stat, SHMNM_SVSTAT_UNUSED);
    }
    EXPECT_EQ(fake::rscstat(HB_KIND_LANHB, "lan1"), SHMNM_RSCSTAT_UNUSED);
    EXPECT_EQ(fake::svstat(HB_KIND_LANHB, "lan1", 2), SHMNM_SVSTAT_UNUSED);

    EXPECT_EQ(lanhb_getrsc(list.get(), 1)->devid, -1);
    EXPECT_EQ(fake::count_log(HB_KIND_LANHB, "device id(-1) is invalid"), 2);
    for (const auto &c : fake::calls_of("shmnm_setrscsvstat")) {
        EXPECT_EQ(c.args.find("lan2"), std::string::npos);
    }
    EXPECT_EQ(fake::rscstat(HB_KIND_LANHB, "lan2"), SHMNM_RSCSTAT_UNKNOWN);
    EXPECT_EQ(fake::statchange_count(), 0);
}

TEST_F(LoadTest, FreshModeResetsAndResumeModeKeeps)
{
    for (bool resume : {false, true}) {
        SCOPED_TRACE(resume ? "resume" : "fresh");
        fake::reset();
        loginit();
        cluster();
        fake::set_svstat(HB_KIND_LANHB, "lan1", 1, SHMNM_SVSTAT_UNUSED); // used now: corrected
        fake::set_svstat(HB_KIND_LANHB, "lan1", 2, SHMNM_SVSTAT_ONLINE);
        if (resume)
            fake::set_action(SHMCM_ACTION_RESUME_B);
        hbtick_source = fakenow;
        now = 4242;
        list_ptr list = load();
        ASSERT_TRUE(list);
        lanhb_node *peer = lanhb_getnode(list.get(), 0, 1);
        EXPECT_EQ(fake::svstat(HB_KIND_LANHB, "lan1", 1), SHMNM_SVSTAT_OFFLINE);
        EXPECT_EQ(peer->stat, resume ? SHMNM_SVSTAT_ONLINE : SHMNM_SVSTAT_OFFLINE);
        EXPECT_EQ(fake::svstat(HB_KIND_LANHB, "lan1", 2), peer->stat);
        EXPECT_EQ(peer->lastrecv, resume ? 4242u : 0u);
        EXPECT_EQ(fake::statchange_count(), resume ? 1 : 0);
        EXPECT_EQ(lanlog("change mode to resume(act:0x02000005)"), resume);
    }
}

TEST_F(LoadTest, ResumeWithoutCorrectionDoesNotSignal)
{
    cluster();
    brestart = 1;
    fake::fail("shmcm_getaction", 3);
    fake::set_svstat(HB_KIND_LANHB, "lan1", 1, SHMNM_SVSTAT_OFFLINE);
    list_ptr list = load();
    ASSERT_TRUE(list);
    EXPECT_TRUE(lanlog("change mode to resume(act:0x02000000)"));
    EXPECT_EQ(fake::statchange_count(), 0);
    EXPECT_EQ(lanhb_getrsc(list.get(), 0)->stat, SHMNM_RSCSTAT_ERROR); // node2 read as UNKNOWN
}

TEST_F(LoadTest, FailuresStopLoadingWithTheirCode)
{
    struct Case {
        const char *name;
        std::function<void()> script;
        int32_t code;
        const char *message;
    };
    const Case cases[] = {
        {"policy all", [] { fake::fail_on("xmllib_load_policy", "all", 4); }, 9, "xmllib_load_policy(all) failed(ret:4)"},
        {"policy cluster", [] { fake::fail_on("xmllib_load_policy", "cluster", 4); }, 9,
         "xmllib_load_policy(nm) failed(ret:4)"},
        {"policy lanhb", [] { fake::fail_on("xmllib_load_policy", "lanhb", 4); }, 9,
         "xmllib_load_policy(lanhb) failed(ret:4)"},
        {"enumrsc", [] { fake::fail("shmnm_enumrsc", 6); }, 10, "shmnm_enumrsc() failed(ret:6)"},
        {"no paths", [] { fake::reset(), loginit(), fake::add_node("node1", 1); }, 10, "shmnm_enumrsc() failed(ret:0)"},
        {"enumnode", [] { fake::fail("shmnm_enumnode", 6); }, 11, "shmnm_enumnode() failed(ret:6)"},
        {"hostname", [] { fake::fail("xmllib_gethostname", 6); }, 16, "xmllib_gethostname() failed(errno:"},
        {"own priority", [] { fake::set_hostname("stranger"); }, 15, "shmnm_getnodepri() failed(ret:2)"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        fake::reset();
        loginit();
        cluster();
        c.script();
        lanhb_list *list = nullptr;
        EXPECT_EQ(lanhb_loadinfo(&list), c.code);
        EXPECT_EQ(list, nullptr);
        EXPECT_EQ(fake::count_log(HB_KIND_LANHB, c.message), 1);
    }
}

} // namespace
