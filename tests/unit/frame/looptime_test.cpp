// Time-out limits and delay warnings.
#include <atomic>
#include <climits>

#include "frame_test.h"

using namespace frametest;

namespace {

std::atomic<hbtick_t> test_now{0};

struct Delay : LogTest {
    void SetUp() override
    {
        tckconf = 100;
        hbtick_source = [] { return test_now.load(); };
        LogTest::SetUp();
    }
    void TearDown() override { LogTest::TearDown(), hbframe_reset(); }
    // Records one check adds to the log of its kind.
    static size_t warned(int kind, hbtick_t elapsed, int32_t msgno, int32_t hbto = 10000)
    {
        const char *log = kind == 2 ? "cnthb" : "lanhb";
        const size_t before = records(log).size();
        delaywarn(kind, "p1", "n2", 5000, 5000 + elapsed, hbto, msgno);
        return records(log).size() - before;
    }
};

TEST_F(Delay, WarnsFromTheThresholdAndWritesOverTimeOnlyForOwnOperations)
{
    // 10 s, ratio 1, 100 ticks per second, rate 80: limit 1000, threshold 800.
    const struct {
        int kind;
        hbtick_t elapsed;
        int32_t msgno;
        size_t written;
    } cases[] = {{1, 799, 72, 0}, {1, 800, 72, 1}, {1, 1000, 72, 1}, {1, 1001, 72, 1}, {1, 1001, 73, 1},
                 {1, 1000, 71, 1}, {1, 1001, 71, 0}, {1, 1001, 74, 0}, {2, 800, 75, 1},  {2, 1001, 74, 1},
                 {2, 1001, 72, 0}, {3, 900, 72, 0}};
    for (const auto &c : cases)
        EXPECT_EQ(warned(c.kind, c.elapsed, c.msgno), c.written) << c.kind << "/" << c.elapsed << "/" << c.msgno;
    EXPECT_EQ(records("lanhb").front(), "delay(72) rsc=p1 node=n2 hbto=10s tck=100 elapsed=800 rate=80%");
}

TEST_F(Delay, RateRatioAndSaturation)
{
    // rate, ticks per second, ratio (0: unreadable), time-out, elapsed, written
    const int32_t cases[][6] = {{150, 100, 1, 10000, 999, 0}, {150, 100, 1, 10000, 1000, 1}, // rate over 100: the limit
                                {0, 100, 1, 10000, 0, 1},     {80, 7, 1, 10000, 10, 1}, // limit 70 divided first: 0
                                {80, 100, 2, 500, 159, 0},    {80, 100, 2, 500, 160, 1}, // 500 ms counts as 1 s
                                {80, 100, -3, 10000, 800, 1}, {80, 100, 0, 10000, 800, 1}};
    for (const auto &c : cases) {
        lanhb_warnrate = c[0], tckconf = c[1];
        c[2] != 0 ? fake::set_ratio(c[2]) : fake::fail("shmcm_getratio", 6, 2);
        EXPECT_EQ(warned(1, hbtick_t(c[4]), 72, c[3]), size_t(c[5])) << c[0] << "/" << c[1] << "/" << c[2] << "/" << c[4];
    }
    warned(2, 0, 75);
    for (const char *log : {"lanhb", "cnthb"})
        EXPECT_EQ(fake::texts(log), Texts{"shmcm_getratio() failed(ret:6)"});

    fake::set_ratio(1000);
    delaywarn(1, "p1", "n2", UINT64_MAX - 99, INT32_MAX - 100, INT32_MAX, 72); // across a counter wrap
    EXPECT_EQ(records("lanhb").back(), "delay(72) rsc=p1 node=n2 hbto=2147483647s tck=100 elapsed=2147483647 rate=80%");
    tckconf = 1000;
    int32_t scaled = 0;
    EXPECT_EQ(hbtimeout_limit(INT32_MAX, 1, &scaled), static_cast<hbtick_t>(INT32_MAX));
    EXPECT_EQ(scaled, 2147484);
    EXPECT_EQ(hbtimeout_limit(2147483000, 1, nullptr), 2147483000u);
}

} // namespace
