// The down write at an orderly stop: its cycles, the bounded wait for its
// workers and the cancellation of a hanging one.
#include "cnthb_test.h"

using namespace cnthbtest;

namespace {

struct DownTest : CntTest {
    // Runs the down writer to its end in a thread of its own, as main does.
    static void rundown(cnthb_list *list, int32_t retry, int32_t dpint = 0)
    {
        list->dpretry = retry;
        list->dpint = dpint;
        pthread_t th = 0;
        ASSERT_EQ(pthread_create(&th, nullptr, cnthb_dpwrite, list), 0);
        void *ret = reinterpret_cast<void *>(1);
        EXPECT_EQ(pthread_join(th, &ret), 0);
        EXPECT_EQ(ret, nullptr);
        EXPECT_TRUE(cntlog("<<< EXIT >>> : 0x00000000"));
    }
};

TEST_F(DownTest, NoticesGoIntoThisNodesSlotOnEveryPath)
{
    cluster(2);
    list_ptr a = load("node1", 1);
    ASSERT_TRUE(a);
    rundown(a.get(), 0); // no cycles: nothing written, nothing to wait for
    EXPECT_EQ(fake::count("zemfw_sethbinf"), 0);
    rundown(a.get(), 3, 50); // with time to finish: one write per path and cycle
    EXPECT_TRUE(fake::slot(1).starts_with(std::string("hbdown\0", 7)));
    EXPECT_EQ(fake::slot(0), std::string(ZEMFW_HBINF_SIZE, '\0'));
    EXPECT_EQ(fake::count("zemfw_sethbinf"), 6);
    EXPECT_EQ(cntcount("TIMEOUT"), 0);
    cnthb_dpthretry = 0; // no wait steps: the time-out at once
    rundown(a.get(), 0);
    EXPECT_TRUE(cntlog("TIMEOUT(20 msec x 0):wait cnthb_dpwriteth"));
}

TEST_F(DownTest, HangingWriteIsCancelledAfterTheBoundedWait)
{
    cluster();
    list_ptr a = load();
    ASSERT_TRUE(a);
    cnthb_dpthwait = 10;
    cnthb_dpthretry = 5;
    Hang hang;
    fake::on_sethbinf([&](uint8_t cntno, const void *rec) { return hang.wait(), fake::default_sethbinf(cntno, rec); });
    rundown(a.get(), 3);
    EXPECT_TRUE(cntlog("TIMEOUT(10 msec x 5):wait cnthb_dpwriteth"));
    EXPECT_LE(hang.entered, 1); // no second worker on the busy path
    EXPECT_TRUE(waitfor([&] { return std::atomic_ref<int32_t>(a->nworkers).load() == 0; }));
}

} // namespace
