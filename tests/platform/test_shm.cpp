// Node-manager and cluster-manager shared memory, the semaphores, the lock
// and the heartbeat area, on real files under a temporary root. What another
// process sees is proven through zemctl; two nodes exchanging records
// through one area, by the system tests' controller paths.
#include <cstddef>
#include <vector>

#include "testutil.h"

namespace {

class Shm : public ptest::TempRoot {
protected:
    void SetUp() override
    {
        TempRoot::SetUp();
        create();
        ASSERT_EQ(shmnm_attach(), 0);
        ASSERT_EQ(shmcm_attach(), 0);
        ASSERT_EQ(sem_attach(), 0);
    }
    // Priorities out of order, so a node's id differs from its index.
    void create()
    {
        plat_cluster cl;
        cl.nodes = {{"alpha", 5}, {"beta", 2}, {"gamma", 0}};
        cl.rsc[0] = {{"lan1", 0}, {"lan2", 3}};
        cl.rsc[1] = {{"cnt1", 0}};
        std::string err;
        ASSERT_EQ(plat_shm_create(cl, err), 0) << err;
    }
    // Overwrites bytes of a file under run/ in place.
    void patch(const char *name, size_t off, const std::string &bytes)
    {
        int fd = open(at(std::string("run/") + name).c_str(), O_WRONLY);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(off)), static_cast<ssize_t>(bytes.size()));
        close(fd);
    }
};

std::string word(int32_t v) { return std::string(reinterpret_cast<const char *>(&v), sizeof v); }

TEST_F(Shm, AttachRefusesMissingTruncatedAndForeignFiles)
{
    const std::string nm = at("run/shmnm");
    for (off_t size : {off_t{100}, off_t{0}, off_t{sizeof(nm_layout) + 8}}) {
        create();
        ASSERT_EQ(truncate(nm.c_str(), size), 0);
        EXPECT_NE(shmnm_attach(), 0) << "size " << size;
    }
    const std::pair<size_t, std::string> patches[] = {
        {offsetof(nm_layout, head.magic), "ZZZZ"},
        {offsetof(nm_layout, head.version), word(SHM_VERSION + 1)},
        {offsetof(nm_layout, nnode), word(NM_MAXNODE + 1)},
        {offsetof(nm_layout, nrsc) + 4, word(-1)},
        {offsetof(nm_layout, node), std::string(NM_NODENAME, 'x')}, // an unterminated name
    };
    for (const auto &[off, bytes] : patches) {
        create();
        patch(NM_FILE, off, bytes);
        EXPECT_NE(shmnm_attach(), 0) << "offset " << off;
    }
    ASSERT_EQ(rename(nm.c_str(), at("elsewhere").c_str()), 0); // a planted link is not followed
    ASSERT_EQ(symlink(at("elsewhere").c_str(), nm.c_str()), 0);
    EXPECT_NE(shmnm_attach(), 0);
    unlink(nm.c_str());
    EXPECT_NE(shmnm_attach(), 0);
    // The good mapping from before was not disturbed by the failed attaches.
    int32_t v = 0;
    EXPECT_EQ(shmnm_getnodepri("beta", &v), 0);
    EXPECT_EQ(v, 2);
    create();
    patch(CM_FILE, offsetof(cm_layout, head.magic), word(0));
    EXPECT_NE(shmcm_attach(), 0);
    ASSERT_EQ(truncate(at("run/sem").c_str(), 4), 0);
    EXPECT_NE(sem_attach(), 0);
    shmnm_detach();
    EXPECT_NE(shmnm_getnodepri("beta", &v), 0);
}

