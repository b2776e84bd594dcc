// Receiver and sender threads over the loopback: a stop before the start
// signal sends nothing. (Heartbeats coming and going over real links are the
// system tests' crash and stop scenarios.)
#include "lanhb_test.h"

using namespace lanhbtest;

namespace {

using ThreadTest = LoopTest;

TEST_F(ThreadTest, StopBeforeStartSendsNothing)
{
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
    pthread_cancel(recv), pthread_cancel(send), bsigrecv = 1; // as the stop routine does
    EXPECT_EQ(join(send), "canceled");
    EXPECT_EQ(join(recv), "canceled");
    EXPECT_EQ(join(start(lanhb_hbsend, list.get())), "0"); // finds the stop flag while waiting
    EXPECT_EQ(lancount("SIGUSR1 already received"), 2);
    EXPECT_EQ(lancount("*** START: lanhb_hbsend ***") + lancount("sendto"), 0);
    EXPECT_EQ(fake::svstat(HB_KIND_LANHB, "lan1", 1), SHMNM_SVSTAT_OFFLINE);
}

} // namespace
