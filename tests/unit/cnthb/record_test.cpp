// The heartbeat record: stamp layout, what makes two records differ, the
// fallbacks when the clock cannot be formatted, and the reader's view.
#include <cstdlib>

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
};

TEST_F(RecordTest, StampsHaveMillisecondsDownNoticesSecondsAndClockFailuresFallBack)
{
    const struct {
        time_t sec;
        long usec; // -1: a down notice
        time_t cal;
        const char *stamp;
    } cases[] = {
        {T0, 123999, T0, "Tue Nov 14 22:13:20.123 2023"}, // cut, not rounded
        {T0, 7000, T0, "Tue Nov 14 22:13:20.007 2023"},
        {0, -1, T0, "Tue Nov 14 22:13:20 2023"},
        {TFAR, 0, T0, "Tue Nov 14 22:13:20 2023"}, // no time of day
        {T0, 0, -1, "1"},                           // no calendar time: the counter, shared
        {0, -1, TFAR, "2"},                         // with the down notices
        {T0, 0, TFAR, "3"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.stamp);
        const struct timeval tv = {c.sec, c.usec};
        cnthb_hbinf rec;
        std::memset(&rec, 0x5a, sizeof rec);
        c.usec < 0 ? cnthb_filldown(&rec, c.cal) : cnthb_fillhb(&rec, &tv, c.cal);
        EXPECT_EQ(std::string(rec.tag, 8), std::string(c.usec < 0 ? "hbdown\0\0" : "cnthb\0\0\0", 8));
        EXPECT_EQ(std::string(rec.stamp, 32), c.stamp + std::string(32 - std::strlen(c.stamp), '\0'));
    }
    cnthb_hbinf a, b; // the real clock: a new stamp every millisecond
    cnthb_makehb(&a);
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    cnthb_makehb(&b);
    EXPECT_EQ(strnlen(a.stamp, 32), 28u);
    EXPECT_FALSE(cnthb_samestamp(&a, &b));
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
