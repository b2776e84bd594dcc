// Receiver, sender and watcher threads over the loopback: this node hears its
// own heartbeat, loses it when the sender stops, and a stop before the start
// signal sends nothing.
#include "lanhb_test.h"

using namespace lanhbtest;

namespace {

struct ThreadTest : LoopTest {
    void SetUp() override
    {
        LanTest::SetUp();
        fake::set_key("/root/cluster/heartbeat/interval", "100");
        fake::set_key("/root/cluster/heartbeat/timeout", "2000");
        loop(nullptr); // node2 has no address: never sent to
    }
    static bool ownis(int32_t stat) { return fake::svstat(HB_KIND_LANHB, "lan1", 1) == stat; }
    static bool recvready()
    {
        return waitfor([] {
            pthread_mutex_lock(&lanhb_rmutex);
            const bool ready = lanhb_rready != 0;
            pthread_mutex_unlock(&lanhb_rmutex);
            return ready;
        });
    }
};

TEST_F(ThreadTest, OwnHeartbeatComesAndGoes)
{
    lanhb_bhbsend = 1;
    const pthread_t recv = start(lanhb_hbrecv, list.get());
    ASSERT_TRUE(recvready());
    const pthread_t send = start(lanhb_hbsend, list.get()), watch = start(lanhb_hbwatch, list.get());
    EXPECT_TRUE(waitfor([] { return ownis(SHMNM_SVSTAT_ONLINE); }));
    EXPECT_TRUE(waitfor([] { return fake::rscstat(HB_KIND_LANHB, "lan1") == SHMNM_RSCSTAT_NORMAL; }));

    pthread_cancel(send);
    EXPECT_EQ(join(send), "canceled");
    EXPECT_TRUE(waitfor([] { return ownis(SHMNM_SVSTAT_OFFLINE); }));
    EXPECT_EQ(fake::rscstat(HB_KIND_LANHB, "lan1"), SHMNM_RSCSTAT_ERROR);
    EXPECT_GE(lancount("**TIMEOUT("), 1);
    bsigrecv = 1;
    EXPECT_EQ(join(watch), "0");
    EXPECT_EQ(join(recv), "0");
    for (const char *th : {"send", "watch", "recv"})
        EXPECT_TRUE(lanlog(std::string("lanhb_hb") + th + "() exit")) << th;
}

TEST_F(ThreadTest, StopBeforeStartSendsNothing)
{
    const pthread_t recv = start(lanhb_hbrecv, list.get());
    ASSERT_TRUE(recvready());
    const pthread_t send = start(lanhb_hbsend, list.get());
    EXPECT_TRUE(waitfor([] { return lanlog("*** WAIT START: lanhb_hbsend ***"); }));
    pthread_cancel(recv), pthread_cancel(send), bsigrecv = 1; // as the stop routine does
    EXPECT_EQ(join(send), "canceled");
    EXPECT_EQ(join(recv), "canceled");
    EXPECT_EQ(join(start(lanhb_hbsend, list.get())), "0"); // finds the stop flag while waiting
    EXPECT_EQ(lancount("SIGUSR1 already received"), 2);
    EXPECT_EQ(lancount("*** START: lanhb_hbsend ***") + lancount("sendto"), 0);
    EXPECT_TRUE(ownis(SHMNM_SVSTAT_OFFLINE));
}

} // namespace
