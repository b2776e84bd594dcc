// The heartbeat area: its layout, what the daemon's start refuses and the
// formatter will not destroy, the fallback where direct I/O is refused, and
// one disk seen through two block devices.
#include <sched.h>
#include <sys/mount.h>

#include <functional>

#include "loopdev.h"
#include "testutil.h"

namespace {

using ptest::has;

// A real part a test needs: without it the test is skipped, but fails in CI.
#define NEED(cond, why) if (!(cond)) { if (getenv("CI") != nullptr) FAIL() << (why); GTEST_SKIP() << (why); }

// A root of cluster "alpha" whose node is controller 1 of the area "area".
class Area : public ptest::TempRoot {
protected:
    uint8_t cntno = 0;
    plat_area_view view;
    std::string err;

    void SetUp() override
    {
        TempRoot::SetUp();
        put("etc/cluster.xml", "<root><cluster><name>alpha</name></cluster></root>");
        use(at("area"));
    }
    void use(const std::string &area) const
    {
        put("etc/local.xml", "<local><storage><area>" + area + "</area><controller>1</controller></storage></local>");
    }
    void format(const std::string &path, const char *cluster = "alpha")
    {
        ASSERT_EQ(plat_area_format(path, cluster, false, err), 0) << err;
    }
};

TEST_F(Area, EverySlotWriteTouchesOnlyItsOwnBlockAndOneReadTakesAll)
{
    format(at("area"));
    ASSERT_EQ(zemstorage_init(&cntno), 0) << plat_lasterror();
    EXPECT_EQ(cntno, 1);
    std::string expect = ptest::slurp(at("area")), want;
    ASSERT_EQ(expect.size(), AREA_SIZE);
    for (uint8_t k = 0; k < ZEMFW_HBSLOTS; k++) {
        std::string rec(ZEMFW_HBINF_SIZE, static_cast<char>('A' + k % 50));
        ASSERT_EQ(zemfw_sethbinf(k, rec.data()), 0);
        ASSERT_EQ(ptest::slurp(at("area")), expect.replace(AREA_BLOCK * (1u + k), rec.size(), rec)) << int(k);
        want += rec;
    }
    std::string got(want.size(), 'x');
    ASSERT_EQ(zemfw_gethbinf(got.data()), 0);
    EXPECT_EQ(got, want);
    EXPECT_EQ(zemfw_sethbinf(ZEMFW_HBSLOTS, got.data()), PLAT_EINVAL);
    ASSERT_EQ(truncate(at("area").c_str(), 2 * AREA_BLOCK), 0); // cut short under a running reader
    EXPECT_NE(zemfw_gethbinf(got.data()), 0);
}

// Each row puts something in the area's place: the daemon's start refuses it
// and says why, the display reads it only when it is an area of this layout,
// and the formatter refuses what it would destroy unless forced.
TEST_F(Area, WrongAreasAreRefusedAndFormattedOverOnlyWhenForced)
{
    const std::string area = at("area");
    auto sh = [](const std::string &cmd) { return WEXITSTATUS(system((cmd + " >/dev/null 2>&1").c_str())); };
    auto image = [&](std::string cmd) { return [&, cmd] { ASSERT_EQ(sh("truncate -s 4M " + area + cmd + area), 0); }; };
    auto patch = [&](off_t at, char c) { std::fstream(area, std::ios::in | std::ios::out).seekp(at).put(c); };
    std::string old(ZEMFW_HBSLOTS * ZEMFW_HBINF_SIZE, '\0');
    old.replace(40, 13, std::string("cnthb\0\0\0Mon J", 13));
    const struct { // refused null: formatted without force
        const char *name, *refused;
        std::function<void()> make;
        std::string why;
        bool readable;
    } rows[] = {
        {"missing", nullptr, [] {}, "No such file", false},
        {"zeros", nullptr, [&] { put("area", std::string(AREA_SIZE, '\0')); }, "never formatted", false},
        {"text", "data that is not a heartbeat area", [&] { put("area", "notes\n"); }, "not a heartbeat area", false},
        {"old layout", "old layout", [&] { put("area", old); }, "\"zemctl area create --force " + area + "\"", false},
        {"other cluster", "area of cluster \"beta\"", [&] { format(area, "beta"); }, "not of this cluster", true},
        {"other version", "area of cluster", [&] { format(area), patch(8, 2); }, "layout version 2;", false},
        {"short", "area of", [&] { format(area); EXPECT_EQ(truncate(area.c_str(), 2 * AREA_BLOCK), 0); },
         "cut short", false},
        {"file system", "type ext4", image(" && mkfs.ext4 -q -F "), "not a heartbeat area", false},
        {"partitions", "table of type dos", image(" && echo 'label: dos' | sfdisk -q "), "not a heart", false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove(area);
        row.make();
        EXPECT_NE(zemstorage_init(&cntno), 0);
        EXPECT_TRUE(has(plat_lasterror(), row.why)) << plat_lasterror();
        EXPECT_EQ(plat_area_read(area, view, err) == 0, row.readable) << err;
        int32_t r = plat_area_format(area, "alpha", false, err);
        if (row.refused != nullptr) {
            EXPECT_EQ(r, PLAT_EEXIST);
            EXPECT_TRUE(has(err, row.refused)) << err;
            r = plat_area_format(area, "alpha", true, err);
        }
        ASSERT_EQ(r, 0) << err;
        EXPECT_EQ(sh("blkid -p " + area), 2) << "a signature is left";
        EXPECT_EQ(zemstorage_init(&cntno), 0) << plat_lasterror();
    }
}

// In a mount namespace of its own, on a ramfs, which refuses direct I/O (as
// tmpfs of older kernels does): the notice goes to standard error and the log.
TEST_F(Area, WhereDirectIoIsRefusedTheAreaIsBufferedAndSaysSo)
{
    NEED(geteuid() == 0 && has(ptest::slurp("/proc/filesystems"), "\tramfs\n"), "needs root and ramfs");
    const std::string dir = at("ramfs"), area = dir + "/area";
    auto body = [&] {
        log_hdl *log = nullptr;
        bool ok = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                  mkdir(dir.c_str(), 0700) == 0 && mount("zemtest", dir.c_str(), "ramfs", 0, nullptr) == 0 &&
                  plat_area_format(area, "alpha", false, err) == 0 && (use(area), true) &&
                  log_init(HB_KIND_CNTHB, &log, 4, 0, nullptr) == 0 && zemstorage_init(&cntno) == 0 &&
                  has(ptest::slurp(at("log/cnthb.log")), "serves the nodes of this host only") &&
                  zemfw_sethbinf(1, std::string(ZEMFW_HBINF_SIZE, 'r').data()) == 0 &&
                  plat_area_read(area, view, err) == 0 && !view.direct && view.rec[1][0] == 'r';
        fprintf(stderr, "%s (%s; %s; %m)\n", ok ? "passed" : "failed", err.c_str(), plat_lasterror().c_str());
        _exit(ok ? 0 : 1);
    };
    EXPECT_EXIT(body(), testing::ExitedWithCode(0), "heartbeat area .*/area: its file system refuses direct I/O");
}

// One disk as two hosts see it: a block device each, each with its own page
// cache (and, here, sectors of 512 and of 4096 bytes).
TEST_F(Area, AWriteThroughOneBlockDeviceIsReadAtOnceThroughAnother)
{
    put("lun.img", std::string(1 << 20, '\0'));
    ptest::LoopDev a(at("lun.img")), b(at("lun.img"), 4096);
    NEED(!a.path.empty() && !b.path.empty(), "no loop device: " + a.why + b.why);
    format(b.path);
    use(a.path);
    ASSERT_EQ(zemstorage_init(&cntno), 0) << plat_lasterror();
    for (const char *stamp : {"first", "second"}) {
        ASSERT_EQ(zemfw_sethbinf(1, (stamp + std::string(ZEMFW_HBINF_SIZE, '\0')).data()), 0);
        ASSERT_EQ(plat_area_read(b.path, view, err), 0) << err;
        EXPECT_TRUE(view.blockdev && view.direct);
        EXPECT_STREQ(view.rec[1].data(), stamp);
    }
}

} // namespace
