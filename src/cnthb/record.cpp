// The controller heartbeat record: building heartbeats and down notices, and
// how a reader looks at a record it fetched.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "cnthb/cnthb.h"

std::atomic<int32_t> cnthb_ctimedummy{0};

namespace {

// Where the time of day is written over the ctime text: "Www Mmm dd " is 11
// characters, and "hh:mm:ss.mmm yyyy" replaces the text's own "hh:mm:ss yyyy".
constexpr size_t STAMP_TIMEPOS = 11;
// ctime_r needs 26 bytes; more room costs nothing.
constexpr size_t CTIME_BUFSZ = 64;

void settag(cnthb_hbinf *rec, const char *tag)
{
    std::memset(rec, 0, sizeof *rec);
    std::memcpy(rec->tag, tag, std::strlen(tag));
}

// The ctime text of now without its newline, copied into the stamp; false
// when the calendar time was unreadable or cannot be formatted.
bool setctime(cnthb_hbinf *rec, time_t now)
{
    if (now == static_cast<time_t>(-1))
        return false;
    char text[CTIME_BUFSZ];
    if (ctime_r(&now, text) == nullptr)
        return false;
    text[sizeof text - 1] = '\0';
    const size_t len = std::strcspn(text, "\n");
    std::memcpy(rec->stamp, text, std::min(len, sizeof rec->stamp - 1));
    return true;
}

// Without a usable clock, successive records still differ: every writer
// takes the next value of the shared counter.
void setdummy(cnthb_hbinf *rec)
{
    const int32_t n = cnthb_ctimedummy.fetch_add(1) + 1;
    std::snprintf(rec->stamp, sizeof rec->stamp, "%d", static_cast<int>(n));
}

} // namespace

void cnthb_fillhb(cnthb_hbinf *rec, const struct timeval *tv, time_t now)
{
    settag(rec, CNTHB_TAG_HB);
    struct tm tmv;
    const bool tmok = tv != nullptr && localtime_r(&tv->tv_sec, &tmv) != nullptr;
    if (!setctime(rec, now)) {
        setdummy(rec);
        return;
    }
    if (!tmok)
        return; // seconds resolution only
    char text[CTIME_BUFSZ];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d %ld", tmv.tm_hour, tmv.tm_min, tmv.tm_sec,
                  static_cast<int>((tv->tv_usec / 1000) % 1000), static_cast<long>(tmv.tm_year) + 1900);
    // The stamp's last byte stays NUL whatever the year.
    const size_t room = sizeof rec->stamp - STAMP_TIMEPOS - 1;
    std::memcpy(rec->stamp + STAMP_TIMEPOS, text, std::min(std::strlen(text) + 1, room));
}

void cnthb_filldown(cnthb_hbinf *rec, time_t now)
{
    settag(rec, CNTHB_TAG_DOWN);
    if (!setctime(rec, now))
        setdummy(rec);
}

void cnthb_makehb(cnthb_hbinf *rec)
{
    struct timeval tv;
    const bool tvok = gettimeofday(&tv, nullptr) == 0;
    cnthb_fillhb(rec, tvok ? &tv : nullptr, time(nullptr));
}

void cnthb_makedown(cnthb_hbinf *rec)
{
    cnthb_filldown(rec, time(nullptr));
}

int cnthb_rectag(cnthb_hbinf *rec)
{
    // A slot holds whatever the controller gives back: terminate both texts
    // before looking at them.
    rec->tag[sizeof rec->tag - 1] = '\0';
    rec->stamp[sizeof rec->stamp - 1] = '\0';
    // Compared with their NUL, so "cnthbX" or "hbdownX" is no tag.
    if (std::memcmp(rec->tag, CNTHB_TAG_HB, sizeof CNTHB_TAG_HB) == 0)
        return CNTHB_REC_HB;
    if (std::memcmp(rec->tag, CNTHB_TAG_DOWN, sizeof CNTHB_TAG_DOWN) == 0)
        return CNTHB_REC_DOWN;
    return CNTHB_REC_NONE;
}

bool cnthb_samestamp(const cnthb_hbinf *a, const cnthb_hbinf *b)
{
    return std::strncmp(a->stamp, b->stamp, sizeof a->stamp) == 0;
}
