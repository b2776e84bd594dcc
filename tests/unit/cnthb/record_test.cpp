// The heartbeat record: stamp layout, what makes two records differ, the
// fallback when the clock cannot be formatted, and the reader's view.
#include <cstdlib>
#include <ctime>

#include "cnthb_test.h"

using namespace cnthbtest;

namespace {

constexpr time_t T0 = 1700000000;                    // 2023-11-14 22:13:20 UTC, a Tuesday
constexpr time_t TFAR = static_cast<time_t>(1) << 60; // beyond the calendar

struct RecordTest : CntTest {
    void SetUp() override
    {
        CntTest::SetUp();
        setenv("TZ", "UTC", 1);
        tzset();
    }
    // The stamp of a heartbeat with its NUL padding.
    static std::string hb(time_t sec, long usec, time_t cal)
    {
        const struct timeval tv = {sec, usec};
        cnthb_hbinf rec;
        std::memset(&rec, 0x5a, sizeof rec);
        cnthb_fillhb(&rec, &tv, cal);
        EXPECT_EQ(std::memcmp(rec.tag, "cnthb\0\0\0", 8), 0);
        return std::string(rec.stamp, 32);
    }
    static std::string pad(const std::string &s) { return s + std::string(32 - s.size(), '\0'); }
};

TEST_F(RecordTest, HeartbeatStampHasMillisecondsAndDiffersEveryMillisecond)
{
    EXPECT_EQ(hb(T0, 123456, T0), pad("Tue Nov 14 22:13:20.123 2023"));
    EXPECT_EQ(hb(T0, 7000, T0), pad("Tue Nov 14 22:13:20.007 2023"));
    EXPECT_EQ(hb(T0, 123000, T0), hb(T0, 123999, T0)); // one millisecond, one stamp
    EXPECT_NE(hb(T0, 123000, T0), hb(T0, 124000, T0));
    cnthb_hbinf a, b; // the same from the real clock
    cnthb_makehb(&a);
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    cnthb_makehb(&b);
    EXPECT_EQ(strnlen(a.stamp, 32), 28u);
    EXPECT_FALSE(cnthb_samestamp(&a, &b));
}

TEST_F(RecordTest, ClockFailuresFallBackToSecondsOrTheSharedCounter)
{
    EXPECT_EQ(hb(TFAR, 0, T0), pad("Tue Nov 14 22:13:20 2023")); // no time of day
    // No calendar time: the counter, shared with the down notices.
    EXPECT_EQ(hb(T0, 0, static_cast<time_t>(-1)), pad("1"));
    cnthb_hbinf down;
    cnthb_filldown(&down, TFAR);
    EXPECT_STREQ(down.stamp, "2");
    EXPECT_EQ(hb(T0, 0, TFAR), pad("3"));
}

TEST_F(RecordTest, DownNoticeHasSecondsOnly)
{
    cnthb_hbinf a, b;
    cnthb_filldown(&a, T0);
    cnthb_filldown(&b, T0);
    EXPECT_EQ(std::memcmp(a.tag, "hbdown\0\0", 8), 0);
    EXPECT_EQ(std::string(a.stamp, 32), pad("Tue Nov 14 22:13:20 2023"));
    EXPECT_TRUE(cnthb_samestamp(&a, &b));
}

TEST_F(RecordTest, ReaderTerminatesBothTextsAndComparesTagsWithTheirNul)
{
    const std::pair<const char *, int> tags[] = {
        {"cnthb", CNTHB_REC_HB}, {"hbdown", CNTHB_REC_DOWN}, {"cnthbx", CNTHB_REC_NONE}, {"", CNTHB_REC_NONE}};
    for (const auto &[tag, kind] : tags) {
        cnthb_hbinf rec = record(tag, "x");
        rec.tag[7] = 'Z'; // garbage in byte 7 is cleared first
        EXPECT_EQ(cnthb_rectag(&rec), kind) << tag;
    }
    cnthb_hbinf a, b; // byte 39 is cut, nothing after the first NUL counts
    std::memset(&a, 'A', sizeof a);
    b = a;
    b.stamp[31] = 'B';
    cnthb_rectag(&a);
    cnthb_rectag(&b);
    EXPECT_TRUE(cnthb_samestamp(&a, &b));
    a = b = record("cnthb", "same");
    b.stamp[10] = 'x';
    EXPECT_TRUE(cnthb_samestamp(&a, &b));
    b.stamp[3] = 'E';
    EXPECT_FALSE(cnthb_samestamp(&a, &b));
}

} // namespace
