// setsched's keys, the stack-size key check and setstacksz.
#include <sys/resource.h>

#include "unit/unit.h"

namespace {

using Texts = std::vector<std::string>;

struct Sched : unit::FrameTest {
    void SetUp() override
    {
        FrameTest::SetUp();
        // setsched applies the nice value to this very process: keep it.
        fake::set_key("/root/heartbeat/nice", std::to_string(getpriority(PRIO_PROCESS, 0)));
    }
    int32_t watch = 7; // the LAN watcher switch as the caller hands it in
};

TEST_F(Sched, ReadsEveryKeyAndFallsBackOnEachFailure)
{
    bmlock = 1;
    EXPECT_EQ(setsched(&watch), 0);
    EXPECT_EQ(std::make_pair(bmlock, watch), std::make_pair(0, 7));
    Texts want;
    for (const char *key : {"heartbeat/mlock", "heartbeat/sched/schedule", "heartbeat/sched/priority", "lanhb/watchth"})
        want.push_back(std::string("xmllib_get_value(/root/") + key + ") failed(ret:2)");
    EXPECT_EQ(fake::texts("lanhb"), want);
    EXPECT_TRUE(fake::loaded_policies().empty());

    fake::set_key("/root/lanhb/watchth", "0");
    for (auto [text, locked] : {std::pair{"YES", 1}, {"yes", 1}, {"true", 0}, {"1", 0}, {"yes ", 0}}) {
        fake::set_key("/root/heartbeat/mlock", text);
        bmlock = 1 - locked;
        setsched(&watch);
        EXPECT_EQ(std::make_pair(bmlock, watch), std::make_pair(locked, 0)) << '"' << text << '"';
    }

    // A missing policy: code 9, no key read, nothing changed.
    unit::reload();
    fake::fail_on("xmllib_load_policy", "lanhb", 7);
    fake::set_key("/root/heartbeat/mlock", "yes");
    bmlock = 0, watch = 1;
    fake::clear_calls();
    EXPECT_EQ(setsched(&watch), 9);
    EXPECT_EQ(fake::texts("lanhb"), Texts{"xmllib_load_policy(lanhb) failed(ret:7)"});
    EXPECT_EQ(fake::count("xmllib_get_value"), 0);
    EXPECT_EQ(std::make_pair(bmlock, watch), std::make_pair(0, 1));
}

TEST_F(Sched, StackSizeIsCorrectedAndAppliedOrRefused)
{
    const char *lankey = "/root/lanhb/thread/stacksize", *cntkey = "/root/cnthb/thread/stacksize";
    for (auto [value, size] : {std::pair{"-1", 0}, {"16383", 16384}, {"16384", 16384}}) {
        fake::set_key(lankey, value);
        thstacksz = 777;
        loadstacksz(HBLOG_LAN, lankey);
        EXPECT_EQ(thstacksz, size) << value;
    }
    loadstacksz(HBLOG_CNT, cntkey); // missing
    EXPECT_EQ(thstacksz, 0);
    EXPECT_EQ(fake::texts("lanhb"),
              (Texts{"invalid STACKSIZE(-1). set to 0.", "under minimum STACKSIZE(16383). set to 16384."}));
    EXPECT_EQ(fake::texts("cnthb"), Texts{"xmllib_get_value(/root/cnthb/thread/stacksize) failed(ret:2)"});

    pthread_attr_t attr;
    ASSERT_EQ(pthread_attr_init(&attr), 0);
    size_t size = 0;
    thstacksz = 262144;
    setstacksz(&attr);
    thstacksz = 1; // refused by the system: logged, the attributes keep their size
    EXPECT_EQ(setstacksz(&attr), 0);
    pthread_attr_getstacksize(&attr, &size);
    EXPECT_EQ(size, 262144u);
    for (const char *log : {"lanhb", "cnthb"})
        EXPECT_EQ(fake::count_log(log, "pthread_attr_setstacksize(1) failed(ret:22,errno:"), 1) << log;
    pthread_attr_destroy(&attr);
}

} // namespace
