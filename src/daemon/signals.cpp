// SIGUSR2 (start sending), SIGUSR1 (stop) and the stop routine.
//
// SIGUSR1 and SIGUSR2 are blocked in every thread and taken by one small
// thread in sigwaitinfo, so the stop routine and its logging never run in
// asynchronous signal context: a handler that interrupted a thread inside the
// log library and then logged itself could deadlock on the library's lock.
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "cnthb/cnthb.h"
#include "daemon/daemon.h"
#include "frame/frame.h"
#include "lanhb/lanhb.h"

std::atomic<pthread_t> lanhb_recvpth{0}, lanhb_sendpth{0}, lanhb_watchpth{0};
std::atomic<pthread_t> cnthb_readpth{0}, cnthb_writepth{0}, cnthb_watchpth{0};

namespace {

std::atomic<bool> usr1_started{false};

struct hbcancel {
    std::atomic<pthread_t> *handle;
    const std::atomic<int32_t> *bswitch; // null: the thread always runs
    int module;
    const char *failmsg;
};

// The stop order: the LAN threads first, each watcher before its workers.
const hbcancel HB_CANCEL_ORDER[] = {
    {&lanhb_watchpth, &lanhb_bwatchth, HBLOG_LAN, "pthread_cancel(lanhb_watchpth) failed(ret:%d,errno%d)"},
    {&lanhb_recvpth, nullptr, HBLOG_LAN, "pthread_cancel(lanhb_recvpth) failed(ret:%d,errno%d)"},
    {&lanhb_sendpth, nullptr, HBLOG_LAN, "pthread_cancel(lanhb_sendpth) failed(ret:%d,errno%d)"},
    {&cnthb_watchpth, &cnthb_bwatchth, HBLOG_CNT, "pthread_cancel(cnthb_watchpth) failed(ret:%d,errno:%d)"},
    {&cnthb_readpth, nullptr, HBLOG_CNT, "pthread_cancel(cnthb_readpth) failed(ret:%d,errno:%d)"},
    {&cnthb_writepth, nullptr, HBLOG_CNT, "pthread_cancel(cnthb_writepth) failed(ret:%d,errno:%d)"},
};

void *hbsig_thread(void *)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    sigaddset(&set, SIGUSR2);
    for (;;) {
        siginfo_t info;
        const int sig = sigwaitinfo(&set, &info);
        if (sig == SIGUSR2) {
            usr2_recv(SIGUSR2);
        } else if (sig == SIGUSR1) {
            // SIGUSR1 is acted on once: from here on it has its default
            // action, and once it is unblocked in this thread a second one
            // (already pending or still to come) ends the process.
            signal(SIGUSR1, SIG_DFL);
            usr1_recv(SIGUSR1);
            sigset_t usr1;
            sigemptyset(&usr1);
            sigaddset(&usr1, SIGUSR1);
            pthread_sigmask(SIG_UNBLOCK, &usr1, nullptr);
            for (;;)
                pause();
        }
    }
    return nullptr;
}

} // namespace

void usr1_recv(int)
{
    // Runs once, whether SIGUSR1 or the LAN sender's self down comes first.
    if (usr1_started.exchange(true))
        return;
    for (const hbcancel &c : HB_CANCEL_ORDER) {
        if (c.bswitch != nullptr && c.bswitch->load() == 0)
            continue;
        const pthread_t th = c.handle->load();
        if (th == 0)
            continue;
        const int r = pthread_cancel(th);
        if (r != 0)
            hblog(c.module, HBLV_ERROR, __FILE__, __LINE__, __func__, c.failmsg, r, errno);
    }
    // The cancellations are pending by now, so every thread woken by the
    // stop event takes its own at once.
    hbstop_raise();
}

void usr2_recv(int)
{
    lanhb_bhbsend.store(1);
    cnthb_bhbwrite.store(1);
    signal(SIGUSR2, SIG_IGN);
}

void hbsig_block()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    sigaddset(&set, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int32_t hbsig_start()
{
    hbsig_block();

    pthread_attr_t attr;
    int r = pthread_attr_init(&attr);
    if (r != 0)
        return r;
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t th;
    r = pthread_create(&th, &attr, hbsig_thread, nullptr);
    pthread_attr_destroy(&attr);
    return r;
}
