// The down write at an orderly stop: its cycles, the bounded wait for its
// workers, the cancellation of a hanging one, and a peer taking this node
// offline on the notice.
#include <pthread.h>

#include <atomic>
#include <string>

#include "cnthb_test.h"

using namespace cnthbtest;

namespace {

struct DownTest : CntTest {
    // Runs the down writer to its end in a thread of its own, as main does.
    static void *rundown(cnthb_list *list)
    {
        pthread_t th = 0;
        EXPECT_EQ(pthread_create(&th, nullptr, cnthb_dpwrite, list), 0);
        void *ret = reinterpret_cast<void *>(1);
        EXPECT_EQ(pthread_join(th, &ret), 0);
        return ret;
    }
    static int32_t workers(cnthb_list *list) { return std::atomic_ref<int32_t>(list->nworkers).load(); }
    static bool writing(cnthb_list *list, int i = 0)
    {
        return std::atomic_ref<int32_t>(cnthb_rscat(list, i)->bwriting).load() != 0;
    }
};

TEST_F(DownTest, NoticesGoIntoThisNodesSlotOnEveryPath)
{
    cluster(2);
    list_ptr a = load("node1", 1);
    ASSERT_TRUE(a);
    a->dpint = 0;
    a->dpretry = 3;
    EXPECT_EQ(rundown(a.get()), nullptr);
    EXPECT_EQ(fake::slot(1).substr(0, 7), std::string("hbdown\0", 7));
    EXPECT_EQ(fake::slot(0), std::string(ZEMFW_HBINF_SIZE, '\0')); // the peer's slot is not touched
    // Up to one worker per path and cycle; a cycle finding the path busy adds none.
    const int writes = fake::count("zemfw_sethbinf");
    EXPECT_GE(writes, 2);
    EXPECT_LE(writes, 6);
    for (const auto &c : fake::calls_of("zemfw_sethbinf"))
        EXPECT_EQ(c.args, "1");
    EXPECT_EQ(cntcount("TIMEOUT"), 0);
    EXPECT_TRUE(cntlog("<<< EXIT >>> : 0x00000000"));
    EXPECT_FALSE(writing(a.get(), 0) || writing(a.get(), 1));
    a.reset();
}

TEST_F(DownTest, NoCyclesWriteNothingAndEndAtOnce)
{
    cluster();
    list_ptr a = load();
    ASSERT_TRUE(a);
    a->dpretry = 0;
    EXPECT_EQ(rundown(a.get()), nullptr);
    EXPECT_EQ(fake::count("zemfw_sethbinf"), 0);
    EXPECT_EQ(cntcount("TIMEOUT"), 0);
    EXPECT_TRUE(cntlog("<<< EXIT >>> : 0x00000000"));
    a.reset();
}

TEST_F(DownTest, NoWaitStepsReportTheTimeOutAtOnce)
{
    cluster();
    list_ptr a = load();
    ASSERT_TRUE(a);
    a->dpretry = 0;
    cnthb_dpthretry = 0;
    rundown(a.get());
    EXPECT_TRUE(cntlog("TIMEOUT(20 msec x 0):wait cnthb_dpwriteth"));
    a.reset();
}

TEST_F(DownTest, HangingWriteIsCancelledAfterTheBoundedWaitAndFreesTheMutex)
{
    cluster();
    fake::set_key("/root/cnthb/rwlock", "1");
    list_ptr a = load();
    ASSERT_TRUE(a);
    a->dpint = 0;
    a->dpretry = 3;
    cnthb_dpthwait = 10;
    cnthb_dpthretry = 5;
    Hang gate;
    fake::on_sethbinf([&](uint8_t cntno, const void *rec) {
        gate.wait();
        return fake::default_sethbinf(cntno, rec);
    });
    EXPECT_EQ(rundown(a.get()), nullptr);
    EXPECT_TRUE(cntlog("TIMEOUT(10 msec x 5):wait cnthb_dpwriteth"));
    EXPECT_LE(gate.entered(), 1); // no second worker on the busy path
    EXPECT_FALSE(writing(a.get()));
    ASSERT_TRUE(waitfor([&] { return workers(a.get()) == 0; }));
    EXPECT_EQ(gate.waiting(), 0);
    pthread_mutex_t *m = &cnthb_rscat(a.get(), 0)->rwmutex;
    EXPECT_EQ(pthread_mutex_trylock(m), 0); // released by the cancelled worker
    pthread_mutex_unlock(m);
    a.reset();
    EXPECT_EQ(cntcount("still running"), 0);
}

TEST_F(DownTest, ReadingPeerTakesTheNodeOfflineOnTheNotice)
{
    cluster();
    list_ptr a = load("node1", 0); // goes down
    list_ptr b = load("node2", 1); // reads
    ASSERT_TRUE(a && b);
    cnthb_bhbwrite = 1;
    pthread_t reader = 0, writer = 0;
    ASSERT_EQ(pthread_create(&reader, nullptr, cnthb_hbread, b.get()), 0);
    ASSERT_EQ(pthread_create(&writer, nullptr, cnthb_hbwrite, a.get()), 0);
    ASSERT_TRUE(waitfor([] { return svstat("cnt1", 1) == SHMNM_SVSTAT_ONLINE; }));
    pthread_cancel(writer);
    ASSERT_EQ(pthread_join(writer, nullptr), 0);

    a->dpint = 0;
    a->dpretry = 2;
    rundown(a.get());
    EXPECT_TRUE(waitfor([] { return cntlog("DOWNPACKET read(cnt1,node1(1))"); }));
    EXPECT_EQ(svstat("cnt1", 1), SHMNM_SVSTAT_OFFLINE);
    EXPECT_TRUE(cntlog(" *** cnt1/node(node1(1)) : OFFLINE ***"));
    EXPECT_EQ(cntcount("DOWNPACKET"), 1); // after it, the next notice only primes

    bsigrecv = 1;
    pthread_cancel(reader);
    ASSERT_EQ(pthread_join(reader, nullptr), 0);
    a.reset();
    b.reset();
}

} // namespace
