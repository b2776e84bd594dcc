// A second process for the platform tests.
//
// Without arguments it plays the daemon under "zemctl run" (its attach
// adopts the lock zemctl hands down): it tells its parent it is up (SIGUSR1),
// waits for SIGUSR2 and then SIGUSR1, asks the platform twice whether down
// notices are wanted, and ends as HELPER_MODE says: "crash" kills itself,
// "early" exits 12 before signalling; otherwise it exits with HELPER_EXIT
// (default 0). Each step is printed on stdout.
//
// "hold" takes run/lock as a daemon's attach does, says so and sleeps until
// killed.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "plat.h"

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc == 2 && strcmp(argv[1], "hold") == 0) {
        int32_t r = shmnm_attach();
        printf("hold=%d\n", r);
        if (r == 0)
            pause();
        return r;
    }
    const char *mode = getenv("HELPER_MODE") != nullptr ? getenv("HELPER_MODE") : "";
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
