// SIGUSR1/SIGUSR2 through the signal thread, the stop routine and the
// one-shot SIGUSR1. In a child: the stop routine runs once per process and
// the signals go to the process itself.
#include <signal.h>
#include <unistd.h>

#include "cnthb/cnthb.h"
#include "daemon/daemon.h"
#include "lanhb/lanhb.h"
#include "unit/unit.h"

namespace {

std::atomic<bool> released{false};

// Waits until cancelled, or until released: then ends with 42 (a pending cancel wins).
pthread_t start()
{
    return unit::start([](void *) -> void * {
        while (pthread_testcancel(), !released.load())
            usleep(1000);
        return reinterpret_cast<void *>(42);
    });
}
using unit::exitvalue;

void marker(int) {} // never runs (SIGUSR1 stays blocked); shows the reset

TEST(Signals, Sigusr2StartsSendingSigusr1StopsOnceAndASecondOneEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto child = [] {
        loginit();
        signal(SIGUSR1, marker);
        CHILD_CHECK(hbsig_start() == 0); // the threads below inherit the blocked mask
        lanhb_bwatchth = 0, cnthb_bwatchth = 1; // the LAN watcher is switched off: never cancelled
        const pthread_t lanwatch = start(), recv = start(), read = start(), write = start(), cntwatch = start();
        lanhb_watchpth = lanwatch, lanhb_recvpth = recv; // lanhb_sendpth stays 0: not started, skipped
        cnthb_readpth = read, cnthb_writepth = write, cnthb_watchpth = cntwatch;
        kill(getpid(), SIGUSR2);
        CHILD_CHECK(unit::waitfor([] { return cnthb_bhbwrite.load() == 1; }));
        CHILD_CHECK(lanhb_bhbsend.load() == 1 && bsigrecv.load() == 0);
        kill(getpid(), SIGUSR1);
        hbstop_wait();
        CHILD_CHECK(bsigrecv.load() == 1);
        for (pthread_t th : {recv, read, write, cntwatch})
            CHILD_CHECK(exitvalue(th) == PTHREAD_CANCELED);
        lanhb_recvpth = start();
        usr1_recv(SIGUSR1); // the stop routine runs only once
        released = true;
        for (pthread_t th : {lanhb_recvpth.load(), lanwatch})
            CHILD_CHECK(exitvalue(th) == reinterpret_cast<void *>(42));
        CHILD_CHECK(fake::logs().empty());
        CHILD_CHECK(signal(SIGUSR2, SIG_IGN) == SIG_IGN && signal(SIGUSR1, SIG_DFL) == SIG_DFL);
        kill(getpid(), SIGUSR1);
        sleep(20);
        _exit(0); // still alive: the second SIGUSR1 was lost
    };
    EXPECT_EXIT(child(), ::testing::KilledBySignal(SIGUSR1), "");
}

} // namespace
