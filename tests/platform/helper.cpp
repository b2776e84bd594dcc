// A second process for the platform tests.
//
// Without arguments it plays the daemon under "zemctl run": it tells its
// parent it is up (SIGUSR1), waits for SIGUSR2 and then SIGUSR1, asks the
// platform whether down notices are wanted, and ends as HELPER_MODE says:
// "crash" kills itself, "early" exits 12 before signalling; otherwise it
// exits with HELPER_EXIT (default 0). Each step is printed on stdout.
//
// "exchange TEXT SLOT EXPECT" writes a heartbeat record with stamp TEXT into
// this node's controller slot and waits until slot SLOT shows EXPECT.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "services/services.h"

namespace {

int fake_daemon()
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const char *mode = getenv("HELPER_MODE");
    const char *code = getenv("HELPER_EXIT");
    if (mode != nullptr && strcmp(mode, "early") == 0) {
        printf("early exit\n");
        return 12;
    }
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    sigaddset(&set, SIGUSR2);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    kill(getppid(), SIGUSR1);
    printf("up\n");
    int sig = 0;
    sigwait(&set, &sig);
    if (sig == SIGUSR2) {
        printf("usr2\n");
        sigdelset(&set, SIGUSR2);
        sigwait(&set, &sig);
    }
    printf("usr1\n");
    int32_t r = sem_attach();
    printf("sem_attach=%d down=%d down-again=%d\n", r, sem_wait_downnotify(0), sem_wait_downnotify(0));
    if (mode != nullptr && strcmp(mode, "crash") == 0)
        raise(SIGKILL);
    return code != nullptr ? atoi(code) : 0;
}

int exchange(const char *text, int slot, const char *expect)
{
    uint8_t cntno = 0;
    if (int32_t r = zemstorage_init(&cntno); r != 0) {
        printf("zemstorage_init failed(ret:%d)\n", r);
        return 2;
    }
    char rec[ZEMFW_HBINF_SIZE] = "cnthb";
    strncpy(rec + 8, text, ZEMFW_HBINF_SIZE - 9);
    if (int32_t r = zemfw_sethbinf(cntno, rec); r != 0) {
        printf("zemfw_sethbinf failed(ret:%d)\n", r);
        return 2;
    }
    static char area[ZEMFW_HBSLOTS * ZEMFW_HBINF_SIZE];
    for (int i = 0; i < 6000; i++) { // 60 s at most
        if (zemfw_gethbinf(area) == 0 && strcmp(area + slot * ZEMFW_HBINF_SIZE, "cnthb") == 0 &&
            strncmp(area + slot * ZEMFW_HBINF_SIZE + 8, expect, ZEMFW_HBINF_SIZE - 8) == 0) {
            printf("slot %d: %s\n", slot, expect);
            zemstorage_term();
            return 0;
        }
        struct timespec ts {0, 10000000};
        nanosleep(&ts, nullptr);
    }
    printf("slot %d never showed %s\n", slot, expect);
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 1)
        return fake_daemon();
    if (argc == 5 && strcmp(argv[1], "exchange") == 0)
        return exchange(argv[2], atoi(argv[3]), argv[4]);
    fprintf(stderr, "usage: %s [exchange TEXT SLOT EXPECT]\n", argv[0]);
    return 2;
}
