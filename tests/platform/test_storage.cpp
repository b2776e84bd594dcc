// The heartbeat area: slots at fixed offsets in one file shared by the
// nodes, opened from local.xml. Two nodes exchanging records through it are
// proven by the system tests' controller paths.
#include <vector>

#include "testutil.h"

namespace {

constexpr size_t AREA = static_cast<size_t>(ZEMFW_HBSLOTS) * ZEMFW_HBINF_SIZE;

using Storage = ptest::TempRoot;

TEST_F(Storage, RefusesAMissingOrShortAreaAndReadsFailOnceItShrinks)
{
    uint8_t cntno = 99;
    EXPECT_NE(zemstorage_init(&cntno), 0); // no area yet (default run/hbarea)
    EXPECT_TRUE(ptest::has(plat_lasterror(), "run/hbarea")) << plat_lasterror();
    put("area", std::string(AREA - 1, '\0'));
    put("etc/local.xml", "<local><storage><area>area</area><controller>1</controller></storage></local>");
    EXPECT_NE(zemstorage_init(&cntno), 0);
    std::filesystem::remove(at("area"));
    std::string err;
    ASSERT_EQ(plat_area_create(at("area"), err), 0) << err;
    ASSERT_EQ(zemstorage_init(&cntno), 0);
    EXPECT_EQ(cntno, 1);
    char rec[ZEMFW_HBINF_SIZE] = "hbdown";
    ASSERT_EQ(zemfw_sethbinf(ZEMFW_HBSLOTS - 1, rec), 0);
    EXPECT_NE(zemfw_sethbinf(ZEMFW_HBSLOTS, rec), 0);
    ASSERT_EQ(plat_area_create(at("area"), err), 0) << err; // creating again leaves the records alone
    std::vector<char> buf(AREA, 'x');
    ASSERT_EQ(zemfw_gethbinf(buf.data()), 0);
    EXPECT_EQ(std::string(buf.data() + AREA - ZEMFW_HBINF_SIZE, ZEMFW_HBINF_SIZE), std::string(rec, sizeof rec));
    EXPECT_EQ(std::string(buf.data(), ZEMFW_HBINF_SIZE), std::string(ZEMFW_HBINF_SIZE, '\0'));
    // Cut short under a running reader: a failure, not a short buffer.
    ASSERT_EQ(truncate(at("area").c_str(), 100), 0);
    EXPECT_NE(zemfw_gethbinf(buf.data()), 0);
}

} // namespace
