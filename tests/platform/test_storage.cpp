// The heartbeat area: its layout, the areas the daemon's start refuses, what
// the formatter refuses to destroy, the fallback where direct I/O is refused,
// and one disk seen through two block devices.
#include <sched.h>
#include <sys/mount.h>

#include <functional>

#include "loopdev.h"
#include "testutil.h"

namespace {

using ptest::has;

// A real part a test needs: without it the test is skipped, but fails in CI.
#define NEED(cond, why)                                                                                              \
    if (!(cond)) {                                                                                                   \
        if (getenv("CI") != nullptr)                                                                                 \
            FAIL() << (why);                                                                                         \
        GTEST_SKIP() << (why);                                                                                       \
    }

// A root of cluster "alpha" whose node is controller 1 of the area "area".
class Area : public ptest::TempRoot {
protected:
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
    static void format(const std::string &path, const char *cluster = "alpha")
    {
        std::string err;
        ASSERT_EQ(plat_area_format(path, cluster, false, err), 0) << err;
    }
};

TEST_F(Area, EverySlotWriteTouchesOnlyItsOwnBlockAndOneReadTakesAll)
{
    format(at("area"));
    uint8_t cntno = 0;
    ASSERT_EQ(zemstorage_init(&cntno), 0) << plat_lasterror();
    EXPECT_EQ(cntno, 1);
    std::string before = ptest::slurp(at("area")), want;
    ASSERT_EQ(before.size(), AREA_SIZE);
    for (uint8_t k = 0; k < ZEMFW_HBSLOTS; k++) {
        std::string rec(ZEMFW_HBINF_SIZE, static_cast<char>('A' + k % 50));
        ASSERT_EQ(zemfw_sethbinf(k, rec.data()), 0);
        std::string after = ptest::slurp(at("area"));
        size_t lo = AREA_BLOCK * (1u + k);
        ASSERT_EQ(after.substr(0, lo), before.substr(0, lo)) << int(k);
        ASSERT_EQ(after.substr(lo), rec + before.substr(lo + rec.size())) << int(k);
        want += rec;
        before = after;
    }
    std::string got(want.size(), 'x');
    ASSERT_EQ(zemfw_gethbinf(got.data()), 0);
    EXPECT_EQ(got, want);
    EXPECT_EQ(zemfw_sethbinf(ZEMFW_HBSLOTS, got.data()), PLAT_EINVAL);
    ASSERT_EQ(truncate(at("area").c_str(), 2 * AREA_BLOCK), 0); // cut short under a running reader
    EXPECT_NE(zemfw_gethbinf(got.data()), 0);
}

std::string old_area()
{
    std::string old(ZEMFW_HBSLOTS * ZEMFW_HBINF_SIZE, '\0');
    old.replace(40, 13, std::string("cnthb\0\0\0Mon J", 13));
    return old;
}

// The daemon's start refuses each and says why; the display reads whatever
// is an area of this layout and whole.
TEST_F(Area, WrongAreasAreRefusedWithTheReason)
{
    auto patch = [&](off_t at_, char c) { std::fstream(at("area"), std::ios::in | std::ios::out).seekp(at_).put(c); };
    const struct {
        const char *name;
        std::function<void()> make;
        std::string why;
        bool readable;
    } rows[] = {
        {"missing", [] {}, "No such file", false},
        {"zeros", [&] { put("area", std::string(AREA_SIZE, '\0')); }, "never formatted", false},
        {"foreign", [&] { put("area", "#!/bin/sh\n" + std::string(AREA_SIZE, 'x')); }, "not a heartbeat area", false},
        {"old layout", [&] { put("area", old_area()); }, "\"zemctl area create --force " + at("area") + "\"", false},
        {"other cluster", [&] { format(at("area"), "beta"); }, "cluster \"beta\", not of this cluster \"alpha\"", true},
        {"other version", [&] { format(at("area")), patch(8, 2); }, "layout version 2;", false},
        {"short", [&] { format(at("area")), truncate(at("area").c_str(), 2 * AREA_BLOCK); }, "cut short", false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove(at("area"));
        row.make();
        uint8_t cntno = 0;
        EXPECT_NE(zemstorage_init(&cntno), 0);
        EXPECT_TRUE(has(plat_lasterror(), row.why)) << plat_lasterror();
        plat_area_view v;
        std::string err;
        EXPECT_EQ(plat_area_read(at("area"), v, err) == 0, row.readable) << err;
    }
}

TEST_F(Area, FormatterRefusesWhatItWouldDestroyUnlessForced)
{
    const std::string disk = at("disk");
    auto sh = [](const std::string &cmd) { return WEXITSTATUS(system((cmd + " >/dev/null 2>&1").c_str())); };
    auto image = [&](const std::string &cmd) {
        return [&, cmd] { ASSERT_EQ(sh("truncate -s 4M " + disk + " && " + cmd + " " + disk), 0); };
    };
    const struct {
        std::function<void()> make;
        const char *what;
    } rows[] = {
        {image("mkfs.ext4 -q -F"), "type ext4"},
        {image("echo 'label: dos' | sfdisk -q"), "partition table of type dos"},
        {[&] { format(disk, "beta"); }, "area of cluster \"beta\""},
        {[&] { format(disk); }, "area of cluster \"alpha\""},
        {[&] { put("disk", old_area()); }, "old layout"},
        {[&] { put("disk", "notes\n"); }, "data that is not a heartbeat area"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        std::filesystem::remove(disk);
        row.make();
        std::string err;
        EXPECT_EQ(plat_area_format(disk, "alpha", false, err), PLAT_EEXIST);
        EXPECT_TRUE(has(err, row.what)) << err;
        ASSERT_EQ(plat_area_format(disk, "alpha", true, err), 0) << err;
        EXPECT_EQ(sh("blkid -p " + disk), 2) << "a signature is left";
        plat_area_view v;
        EXPECT_EQ(plat_area_read(disk, v, err), 0) << err;
        EXPECT_EQ(v.head.cluster, "alpha");
    }
}

// In a mount namespace of its own, on a ramfs, which refuses direct I/O (as
// tmpfs did before Linux 6.6): the notice goes to standard error and the log.
TEST_F(Area, WhereDirectIoIsRefusedTheAreaIsBufferedAndSaysSo)
{
    NEED(geteuid() == 0 && has(ptest::slurp("/proc/filesystems"), "\tramfs\n"), "needs root and ramfs");
    const std::string dir = at("ramfs"), area = dir + "/area";
    auto body = [&] {
        auto check = [](bool ok, const std::string &what) {
            if (!ok) {
                fprintf(stderr, "failed: %s\n", what.c_str());
                _exit(1);
            }
        };
        check(unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                  mkdir(dir.c_str(), 0700) == 0 && mount("zemtest", dir.c_str(), "ramfs", 0, nullptr) == 0,
              std::string("mounting a ramfs: ") + strerror(errno));
        std::string err;
        check(plat_area_format(area, "alpha", false, err) == 0, err);
        use(area);
        log_hdl *log = nullptr;
        uint8_t cntno = 0;
        check(log_init(HB_KIND_CNTHB, &log, 4, 0, nullptr) == 0 && zemstorage_init(&cntno) == 0, plat_lasterror());
        log_term(log);
        check(has(ptest::slurp(at("log/cnthb.log")), "serves the nodes of this host only"), "no notice logged");
        char rec[ZEMFW_HBINF_SIZE] = "cnthb";
        plat_area_view v;
        check(zemfw_sethbinf(1, rec) == 0 && plat_area_read(area, v, err) == 0, "write and read: " + err);
        check(!v.direct && strcmp(v.rec[1].data(), "cnthb") == 0, "read back");
        _exit(0);
    };
    EXPECT_EXIT(body(), testing::ExitedWithCode(0), "heartbeat area .*/area: its file system refuses direct I/O");
}

// One disk as two hosts see it: a block device each, each with its own page
// cache (and, here, sectors of 512 and of 4096 bytes).
TEST_F(Area, AWriteThroughOneBlockDeviceIsReadAtOnceThroughAnother)
{
    put("lun.img", "");
    std::filesystem::resize_file(at("lun.img"), 1 << 20);
    ptest::LoopDev a(at("lun.img")), b(at("lun.img"), 4096);
    NEED(a.ok() && b.ok(), "no loop device: " + a.why() + b.why());
    format(b.path());
    use(a.path());
    uint8_t cntno = 0;
    ASSERT_EQ(zemstorage_init(&cntno), 0) << plat_lasterror();
    for (const char *stamp : {"first", "second"}) {
        char rec[ZEMFW_HBINF_SIZE] = "cnthb";
        strcpy(rec + 8, stamp);
        ASSERT_EQ(zemfw_sethbinf(1, rec), 0);
        plat_area_view v;
        std::string err;
        ASSERT_EQ(plat_area_read(b.path(), v, err), 0) << err;
        EXPECT_TRUE(v.blockdev && v.direct);
        EXPECT_STREQ(v.rec[1].data() + 8, stamp);
    }
}

} // namespace
