// The heartbeat area: slots at fixed offsets in one file shared by the
// nodes, opened from local.xml.
#include <cstring>
#include <vector>

#include "plat.h"
#include "testutil.h"

namespace {

constexpr size_t AREA = static_cast<size_t>(ZEMFW_HBSLOTS) * ZEMFW_HBINF_SIZE;

class Storage : public ptest::TempRoot {
protected:
    void TearDown() override
    {
        zemstorage_term();
        TempRoot::TearDown();
    }
    void make_area(const std::string &path)
    {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::string err;
        ASSERT_EQ(plat_area_create(path, err), 0) << err;
    }
};

struct record {
    char b[ZEMFW_HBINF_SIZE] = {};
    explicit record(const std::string &stamp, const char *tag = "cnthb")
    {
        strncpy(b, tag, 7);
        strncpy(b + 8, stamp.c_str(), sizeof b - 9);
    }
};

TEST_F(Storage, InitNeedsAnAreaAndYieldsTheController)
{
    uint8_t cntno = 99;
    // No area yet (default run/hbarea).
    EXPECT_NE(zemstorage_init(&cntno), 0);
    EXPECT_NE(plat_lasterror().find("run/hbarea"), std::string::npos) << plat_lasterror();
    // An area cut short is refused.
    put("short", std::string(AREA - 1, '\0'));
    put("etc/local.xml", "<local><storage><area>short</area><controller>1</controller></storage></local>");
    EXPECT_NE(zemstorage_init(&cntno), 0);
    // A broken local.xml is reported, not guessed around.
    put("etc/local.xml", "<local><storage><controller>1</storage></local>");
    EXPECT_NE(zemstorage_init(&cntno), 0);

    put("etc/local.xml", "<local><storage><area>area</area><controller>1</controller></storage></local>");
    make_area(at("area"));
    ASSERT_EQ(zemstorage_init(&cntno), 0);
    EXPECT_EQ(cntno, 1);
    EXPECT_EQ(std::filesystem::file_size(at("area")), AREA);
    // Creating again leaves an existing area (and its records) alone.
    record r("kept");
    ASSERT_EQ(zemfw_sethbinf(3, r.b), 0);
    make_area(at("area"));
    EXPECT_EQ(ptest::slurp(at("area")).substr(3 * ZEMFW_HBINF_SIZE, ZEMFW_HBINF_SIZE),
              std::string(r.b, sizeof r.b));
}

TEST_F(Storage, SlotsLieAtFixedOffsets)
{
    make_area(at("run/hbarea"));
    uint8_t cntno = 0;
    ASSERT_EQ(zemstorage_init(&cntno), 0);
    EXPECT_EQ(cntno, 0);
    record a("Mon Jan  1 00:00:00.001 2024"), down("Mon Jan  1 00:00:01 2024", "hbdown"), last("last");
    ASSERT_EQ(zemfw_sethbinf(0, a.b), 0);
    ASSERT_EQ(zemfw_sethbinf(5, down.b), 0);
    ASSERT_EQ(zemfw_sethbinf(ZEMFW_HBSLOTS - 1, last.b), 0);
    EXPECT_NE(zemfw_sethbinf(ZEMFW_HBSLOTS, a.b), 0);
    EXPECT_NE(zemfw_sethbinf(0, nullptr), 0);

    std::string file = ptest::slurp(at("run/hbarea"));
    ASSERT_EQ(file.size(), AREA);
    EXPECT_EQ(file.substr(5 * ZEMFW_HBINF_SIZE, ZEMFW_HBINF_SIZE), std::string(down.b, sizeof down.b));

    std::vector<char> buf(AREA, 'x');
    ASSERT_EQ(zemfw_gethbinf(buf.data()), 0);
    EXPECT_EQ(memcmp(buf.data(), a.b, ZEMFW_HBINF_SIZE), 0);
    EXPECT_EQ(memcmp(buf.data() + 5 * ZEMFW_HBINF_SIZE, down.b, ZEMFW_HBINF_SIZE), 0);
    EXPECT_EQ(memcmp(buf.data() + (ZEMFW_HBSLOTS - 1) * ZEMFW_HBINF_SIZE, last.b, ZEMFW_HBINF_SIZE), 0);
    // A slot nobody wrote reads as zeros.
    EXPECT_EQ(std::string(buf.data() + ZEMFW_HBINF_SIZE, ZEMFW_HBINF_SIZE), std::string(ZEMFW_HBINF_SIZE, '\0'));

    // Cut short under a running reader: a failure, not a short buffer.
    ASSERT_EQ(truncate(at("run/hbarea").c_str(), 100), 0);
    EXPECT_NE(zemfw_gethbinf(buf.data()), 0);

    zemstorage_term();
    EXPECT_NE(zemfw_gethbinf(buf.data()), 0);
    EXPECT_NE(zemfw_sethbinf(0, a.b), 0);
}

TEST_F(Storage, TwoProcessesExchangeRecordsThroughOneArea)
{
    // Two nodes with roots of their own and one shared area file.
    std::string area = at("shared-area");
    make_area(area);
    for (int n : {1, 2}) {
        put("node" + std::to_string(n) + "/etc/local.xml",
            "<local><hostname>node" + std::to_string(n) + "</hostname><storage><area>" + area +
                "</area><controller>" + std::to_string(n - 1) + "</controller></storage></local>");
    }
    ptest::child c1 = ptest::spawn({HELPER_PATH, "exchange", "from node1", "1", "from node2"}, at("node1"),
                                   at("out1"));
    ptest::child c2 = ptest::spawn({HELPER_PATH, "exchange", "from node2", "0", "from node1"}, at("node2"),
                                   at("out2"));
    ASSERT_GT(c1.pid, 0);
    ASSERT_GT(c2.pid, 0);
    EXPECT_EQ(ptest::finish(c1), 0) << ptest::slurp(at("out1"));
    EXPECT_EQ(ptest::finish(c2), 0) << ptest::slurp(at("out2"));
    EXPECT_NE(ptest::slurp(at("out1")).find("slot 1: from node2"), std::string::npos);
    EXPECT_NE(ptest::slurp(at("out2")).find("slot 0: from node1"), std::string::npos);
}

} // namespace
