// The daemon's main line: start-up, the heartbeat threads, the down notices
// at an orderly stop, and teardown. It returns the process's exit status,
// one of services/hbexit.h's.
#include <signal.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>

#include "cnthb/cnthb.h"
#include "daemon/daemon.h"
#include "frame/frame.h"
#include "lanhb/key.h"
#include "lanhb/lanhb.h"
#include "services/hbexit.h"
#include "services/services.h"

namespace {

// A thread main starts, by the name its messages carry.
struct hbthread {
    const char *name;
    void *(*entry)(void *);
    int module;
    bool textret; // LAN threads end with a decimal text, controller threads with an integer
};

constexpr hbthread TH_LAN_RECV{"recv", lanhb_hbrecv, HBLOG_LAN, true};
constexpr hbthread TH_LAN_SEND{"send", lanhb_hbsend, HBLOG_LAN, true};
constexpr hbthread TH_LAN_WATCH{"watch", lanhb_hbwatch, HBLOG_LAN, true};
constexpr hbthread TH_LAN_DOWN{"lanhb_dpsend", lanhb_dpsend, HBLOG_LAN, true};
constexpr hbthread TH_CNT_READ{"read", cnthb_hbread, HBLOG_CNT, false};
constexpr hbthread TH_CNT_WRITE{"write", cnthb_hbwrite, HBLOG_CNT, false};
constexpr hbthread TH_CNT_WATCH{"watch", cnthb_hbwatch, HBLOG_CNT, false};
constexpr hbthread TH_CNT_DOWN{"cnthb_dpwrite", cnthb_dpwrite, HBLOG_CNT, false};

constexpr int HB_RECV_WAIT_TRIES = 3;

// Every signal below the real-time range is ignored except these, which keep
// their default action. SIGUSR1 and SIGUSR2 also keep it: they stay blocked
// and are taken by the signal thread, and an ignored signal would be thrown
// away before it could be taken.
constexpr std::array<int, 10> HB_SIG_DEFAULT = {SIGILL,  SIGABRT, SIGFPE,  SIGKILL, SIGSEGV,
                                                SIGTERM, SIGCHLD, SIGSTOP, SIGUSR1, SIGUSR2};

void hbsig_dispositions()
{
    // SIGRTMIN is asked afresh each round. glibc keeps its own internal
    // signals just below it and refuses to change them, as the system
    // refuses SIGKILL and SIGSTOP; those results are not looked at.
    for (int sig = 1; sig < SIGRTMIN; ++sig) {
        bool dfl = false;
        for (int d : HB_SIG_DEFAULT)
            dfl = dfl || d == sig;
        (void)signal(sig, dfl ? SIG_DFL : SIG_IGN);
    }
}

// Starts one thread with the configured stack size; returns its handle, or 0
// when it could not be started.
pthread_t hbthread_start(const hbthread &t, void *table)
{
    pthread_attr_t attr;
    int r = pthread_attr_init(&attr);
    if (r != 0) {
        HBLOG(t.module, HBLV_ERROR, "pthread_attr_init(%s) failed(ret:%d,errno:%d)", t.name, r, errno);
        return 0;
    }
    setstacksz(&attr);
    pthread_t th = 0;
    r = pthread_create(&th, &attr, t.entry, table);
    if (r != 0) {
        HBLOG(t.module, HBLV_ERROR, "pthread_create(%s) failed(ret:%d,errno:%d)", t.name, r, errno);
        th = 0;
    }
    pthread_attr_destroy(&attr);
    return th;
}

// Joins one thread and reports how it ended. A thread that was never started
// is reported as a failed join without waiting on the zero handle.
void hbthread_join(const hbthread &t, pthread_t th)
{
    void *ret = nullptr;
    const int r = th == 0 ? ESRCH : pthread_join(th, &ret);
    if (r != 0)
        HBLOG(t.module, HBLV_ERROR, "pthread_join(%s) failed(ret:%d,errno:%d)", t.name, r, errno);
    else if (ret == PTHREAD_CANCELED)
        HBLOG(t.module, HBLV_INFO, "pthread_join(%s) success(ret:%d,canceled)", t.name, r);
    else if (t.textret)
        HBLOG(t.module, HBLV_INFO, "pthread_join(%s) success(ret:%d,thret:%s)", t.name, r, static_cast<const char *>(ret));
    else
        HBLOG(t.module, HBLV_INFO, "pthread_join(%s) success(ret:%d,thret:%d)", t.name, r,
              static_cast<int>(reinterpret_cast<intptr_t>(ret)));
}

// Waits up to three seconds for the LAN receiver to report its socket bound;
// main goes on after that either way.
void hbwait_recvready()
{
    int r = pthread_mutex_lock(&lanhb_rmutex);
    if (r != 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "pthread_mutex_lock() failed(ret:%d,errno:%d)", r, errno);
        return;
    }
    for (int i = 0; i < HB_RECV_WAIT_TRIES; ++i) {
        int w = 0;
        if (lanhb_rready == 0) {
            struct timeval now;
            gettimeofday(&now, nullptr);
            const struct timespec deadline = {now.tv_sec + 1, now.tv_usec * 1000};
            w = pthread_cond_timedwait(&lanhb_rcond, &lanhb_rmutex, &deadline);
        }
        if (w == 0 || lanhb_rready != 0) {
            HBLOG(HBLOG_LAN, HBLV_ERROR, "recv thread initialized");
            break;
        }
        HBLOG(HBLOG_LAN, HBLV_ERROR, "waiting recv thread initialize");
    }
    r = pthread_mutex_unlock(&lanhb_rmutex);
    if (r != 0)
        HBLOG(HBLOG_LAN, HBLV_ERROR, "pthread_mutex_unlock() failed(ret:%d,errno:%d)", r, errno);
}

