// The log library: record layout, level rule, catalogued records, rotation
// and concurrent writers, on real files.
// GCC 12 warns falsely inside <regex> in optimised sanitizer builds (its bug 105562).
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <algorithm>
#include <array>
#include <map>
#include <regex>

#include "testutil.h"

namespace {

class Log : public ptest::TempRoot {
protected:
    log_hdl *open_log(const std::string &name, int32_t level, int32_t size)
    {
        log_hdl *h = nullptr;
        EXPECT_EQ(log_init(name.c_str(), &h, level, size, nullptr), 0);
        return h;
    }
    // Every line of the file, each checked to be one whole record
    // "YYYY-MM-DD HH:MM:SS.mmm LEVL TID FILE:LINE FUNC: TEXT" and split as
    // [0] the line, [1] level, [2] "FILE:LINE FUNC", [3] text.
    std::vector<std::array<std::string, 4>> records(const std::string &rel)
    {
        static const std::regex shape(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} ([0-9a-f]{4}) \d+ )"
                                      R"(([^: ]+:\d+ [^: ]+): (.*))");
        std::vector<std::array<std::string, 4>> out;
        std::stringstream ss(ptest::slurp(at(rel)));
        std::smatch m;
        for (std::string l; std::getline(ss, l);)
            if (std::regex_match(l, m, shape))
                out.push_back({l, m[1], m[2], m[3]});
            else
                ADD_FAILURE() << "not one whole record: " << l;
        return out;
    }
};

TEST_F(Log, RecordsUpToTheLevelWithPlaceAndVerbatimText)
{
    log_hdl *h = open_log("lanhb", 4, 0);
    ASSERT_NE(h, nullptr);
    // The text is written as it is: no printf conversions are applied.
    log_write(h, 1, 0, "lanhb/recv.cpp", 217, "lanhb_hbrecv", " *** %s/node(%s(%d)) : ONLINE *** 100%%");
    log_write(h, 4, 0, "f", 5, "fn", "two\nlines");
    log_write(h, 8, 0, "f", 5, "fn", "above the level");
    // limit = 10 s x 100 ticks = 1000 ticks: 1001 is over time.
    log_write(h, LOG_LEVEL_CATALOG, LOG_MSG_CNTREAD, "f", 2, "delaywarn", nullptr, "cnt1", "node1", int32_t{10},
              int64_t{100}, uint64_t{1001}, int32_t{80});
    log_write(h, LOG_LEVEL_CATALOG, LOG_MSG_HBGAP, "f", 1, "delaywarn", nullptr, nullptr, nullptr,
              int32_t{INT32_MAX}, int64_t{100}, uint64_t{800}, int32_t{80});
    EXPECT_EQ(log_term(h), 0);
    EXPECT_NE(log_write(h, 1, 0, "f", 1, "fn", "after term"), 0);
    auto r = records("log/lanhb.log");
    ASSERT_EQ(r.size(), 4u);
    EXPECT_EQ(r[0][1] + " " + r[1][1] + " " + r[2][1], "0001 0004 8000");
    EXPECT_EQ(r[0][2] + ": " + r[0][3], "lanhb/recv.cpp:217 lanhb_hbrecv:  *** %s/node(%s(%d)) : ONLINE *** 100%%");
    EXPECT_EQ(r[1][3], "two lines");
    EXPECT_EQ(r[2][3], "over timeout(75) controller read: rsc(cnt1) node(node1) elapsed(1001 ticks) "
                       "timeout(10 sec) clock(100 per sec) rate(80%)");
    EXPECT_TRUE(ptest::has(r[3][3], "delay warning(71) heartbeat gap: rsc((null)) node((null)) elapsed(800 ticks) "
                                    "timeout(2147483647 sec)"));
    // Level 0 keeps nothing, catalogued records included.
    h = open_log("quiet", 0, 0);
    log_write(h, 1, 0, "f", 1, "fn", "text");
    log_write(h, LOG_LEVEL_CATALOG, 99, "f", 1, "delaywarn", nullptr);
    log_term(h);
    EXPECT_EQ(ptest::slurp(at("log/quiet.log")), "");
}

// Once without rotation (every record is kept), once rotating hard (three
// generations, none over the size): every line is one whole record, and
// oldest to newest each writer's records run on without a gap or a repeat.
TEST_F(Log, ConcurrentWritersKeepWholeRecordsInOrderAcrossRotation)
{
    constexpr int threads = 8, per = 400;
    for (int32_t size : {0, 8000}) {
        std::string name = "log/conc" + std::to_string(size);
        log_hdl *h = open_log(name.substr(4), 4, size);
        ASSERT_NE(h, nullptr);
        std::vector<std::thread> th;
        for (int t = 0; t < threads; t++)
            th.emplace_back([h, t] {
                for (int i = 0; i < per; i++)
                    log_write(h, 1, 0, "c.cpp", t, "writer",
                              ("record " + std::to_string(i) + " " + std::string(i % 50, 'x')).c_str());
            });
        for (std::thread &t : th)
            t.join();
        log_term(h);
        EXPECT_EQ(std::filesystem::exists(at(name + ".log.3")), size != 0);
        EXPECT_FALSE(std::filesystem::exists(at(name + ".log.4")));
        std::map<int, int> next; // per writer, the record its next line must carry
        int lines = 0;
        for (const char *suffix : {".log.3", ".log.2", ".log.1", ".log"}) {
            EXPECT_TRUE(size == 0 || std::filesystem::file_size(at(name + suffix)) <= 8000u) << suffix;
            for (const auto &r : records(name + suffix)) {
                int t = 0, i = 0;
                ASSERT_EQ(sscanf(r[2].c_str(), "c.cpp:%d", &t) + sscanf(r[3].c_str(), "record %d", &i), 2) << r[0];
                EXPECT_EQ(r[3], "record " + std::to_string(i) + " " + std::string(i % 50, 'x'));
                EXPECT_TRUE(next.count(t) == 0 || next[t] == i) << r[0];
                next[t] = i + 1;
                lines++;
            }
        }
        EXPECT_TRUE(size != 0 || lines == threads * per) << lines;
        EXPECT_TRUE(std::ranges::any_of(next, [](const auto &e) { return e.second == per; }));
    }
}

// A planted link or FIFO is neither followed nor waited on, and the loss is
// recorded in the logs that do open.
TEST_F(Log, BadNamesAndPlantedFilesAreRefusedAndReported)
{
    std::filesystem::create_directories(at("log"));
    ASSERT_EQ(symlink(at("target").c_str(), at("log/cnthb.log").c_str()), 0);
    ASSERT_EQ(mkfifo(at("log/fifo.log").c_str(), 0666), 0);
    log_hdl *early = open_log("early", 4, 0);
    for (const char *bad : {"", "../x", ".hidden", "a/b", "0123456789012345678901234567890123", "cnthb", "fifo"}) {
        log_hdl *b = nullptr;
        EXPECT_NE(log_init(bad, &b, 4, 0, nullptr), 0) << bad;
        EXPECT_EQ(b, nullptr) << bad;
    }
    EXPECT_FALSE(std::filesystem::exists(at("target")));
    log_hdl *late = open_log("late", 4, 0);
    for (const char *name : {"log/early.log", "log/late.log"}) {
        std::string text = ptest::slurp(at(name));
        EXPECT_TRUE(ptest::has(text, "log cnthb cannot be opened as a regular file (" + at("log/cnthb.log") +
                                         ": a symbolic link)")) << text;
        EXPECT_TRUE(ptest::has(text, "log fifo cannot be opened as a regular file")) << text;
    }
    log_term(early);
    log_term(late);
}

} // namespace
