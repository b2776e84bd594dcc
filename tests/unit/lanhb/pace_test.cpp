// The sender's pacing: the start-up stretch, the interval afterwards and the
// self down when the parent process has gone. Sleeps and the parent's pid
// are replaced, so nothing here waits.
#include <vector>

#include "lanhb_test.h"

using namespace lanhbtest;

namespace {

std::vector<int32_t> slept;
pid_t parent = 4711;

struct PaceTest : LanTest {
    lanhb_pace pace;
    void SetUp() override
    {
        LanTest::SetUp();
        slept.clear();
        parent = 4711;
        pace.sleepms = [](int32_t ms) { slept.push_back(ms); };
        pace.ppid = [] { return parent; };
    }
    // Steps until the self down is asked for; returns the number of steps.
    int stepsuntildown(int limit, hbtick_t *maxloop = nullptr)
    {
        for (int n = 1; n <= limit; ++n)
            if (lanhb_pacestep(&pace, 0, maxloop))
                return n;
        return 0;
    }
};

TEST_F(PaceTest, SelfDownLimits)
{
    const int32_t cases[][3] = {{3000, 18, 3}, {1000, 60, 10}, {20000, 18, 3}, {100, 600, 100}};
    for (const auto &c : cases) {
        lanhb_paceinit(&pace, c[0]);
        EXPECT_EQ(pace.countover1, c[1]);
        EXPECT_EQ(pace.countover2, c[2]);
    }
}

TEST_F(PaceTest, ParentGoneDuringStartUp)
{
    lanhb_paceinit(&pace, 3000);
    parent = 1;
    EXPECT_EQ(stepsuntildown(100), 18);
    EXPECT_EQ(slept, std::vector<int32_t>(18, 500));
    EXPECT_TRUE(lanlog("lanhb self down. countover1=18"));
}

TEST_F(PaceTest, StartUpStretchThenIntervalThenSelfDown)
{
    lanhb_paceinit(&pace, 3000);
    EXPECT_EQ(stepsuntildown(1203), 0);
    ASSERT_EQ(slept.size(), 1203u);
    EXPECT_EQ(slept[1200], 500); // 1201 start-up polls
    EXPECT_EQ(slept[1201], 3000);
    EXPECT_EQ(fake::count_log(HB_KIND_LANHB, "***** start normal polling(start send) 3000 msec. *****"), 1);

    // The parent goes; the third poll at the interval stops the daemon, and
    // a parent seen again starts the count anew.
    parent = 1;
    EXPECT_EQ(stepsuntildown(2), 0);
    parent = 4711;
    EXPECT_EQ(stepsuntildown(1), 0);
    parent = 1;
    hbtick_t maxloop = 0;
    EXPECT_EQ(stepsuntildown(5, &maxloop), 3);
    EXPECT_TRUE(lanlog("lanhb self down. countover2=3"));
    EXPECT_EQ(fake::count_log(HB_KIND_LANHB, "start normal polling(send)"), 0);
}

} // namespace