void hbfree_tables(lanhb_list *&lanlist, cnthb_list *&cntlist)
{
    if (lanlist != nullptr) {
        lanhb_freelist(lanlist);
        lanlist = nullptr;
    }
    if (cntlist != nullptr) {
        cnthb_freelist(cntlist);
        cntlist = nullptr;
    }
}

int hbexit_load(lanhb_list *&lanlist, cnthb_list *&cntlist)
{
    HBLOG(HBLOG_BOTH, HBLV_INFO, "lanhb/cnthb shutting down");
    logterm();
    zemstorage_term();
    detachipc();
    xmllib_unload_config();
    xmllib_term();
    hbfree_tables(lanlist, cntlist); // the LAN table when only the controller table failed
    if (bmlock != 0)
        munlockall();
    return HBEXIT_LOAD;
}

void hbstart_threads(lanhb_list *lanlist, cnthb_list *cntlist)
{
    lanhb_recvpth.store(hbthread_start(TH_LAN_RECV, lanlist));
    hbwait_recvready();
    lanhb_sendpth.store(hbthread_start(TH_LAN_SEND, lanlist));
    HBLOG(HBLOG_LAN, HBLV_ERROR, "lanhb_bwatchth: %d", lanhb_bwatchth.load());
    if (lanhb_bwatchth.load() != 0)
        lanhb_watchpth.store(hbthread_start(TH_LAN_WATCH, lanlist));
    cnthb_readpth.store(hbthread_start(TH_CNT_READ, cntlist));
    cnthb_writepth.store(hbthread_start(TH_CNT_WRITE, cntlist));
    HBLOG(HBLOG_CNT, HBLV_DETAIL, "cnthb_bwatchth: %d", cnthb_bwatchth.load());
    if (cnthb_bwatchth.load() != 0)
        cnthb_watchpth.store(hbthread_start(TH_CNT_WATCH, cntlist));
}

