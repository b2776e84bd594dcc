// The stop routine, SIGUSR1/SIGUSR2 through the signal thread, and the
// one-shot SIGUSR1. Each case runs in a child: the stop routine runs once per
// process and the signals go to the process itself.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "cnthb/cnthb.h"
#include "daemon/daemon.h"
#include "fake/fake_platform.h"
#include "frame/frame.h"
#include "lanhb/lanhb.h"

namespace {

// In the child: a failed check ends it with 1, naming the check.
#define CHILD_CHECK(cond) ((cond) ? (void)0 : (std::fprintf(stderr, "failed: %s\n", #cond), _exit(1)))

std::atomic<bool> released{false};

// Blocked at a wait until cancelled, or (released) ending by itself with 42.
pthread_t start()
{
    pthread_t th;
    auto heartbeat = [](void *) -> void * {
        while (!released.load())
            usleep(1000);
        return reinterpret_cast<void *>(42);
    };
    CHILD_CHECK(pthread_create(&th, nullptr, heartbeat, nullptr) == 0);
    return th;
}

void *join(pthread_t th)
{
    void *ret = nullptr;
    pthread_join(th, &ret);
    return ret;
}

struct Signals : ::testing::Test {
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(Signals, StopRoutineCancelsStartedThreadsOfEnabledKindsOnce)
{
    auto child = [] {
        loginit();
        lanhb_bwatchth = 0, cnthb_bwatchth = 1; // the LAN watcher is switched off: never cancelled
        const pthread_t lanwatch = start(), recv = start(), read = start(), write = start(), cntwatch = start();
        lanhb_watchpth = lanwatch, lanhb_recvpth = recv; // lanhb_sendpth stays 0: not started, skipped
        cnthb_readpth = read, cnthb_writepth = write, cnthb_watchpth = cntwatch;
        usr1_recv(SIGUSR1);
        CHILD_CHECK(bsigrecv.load() == 1);
        hbstop_wait(); // already done: returns at once
        for (pthread_t th : {recv, read, write, cntwatch})
            CHILD_CHECK(join(th) == PTHREAD_CANCELED);
        lanhb_recvpth = start();
        usr1_recv(SIGUSR1); // runs only once
        released = true;
        CHILD_CHECK(join(lanhb_recvpth) == reinterpret_cast<void *>(42));
        CHILD_CHECK(join(lanwatch) == reinterpret_cast<void *>(42));
        CHILD_CHECK(fake::logs().empty());
        _exit(0);
    };
    EXPECT_EXIT(child(), ::testing::ExitedWithCode(0), "");
}

void marker(int) {} // never runs (SIGUSR1 stays blocked); shows the reset

TEST_F(Signals, Sigusr2StartsSendingSigusr1StopsAndASecondOneEndsTheProcess)
{
    auto child = [] {
        signal(SIGUSR1, marker);
        CHILD_CHECK(hbsig_start() == 0);
        lanhb_recvpth = start(); // inherits the blocked mask
        kill(getpid(), SIGUSR2);
        for (int i = 0; i < 20000 && cnthb_bhbwrite.load() == 0; ++i)
            usleep(1000);
        CHILD_CHECK(lanhb_bhbsend.load() == 1 && cnthb_bhbwrite.load() == 1 && bsigrecv.load() == 0);
        kill(getpid(), SIGUSR1);
        hbstop_wait();
        CHILD_CHECK(bsigrecv.load() == 1);
        CHILD_CHECK(join(lanhb_recvpth) == PTHREAD_CANCELED);
        CHILD_CHECK(signal(SIGUSR2, SIG_IGN) == SIG_IGN && signal(SIGUSR1, SIG_DFL) == SIG_DFL);
        kill(getpid(), SIGUSR1);
        sleep(20);
        _exit(0); // still alive: the second SIGUSR1 was lost
    };
    EXPECT_EXIT(child(), ::testing::KilledBySignal(SIGUSR1), "");
}

} // namespace