// A second start is refused by the system tests; here the holder is killed
// outright and leaves no lock behind.
TEST_F(Shm, ADeadLockHolderNeverBlocks)
{
    shmnm_detach();
    shmcm_detach();
    sem_detach();
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t holder = fork();
    if (holder == 0) // takes run/lock as a daemon's attach does, says so and waits to be killed
        _exit(shmnm_attach() == 0 && write(ready[1], "y", 1) == 1 ? pause() : 1);
    close(ready[1]);
    char ok = 0;
    ASSERT_EQ(read(ready[0], &ok, 1), 1); // 0: the holder could not attach
    close(ready[0]);
    EXPECT_EQ(plat_lock_holder(), holder);
    EXPECT_EQ(shmnm_attach(), PLAT_EBUSY);
    // Handed down by a supervisor that does not hold the lock: not adopted.
    const int fd = open(at("run/lock").c_str(), O_RDWR | O_CLOEXEC);
    setenv(PLAT_LOCKFD_ENV, std::to_string(fd).c_str(), 1);
    EXPECT_EQ(shmnm_attach(), PLAT_EBUSY);
    unsetenv(PLAT_LOCKFD_ENV);
    close(fd);
    kill(holder, SIGKILL);
    EXPECT_EQ(ptest::finish(holder), 128 + SIGKILL);
    EXPECT_EQ(plat_lock_holder(), 0);
    ASSERT_EQ(shmnm_attach(), 0);
    nm_daemon d{};
    int64_t created = 0;
    ASSERT_EQ(plat_getdaemon(&d, &created), 0);
    EXPECT_EQ(d.pid, getpid());
}

// Each step publishes one state of node beta (id 2, index 1) on lan1 for a
// cause; whether that is a change and the down count after it.
TEST_F(Shm, HistoryKeepsLastChangeLastPublishCauseAndDowns)
{
    constexpr int32_t ON = SHMNM_SVSTAT_ONLINE, OFF = SHMNM_SVSTAT_OFFLINE, HB = HBEXT_CAUSE_HEARTBEAT;
    constexpr int32_t TO = HBEXT_CAUSE_TIMEOUT, START = HBEXT_CAUSE_START;
    const std::tuple<int32_t, int32_t, bool, int32_t> steps[] = {
        {OFF, START, true, 0}, // from UNKNOWN: a start, not a loss
        {ON, HB, true, 0},     {ON, HB, false, 0},   {OFF, TO, true, 1},  {OFF, TO, false, 1},
        {SHMNM_SVSTAT_UNUSED, START, true, 1},       {OFF, START, true, 1}, // a start reset is no down
        {ON, HB, true, 1},     {OFF, HBEXT_CAUSE_DOWN, true, 2},          {ON, HB, true, 2},
        {OFF, START, true, 2},
    };
    nm_hist before{}, after{};
    for (const auto &step : steps) {
        const auto [stat, cause, change, downs] = step;
        SCOPED_TRACE(&step - steps);
        ASSERT_EQ(plat_gethist("lanhb", "lan1", "beta", &before), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(2)); // clock in ms
        int64_t t0 = plat_now_ms();
        ASSERT_EQ(hbext_setcause("lanhb", "lan1", 2, cause), 0);
        ASSERT_EQ(shmnm_setrscsvstat("lanhb", "lan1", 2, stat), 0);
        ASSERT_EQ(plat_gethist("lanhb", "lan1", "beta", &after), 0);
        EXPECT_GE(after.published_ms, t0);
        EXPECT_EQ(after.changed_ms, change ? after.published_ms : before.changed_ms);
        EXPECT_EQ(after.downs, downs);
        EXPECT_EQ(after.cause, cause);
    }
    EXPECT_EQ(hbext_setcause("lanhb", "lan1", 2, HBEXT_CAUSE_COUNT), PLAT_EINVAL);
    // Other entries keep their history apart; unknown ones are refused.
    ASSERT_EQ(plat_gethist("lanhb", "lan2", "beta", &after), 0);
    EXPECT_EQ(after.downs + after.changed_ms + after.published_ms, 0);
    EXPECT_EQ(plat_gethist("lanhb", "lan1", "delta", &after), PLAT_ENOENT);
    EXPECT_NE(shmnm_setrscsvstat("lanhb", "lan1", 1, SHMNM_SVSTAT_ONLINE), 0); // no node with id 1
    EXPECT_NE(shmnm_setrscsvstat("cnthb", "lan1", 2, SHMNM_SVSTAT_ONLINE), 0); // paths are per kind
    EXPECT_NE(shmnm_setrscstat("bogus", "lan1", 0), 0);
    // A reset starts the history afresh.
    create();
    ASSERT_EQ(shmnm_attach(), 0);
    ASSERT_EQ(plat_gethist("lanhb", "lan1", "beta", &after), 0);
    EXPECT_EQ(after.downs, 0);
}

} // namespace