void hbstop_lan(lanhb_list *lanlist)
{
    if (lanhb_bwatchth.load() != 0)
        hbthread_join(TH_LAN_WATCH, lanhb_watchpth.load());
    hbthread_join(TH_LAN_SEND, lanhb_sendpth.load());
    hbthread_join(TH_LAN_RECV, lanhb_recvpth.load());

    if (sem_wait_downnotify(0) != 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "send downpacket : NO");
        return;
    }
    HBLOG(HBLOG_LAN, HBLV_ERROR, "send downpacket : YES");
    const int32_t r = lanhb_loadexit(lanlist);
    if (r != 0)
        HBLOG(HBLOG_LAN, HBLV_ERROR, "IGNORE: lanhb_loadexit(0x%08lx) failed(ret:%d)",
              static_cast<unsigned long>(reinterpret_cast<uintptr_t>(lanlist)), r);
    hbthread_join(TH_LAN_DOWN, hbthread_start(TH_LAN_DOWN, lanlist));
}

void hbstop_cnt(cnthb_list *cntlist)
{
    if (cnthb_bwatchth.load() != 0)
        hbthread_join(TH_CNT_WATCH, cnthb_watchpth.load());
    hbthread_join(TH_CNT_WRITE, cnthb_writepth.load());
    hbthread_join(TH_CNT_READ, cnthb_readpth.load());

    if (sem_wait_downnotify(0) != 0) {
        HBLOG(HBLOG_CNT, HBLV_ERROR, "write downpacket : NO");
        return;
    }
    HBLOG(HBLOG_CNT, HBLV_ERROR, "write downpacket : YES");
    const int32_t r = lanhb_loadexit(cntlist);
    if (r != 0)
        HBLOG(HBLOG_CNT, HBLV_WARN, "IGNORE: lanhb_loadexit(0x%08lx) failed(ret:%d)",
              static_cast<unsigned long>(reinterpret_cast<uintptr_t>(cntlist)), r);
    hbthread_join(TH_CNT_DOWN, hbthread_start(TH_CNT_DOWN, cntlist));
}

} // namespace

int32_t attachipc()
{
    int32_t r = sem_attach();
    if (r != 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "sem_attach() failed(ret:%d)", r);
        return HBRET_SEM;
    }
    r = shmcm_attach();
    if (r != 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "shmcm_attach() failed(ret:%d)", r);
        sem_detach();
        return HBRET_SHMCM;
    }
    r = shmnm_attach();
    if (r != 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "shmnm_attach() failed(ret:%d)", r);
        shmcm_detach();
        sem_detach();
        return HBRET_SHMNM;
    }
    return 0;
}

int32_t detachipc()
{
    shmnm_detach();
    shmcm_detach();
    sem_detach();
    return 0;
}

