// Stopping: the down-packet settings read again, the bursts of down packets
// over the loopback, a stop before the start signal that sends nothing, and
// the sender's pacing (sleeps and the parent's pid replaced) up to the self
// down when the parent has gone. (Heartbeats coming and going over real links
// are the system tests' crash and stop scenarios.)
#include <functional>
#include <tuple>

#include "lanhb_test.h"

using namespace lanhbtest;

namespace {

using ExitTest = LoopTest;

TEST_F(ExitTest, LoadExitRereadsTheDownSettings)
{
    loop(nullptr);
    const std::tuple<std::function<void()>, int32_t, int32_t, int32_t, const char *> cases[] = {
        {[] { fake::set_key("/root/cluster/downpacket/interval", "500"); }, 0, 500, 5, "invalid DPRETRY(-1). set to 5."},
        {[] { fake::set_key("/root/cluster/downpacket/retry", "7"); }, 0, 0, 7,
         "xmllib_get_value(/root/cluster/downpacket/interval) failed(ret:2)"},
        {[] { fake::fail("xmllib_load_config", 3); }, 12, 123, 9, "dpint:"},
        {[] { fake::fail_on("xmllib_load_policy", "cluster", 4); }, 9, 123, 9, "xmllib_load_policy(cluster) failed(ret:4)"},
    };
    for (const auto &[script, code, dpint, dpretry, message] : cases) {
        SCOPED_TRACE(message);
        reload();
        fake::set_key("/root/cluster/downpacket/retry", "-1"); // the first value corrected
        script();
        list->dpint = 123, list->dpretry = 9;
        EXPECT_EQ(lanhb_loadexit(list.get()), code);
        EXPECT_EQ(std::make_pair(list->dpint, list->dpretry), std::make_pair(dpint, dpretry));
        EXPECT_EQ(lanlog(message), code != 12);
        EXPECT_EQ(fake::config_loaded(), code == 9); // left to the main line's teardown
        EXPECT_TRUE(fake::loaded_policies().empty());
    }
}

// The down packets queued on a UDP socket until it has been quiet a while.
int downs(int fd)
{
    int n = 0;
    char buf[1024];
    for (ssize_t len; (len = recv(fd, buf, sizeof buf, 0)) >= 0;)
        n += len == 576 && std::memcmp(buf, "hbdown", 7) == 0;
    return n;
}

TEST_F(ExitTest, BurstsReachEveryPeer)
{
    fake::add_node("node3", 3); // unresolvable without a name server: an unknown zone
    fake::set_key("/root/server@node3/device@0/info", "fe80::1%nosuchif0");
    loop("127.0.0.2");
    std::strcpy(lanhb_rscat(list.get(), 0)->myip, "fe80::1%nosuchif0"); // peers are sent to unbound
    std::vector<int> fds;
    for (const char *ip : {"127.0.0.1", "127.0.0.2"}) {
        sockaddr_storage sa = addr(ip);
        reinterpret_cast<sockaddr_in *>(&sa)->sin_port = htons(port);
        const timeval tv = {0, 300000};
        fds.push_back(socket(AF_INET, SOCK_DGRAM, 0));
        setsockopt(fds.back(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        EXPECT_EQ(bind(fds.back(), sap(&sa), sizeof(sockaddr_in)), 0) << ip;
    }
    // Each burst is followed by its pause, the last one too.
    for (auto [retry, dpint] : {std::pair{0, 0}, {4, 0}, {1, 1100}}) {
        list->dpretry = retry, list->dpint = dpint;
        const int64_t ms = took_ms([&] { EXPECT_EQ(join(start(lanhb_dpsend, list.get())), "0"); });
        EXPECT_TRUE(ms >= retry * dpint && ms < retry * dpint + 800) << ms;
        for (int fd : fds)
            EXPECT_EQ(downs(fd), retry);
    }
    for (int fd : fds)
        close(fd);
    EXPECT_EQ(lancount("lanhb_plist->currsc=1"), 5);
    int skipped = 0;
    for (const std::string &t : fake::texts(HB_KIND_LANHB))
        skipped += t.starts_with("getaddrinfo(fe80::1%nosuchif0) failed rsc=(lan1) node=(node3) ret=-2 errno=") &&
                   t.ends_with(" ---> continue");
    EXPECT_EQ(skipped, 5);
    hbcount_publish(); // accepted, sent, not sent, sent unbound, last heartbeat
    EXPECT_EQ(fake::counts(HB_KIND_LANHB, "lan1", 1), (std::vector<uint64_t>{0, 5, 0, 0, 0}));
    EXPECT_EQ(fake::counts(HB_KIND_LANHB, "lan1", 2), (std::vector<uint64_t>{0, 5, 0, 5, 0}));
    EXPECT_EQ(fake::counts(HB_KIND_LANHB, "lan1", 3), (std::vector<uint64_t>{0, 0, 5, 5, 0}));
}

// Without the watcher the receiver checks the time-outs: this node, resumed
// ONLINE, falls silent.
TEST_F(ExitTest, ReceiverAloneTimesOutAndStopBeforeStartSendsNothing)
{
    fake::set_key("/root/cluster/heartbeat/interval", "1500"); // its receive waits: 1 s and 500000 us
    fake::set_svstat(HB_KIND_LANHB, "lan1", 1, SHMNM_SVSTAT_ONLINE);
    hbtick_source = fakenow, brestart = 1, lanhb_bwatchth = 0, hbpace_fastpolls = 0; // one start-up poll, then the interval
    loop(nullptr); // node2 has no address: never sent to
    const pthread_t recv = start(lanhb_hbrecv, list.get());
    ASSERT_TRUE(waitfor([] {
        pthread_mutex_lock(&lanhb_rmutex);
        const bool ready = lanhb_rready != 0;
        pthread_mutex_unlock(&lanhb_rmutex);
        return ready;
    }));
    const pthread_t send = start(lanhb_hbsend, list.get());
    EXPECT_TRUE(waitfor([] { return lanlog("*** WAIT START: lanhb_hbsend ***"); }));
    now += 90 * tckconf + 1; // the default time-out
    EXPECT_TRUE(waitfor([] { return fake::svstat(HB_KIND_LANHB, "lan1", 1) == SHMNM_SVSTAT_OFFLINE; }));
    EXPECT_TRUE(waitfor([] { return lanlog("***** start normal polling(start send) 1500 msec. *****"); }));
    pthread_cancel(recv), pthread_cancel(send), bsigrecv = 1; // as the stop routine does
    EXPECT_EQ(join(send), "canceled");
    EXPECT_EQ(join(recv), "canceled");
    EXPECT_EQ(join(start(lanhb_hbsend, list.get())), "0"); // finds the stop flag while waiting
    EXPECT_EQ(lancount("SIGUSR1 already received"), 2);
    EXPECT_EQ(lancount("*** START: lanhb_hbsend ***") + lancount("sendto"), 0);
}

std::vector<int32_t> slept;
pid_t parent = 4711;

using PaceTest = LanTest;

TEST_F(PaceTest, StartUpStretchThenIntervalThenSelfDown)
{
    lanhb_pace pace;
    auto init = [&](int32_t hbint) {
        slept.clear(), pace = lanhb_pace{};
        pace.sleepms = [](int32_t ms) { slept.push_back(ms); };
        pace.ppid = [] { return parent; };
        lanhb_paceinit(&pace, hbint);
    };
    auto stepsuntildown = [&](int limit, pid_t ppid) { // the step that asks for the self down, or 0
        parent = ppid;
        for (int n = 1; n <= limit; ++n)
            if (lanhb_pacestep(&pace, 0, nullptr))
                return n;
        return 0;
    };
    // Without a parent during start-up: six times the polls of ten seconds, at least 18.
    for (auto [hbint, polls] : {std::pair{3000, 18}, {1000, 60}, {20000, 18}, {100, 600}}) {
        init(hbint);
        EXPECT_EQ(stepsuntildown(1000, 1), polls) << hbint;
        EXPECT_EQ(slept, std::vector<int32_t>(size_t(polls), 500)) << hbint;
    }
    EXPECT_TRUE(lanlog("lanhb self down. countover1=18"));
    // A subreaper that took the daemon over is not its parent; with no parent
    // known, only pid 1 tells.
    for (auto [known, polls] : {std::pair{4711, 18}, {0, 0}}) {
        init(3000), pace.parent = known;
        EXPECT_EQ(stepsuntildown(100, 4712), polls) << known;
    }
    init(3000);
    EXPECT_EQ(stepsuntildown(1203, 4711), 0);
    ASSERT_EQ(slept.size(), 1203u);
    EXPECT_EQ(slept[1200], 500); // 1201 start-up polls
    EXPECT_EQ(slept[1201], 3000);
    EXPECT_EQ(lancount("***** start normal polling(start send) 3000 msec. *****"), 1);
    // The third poll without a parent stops; a parent seen again restarts the count.
    EXPECT_EQ(stepsuntildown(2, 1) + stepsuntildown(1, 4711), 0);
    EXPECT_EQ(stepsuntildown(5, 1), 3);
    EXPECT_TRUE(lanlog("lanhb self down. countover2=3"));
}

} // namespace
