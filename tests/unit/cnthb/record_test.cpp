// The heartbeat record: stamp layout, what makes two records differ, the
// fallback when the clock cannot be formatted, and the reader's view.
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>

#include "cnthb_test.h"

using namespace cnthbtest;

namespace {

// 2023-11-14 22:13:20 UTC, a Tuesday.
constexpr time_t T0 = 1700000000;
// Too far away for the calendar: neither broken down nor formatted.
constexpr time_t TFAR = static_cast<time_t>(1) << 60;

struct RecordTest : CntTest {
    void SetUp() override
    {
        CntTest::SetUp();
        setenv("TZ", "UTC", 1);
        tzset();
    }
    static std::string stamp(const cnthb_hbinf &rec) { return std::string(rec.stamp, strnlen(rec.stamp, 32)); }
    // True when every byte of the record from `from` on is NUL.
    static bool nulfrom(const cnthb_hbinf &rec, size_t from)
    {
        const auto *b = reinterpret_cast<const unsigned char *>(&rec);
        for (size_t i = from; i < sizeof rec; ++i)
            if (b[i] != 0)
                return false;
        return true;
    }
};

TEST_F(RecordTest, HeartbeatCarriesTheTimeOfDayInMillisecondsAndTheYear)
{
    cnthb_hbinf rec;
    std::memset(&rec, 0x5a, sizeof rec); // whatever was there before
    const struct timeval tv = {T0, 123456};
    cnthb_fillhb(&rec, &tv, T0);

    EXPECT_EQ(std::memcmp(rec.tag, "cnthb\0\0\0", 8), 0);
    EXPECT_EQ(stamp(rec), "Tue Nov 14 22:13:20.123 2023");
    EXPECT_TRUE(nulfrom(rec, 8 + 28)); // 28 characters, then NUL to the end

    // A single-digit millisecond is padded, not shortened.
    const struct timeval early = {T0, 7000};
    cnthb_fillhb(&rec, &early, T0);
    EXPECT_EQ(stamp(rec), "Tue Nov 14 22:13:20.007 2023");
}

TEST_F(RecordTest, StampsDifferExactlyWhenTheMillisecondDiffers)
{
    cnthb_hbinf a, b;
    const struct timeval t1 = {T0, 123000}, t2 = {T0, 123999}, t3 = {T0, 124000}, t4 = {T0 + 1, 123000};
    cnthb_fillhb(&a, &t1, T0);
    cnthb_fillhb(&b, &t2, T0);
    EXPECT_TRUE(cnthb_samestamp(&a, &b)); // same millisecond: not a new heartbeat
    cnthb_fillhb(&b, &t3, T0);
    EXPECT_FALSE(cnthb_samestamp(&a, &b));
    cnthb_fillhb(&b, &t4, T0 + 1);
    EXPECT_FALSE(cnthb_samestamp(&a, &b));

    // The same from the real clock, two records a few milliseconds apart.
    cnthb_makehb(&a);
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    cnthb_makehb(&b);
    EXPECT_EQ(strnlen(a.stamp, 32), 28u);
    EXPECT_FALSE(cnthb_samestamp(&a, &b)) << stamp(a) << " / " << stamp(b);
}

TEST_F(RecordTest, UnformattableClockFallsBackToTheSharedCounter)
{
    cnthb_ctimedummy = 0;
    cnthb_hbinf rec;
    const struct timeval tv = {T0, 500000};

    cnthb_fillhb(&rec, &tv, static_cast<time_t>(-1)); // time() failed
    EXPECT_EQ(std::memcmp(rec.tag, "cnthb\0\0\0", 8), 0);
    EXPECT_EQ(stamp(rec), "1");
    EXPECT_TRUE(nulfrom(rec, 9));

    cnthb_filldown(&rec, TFAR); // ctime cannot format it; down notices share the counter
    EXPECT_EQ(std::memcmp(rec.tag, "hbdown\0\0", 8), 0);
    EXPECT_EQ(stamp(rec), "2");

    cnthb_fillhb(&rec, &tv, TFAR);
    EXPECT_EQ(stamp(rec), "3");
    EXPECT_EQ(cnthb_ctimedummy.load(), 3);

    // Time of day unusable but the calendar time fine: seconds only, no counter.
    const struct timeval far = {TFAR, 0};
    cnthb_fillhb(&rec, &far, T0);
    EXPECT_EQ(stamp(rec), "Tue Nov 14 22:13:20 2023");
    cnthb_fillhb(&rec, nullptr, T0);
    EXPECT_EQ(stamp(rec), "Tue Nov 14 22:13:20 2023");
    EXPECT_EQ(cnthb_ctimedummy.load(), 3);
}

TEST_F(RecordTest, DownNoticeHasSecondsOnlySoRepeatsLookTheSame)
{
    cnthb_hbinf a, b;
    cnthb_filldown(&a, T0);
    EXPECT_EQ(std::memcmp(a.tag, "hbdown\0\0", 8), 0);
    EXPECT_EQ(stamp(a), "Tue Nov 14 22:13:20 2023");
    EXPECT_TRUE(nulfrom(a, 8 + 24));
    cnthb_filldown(&b, T0);
    EXPECT_TRUE(cnthb_samestamp(&a, &b));

    cnthb_makedown(&a);
    EXPECT_EQ(strnlen(a.stamp, 32), 24u);
}

TEST_F(RecordTest, ReaderTerminatesBothTextsAndComparesTagsWithTheirNul)
{
    cnthb_hbinf rec = record("cnthb", "x");
    rec.tag[7] = 'Z'; // garbage in byte 7 does not spoil the tag
    EXPECT_EQ(cnthb_rectag(&rec), CNTHB_REC_HB);
    EXPECT_EQ(rec.tag[7], '\0');

    rec = record("hbdown", "x");
    rec.tag[7] = 'Q';
    EXPECT_EQ(cnthb_rectag(&rec), CNTHB_REC_DOWN);

    rec = record("cnthbx", "x");
    EXPECT_EQ(cnthb_rectag(&rec), CNTHB_REC_NONE);
    rec = record("hbdow", "x");
    EXPECT_EQ(cnthb_rectag(&rec), CNTHB_REC_NONE);
    cnthb_hbinf blank{};
    EXPECT_EQ(cnthb_rectag(&blank), CNTHB_REC_NONE); // a slot never written

    // A stamp filling all 32 bytes is cut at byte 39 before it is compared,
    // and nothing after the first NUL counts.
    cnthb_hbinf a, b;
    std::memset(&a, 'A', sizeof a);
    std::memcpy(a.tag, "cnthb\0\0", 7);
    b = a;
    b.stamp[31] = 'B';
    cnthb_rectag(&a);
    cnthb_rectag(&b);
    EXPECT_EQ(a.stamp[31], '\0');
    EXPECT_TRUE(cnthb_samestamp(&a, &b));
    cnthb_hbinf c = record("cnthb", "same"), d = record("cnthb", "same");
    d.stamp[10] = 'x';
    EXPECT_TRUE(cnthb_samestamp(&c, &d));
    d.stamp[3] = 'E';
    EXPECT_FALSE(cnthb_samestamp(&c, &d));
}

} // namespace