int zemlanhb_main()
{
    // The parent the LAN sender watches: once getppid() says otherwise, the
    // daemon has been orphaned, whoever adopted it.
    lanhb_parent = getppid();
    // Phase "bare": dispositions, and SIGUSR1/SIGUSR2 blocked before any
    // thread exists so that every thread inherits the mask.
    hbsig_dispositions();
    hbsig_block();

    if (xmllib_init(HB_KIND_LANHB) != 0)
        return HBEXIT_XMLINIT;
    if (xmllib_load_config() != 0) {
        xmllib_term();
        return HBEXIT_CONFIG;
    }

    loginit();
    HBLOG(HBLOG_BOTH, HBLV_INFO, "lanhb/cnthb starting");

    int32_t r = zemstorage_init(&cnthb_mycntno);
    if (r != 0) {
        HBLOG(HBLOG_BOTH, HBLV_ERROR, "zemstorage_init() failed(ret:%d)", r);
        HBLOG(HBLOG_BOTH, HBLV_INFO, "lanhb/cnthb shutting down");
        logterm();
        xmllib_unload_config();
        xmllib_term();
        return HBEXIT_ATTACH;
    }
    (void)kill(getppid(), SIGUSR1); // tells the parent that the daemon is up

    const long tck = sysconf(_SC_CLK_TCK);
    if (tck <= 0) {
        tckconf = 100;
        HBLOG(HBLOG_BOTH, HBLV_ERROR, "sysconf(_SC_CLK_TCK) failed(errno:%d) -> use %d", errno, 100);
    } else {
        tckconf = tck;
    }
    HBLOG(HBLOG_BOTH, HBLV_DETAIL, "clock:%d per sec", static_cast<int>(tckconf));

    int32_t watch = lanhb_bwatchth.load();
    r = setsched(&watch);
    lanhb_bwatchth.store(watch);
    if (r != 0)
        HBLOG(HBLOG_BOTH, HBLV_ERROR, "setsched() failed(ret:%d)", r);
    // Each thread keeps its own nice value: the signal thread starts once
    // setsched has set main's, like every other thread. A signal that came
    // before has waited, pending.
    r = hbsig_start();
    if (r != 0) {
        HBLOG(HBLOG_BOTH, HBLV_ERROR, "pthread_create(signal) failed(ret:%d,errno:%d)", r, errno);
        // Without the signal thread, unblocked SIGUSR1 at least still stops
        // the process by its default action.
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGUSR1);
        sigaddset(&set, SIGUSR2);
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    }
    if (bmlock != 0 && mlockall(MCL_CURRENT | MCL_FUTURE) != 0) {
        HBLOG(HBLOG_BOTH, HBLV_WARN, "mlockall() failed(errno:%d)", errno);
        bmlock = 0;
    }

    r = attachipc();
    if (r != 0) {
        HBLOG(HBLOG_BOTH, HBLV_ERROR, "attachipc() failed(ret:%d)", r);
        HBLOG(HBLOG_BOTH, HBLV_INFO, "lanhb shutting down");
        logterm();
        xmllib_unload_config();
        xmllib_term();
        if (bmlock != 0)
            munlockall();
        return HBEXIT_ATTACH; // the storage library is left as it is on this path
    }

    int32_t waitstat = 0;
    r = shmnm_getwaitstat(&waitstat);
    if (r != 0) {
        HBLOG(HBLOG_BOTH, HBLV_ERROR, "shmnm_getwaitstat() failed(ret:%d)", r);
        waitstat = SHMNM_WAITSTAT_RESUME;
    }
    if (waitstat == SHMNM_WAITSTAT_RESUME)
        brestart = 1;

    lanhb_list *lanlist = nullptr;
    cnthb_list *cntlist = nullptr;
    r = lanhb_loadinfo(&lanlist);
    if (r != 0) {
        HBLOG(HBLOG_BOTH, HBLV_ERROR, "lanhb_loadinfo() failed(ret:%d)", r);
        return hbexit_load(lanlist, cntlist);
    }
    r = lanhb_keyload(lanlist);
    if (r != 0) {
        HBLOG(HBLOG_BOTH, HBLV_ERROR, "lanhb_keyload() failed(ret:%d)", r);
        hbexit_load(lanlist, cntlist);
        return HBEXIT_KEY;
    }
    r = cnthb_loadinfo(&cntlist);
    if (r != 0) {
        HBLOG(HBLOG_BOTH, HBLV_ERROR, "cnthb_loadinfo() failed(ret:%d)", r);
        return hbexit_load(lanlist, cntlist);
    }
    r = xmllib_unload_config();
    if (r != 0)
        HBLOG(HBLOG_BOTH, HBLV_ERROR, "xmllib_unload_config() failed(ret:%d)", r);

    // Running until SIGUSR1 (or the LAN sender's self down) has run the stop
    // routine; only then are the threads joined.
    hbstop_request = usr1_recv;
    hbstart_threads(lanlist, cntlist);
    hbstop_wait();
    hbstop_lan(lanlist);
    hbstop_cnt(cntlist);

    detachipc();
    xmllib_term();
    hbfree_tables(lanlist, cntlist);
    if (bmlock != 0)
        munlockall();
    zemstorage_term();
    HBLOG(HBLOG_BOTH, HBLV_INFO, "lanhb shutting down");
    logterm();
    return HBEXIT_OK;
}
