// Building the LAN table: corrected settings, addresses, first states in
// fresh and resume mode, and the failures that stop loading.
#include <functional>
#include <tuple>

#include "lanhb_test.h"

using namespace lanhbtest;

namespace {

using LoadTest = LanTest;

TEST_F(LoadTest, SettingsAreCorrected)
{
    const char *interval = "/root/cluster/heartbeat/interval";
    // key, value, interval, time-out and port taken, the correction's message
    const std::tuple<const char *, const char *, int32_t, int32_t, int32_t, const char *> cases[] = {
        {interval, "0", 100, 90000, 29002, "HBINT(0). set to 100 msec."},
        {interval, "-5", 3000, 90000, 29002, "invalid HBINT(-5). set to 3000 msec."},
        {"/root/cluster/heartbeat/timeout", "0", 3000, 90000, 29002, "invalid HBTO(0). set to 90000 msec."},
        {"/root/cluster/heartbeat/port/recv", "70000", 3000, 90000, 29002, nullptr},
        {"", "", 3000, 90000, 29002, "xmllib_get_value(/root/cluster/heartbeat/timeout) failed(ret:2)"},
    };
    for (const auto &[key, value, hbint, hbto, port, message] : cases) {
        SCOPED_TRACE(std::string(key) + "=" + value);
        reload(), cluster(), fake::set_key(key, value);
        list_ptr list = load();
        EXPECT_EQ(std::tuple(list->hbint, list->hbto, int32_t(list->recvport)), std::tuple(hbint, hbto, port));
        EXPECT_EQ(lancount(message ? message : "set to"), message ? 1 : 0);
        EXPECT_TRUE(fake::loaded_policies().empty());
    }
}

TEST_F(LoadTest, OwnNodeOverLoopbackAndPathsWithoutDeviceOrOwnAddress)
{
    cluster("198.18.0.1/24", "198.18.0.2/24");
    list_ptr list = load();
    EXPECT_STREQ(lanhb_nodeat(lanhb_rscat(list.get(), 0), 0)->ip, "127.0.0.1");
    EXPECT_STREQ(lanhb_nodeat(lanhb_rscat(list.get(), 0), 1)->ip, "198.18.0.2"); // prefix cut
    EXPECT_STREQ(lanhb_rscat(list.get(), 0)->myip, "198.18.0.1/24");
    EXPECT_TRUE(lanlog("    ---> change ip [198.18.0.1/24] to [127.0.0.1] (MYCNT)"));
    // The own entry is named like the host, or like its short name only.
    for (const char *host : {"node1", "node1.example"}) {
        SCOPED_TRACE(host);
        reload(), fake::set_hostname(host), cluster(nullptr);
        fake::add_rsc(HB_KIND_LANHB, "lan2", 11); // no device key
        list = load();
        EXPECT_STREQ(lanhb_nodeat(lanhb_rscat(list.get(), 0), 0)->ip, ""); // never sent to, not even over the loopback
        EXPECT_EQ(lanhb_nodeat(lanhb_rscat(list.get(), 0), 0)->stat, SHMNM_SVSTAT_UNUSED);
        EXPECT_EQ(fake::svstat(HB_KIND_LANHB, "lan1", 2), SHMNM_SVSTAT_UNUSED);
        EXPECT_EQ(fake::rscstat(HB_KIND_LANHB, "lan1"), SHMNM_RSCSTAT_UNUSED);
        EXPECT_EQ(lanhb_rscat(list.get(), 1)->devid, -1);
        EXPECT_EQ(lancount("device id(-1) is invalid"), 2);
        EXPECT_EQ(fake::count("shmnm_setrscsvstat"), 2); // lan1's only
        EXPECT_EQ(fake::rscstat(HB_KIND_LANHB, "lan2"), SHMNM_RSCSTAT_UNKNOWN);
    }
}

TEST_F(LoadTest, FreshModeResetsAndResumeModeKeeps)
{
    // action (-1: unreadable), own state stored, brestart, resumed, wake-ups; the
    // UNUSED own state is corrected to OFFLINE, which a resume must announce.
    const int32_t cases[][5] = {{0, SHMNM_SVSTAT_UNUSED, 0, 0, 0},
                                {SHMCM_ACTION_RESUME_A, SHMNM_SVSTAT_UNUSED, 0, 1, 1},
                                {SHMCM_ACTION_RESUME_B, SHMNM_SVSTAT_UNUSED, 0, 1, 1},
                                {-1, SHMNM_SVSTAT_OFFLINE, 1, 1, 0}};
    for (const auto &[action, ownstat, restart, resume, wakeups] : cases) {
        SCOPED_TRACE(action);
        reload(), cluster(), brestart = restart;
        action < 0 ? fake::fail("shmcm_getaction", 3) : fake::set_action(action);
        fake::set_svstat(HB_KIND_LANHB, "lan1", 1, ownstat);
        fake::set_svstat(HB_KIND_LANHB, "lan1", 2, SHMNM_SVSTAT_ONLINE);
        hbtick_source = fakenow;
        now = 4242;
        list_ptr list = load();
        lanhb_node *peer = lanhb_nodeat(lanhb_rscat(list.get(), 0), 1);
        EXPECT_EQ(fake::svstat(HB_KIND_LANHB, "lan1", 1), SHMNM_SVSTAT_OFFLINE);
        EXPECT_EQ(peer->stat, resume ? SHMNM_SVSTAT_ONLINE : SHMNM_SVSTAT_OFFLINE);
        EXPECT_EQ(fake::svstat(HB_KIND_LANHB, "lan1", 2), peer->stat);
        EXPECT_EQ(peer->lastrecv, resume ? 4242u : 0u);
        EXPECT_EQ(fake::statchange_count(), wakeups);
        EXPECT_EQ(lancount("change mode to resume(act:0x0"), resume ? 1 : 0);
        EXPECT_EQ(causes(), std::set<std::string>{std::to_string(resume ? HBEXT_CAUSE_RESUME : HBEXT_CAUSE_START)});
    }
    EXPECT_TRUE(lanlog("change mode to resume(act:0x02000000)"));
}

TEST_F(LoadTest, FailuresStopLoadingWithTheirCode)
{
    const std::tuple<std::function<void()>, int32_t, const char *> cases[] = {
        {[] { fake::fail_on("xmllib_load_policy", "cluster", 4); }, 9, "xmllib_load_policy(nm) failed(ret:4)"},
        {[] { reload(), fake::add_node("node1", 1); }, 10, "shmnm_enumrsc() failed(ret:0)"},
        {[] { fake::fail("shmnm_enumnode", 6); }, 11, "shmnm_enumnode() failed(ret:6)"},
        {[] { fake::fail("xmllib_gethostname", 6); }, 16, "xmllib_gethostname() failed(errno:"},
        {[] { fake::set_hostname("stranger"); }, 15, "shmnm_getnodepri() failed(ret:2)"},
    };
    for (const auto &[script, code, message] : cases) {
        SCOPED_TRACE(message);
        reload(), cluster(), script();
        lanhb_list *list = nullptr;
        EXPECT_EQ(lanhb_loadinfo(&list), code);
        EXPECT_EQ(list, nullptr);
        EXPECT_EQ(lancount(message), 1);
    }
}

} // namespace
