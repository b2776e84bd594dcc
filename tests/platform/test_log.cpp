// The log library: record layout, level rule, catalogued records, rotation
// and concurrent writers, on real files.
#include <sys/stat.h>

#include <array>
#include <cctype>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "plat.h"
#include "testutil.h"

namespace {

class Log : public ptest::TempRoot {
protected:
    log_hdl *open_log(const char *name, int32_t level, int32_t size)
    {
        log_hdl *h = nullptr;
        EXPECT_EQ(log_init(name, &h, level, size, nullptr), 0);
        return h;
    }
    std::vector<std::string> lines(const std::string &rel)
    {
        std::vector<std::string> out;
        std::stringstream ss(ptest::slurp(at(rel)));
        for (std::string l; std::getline(ss, l);)
            out.push_back(l);
        return out;
    }
};

// One record line split into its fields: [2] level, [3] thread id, [4] file,
// [5] line, [6] function, [7] text (numbered like the fields of the line).
using fields = std::array<std::string, 8>;

bool all_of(const std::string &s, const char *set)
{
    return !s.empty() && s.find_first_not_of(set) == std::string::npos;
}

// "YYYY-MM-DD HH:MM:SS.mmm LLLL TID FILE:LINE FUNC: TEXT"
bool parse(const std::string &l, fields &m)
{
    const std::string shape = "dddd-dd-dd dd:dd:dd.ddd ";
    if (l.size() < shape.size())
        return false;
    for (size_t i = 0; i < shape.size(); i++)
        if (shape[i] == 'd' ? !isdigit(static_cast<unsigned char>(l[i])) : l[i] != shape[i])
            return false;
    m[1] = l.substr(0, shape.size() - 1);
    size_t p = shape.size();
    auto word = [&](std::string &out) {
        size_t e = l.find(' ', p);
        if (e == std::string::npos)
            return false;
        out = l.substr(p, e - p);
        p = e + 1;
        return true;
    };
    std::string place;
    if (!word(m[2]) || !word(m[3]) || !word(place))
        return false;
    size_t colon = place.rfind(':');
    if (colon == std::string::npos)
        return false;
    m[4] = place.substr(0, colon);
    m[5] = place.substr(colon + 1);
    size_t e = l.find(": ", p);
    if (e == std::string::npos)
        return false;
    m[6] = l.substr(p, e - p);
    m[7] = l.substr(e + 2);
    return m[2].size() == 4 && all_of(m[2], "0123456789abcdef") && all_of(m[3], "0123456789") &&
           all_of(m[5], "0123456789") && !m[4].empty() && !m[6].empty() && m[6].find(' ') == std::string::npos;
}

TEST_F(Log, RecordCarriesPlaceAndVerbatimText)
{
    log_hdl *h = open_log("lanhb", 4, 1000000);
    ASSERT_NE(h, nullptr);
    // The text is written as it is: no printf conversions are applied.
    log_write(h, 1, 0, "lanhb/recv.cpp", 217, "lanhb_hbrecv", " *** %s/node(%s(%d)) : ONLINE *** 100%%");
    log_write(h, 2, 0, "frame/main.cpp", 5, "zemlanhb_main", "two\nlines");
    log_write(h, 4, 0, nullptr, 0, nullptr, nullptr);
    log_term(h);
    std::vector<std::string> l = lines("log/lanhb.log");
    ASSERT_EQ(l.size(), 3u);
    fields m;
    ASSERT_TRUE(parse(l[0], m)) << l[0];
    EXPECT_EQ(m[2], "0001");
    EXPECT_EQ(m[4], "lanhb/recv.cpp");
    EXPECT_EQ(m[5], "217");
    EXPECT_EQ(m[6], "lanhb_hbrecv");
    EXPECT_EQ(m[7], " *** %s/node(%s(%d)) : ONLINE *** 100%%");
    ASSERT_TRUE(parse(l[1], m)) << l[1];
    EXPECT_EQ(m[7], "two lines");
    ASSERT_TRUE(parse(l[2], m)) << l[2];
    EXPECT_EQ(m[7], "");
    struct stat st {};
    ASSERT_EQ(stat(at("log/lanhb.log").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
}

TEST_F(Log, LevelRuleKeepsUpToTheConfiguredLevelAndCatalogued)
{
    const int32_t levels[] = {1, 2, 4, 8, LOG_LEVEL_CATALOG};
    std::map<int32_t, std::string> kept = {{0, ""}, {1, "1 8000"}, {4, "1 2 4 8000"}, {8, "1 2 4 8 8000"}};
    for (const auto &[configured, expect] : kept) {
        std::string name = "lvl" + std::to_string(configured);
        log_hdl *h = open_log(name.c_str(), configured, 0);
        ASSERT_NE(h, nullptr);
        for (int32_t l : levels) {
            if (l == LOG_LEVEL_CATALOG)
                log_write(h, l, LOG_MSG_LANSEND, "f", 1, "delaywarn", nullptr, "lan1", "node2", 10, int64_t{100},
                          uint64_t{900}, 80);
            else
                log_write(h, l, 0, "f", 1, "fn", "text");
        }
        log_term(h);
        std::string got;
        for (const std::string &line : lines("log/" + name + ".log")) {
            fields m;
            ASSERT_TRUE(parse(line, m)) << line;
            got += (got.empty() ? "" : " ") + std::to_string(std::stoi(m[2], nullptr, 16) == 0x8000 ? 8000
                                                                                                   : std::stoi(m[2]));
        }
        EXPECT_EQ(got, expect) << "configured level " << configured;
    }
}

TEST_F(Log, CataloguedRecordsShowTheirValues)
{
    log_hdl *h = open_log("cnthb", 4, 0);
    ASSERT_NE(h, nullptr);
    // limit = 10 s x 100 ticks = 1000 ticks: 800 warns, 1001 is over time.
    log_write(h, LOG_LEVEL_CATALOG, LOG_MSG_HBGAP, "f", 1, "delaywarn", nullptr, "cnt1", "node2", int32_t{10},
              int64_t{100}, uint64_t{800}, int32_t{80});
    log_write(h, LOG_LEVEL_CATALOG, LOG_MSG_CNTREAD, "f", 2, "delaywarn", nullptr, "cnt1", "node1", int32_t{10},
              int64_t{100}, uint64_t{1001}, int32_t{80});
    log_write(h, LOG_LEVEL_CATALOG, LOG_MSG_CNTWRITE, "f", 3, "delaywarn", nullptr, nullptr, nullptr,
              int32_t{INT32_MAX}, int64_t{100}, uint64_t{5000000000ULL}, int32_t{100});
    log_write(h, LOG_LEVEL_CATALOG, 99, "f", 4, "delaywarn", nullptr);
    log_term(h);
    std::vector<std::string> l = lines("log/cnthb.log");
    ASSERT_EQ(l.size(), 4u);
    EXPECT_NE(l[0].find("delaywarn: delay warning(71) heartbeat gap: rsc(cnt1) node(node2) elapsed(800 ticks) "
                        "timeout(10 sec) clock(100 per sec) rate(80%)"),
              std::string::npos)
        << l[0];
    EXPECT_NE(l[1].find("over timeout(75) controller read: rsc(cnt1) node(node1) elapsed(1001 ticks)"),
              std::string::npos)
        << l[1];
    // A saturated time-out: the limit is 2147483647 ticks.
    EXPECT_NE(l[2].find("over timeout(74) controller write: rsc((null)) node((null)) elapsed(5000000000 ticks) "
                        "timeout(2147483647 sec)"),
              std::string::npos)
        << l[2];
    EXPECT_NE(l[3].find("catalogued record 99"), std::string::npos) << l[3];
}

TEST_F(Log, RotationKeepsThreeGenerationsOfWholeRecords)
{
    log_hdl *h = open_log("lanhb", 8, 2000);
    ASSERT_NE(h, nullptr);
    constexpr int n = 200;
    for (int i = 0; i < n; i++)
        log_write(h, 8, 0, "f.cpp", 1, "fn", ("record " + std::to_string(i)).c_str());
    log_term(h);
    std::vector<std::string> gens = {"log/lanhb.log.3", "log/lanhb.log.2", "log/lanhb.log.1", "log/lanhb.log"};
    EXPECT_FALSE(std::filesystem::exists(at("log/lanhb.log.4")));
    // Oldest to newest, the records continue one another without a gap and
    // end with the last one written.
    int next = -1;
    for (const std::string &g : gens) {
        ASSERT_TRUE(std::filesystem::exists(at(g))) << g;
        EXPECT_LE(std::filesystem::file_size(at(g)), 2000u) << g;
        for (const std::string &line : lines(g)) {
            fields m;
            ASSERT_TRUE(parse(line, m)) << line;
            int i = std::stoi(std::string(m[7]).substr(7));
            if (next >= 0) {
                EXPECT_EQ(i, next) << g;
            }
            next = i + 1;
        }
    }
    EXPECT_EQ(next, n);

    // Reopening appends to the current file and keeps its size in mind.
    size_t before = std::filesystem::file_size(at("log/lanhb.log"));
    h = open_log("lanhb", 8, 1000000);
    log_write(h, 1, 0, "f.cpp", 1, "fn", "after reopen");
    log_term(h);
    EXPECT_GT(std::filesystem::file_size(at("log/lanhb.log")), before);
    EXPECT_NE(ptest::slurp(at("log/lanhb.log")).find("record 199"), std::string::npos);
}

TEST_F(Log, ConcurrentWritersNeverInterleave)
{
    constexpr int threads = 8, per = 400;
    // Once without rotation (every record must be there exactly once), once
    // rotating hard (every line must still be whole).
    for (int32_t size : {0, 8000}) {
        std::string name = "conc" + std::to_string(size);
        log_hdl *h = open_log(name.c_str(), 4, size);
        ASSERT_NE(h, nullptr);
        std::vector<std::thread> th;
        for (int t = 0; t < threads; t++)
            th.emplace_back([h, t] {
                for (int i = 0; i < per; i++)
                    log_write(h, 1, 0, "c.cpp", t, "writer",
                              ("thread " + std::to_string(t) + " record " + std::to_string(i) + " " +
                               std::string(static_cast<size_t>(i % 50), 'x'))
                                  .c_str());
            });
        for (std::thread &t : th)
            t.join();
        log_term(h);
        std::set<std::pair<int, int>> seen;
        for (const char *suffix : {".log", ".log.1", ".log.2", ".log.3"}) {
            for (const std::string &line : lines("log/" + name + suffix)) {
                fields m;
                ASSERT_TRUE(parse(line, m)) << line;
                int t = 0, i = 0, pad = 0;
                ASSERT_EQ(sscanf(std::string(m[7]).c_str(), "thread %d record %d %n", &t, &i, &pad), 2) << line;
                EXPECT_EQ(std::string(m[7]).size() - static_cast<size_t>(pad), static_cast<size_t>(i % 50)) << line;
                EXPECT_EQ(std::stoi(m[5]), t) << line;
                EXPECT_TRUE(seen.insert({t, i}).second) << "duplicate " << line;
            }
        }
        if (size == 0) {
            EXPECT_EQ(seen.size(), static_cast<size_t>(threads * per));
        }
    }
}

TEST_F(Log, TerminatedHandleAndBadNamesAreRefused)
{
    log_hdl *h = open_log("lanhb", 4, 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(log_write(h, 1, 0, "f", 1, "fn", "before"), 0);
    EXPECT_EQ(log_term(h), 0);
    EXPECT_NE(log_write(h, 1, 0, "f", 1, "fn", "after"), 0);
    EXPECT_EQ(log_term(h), 0);
    std::string text = ptest::slurp(at("log/lanhb.log"));
    EXPECT_NE(text.find("before"), std::string::npos);
    EXPECT_EQ(text.find("after"), std::string::npos);

    for (const char *bad : {"", "../x", ".hidden", "a/b", "0123456789012345678901234567890123"}) {
        log_hdl *b = nullptr;
        EXPECT_NE(log_init(bad, &b, 4, 0, nullptr), 0) << bad;
        EXPECT_EQ(b, nullptr) << bad;
    }
    EXPECT_NE(log_init("lanhb", nullptr, 4, 0, nullptr), 0);
    EXPECT_NE(log_write(nullptr, 1, 0, "f", 1, "fn", "x"), 0);
    // A symlink planted where the log goes is not followed.
    ASSERT_EQ(symlink(at("target").c_str(), at("log/cnthb.log").c_str()), 0);
    log_hdl *s = nullptr;
    EXPECT_NE(log_init("cnthb", &s, 4, 0, nullptr), 0);
    EXPECT_FALSE(std::filesystem::exists(at("target")));
}

} // namespace
