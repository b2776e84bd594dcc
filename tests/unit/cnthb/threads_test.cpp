// The reader, writer, watcher and down-writer threads against the fake
// controller: a writer seen and then timing out, a hanging controller blocking
// only its worker, the down write's cycles and bounded wait, and shutdowns
// that leave nothing behind.
#include "cnthb_test.h"

using namespace cnthbtest;

namespace {

struct ThreadTest : CntTest {};
int reads() { return fake::count("zemfw_gethbinf"); }

// A controller call that hangs; cancellable or (stuck) not.
void hangs(Hang &hang, bool stuck = false)
{
    fake::on_gethbinf([&hang, stuck](void *buf) {
        int old = 0;
        pthread_setcancelstate(stuck ? PTHREAD_CANCEL_DISABLE : PTHREAD_CANCEL_ENABLE, &old);
        hang.wait();
        pthread_setcancelstate(old, &old);
        return fake::default_gethbinf(buf);
    });
}

// Both poll at the interval right after a start-up stretch of one poll.
TEST_F(ThreadTest, WriterThatStopsIsDeclaredOfflineAfterTheTimeOut)
{
    for (auto [watcher, interval] : {std::pair{false, "100"}, {true, "1100"}}) {
        SCOPED_TRACE(watcher ? "watcher" : "reader checks");
        bsigrecv = 0, hbpace_fastpolls = 0;
        cluster();
        fake::set_key("/root/cluster/heartbeat/timeout", "1000"); // 100 ticks
        fake::set_key("/root/cluster/heartbeat/interval", interval);
        fake::set_key("/root/cnthb/watchth", watcher ? "1" : "0");
        hbtick_source = fakenow, now = 1000;
        list_ptr a = load("node1", 0), b = load("node2", 1); // a reads only, b writes only
        cnthb_bhbwrite = 1;
        const pthread_t reader = start(cnthb_hbread, a.get());
        const pthread_t watch = watcher ? start(cnthb_hbwatch, a.get()) : 0;
        const pthread_t writer = start(cnthb_hbwrite, b.get());
        ASSERT_TRUE(waitfor([] { return svstat("cnt1", 2) == SHMNM_SVSTAT_ONLINE; }));
        for (const std::string which : {"read2", "write"})
            EXPECT_TRUE(waitfor([&] { return cntlog("***** start normal polling(" + which + ") " + interval + " msec. *****"); }));
        stop(writer, false);
        const int seen = reads();
        ASSERT_TRUE(waitfor([&] { return reads() >= seen + 2; })); // all it wrote has been read
        EXPECT_EQ(svstat("cnt1", 2), SHMNM_SVSTAT_ONLINE);        // and no time has passed
        now += 101;
        EXPECT_TRUE(waitfor([] { return svstat("cnt1", 2) == SHMNM_SVSTAT_OFFLINE; }));
        if (watcher)
            stop(watch);
        stop(reader);
        EXPECT_EQ(cntcount("cnthb_hbwatch() exit"), watcher ? 1 : 0);
    }
}

TEST_F(ThreadTest, HangingReadBlocksOnlyItsWorker)
{
    cluster();
    fake::set_key("/root/cluster/heartbeat/timeout", "1000");
    hbtick_source = fakenow;
    list_ptr a = load();
    Hang hang;
    cnthb_hbinf rec = record("cnthb", "s1");
    fake::set_slot(1, &rec);
    const pthread_t reader = start(cnthb_hbread, a.get());
    ASSERT_TRUE(waitfor([] { return reads() >= 2; }));
    rec = record("cnthb", "s2");
    fake::set_slot(1, &rec);
    ASSERT_TRUE(waitfor([] { return svstat("cnt1", 2) == SHMNM_SVSTAT_ONLINE; }));
    hangs(hang);
    ASSERT_TRUE(waitfor([&] { return hang.waiting == 1; }));
    const int calls = reads(), checks = fake::count("shmcm_getratio");
    // The poller and its time-out check go on...
    ASSERT_TRUE(waitfor([&] { return fake::count("shmcm_getratio") >= checks + 3; }));
    now += 101;
    EXPECT_TRUE(waitfor([] { return svstat("cnt1", 2) == SHMNM_SVSTAT_OFFLINE; }));
    // ...but no second worker piles up on the hanging path.
    EXPECT_EQ(hang.entered, 1);
    EXPECT_EQ(reads(), calls);
    stop(reader); // its clean-up handler cancels the hanging worker
    EXPECT_TRUE(waitfor([&] { return hang.waiting == 0; }));
    a.reset();
    EXPECT_EQ(cntcount("still running"), 0);
}

TEST_F(ThreadTest, CancelledWriteWorkerReleasesTheMutex)
{
    cluster();
    fake::set_key("/root/cnthb/rwlock", "1");
    list_ptr a = load();
    Hang hang;
    fake::on_sethbinf([&](uint8_t cntno, const void *rec) { return hang.wait(), fake::default_sethbinf(cntno, rec); });
    cnthb_bhbwrite = 1;
    const pthread_t writer = start(cnthb_hbwrite, a.get());
    ASSERT_TRUE(waitfor([&] { return hang.waiting == 1; })); // hangs holding rwmutex
    const pthread_t reader = start(cnthb_hbread, a.get());
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    EXPECT_EQ(reads(), 0); // the read waits for the write
    stop(writer, false);
    EXPECT_TRUE(waitfor([] { return reads() >= 1; }));
    EXPECT_EQ(hang.waiting, 0);
    stop(reader);
}

TEST_F(ThreadTest, TableOfAWorkerStuckForGoodIsNotFreed)
{
    cluster();
    list_ptr a = load();
    Hang hang;
    hangs(hang, true); // stuck where no cancellation reaches
    const pthread_t reader = start(cnthb_hbread, a.get());
    ASSERT_TRUE(waitfor([&] { return hang.waiting == 1; }));
    stop(reader);
    cnthb_list *kept = a.release();
    cnthb_freelist(kept); // gives up after its bounded wait
    EXPECT_TRUE(cntlog("cnthb_freelist: 1 worker(s) still running, table kept"));
    hang.opened = true; // the worker finishes on the table that was kept
    ASSERT_TRUE(waitfor([&] { return std::atomic_ref<int32_t>(kept->nworkers).load() == 0; }));
    cnthb_freelist(kept);
}

struct DownTest : CntTest {
    // Runs the down writer to its end in a thread of its own, as main does;
    // the milliseconds it took.
    static int64_t rundown(cnthb_list *list, int32_t retry, int32_t dpint = 0)
    {
        list->dpretry = retry, list->dpint = dpint;
        const int64_t ms = took_ms([&] { EXPECT_EQ(exitvalue(start(cnthb_dpwrite, list)), nullptr); });
        EXPECT_TRUE(cntlog("<<< EXIT >>> : 0x00000000"));
        return ms;
    }
};

TEST_F(DownTest, NoticesGoIntoThisNodesSlotOnEveryPath)
{
    cluster(2);
    list_ptr a = load("node1", 1);
    rundown(a.get(), 0); // no cycles: nothing written, nothing to wait for
    EXPECT_EQ(fake::count("zemfw_sethbinf"), 0);
    const int64_t ms = rundown(a.get(), 2, 1100); // one write per path and cycle, each cycle its pause
    EXPECT_TRUE(ms >= 2200 && ms < 3000) << ms;
    EXPECT_TRUE(fake::slot(1).starts_with(std::string("hbdown\0", 7)));
    EXPECT_EQ(fake::slot(0), std::string(ZEMFW_HBINF_SIZE, '\0'));
    EXPECT_EQ(fake::count("zemfw_sethbinf"), 4);
    EXPECT_EQ(cntcount("TIMEOUT"), 0);
    cnthb_dpthretry = 0; // no wait steps: the time-out at once
    rundown(a.get(), 0);
    EXPECT_TRUE(cntlog("TIMEOUT(20 msec x 0):wait cnthb_dpwriteth"));
}

TEST_F(DownTest, HangingWriteIsCancelledAfterTheBoundedWait)
{
    cluster();
    list_ptr a = load();
    cnthb_dpthwait = 10, cnthb_dpthretry = 5;
    Hang hang;
    fake::on_sethbinf([&](uint8_t cntno, const void *rec) { return hang.wait(), fake::default_sethbinf(cntno, rec); });
    rundown(a.get(), 3);
    EXPECT_TRUE(cntlog("TIMEOUT(10 msec x 5):wait cnthb_dpwriteth"));
    EXPECT_LE(hang.entered, 1); // no second worker on the busy path
    EXPECT_TRUE(waitfor([&] { return std::atomic_ref<int32_t>(a->nworkers).load() == 0; }));
}

} // namespace
