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
        std::string err;
        ASSERT_EQ(plat_area_create(path, err), 0) << err;
    }
};

// Where each slot lies is proven by the two-process exchange below.
TEST_F(Storage, InitRefusesAMissingOrShortAreaAndReadsFailOnceItShrinks)
{
    uint8_t cntno = 99;
    EXPECT_NE(zemstorage_init(&cntno), 0); // no area yet (default run/hbarea)
    EXPECT_TRUE(ptest::has(plat_lasterror(), "run/hbarea")) << plat_lasterror();
    put("area", std::string(AREA - 1, '\0'));
    put("etc/local.xml", "<local><storage><area>area</area><controller>1</controller></storage></local>");
    EXPECT_NE(zemstorage_init(&cntno), 0);
    std::filesystem::remove(at("area"));
    make_area(at("area"));
    ASSERT_EQ(zemstorage_init(&cntno), 0);
    EXPECT_EQ(cntno, 1);
    char rec[ZEMFW_HBINF_SIZE] = "hbdown";
    ASSERT_EQ(zemfw_sethbinf(ZEMFW_HBSLOTS - 1, rec), 0);
    EXPECT_NE(zemfw_sethbinf(ZEMFW_HBSLOTS, rec), 0);
    make_area(at("area")); // creating again leaves the records alone
    std::vector<char> buf(AREA, 'x');
    ASSERT_EQ(zemfw_gethbinf(buf.data()), 0);
    EXPECT_EQ(std::string(buf.data() + AREA - ZEMFW_HBINF_SIZE, ZEMFW_HBINF_SIZE), std::string(rec, sizeof rec));
    EXPECT_EQ(std::string(buf.data(), ZEMFW_HBINF_SIZE), std::string(ZEMFW_HBINF_SIZE, '\0'));
    // Cut short under a running reader: a failure, not a short buffer.
    ASSERT_EQ(truncate(at("area").c_str(), 100), 0);
    EXPECT_NE(zemfw_gethbinf(buf.data()), 0);
}

TEST_F(Storage, TwoProcessesExchangeRecordsThroughOneArea)
{
    // Two nodes with roots of their own and one shared area file.
    make_area(at("shared-area"));
    for (char n : {'1', '2'})
        put(std::string("node") + n + "/etc/local.xml",
            std::string("<local><storage><area>") + at("shared-area") + "</area><controller>" +
                static_cast<char>(n - 1) + "</controller></storage></local>");
    pid_t c1 = ptest::spawn({HELPER_PATH, "exchange", "from node1", "1", "from node2"}, at("node1"), at("out1"));
    pid_t c2 = ptest::spawn({HELPER_PATH, "exchange", "from node2", "0", "from node1"}, at("node2"), at("out2"));
    ASSERT_GT(c1, 0);
    ASSERT_GT(c2, 0);
    EXPECT_EQ(ptest::finish(c1), 0) << ptest::slurp(at("out1"));
    EXPECT_EQ(ptest::finish(c2), 0) << ptest::slurp(at("out2"));
    EXPECT_TRUE(ptest::has(ptest::slurp(at("out1")), "slot 1: from node2"));
    EXPECT_TRUE(ptest::has(ptest::slurp(at("out2")), "slot 0: from node1"));
}

} // namespace
