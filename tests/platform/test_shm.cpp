// Node-manager and cluster-manager shared memory and the semaphores, on
// real files under a temporary root.
#include <sys/stat.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <thread>
#include <vector>

#include "plat.h"
#include "testutil.h"

namespace {

class Shm : public ptest::TempRoot {
protected:
    plat_cluster cl;

    void SetUp() override
    {
        TempRoot::SetUp();
        // Priorities out of order, so a node's id differs from its index.
        cl.nodes = {{"alpha", 5}, {"beta", 2}, {"gamma", 0}};
        cl.rsc[0] = {{"lan1", 0}, {"lan2", 3}};
        cl.rsc[1] = {{"cnt1", 0}};
        create();
    }
    void TearDown() override
    {
        shmnm_detach();
        shmcm_detach();
        sem_detach();
        TempRoot::TearDown();
    }
    void create()
    {
        std::string err;
        ASSERT_EQ(plat_shm_create(cl, err), 0) << err;
    }
    void attach_all()
    {
        ASSERT_EQ(shmnm_attach(), 0);
        ASSERT_EQ(shmcm_attach(), 0);
        ASSERT_EQ(sem_attach(), 0);
    }
    // Overwrites bytes of a file under run/ in place.
    void patch(const char *name, size_t off, const void *data, size_t n)
    {
        int fd = open(at(std::string("run/") + name).c_str(), O_WRONLY);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(pwrite(fd, data, n, static_cast<off_t>(off)), static_cast<ssize_t>(n));
        close(fd);
    }
};

std::vector<std::string> names(const char *buf, int32_t size)
{
    std::vector<std::string> out;
    for (const char *p = buf; p < buf + size && *p != '\0'; p += strlen(p) + 1)
        out.emplace_back(p);
    return out;
}

TEST_F(Shm, AttachRefusesMissingTruncatedAndForeignFiles)
{
    attach_all();
    // Each damage on a fresh copy; the attach must fail and not crash.
    auto refused = [&](const char *what, auto damage) {
        SCOPED_TRACE(what);
        create();
        damage();
        EXPECT_NE(shmnm_attach(), 0);
    };
    refused("missing", [&] { unlink(at("run/shmnm").c_str()); });
    refused("truncated", [&] { ASSERT_EQ(truncate(at("run/shmnm").c_str(), 100), 0); });
    refused("empty", [&] { ASSERT_EQ(truncate(at("run/shmnm").c_str(), 0), 0); });
    refused("grown", [&] { ASSERT_EQ(truncate(at("run/shmnm").c_str(), sizeof(nm_layout) + 8), 0); });
    refused("foreign magic", [&] {
        uint32_t m = 0x12345678;
        patch(NM_FILE, offsetof(nm_layout, head.magic), &m, sizeof m);
    });
    refused("newer version", [&] {
        uint32_t v = SHM_VERSION + 1;
        patch(NM_FILE, offsetof(nm_layout, head.version), &v, sizeof v);
    });
    refused("node count out of range", [&] {
        int32_t n = NM_MAXNODE + 1;
        patch(NM_FILE, offsetof(nm_layout, nnode), &n, sizeof n);
    });
    refused("negative path count", [&] {
        int32_t n = -1;
        patch(NM_FILE, offsetof(nm_layout, nrsc) + sizeof(int32_t), &n, sizeof n);
    });
    refused("unterminated node name", [&] {
        char name[NM_NODENAME];
        memset(name, 'x', sizeof name);
        patch(NM_FILE, offsetof(nm_layout, node), name, sizeof name);
    });
    refused("symlink planted in run/", [&] {
        ASSERT_EQ(rename(at("run/shmnm").c_str(), at("elsewhere").c_str()), 0);
        ASSERT_EQ(symlink(at("elsewhere").c_str(), at("run/shmnm").c_str()), 0);
    });
    // The earlier good mapping was never disturbed by the failed attaches
    // and the other two files attach as before.
    create();
    EXPECT_EQ(shmnm_attach(), 0);
    uint32_t m = 0;
    patch(CM_FILE, offsetof(cm_layout, head.magic), &m, sizeof m);
    EXPECT_NE(shmcm_attach(), 0);
    ASSERT_EQ(truncate(at("run/sem").c_str(), 4), 0);
    EXPECT_NE(sem_attach(), 0);
}

TEST_F(Shm, CallsBeforeAttachFail)
{
    int32_t v = 0, size = 0;
    char text[SHMCM_TEXT_SIZE];
    EXPECT_NE(shmnm_enumnode(nullptr, &size), 0);
    EXPECT_NE(shmnm_getnodepri("alpha", &v), 0);
    EXPECT_NE(shmnm_setrscsvstat("lanhb", "lan1", 5, 1), 0);
    EXPECT_NE(shmcm_getversion(text), 0);
    EXPECT_NE(shmcm_getratio(&v, nullptr), 0);
    EXPECT_NE(sem_set_statchange(), 0);
    EXPECT_NE(sem_wait_downnotify(0), 0);
    attach_all();
    EXPECT_EQ(shmnm_getnodepri("alpha", &v), 0);
    shmnm_detach();
    EXPECT_NE(shmnm_getnodepri("alpha", &v), 0);
}

TEST_F(Shm, EnumerationsInConfigurationOrder)
{
    attach_all();
    int32_t size = 0;
    ASSERT_EQ(shmnm_enumrsc("lanhb", nullptr, &size), 0);
    EXPECT_EQ(size, 11); // "lan1\0lan2\0\0"
    std::vector<char> buf(static_cast<size_t>(size));
    int32_t small = size - 1;
    EXPECT_NE(shmnm_enumrsc("lanhb", buf.data(), &small), 0);
    ASSERT_EQ(shmnm_enumrsc("lanhb", buf.data(), &size), 0);
    EXPECT_EQ(names(buf.data(), size), (std::vector<std::string>{"lan1", "lan2"}));
    EXPECT_EQ(buf[static_cast<size_t>(size) - 1], '\0');
    EXPECT_EQ(buf[static_cast<size_t>(size) - 2], '\0');

    size = 0;
    ASSERT_EQ(shmnm_enumnode(nullptr, &size), 0);
    buf.assign(static_cast<size_t>(size), 'x');
    ASSERT_EQ(shmnm_enumnode(buf.data(), &size), 0);
    EXPECT_EQ(names(buf.data(), size), (std::vector<std::string>{"alpha", "beta", "gamma"}));
    EXPECT_NE(shmnm_enumrsc("other", nullptr, &size), 0);

    // A kind without paths reports an empty list as size 0.
    cl.rsc[1].clear();
    create();
    ASSERT_EQ(shmnm_attach(), 0);
    size = 0;
    ASSERT_EQ(shmnm_enumrsc("cnthb", nullptr, &size), 0);
    EXPECT_EQ(size, 0);
}

TEST_F(Shm, StatesAreAddressedByNodeId)
{
    attach_all();
    int32_t v = 0;
    ASSERT_EQ(shmnm_getnodepri("beta", &v), 0);
    EXPECT_EQ(v, 2);
    EXPECT_NE(shmnm_getnodepri("delta", &v), 0);
    ASSERT_EQ(shmnm_getrscpri("lanhb", "lan2", &v), 0);
    EXPECT_EQ(v, 3);
    EXPECT_NE(shmnm_getrscpri("cnthb", "lan2", &v), 0); // paths are per kind

    // Fresh memory: everything unknown, until the daemon publishes.
    ASSERT_EQ(shmnm_getrscsvstat("lanhb", "lan2", 2, &v), 0);
    EXPECT_EQ(v, SHMNM_SVSTAT_UNKNOWN);
    ASSERT_EQ(plat_getrscstat("lanhb", "lan2", &v), 0);
    EXPECT_EQ(v, SHMNM_RSCSTAT_UNKNOWN);

    ASSERT_EQ(shmnm_setrscsvstat("lanhb", "lan2", 2, SHMNM_SVSTAT_ONLINE), 0);   // beta
    ASSERT_EQ(shmnm_setrscsvstat("lanhb", "lan2", 5, SHMNM_SVSTAT_OFFLINE), 0);  // alpha
    ASSERT_EQ(shmnm_setrscsvstat("cnthb", "cnt1", 2, SHMNM_SVSTAT_UNUSED), 0);
    ASSERT_EQ(shmnm_setrscstat("lanhb", "lan2", SHMNM_RSCSTAT_CAUTION), 0);
    EXPECT_NE(shmnm_setrscsvstat("lanhb", "lan2", 1, SHMNM_SVSTAT_ONLINE), 0); // no node with id 1
    EXPECT_NE(shmnm_setrscsvstat("lanhb", "lan9", 2, SHMNM_SVSTAT_ONLINE), 0);
    EXPECT_NE(shmnm_setrscstat("bogus", "lan2", 0), 0);

    ASSERT_EQ(shmnm_getrscsvstat("lanhb", "lan2", 2, &v), 0);
    EXPECT_EQ(v, SHMNM_SVSTAT_ONLINE);
    ASSERT_EQ(shmnm_getrscsvstat("lanhb", "lan2", 5, &v), 0);
    EXPECT_EQ(v, SHMNM_SVSTAT_OFFLINE);
    ASSERT_EQ(shmnm_getrscsvstat("lanhb", "lan1", 2, &v), 0);
    EXPECT_EQ(v, SHMNM_SVSTAT_UNKNOWN); // the other path kept its own state
    ASSERT_EQ(shmnm_getrscsvstat("cnthb", "cnt1", 2, &v), 0);
    EXPECT_EQ(v, SHMNM_SVSTAT_UNUSED);
    ASSERT_EQ(plat_getrscstat("lanhb", "lan2", &v), 0);
    EXPECT_EQ(v, SHMNM_RSCSTAT_CAUTION);
}

TEST_F(Shm, FreshMemoryHoldsTheDefaults)
{
    attach_all();
    int32_t v = 0;
    ASSERT_EQ(shmnm_gethdstat("gamma", &v), 0);
    EXPECT_EQ(v, SHMNM_HDSTAT_OK);
    ASSERT_EQ(shmnm_getwaitstat(&v), 0);
    EXPECT_EQ(v, 0);
    ASSERT_EQ(shmcm_getratio(&v, nullptr), 0);
    EXPECT_EQ(v, 1);
    char area[SHMCM_ACTINFO_SIZE];
    memset(area, 'q', sizeof area);
    ASSERT_EQ(shmcm_getaction(&v, area, nullptr), 0);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(area[0], 'q'); // the caller's area is not written
    char text[SHMCM_TEXT_SIZE];
    ASSERT_EQ(shmcm_getversion(text), 0);
    EXPECT_STREQ(text, CM_VERSION);
    ASSERT_EQ(shmcm_getedition(text), 0);
    EXPECT_STREQ(text, CM_EDITION);
    ASSERT_EQ(shmnm_setnonvolstat(SHMNM_NONVOL_NOTREADY), 0);
    ASSERT_EQ(plat_getnonvol(&v), 0);
    EXPECT_EQ(v, SHMNM_NONVOL_NOTREADY);
}

TEST_F(Shm, ResetLeavesOldMappingsAloneAndNextAttachSeesFreshState)
{
    attach_all();
    ASSERT_EQ(shmnm_setrscsvstat("lanhb", "lan1", 0, SHMNM_SVSTAT_ONLINE), 0);
    cl.nodes.push_back({"delta", 9});
    create();
    int32_t v = 0;
    ASSERT_EQ(shmnm_getrscsvstat("lanhb", "lan1", 0, &v), 0);
    EXPECT_EQ(v, SHMNM_SVSTAT_ONLINE);
    EXPECT_NE(shmnm_getnodepri("delta", &v), 0);
    ASSERT_EQ(shmnm_attach(), 0);
    ASSERT_EQ(shmnm_getrscsvstat("lanhb", "lan1", 0, &v), 0);
    EXPECT_EQ(v, SHMNM_SVSTAT_UNKNOWN);
    ASSERT_EQ(shmnm_getnodepri("delta", &v), 0);
    EXPECT_EQ(v, 9);
    struct stat st {};
    ASSERT_EQ(stat(at("run/shmnm").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(Shm, ConcurrentPublishersAndReaders)
{
    attach_all();
    constexpr int rounds = 5000;
    const int32_t ids[] = {5, 2, 0};
    std::atomic<bool> bad{false};
    uint32_t before = plat_statchange_count();
    std::vector<std::thread> th;
    // One publisher per node, as the daemon's threads publish per entry,
    // and readers that must only ever see whole, valid codes.
    for (int32_t id : ids)
        th.emplace_back([id] {
            for (int i = 0; i < rounds; i++) {
                int32_t s = (i % 2) != 0 ? SHMNM_SVSTAT_ONLINE : SHMNM_SVSTAT_OFFLINE;
                shmnm_setrscsvstat("lanhb", "lan1", id, s);
                shmnm_setrscstat("lanhb", "lan1", (i % 2) != 0 ? SHMNM_RSCSTAT_NORMAL : SHMNM_RSCSTAT_ERROR);
                sem_set_statchange();
            }
            shmnm_setrscsvstat("lanhb", "lan1", id, 100 + id);
        });
    for (int r = 0; r < 2; r++)
        th.emplace_back([&] {
            for (int i = 0; i < rounds; i++) {
                int32_t v = 0;
                for (int32_t id : ids) {
                    if (shmnm_getrscsvstat("lanhb", "lan1", id, &v) != 0 ||
                        !(v == SHMNM_SVSTAT_ONLINE || v == SHMNM_SVSTAT_OFFLINE || v == SHMNM_SVSTAT_UNKNOWN ||
                          v == 100 + id))
                        bad = true;
                }
            }
        });
    for (std::thread &t : th)
        t.join();
    EXPECT_FALSE(bad);
    for (int32_t id : ids) {
        int32_t v = 0;
        ASSERT_EQ(shmnm_getrscsvstat("lanhb", "lan1", id, &v), 0);
        EXPECT_EQ(v, 100 + id);
    }
    EXPECT_EQ(plat_statchange_count() - before, 3u * rounds);
}

TEST_F(Shm, DownNotificationKeepsAnsweringUntilCleared)
{
    attach_all();
    EXPECT_NE(sem_wait_downnotify(0), 0);
    ASSERT_EQ(plat_setdownnotify(1), 0);
    EXPECT_EQ(sem_wait_downnotify(0), 0);
    EXPECT_EQ(sem_wait_downnotify(0), 0); // asked once per kind at shutdown
    ASSERT_EQ(plat_setdownnotify(0), 0);
    EXPECT_NE(sem_wait_downnotify(0), 0);
}

TEST_F(Shm, PostWakesAWaiter)
{
    attach_all();
    uint32_t seen = plat_statchange_count();
    // A waiter with nothing posted times out on the same count.
    EXPECT_EQ(plat_statchange_wait(seen, 20), seen);
    std::atomic<uint32_t> woke{0};
    std::thread waiter([&] { woke = plat_statchange_wait(seen, 60000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_EQ(sem_set_statchange(), 0);
    waiter.join();
    EXPECT_EQ(woke.load(), seen + 1);
    // A post before the wait is not lost: the wait returns at once.
    ASSERT_EQ(sem_set_statchange(), 0);
    EXPECT_EQ(plat_statchange_wait(seen + 1, 60000), seen + 2);
}

} // namespace
