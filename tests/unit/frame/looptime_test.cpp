// Time-out limits and delay warnings.
#include <climits>

#include "cnthb/cnthb.h"
#include "lanhb/lanhb.h"
#include "unit/unit.h"

namespace {

using Texts = std::vector<std::string>;

struct Delay : unit::FrameTest {
    // Texts of the catalogued records of one log.
    static Texts records(const char *log)
    {
        Texts out;
        for (const auto &r : fake::logs_of(log))
            if (r.level == LOG_LEVEL_CATALOG)
                out.push_back(r.text);
        return out;
    }
    // Records one check adds to the log of its kind.
    static size_t warned(int kind, hbtick_t elapsed, int32_t msgno, int32_t hbto = 10000)
    {
        const char *log = kind == 2 ? "cnthb" : "lanhb";
        const size_t before = records(log).size();
        delaywarn(kind, "p1", "n2", 5000, 5000 + elapsed, hbto, msgno);
        return records(log).size() - before;
    }
};

TEST_F(Delay, WarnsFromTheThresholdForOwnOperationsWithRateRatioAndSaturation)
{
    // kind, msgno, rate, ticks per second, ratio (0: unreadable), time-out, elapsed, records written.
    // 10 s, ratio 1, 100 ticks per second, rate 80: limit 1000, threshold 800; over
    // time is written only for the kind's own operations.
    const int32_t cases[][8] = {
        {1, 72, 80, 100, 1, 10000, 799, 0},  {1, 72, 80, 100, 1, 10000, 800, 1},  {1, 72, 80, 100, 1, 10000, 1000, 1},
        {1, 72, 80, 100, 1, 10000, 1001, 1}, {1, 73, 80, 100, 1, 10000, 1001, 1}, {1, 71, 80, 100, 1, 10000, 1000, 1},
        {1, 71, 80, 100, 1, 10000, 1001, 0}, {1, 74, 80, 100, 1, 10000, 1001, 0}, {2, 75, 80, 100, 1, 10000, 800, 1},
        {2, 74, 80, 100, 1, 10000, 1001, 1}, {2, 72, 80, 100, 1, 10000, 1001, 0}, {3, 72, 80, 100, 1, 10000, 900, 0},
        {1, 72, 150, 100, 1, 10000, 999, 0}, {1, 72, 150, 100, 1, 10000, 1000, 1}, // rate over 100: the limit
        {1, 72, 0, 100, 1, 10000, 0, 1},     {1, 72, 80, 7, 1, 10000, 10, 1},      // limit 70 divided first: 0
        {1, 72, 80, 100, 2, 500, 159, 0},    {1, 72, 80, 100, 2, 500, 160, 1},     // 500 ms counts as 1 s
        {1, 72, 80, 100, -3, 10000, 800, 1}, {1, 72, 80, 100, 0, 10000, 800, 1}};
    hbkind_set(&LANHB_KIND), hbkind_set(&CNTHB_KIND); // as their loaders do
    for (const auto &c : cases) {
        lanhb_warnrate = cnthb_warnrate = c[2], tckconf = c[3];
        c[4] != 0 ? fake::set_ratio(c[4]) : fake::fail("shmcm_getratio", 6, 2);
        EXPECT_EQ(warned(c[0], hbtick_t(c[6]), c[1], c[5]), size_t(c[7])) << testing::PrintToString(c);
    }
    EXPECT_EQ(records("lanhb").front(), "delay(72) rsc=p1 node=n2 hbto=10s tck=100 elapsed=800 rate=80%");
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
