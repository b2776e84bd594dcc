// The sender's pacing with sleeps and the parent's pid replaced: the start-up
// stretch, the interval afterwards and the self down when the parent has gone.
#include "lanhb_test.h"

using namespace lanhbtest;

namespace {

std::vector<int32_t> slept;
pid_t parent = 4711;

struct PaceTest : LanTest {
    lanhb_pace pace;
    void init(int32_t hbint)
    {
        slept.clear();
        pace = lanhb_pace{};
        pace.sleepms = [](int32_t ms) { slept.push_back(ms); };
        pace.ppid = [] { return parent; };
        lanhb_paceinit(&pace, hbint);
    }
    // The step that asks for the self down, or 0.
    int stepsuntildown(int limit, pid_t ppid)
    {
        parent = ppid;
        for (int n = 1; n <= limit; ++n)
            if (lanhb_pacestep(&pace, 0, nullptr))
                return n;
        return 0;
    }
};

TEST_F(PaceTest, StartUpStretchThenIntervalThenSelfDown)
{
    // Without a parent during start-up: six times the polls of ten seconds, at least 18.
    for (auto [hbint, polls] : {std::pair{3000, 18}, {1000, 60}, {20000, 18}, {100, 600}}) {
        init(hbint);
        EXPECT_EQ(stepsuntildown(1000, 1), polls) << hbint;
        EXPECT_EQ(slept, std::vector<int32_t>(size_t(polls), 500)) << hbint;
    }
    EXPECT_TRUE(lanlog("lanhb self down. countover1=18"));
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
