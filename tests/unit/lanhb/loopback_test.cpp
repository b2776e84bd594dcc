// Receiver, sender and watcher threads in one process over the loopback:
// this node hears its own heartbeat, loses it when the sender stops, and a
// stop before the start signal sends nothing.
#include <cstring>

#include "lanhb_test.h"

using namespace lanhbtest;

namespace {

struct LoopTest : LanTest {
    list_ptr list{nullptr, lanhb_freelist};
    uint16_t port = 0;

    void SetUp() override
    {
        LanTest::SetUp();
        tckconf = sysconf(_SC_CLK_TCK);
        port = freeport();
        cluster("127.0.0.1", nullptr); // node2 has no address: never sent to
        fake::set_key("/root/cluster/heartbeat/port/recv", std::to_string(port));
        fake::set_key("/root/cluster/heartbeat/interval", "100");
        fake::set_key("/root/cluster/heartbeat/timeout", "2000");
        list = load();
        ASSERT_TRUE(list);
    }
    static int32_t ownstat() { return fake::svstat(HB_KIND_LANHB, "lan1", 1); }
};

TEST_F(LoopTest, OwnHeartbeatComesAndGoes)
{
    lanhb_bhbsend = 1;
    const pthread_t recv = start(lanhb_hbrecv, list.get());
    ASSERT_TRUE(recvready());
    const pthread_t send = start(lanhb_hbsend, list.get());
    const pthread_t watch = start(lanhb_hbwatch, list.get());

    EXPECT_TRUE(waitfor([] { return ownstat() == SHMNM_SVSTAT_ONLINE; }));
    EXPECT_TRUE(waitfor([] { return fake::rscstat(HB_KIND_LANHB, "lan1") == SHMNM_RSCSTAT_NORMAL; }));
    EXPECT_TRUE(lanlog(" *** lan1/node(node1(1)) : ONLINE ***"));

    pthread_cancel(send);
    EXPECT_EQ(join(send), "canceled");
    EXPECT_TRUE(lanlog("lanhb_hbsend() exit"));
    EXPECT_TRUE(waitfor([] { return ownstat() == SHMNM_SVSTAT_OFFLINE; }));
    EXPECT_EQ(fake::rscstat(HB_KIND_LANHB, "lan1"), SHMNM_RSCSTAT_ERROR);
    EXPECT_GE(fake::count_log(HB_KIND_LANHB, "**TIMEOUT("), 1);

    bsigrecv = 1;
    EXPECT_EQ(join(watch), "0");
    EXPECT_EQ(join(recv), "0");
    EXPECT_TRUE(lanlog("lanhb_hbwatch() exit"));
    EXPECT_TRUE(lanlog("lanhb_hbrecv() exit"));
}

TEST_F(LoopTest, StopBeforeStartSendsNothing)
{
    const pthread_t recv = start(lanhb_hbrecv, list.get());
    ASSERT_TRUE(recvready());
    const pthread_t send = start(lanhb_hbsend, list.get());
    EXPECT_TRUE(waitfor([] { return lanlog("*** WAIT START: lanhb_hbsend ***"); }));
    // What the stop routine does: cancel, then raise the flag.
    pthread_cancel(recv);
    pthread_cancel(send);
    bsigrecv = 1;
    EXPECT_EQ(join(send), "canceled");
    EXPECT_EQ(join(recv), "canceled");

    // A sender that finds the stop flag while waiting ends at once.
    EXPECT_EQ(join(start(lanhb_hbsend, list.get())), "0");
    EXPECT_EQ(fake::count_log(HB_KIND_LANHB, "SIGUSR1 already received"), 2);
    EXPECT_EQ(fake::count_log(HB_KIND_LANHB, "*** START: lanhb_hbsend ***"), 0);
    EXPECT_EQ(fake::count_log(HB_KIND_LANHB, "sendto"), 0);
    EXPECT_EQ(ownstat(), SHMNM_SVSTAT_OFFLINE);
}

TEST_F(LoopTest, PortInUseEndsReceiver)
{
    int fd = -1;
    list->recvport = freeport(&fd); // and kept bound
    EXPECT_EQ(join(start(lanhb_hbrecv, list.get())), "2");
    close(fd);
    EXPECT_TRUE(lanlog("bind(INET6) failed(errno:98)"));
    EXPECT_TRUE(lanlog("<<< EXIT >>> : 0x00000007"));
    EXPECT_EQ(lanhb_rready, 0);
}

} // namespace
