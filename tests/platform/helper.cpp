// A second process for the platform tests.
//
// Without arguments it plays the daemon under "zemctl run" (its attach
// adopts the lock zemctl hands down): it tells its parent it is up (SIGUSR1), waits for SIGUSR2 and then SIGUSR1, asks the
// platform twice whether down notices are wanted, and ends as HELPER_MODE
// says: "crash" kills itself, "early" exits 12 before signalling; otherwise
// it exits with HELPER_EXIT (default 0). Each step is printed on stdout.
//
// "exchange TEXT SLOT EXPECT" writes a heartbeat record with stamp TEXT into
// this node's controller slot and waits until slot SLOT shows EXPECT.
//
// "wait SEEN" waits without a time limit for a state change post after the
// count SEEN and prints the count it woke on.
//
// "hold" takes run/lock as a daemon's attach does, says so and sleeps until
// killed. With arguments it is a tool and attaches without the lock.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "plat.h"

namespace {

int fake_daemon(const char *mode)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (strcmp(mode, "early") == 0) {
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
    for (sigwait(&set, &sig); sig == SIGUSR2; sigwait(&set, &sig)) {
        printf("usr2\n");
        sigdelset(&set, SIGUSR2);
    }
    printf("usr1\n");
    int32_t r = sem_attach();
    printf("sem_attach=%d down=%d down-again=%d\n", r, sem_wait_downnotify(0), sem_wait_downnotify(0));
    if (strcmp(mode, "crash") == 0)
        raise(SIGKILL);
    return getenv("HELPER_EXIT") != nullptr ? atoi(getenv("HELPER_EXIT")) : 0;
}

int exchange(const char *text, int slot, const char *expect)
{
    uint8_t cntno = 0;
    char rec[ZEMFW_HBINF_SIZE] = "cnthb";
    strncpy(rec + 8, text, ZEMFW_HBINF_SIZE - 9);
    if (zemstorage_init(&cntno) != 0 || zemfw_sethbinf(cntno, rec) != 0)
        return 2;
    static char area[ZEMFW_HBSLOTS * ZEMFW_HBINF_SIZE];
    const char *got = area + slot * ZEMFW_HBINF_SIZE;
    for (int i = 0; i < 6000; i++, usleep(10000)) { // 60 s at most
        if (zemfw_gethbinf(area) == 0 && strcmp(got, "cnthb") == 0 &&
            strncmp(got + 8, expect, ZEMFW_HBINF_SIZE - 8) == 0) {
            printf("slot %d: %s\n", slot, expect);
            return zemstorage_term() == 0 ? 0 : 3;
        }
    }
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 1)
        return fake_daemon(getenv("HELPER_MODE") != nullptr ? getenv("HELPER_MODE") : "");
    if (argc == 2 && strcmp(argv[1], "hold") == 0) {
        int32_t r = shmnm_attach();
        printf("hold=%d\n", r);
        fflush(stdout);
        if (r == 0)
            pause();
        return r;
    }
    plat_set_tool();
    if (argc == 3 && strcmp(argv[1], "wait") == 0 && sem_attach() == 0) {
        printf("woke on %u\n", plat_statchange_wait(static_cast<uint32_t>(atol(argv[2])), -1));
        return 0;
    }
    if (argc == 5 && strcmp(argv[1], "exchange") == 0)
        return exchange(argv[2], atoi(argv[3]), argv[4]);
    fprintf(stderr, "usage: %s [exchange TEXT SLOT EXPECT | wait SEEN | hold]\n", argv[0]);
    return 2;
}
